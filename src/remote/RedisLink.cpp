// Connections to one Redis server, through hiredis, with time limits and back-off.
#include "remote/RedisLink.h"

#include <hiredis/hiredis.h>
#include <sys/time.h>

#include <cerrno>
#include <charconv>
#include <chrono>

#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "mc/host/Murmur3.h"

namespace mc_remote {

namespace {
constexpr size_t kMaxIdleConnections = 4;

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

timeval Timeval(int ms) {
    timeval tv{};
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    return tv;
}

bool ParseInt(std::string_view text, int lo, int hi, int* out) {
    int v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size() || v < lo || v > hi) return false;
    *out = v;
    return true;
}
}  // namespace

std::string RedisUrl::Redacted() const {
    return host + ":" + std::to_string(port) + "/" + std::to_string(db);
}

std::optional<RedisUrl> ParseRedisUrl(std::string_view url, std::string* why) {
    auto fail = [why](const char* reason) -> std::optional<RedisUrl> {
        if (why) *why = reason;
        return std::nullopt;
    };
    constexpr std::string_view kScheme = "redis://";
    if (url.substr(0, kScheme.size()) != kScheme) return fail("expected redis://host:port");
    std::string_view rest = url.substr(kScheme.size());
    RedisUrl out;
    if (const size_t at = rest.rfind('@'); at != std::string_view::npos) {
        const std::string_view creds = rest.substr(0, at);
        rest = rest.substr(at + 1);
        const size_t colon = creds.find(':');
        if (colon == std::string_view::npos) {
            out.password = std::string(creds);
        } else {
            out.user = std::string(creds.substr(0, colon));
            out.password = std::string(creds.substr(colon + 1));
        }
    }
    if (const size_t slash = rest.find('/'); slash != std::string_view::npos) {
        const std::string_view db = rest.substr(slash + 1);
        if (!db.empty() && !ParseInt(db, 0, 1 << 20, &out.db)) return fail("bad database number");
        rest = rest.substr(0, slash);
    }
    const size_t colon = rest.rfind(':');
    if (colon == std::string_view::npos) return fail("expected host:port");
    out.host = std::string(rest.substr(0, colon));
    if (out.host.empty()) return fail("empty host");
    if (!ParseInt(rest.substr(colon + 1), 1, 65535, &out.port)) return fail("bad port");
    return out;
}

void ReplyDeleter::operator()(redisReply* r) const {
    freeReplyObject(r);
}
void RedisLink::ContextDeleter::operator()(redisContext* c) const {
    redisFree(c);
}

RedisLink::RedisLink(RedisUrl url, const velacore::RemoteTierSettings& settings)
    : url_(std::move(url)),
      name_(url_.Redacted()),
      connectTimeoutMs_(std::max(1, settings.connectTimeoutMs)),
      operationTimeoutMs_(std::max(1, settings.operationTimeoutMs)),
      backoffMs_(std::max(1, settings.backoffMs)) {
    velacore::Murmur3MixerState h(0x5EED);
    h.UpdateHashState(name_.data(), name_.size());
    const auto bytes = h.GetHashBytes();
    placementId_ = 0;
    for (int i = 0; i < 8; ++i) placementId_ |= static_cast<uint64_t>(bytes[i]) << (8 * i);
}

RedisLink::~RedisLink() = default;

bool RedisLink::Available() const {
    return NowNs() >= downUntilNs_.load();
}

void RedisLink::Fail(std::string_view what, bool timedOut) {
    auto& c = MCp_GetCounters();
    if (timedOut) c.remoteTimeouts.fetch_add(1);
    const int64_t now = NowNs();
    int64_t until = downUntilNs_.load();
    const int64_t next = now + static_cast<int64_t>(backoffMs_) * 1'000'000;
    // Only the failure that starts a back-off logs and counts it.
    if (until > now || !downUntilNs_.compare_exchange_strong(until, next)) return;
    c.remoteBackoffs.fetch_add(1);
    ALOG_Log(10, "MC", "Remote",
             "remote tier " + name_ + ": " + std::string(what) + "; left alone for " +
                 std::to_string(backoffMs_) + " ms");
    std::lock_guard<std::mutex> lock(poolMutex_);
    idle_.clear();
}

RedisLink::Context RedisLink::Connect() {
    Context c(redisConnectWithTimeout(url_.host.c_str(), url_.port, Timeval(connectTimeoutMs_)));
    if (!c) {
        Fail("cannot allocate a connection", false);
        return nullptr;
    }
    if (c->err) {
        const bool timedOut =
            c->err == REDIS_ERR_IO && (errno == ETIMEDOUT || errno == EINPROGRESS);
        Fail(std::string("cannot connect: ") + c->errstr, timedOut);
        return nullptr;
    }
    redisSetTimeout(c.get(), Timeval(operationTimeoutMs_));
    std::vector<Command> setup;
    if (!url_.password.empty()) {
        Command& auth = setup.emplace_back();
        auth.Arg("AUTH");
        if (!url_.user.empty()) auth.Arg(url_.user);
        auth.Arg(url_.password);
    }
    const std::string db = std::to_string(url_.db);
    if (url_.db != 0) setup.emplace_back().Arg("SELECT").Arg(db);
    for (Command& cmd : setup) {
        Reply r(static_cast<redisReply*>(
            redisCommandArgv(c.get(), cmd.Count(), cmd.Argv(), cmd.Lengths())));
        if (!r || r->type == REDIS_REPLY_ERROR) {
            // The server's text (e.g. WRONGPASS) never contains the password we sent.
            Fail(std::string("refused the connection: ") +
                     (r ? std::string(r->str, r->len) : std::string(c->errstr)),
                 false);
            return nullptr;
        }
    }
    return c;
}

RedisLink::Context RedisLink::Take() {
    {
        std::lock_guard<std::mutex> lock(poolMutex_);
        if (!idle_.empty()) {
            Context c = std::move(idle_.back());
            idle_.pop_back();
            return c;
        }
    }
    return Connect();
}

void RedisLink::Give(Context c) {
    std::lock_guard<std::mutex> lock(poolMutex_);
    if (idle_.size() < kMaxIdleConnections) idle_.push_back(std::move(c));
}

std::optional<std::vector<Reply>> RedisLink::Run(std::vector<Command>& commands) {
    if (!Available()) return std::nullopt;
    Context c = Take();
    if (!c) return std::nullopt;
    for (Command& cmd : commands) {
        if (redisAppendCommandArgv(c.get(), cmd.Count(), cmd.Argv(), cmd.Lengths()) != REDIS_OK) {
            Fail("cannot queue a command", false);
            return std::nullopt;
        }
    }
    std::vector<Reply> replies;
    replies.reserve(commands.size());
    std::string refusal;
    for (size_t i = 0; i < commands.size(); ++i) {
        void* raw = nullptr;
        if (redisGetReply(c.get(), &raw) != REDIS_OK) {
            const bool timedOut =
                c->err == REDIS_ERR_IO && (errno == EAGAIN || errno == EWOULDBLOCK);
            Fail(timedOut ? std::string("timed out") : std::string("lost: ") + c->errstr, timedOut);
            return std::nullopt;
        }
        Reply r(static_cast<redisReply*>(raw));
        if (r->type == REDIS_REPLY_ERROR && refusal.empty())
            refusal.assign(r->str, std::min<size_t>(r->len, 200));
        replies.push_back(std::move(r));
    }
    if (!refusal.empty()) {
        Give(std::move(c));  // the connection is fine; the server refused
        Fail("refused: " + refusal, false);
        return std::nullopt;
    }
    Give(std::move(c));
    return replies;
}

}  // namespace mc_remote
