// RedisLink: one Redis server (a shard) of the remote tier: its address parsed from a URL, a small
// pool of connections with connect and operation time limits, and the back-off after a failure
// (down, slow, or refusing: wrong password, out of memory). While backed off the link answers
// nothing; it tries again by itself once the back-off has passed.
// Thread-safety: every method may be called from any thread; a pooled connection is used by one
// thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/HostServices.h"

struct redisContext;
struct redisReply;

namespace mc_remote {

struct RedisUrl {
    std::string host;
    int port = 6379;
    std::string user;
    std::string password;
    int db = 0;
    // host:port/db, never the credentials: the only form that goes to logs.
    std::string Redacted() const;
};

// Parses "redis://[user:password@]host:port[/db]"; nothing (and *why) when it is not one.
std::optional<RedisUrl> ParseRedisUrl(std::string_view url, std::string* why);

struct ReplyDeleter {
    void operator()(redisReply* r) const;
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

// One command's arguments; the bytes stay owned by the caller until Run returns.
class Command {
public:
    Command& Arg(std::string_view bytes) {
        argv_.push_back(bytes.data());
        len_.push_back(bytes.size());
        return *this;
    }
    int Count() const { return static_cast<int>(argv_.size()); }
    const char** Argv() { return argv_.data(); }
    const size_t* Lengths() const { return len_.data(); }

private:
    std::vector<const char*> argv_;
    std::vector<size_t> len_;
};

class RedisLink {
public:
    RedisLink(RedisUrl url, const velacore::RemoteTierSettings& settings);
    ~RedisLink();
    RedisLink(const RedisLink&) = delete;
    RedisLink& operator=(const RedisLink&) = delete;

    // Not in back-off.
    bool Available() const;
    // Sends the commands in one pipeline and returns their replies in order; nothing when the
    // server could not be reached in time or answered any of them with an error (the link then
    // backs off). The caller checks the types and sizes of what comes back.
    std::optional<std::vector<Reply>> Run(std::vector<Command>& commands);
    const std::string& Name() const { return name_; }
    // A stable number for placing keys on shards.
    uint64_t PlacementId() const { return placementId_; }

private:
    struct ContextDeleter {
        void operator()(redisContext* c) const;
    };
    using Context = std::unique_ptr<redisContext, ContextDeleter>;

    Context Take();
    void Give(Context c);
    Context Connect();
    void Fail(std::string_view what, bool timedOut);

    RedisUrl url_;
    std::string name_;
    uint64_t placementId_;
    int connectTimeoutMs_;
    int operationTimeoutMs_;
    int backoffMs_;
    std::atomic<int64_t> downUntilNs_{0};
    std::mutex poolMutex_;
    std::vector<Context> idle_;
};

}  // namespace mc_remote
