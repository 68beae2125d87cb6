// The remote tier: publication of items the write decision sends to disk (on its own thread and
// bounded queue) and look-up of a miss's GUID, candidate choice and fetch with full checks.
#include <hiredis/hiredis.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Murmur3.h"
#include "remote/Farm.h"
#include "remote/FarmRecord.h"
#include "remote/RedisLink.h"

using namespace mc_remote;

namespace {

std::function<void(std::string_view)> TestHook();

void At(std::string_view point) {
    if (auto hook = TestHook()) hook(point);
}

bool IsString(const redisReply* r) {
    return r && r->type == REDIS_REPLY_STRING;
}
std::string_view View(const redisReply* r) {
    return {r->str, r->len};
}

// Reads a body held in pieces (views into the fetched replies) in order.
class PiecesStream : public velacore::IByteStream {
public:
    explicit PiecesStream(const std::vector<std::string_view>& pieces) : pieces_(pieces) {}
    size_t ReadSome(void* buffer, size_t size) override {
        while (index_ < pieces_.size() && offset_ == pieces_[index_].size()) {
            ++index_;
            offset_ = 0;
        }
        if (index_ == pieces_.size()) return 0;
        const size_t n = std::min(size, pieces_[index_].size() - offset_);
        std::memcpy(buffer, pieces_[index_].data() + offset_, n);
        offset_ += n;
        return n;
    }

private:
    const std::vector<std::string_view>& pieces_;
    size_t index_ = 0;
    size_t offset_ = 0;
};

// One candidate of a GUID group: its record and the payload its factory built.
struct Candidate {
    FarmRecord rec;
    std::string name;
    IntrusivePtr<MC_StuffData> data;
};

class FarmTier {
public:
    FarmTier(const velacore::RemoteTierSettings& s, uint32_t appVersion,
             std::vector<std::unique_ptr<RedisLink>> shards)
        : settings_(s),
          appVersion_(appVersion),
          ns_(Namespace(appVersion)),
          shards_(std::move(shards)) {
        if (!settings_.readOnly) publisher_ = std::thread([this] { PublisherLoop(); });
    }
    ~FarmTier() {
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            stop_ = true;
        }
        queueCv_.notify_all();
        if (publisher_.joinable()) publisher_.join();
    }

    void Enqueue(const IntrusivePtr<MC_Stuff>& stuff) {
        if (settings_.readOnly) return;
        auto& c = MCp_GetCounters();
        if (!Owner(stuff->GetGuid()).Available()) {
            c.remotePublishDrops.fetch_add(1);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            if (stop_ || queue_.size() >= std::max<uint32_t>(1, settings_.publishQueueLength)) {
                c.remotePublishDrops.fetch_add(1);
                return;
            }
            queue_.push_back(stuff);
        }
        queueCv_.notify_one();
    }

    bool Fill(const IntrusivePtr<MC_Stuff>& pending) {
        const IntrusivePtr<MC_StuffData> request = pending->GetFindKeyData();
        if (!request || !request->GetSubclassMatchname()) return false;
        const velacore::Guid guid = pending->GetGuid();
        RedisLink& link = Owner(guid);
        std::vector<Candidate> candidates = ReadCandidates(link, guid);
        At("fetch:records-read");
        for (int pass = 0; pass < 2; ++pass) {
            for (Candidate& cand : candidates) {
                if (!cand.data) continue;
                const bool match = pass == 0 ? cand.data->IdenticalRequest(request)
                                             : cand.data->CanSatisfyRequest(request);
                if (!match) continue;
                if (FetchInto(link, cand, pending)) return true;
                cand.data = nullptr;  // tried
                if (!link.Available()) return false;
            }
        }
        return false;
    }

    bool WaitIdle(double seconds) {
        std::unique_lock<std::mutex> lock(queueMutex_);
        return queueCv_.wait_for(lock, std::chrono::duration<double>(seconds),
                                 [this] { return queue_.empty() && !busy_; });
    }

private:
    RedisLink& Owner(const velacore::Guid& guid) {
        // Rendezvous hashing: the shard with the highest score for this GUID owns its group.
        RedisLink* best = shards_.front().get();
        uint64_t bestScore = 0;
        for (const auto& s : shards_) {
            velacore::Murmur3MixerState h(0x4E5D);
            const uint64_t id = s->PlacementId();
            h.UpdateHashState(&id, sizeof id);
            h.UpdateHashState(guid.GetBytes().data(), 16);
            const auto b = h.GetHashBytes();
            uint64_t score = 0;
            for (int i = 0; i < 8; ++i) score |= static_cast<uint64_t>(b[i]) << (8 * i);
            if (score >= bestScore) {
                bestScore = score;
                best = s.get();
            }
        }
        return *best;
    }

    std::vector<Candidate> ReadCandidates(RedisLink& link, const velacore::Guid& guid) {
        std::vector<Candidate> out;
        const std::string key = IndexKey(ns_, guid);
        std::vector<Command> cmd(1);
        cmd[0].Arg("HGETALL").Arg(key);
        auto replies = link.Run(cmd);
        if (!replies) return out;
        const redisReply* r = (*replies)[0].get();
        if (r->type != REDIS_REPLY_ARRAY || r->elements % 2 != 0) return out;
        const size_t pairs = std::min(r->elements / 2, kMaxCandidates);
        std::vector<std::string> bad;
        for (size_t i = 0; i < pairs; ++i) {
            const redisReply* field = r->element[2 * i];
            const redisReply* value = r->element[2 * i + 1];
            if (!IsString(field) || field->len > kMaxNameBytes || !IsString(value)) continue;
            Candidate cand;
            cand.name.assign(View(field));
            std::optional<FarmRecord> rec = DecodeRecord(View(value));
            if (!rec || rec->id.guid != guid || rec->id.appVersion != appVersion_ ||
                ItemName(rec->id) != cand.name) {
                MCp_GetCounters().remoteChecksumRejects.fetch_add(1);
                bad.push_back(cand.name);
                continue;
            }
            cand.rec = std::move(*rec);
            std::vector<uint8_t> header = cand.rec.id.header;
            cand.data = MC_StuffData::CreateSubclass(cand.rec.id.matchname.c_str(), header);
            if (cand.data) out.push_back(std::move(cand));
        }
        for (const std::string& name : bad) Forget(link, key, name, nullptr);
        return out;
    }

    // Deletes a dead or damaged entry: its record, and its chunks when the record is known.
    void Forget(RedisLink& link, const std::string& indexKey, const std::string& name,
                const FarmRecord* rec) {
        std::vector<std::string> keys;
        std::vector<Command> cmds(1);
        cmds[0].Arg("HDEL").Arg(indexKey).Arg(name);
        if (rec) {
            for (uint32_t i = 0; i < rec->chunkCount; ++i) keys.push_back(ChunkKey(ns_, *rec, i));
            Command& del = cmds.emplace_back();
            del.Arg("DEL");
            for (const std::string& k : keys) del.Arg(k);
            if (keys.empty()) cmds.pop_back();
        }
        link.Run(cmds);
    }

    bool FetchInto(RedisLink& link, Candidate& cand, const IntrusivePtr<MC_Stuff>& pending) {
        const FarmRecord& rec = cand.rec;
        if (rec.bodyBytes > settings_.maxItemBytes) return false;
        std::vector<std::string> keys;
        std::vector<Command> cmd(1);
        cmd[0].Arg("MGET");
        for (uint32_t i = 0; i < rec.chunkCount; ++i) keys.push_back(ChunkKey(ns_, rec, i));
        for (const std::string& k : keys) cmd[0].Arg(k);
        std::vector<std::string_view> body;  // views into `replies`
        std::optional<std::vector<Reply>> replies;
        if (rec.chunkCount != 0) {
            replies = link.Run(cmd);
            if (!replies) return false;
            const redisReply* r = (*replies)[0].get();
            if (r->type != REDIS_REPLY_ARRAY || r->elements != rec.chunkCount) return false;
            for (uint32_t i = 0; i < rec.chunkCount; ++i) {
                const redisReply* e = r->element[i];
                std::optional<std::string_view> piece;
                if (IsString(e)) piece = CheckChunk(rec, i, View(e));
                if (!piece) {
                    // Evicted (nil) is a plain miss; anything else is damage. Either way the
                    // entry is dead.
                    if (e->type != REDIS_REPLY_NIL)
                        MCp_GetCounters().remoteChecksumRejects.fetch_add(1);
                    Forget(link, IndexKey(ns_, rec.id.guid), cand.name, &rec);
                    return false;
                }
                body.push_back(*piece);
            }
        }
        if (BodyHash(rec, body) != rec.bodyHash) {
            MCp_GetCounters().remoteChecksumRejects.fetch_add(1);
            Forget(link, IndexKey(ns_, rec.id.guid), cand.name, &rec);
            return false;
        }
        PiecesStream in(body);
        try {
            cand.data->Read(in, pending->GetLock());
        } catch (...) {
            return false;
        }
        if (!cand.data->IsInMemory()) return false;
        auto& c = MCp_GetCounters();
        c.remoteBytesIn.fetch_add(rec.bodyBytes);
        pending->SetCachedComputeTimeSavings(rec.savings);
        pending->SetStuffDataFromPendingRender(cand.data, rec.computeTime);
        c.remoteHits.fetch_add(1);
        return true;
    }

    void PublisherLoop() {
        for (;;) {
            IntrusivePtr<MC_Stuff> stuff;
            {
                std::unique_lock<std::mutex> lock(queueMutex_);
                queueCv_.wait(lock, [this] { return stop_ || !queue_.empty(); });
                if (stop_) return;
                stuff = std::move(queue_.front());
                queue_.pop_front();
                busy_ = true;
            }
            try {
                PublishOne(stuff);
            } catch (...) {
                MCp_GetCounters().remotePublishDrops.fetch_add(1);
            }
            stuff = nullptr;
            {
                std::lock_guard<std::mutex> lock(queueMutex_);
                busy_ = false;
            }
            queueCv_.notify_all();
        }
    }

    // The item's record and body, taken under a read-only check-out that keeps it resident.
    bool Snapshot(const IntrusivePtr<MC_Stuff>& stuff, FarmRecord& rec,
                  std::vector<uint8_t>& body) {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_MemoryOnly |
                                         MC_CheckoutFlag_NoDiskRead);
        if (!receipt.DidCheckout()) return false;
        receipt.SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
        IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
        if (!data || !data->IsInMemory() || !data->GetSubclassMatchname()) return false;
        rec.id.guid = stuff->GetGuid();
        rec.id.appVersion = appVersion_;
        rec.id.matchname = data->GetSubclassMatchname();
        data->GetHeader(rec.id.header);
        rec.computeTime = stuff->GetComputeTime();
        rec.savings = stuff->GetCachedComputeTimeSavings();
        velacore::OMemoryByteStream out;
        data->Write(out);
        body = out.TakeData();
        return true;
    }

    void PublishOne(const IntrusivePtr<MC_Stuff>& stuff) {
        auto& c = MCp_GetCounters();
        FarmRecord rec;
        std::vector<uint8_t> body;
        if (!Snapshot(stuff, rec, body)) return;
        if (body.size() > settings_.maxItemBytes || body.size() > kMaxBodyBytes ||
            rec.id.header.size() > kMaxNameBytes || rec.id.matchname.size() > kMaxNameBytes) {
            c.remotePublishDrops.fetch_add(1);
            return;
        }
        RedisLink& link = Owner(rec.id.guid);
        const std::string indexKey = IndexKey(ns_, rec.id.guid);
        const std::string name = ItemName(rec.id);
        std::vector<Command> exists(1);
        exists[0].Arg("HEXISTS").Arg(indexKey).Arg(name);
        auto known = link.Run(exists);
        if (!known) {
            c.remotePublishDrops.fetch_add(1);
            return;
        }
        if ((*known)[0]->type == REDIS_REPLY_INTEGER && (*known)[0]->integer == 1) return;

        rec.bodyBytes = body.size();
        rec.chunkCount = ChunkCount(rec.bodyBytes);
        rec.token = rng_();
        rec.bodyHash = BodyHash(rec, body.data(), body.size());
        // Chunks first, in one pipeline; the record that makes them visible only afterwards.
        std::vector<std::string> keys, values;
        for (uint32_t i = 0; i < rec.chunkCount; ++i) {
            keys.push_back(ChunkKey(ns_, rec, i));
            values.push_back(EncodeChunk(rec, i, body.data() + size_t{i} * kChunkBytes,
                                         ChunkSize(rec.bodyBytes, i)));
        }
        body = {};
        std::vector<Command> sets(rec.chunkCount);
        for (uint32_t i = 0; i < rec.chunkCount; ++i)
            sets[i].Arg("SET").Arg(keys[i]).Arg(values[i]);
        if (!sets.empty() && !link.Run(sets)) {
            c.remotePublishDrops.fetch_add(1);
            return;
        }
        At("publish:chunks-written");
        const std::vector<uint8_t> encoded = EncodeRecord(rec);
        std::vector<Command> index(1);
        index[0].Arg("HSET").Arg(indexKey).Arg(name).Arg(
            std::string_view(reinterpret_cast<const char*>(encoded.data()), encoded.size()));
        if (!link.Run(index)) {
            c.remotePublishDrops.fetch_add(1);
            return;
        }
        c.remoteBytesOut.fetch_add(rec.bodyBytes);
        c.remotePublished.fetch_add(1);
    }

    const velacore::RemoteTierSettings settings_;
    const uint32_t appVersion_;
    const std::string ns_;
    std::vector<std::unique_ptr<RedisLink>> shards_;
    std::mt19937_64 rng_{std::random_device{}()};  // publisher thread only
    std::mutex queueMutex_;
    std::condition_variable queueCv_;
    std::deque<IntrusivePtr<MC_Stuff>> queue_;
    bool stop_ = false;
    bool busy_ = false;  // the publisher is sending one
    std::thread publisher_;
};

std::mutex g_mutex;
std::shared_ptr<FarmTier> g_tier;
bool g_settingsRead = false;
std::function<void(std::string_view)> g_hook;
thread_local const MC_Stuff* t_lastFilled = nullptr;

std::function<void(std::string_view)> TestHook() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_hook;
}

std::shared_ptr<FarmTier> Start(uint32_t appVersion) {
    const velacore::RemoteTierSettings s = velacore::GetHostServices().GetRemoteTierSettings();
    if (s.urls.empty()) return nullptr;
    std::vector<std::unique_ptr<RedisLink>> shards;
    std::string names;
    for (const std::string& url : s.urls) {
        std::string why;
        std::optional<RedisUrl> parsed = ParseRedisUrl(url, &why);
        if (!parsed) {
            // The URL may hold a password: only the reason is logged.
            ALOG_Log(10, "MC", "Remote", "remote tier off: a server URL is unusable (" + why + ")");
            return nullptr;
        }
        shards.push_back(std::make_unique<RedisLink>(*parsed, s));
        names += (names.empty() ? "" : ", ") + shards.back()->Name();
    }
    ALOG_Log(10, "MC", "Remote",
             std::string("remote tier on (") + (s.readOnly ? "read-only" : "read-write") +
                 "): " + names);
    return std::make_shared<FarmTier>(s, appVersion, std::move(shards));
}

std::shared_ptr<FarmTier> Tier() {
    if (MCp_StopRequested()) return nullptr;
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    if (!bag) return nullptr;
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_settingsRead) {
        g_settingsRead = true;
        g_tier = Start(bag->GetAppVersion());
    }
    return g_tier;
}

}  // namespace

void MCr_Publish(const IntrusivePtr<MC_Stuff>& stuff) {
    if (!stuff) return;
    if (std::shared_ptr<FarmTier> tier = Tier()) tier->Enqueue(stuff);
}

bool MCr_FillPending(const IntrusivePtr<MC_Stuff>& pending, int flags) {
    t_lastFilled = nullptr;
    if (!pending || (flags & (MC_CheckoutFlag_MemoryOnly | MC_CheckoutFlag_NoDiskRead)))
        return false;
    // Only payloads that can be rebuilt by name are ever shared (not compute values, say).
    const IntrusivePtr<MC_StuffData> request = pending->GetFindKeyData();
    if (!request || !request->GetSubclassMatchname()) return false;
    std::shared_ptr<FarmTier> tier = Tier();
    if (!tier) return false;
    if (!tier->Fill(pending)) {
        MCp_GetCounters().remoteMisses.fetch_add(1);
        return false;
    }
    t_lastFilled = pending.get();
    return true;
}

bool MCr_FilledByThisThread(const MC_Stuff* stuff) {
    const bool filled = stuff && t_lastFilled == stuff;
    t_lastFilled = nullptr;
    return filled;
}

bool MCr_WaitForPublishing(double seconds) {
    std::shared_ptr<FarmTier> tier;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        tier = g_tier;
    }
    return !tier || tier->WaitIdle(seconds);
}

void MCr_Shutdown() {
    std::shared_ptr<FarmTier> tier;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        tier = std::move(g_tier);
        g_settingsRead = false;
    }
    tier.reset();  // joins the publisher outside the lock
}

void MCr_SetTestHook(std::function<void(std::string_view point)> hook) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_hook = std::move(hook);
}
