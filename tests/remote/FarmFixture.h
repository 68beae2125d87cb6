// FarmTest: a private redis-server on a free loopback port (no persistence) that a test can kill
// and restart, and the module started as one "machine" with the remote tier pointed at it;
// Rebirth() starts it again as another machine with an empty memory and disk. Tests skip when
// redis-server is not installed.
// Thread-safety: the fixture belongs to the test's main thread.
#pragma once

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "lifecycle/Counters.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "remote/Farm.h"
#include "remote/RedisLink.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

namespace farmtest {

using mctest::TestPayload;
using velacore::IntrusivePtr;

inline const char* RedisServerBinary() {
    for (const char* p : {"/usr/bin/redis-server", "/usr/local/bin/redis-server"})
        if (::access(p, X_OK) == 0) return p;
    return nullptr;
}

// One redis-server child process on a port the kernel just handed out.
class RedisServer {
public:
    explicit RedisServer(std::vector<std::string> extra = {}) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        ::close(fd);
        port_ = ntohs(a.sin_port);
        args_ = {RedisServerBinary(),
                 "--port",
                 std::to_string(port_),
                 "--dir",
                 dir_.Path().string(),
                 "--save",
                 "",
                 "--appendonly",
                 "no",
                 "--bind",
                 "127.0.0.1",
                 "--logfile",
                 "redis.log"};
        args_.insert(args_.end(), extra.begin(), extra.end());
        if (extra.size() == 2 && extra[0] == "--requirepass") password_ = extra[1];
    }
    ~RedisServer() { Kill(); }

    // Forks it and polls its readiness.
    bool Start() {
        if ((pid_ = ::fork()) == 0) {
            std::vector<char*> argv;
            for (std::string& s : args_) argv.push_back(s.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        for (int i = 0; i < 1000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            if (Do({"PING"})) return true;
        return false;
    }
    void Kill() {
        if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::string Url(const std::string& creds = {}) const {
        return "redis://" + (creds.empty() ? "" : creds + "@") +
               "127.0.0.1:" + std::to_string(port_);
    }
    // One command on a fresh connection (authenticated when the server wants a password); null
    // when the server is unreachable.
    mc_remote::Reply Do(const std::vector<std::string>& args) {
        std::unique_ptr<redisContext, decltype(&redisFree)> c(
            redisConnectWithTimeout("127.0.0.1", port_, timeval{2, 0}), &redisFree);
        if (!c || c->err) return nullptr;
        if (!password_.empty())
            freeReplyObject(redisCommand(c.get(), "AUTH %s", password_.c_str()));
        std::vector<const char*> argv;
        std::vector<size_t> len;
        for (const std::string& s : args) argv.push_back(s.data()), len.push_back(s.size());
        return mc_remote::Reply(static_cast<redisReply*>(
            redisCommandArgv(c.get(), static_cast<int>(argv.size()), argv.data(), len.data())));
    }
    int Port() const { return port_; }

private:
    mctest::TempDir dir_{"mc-redis"};
    int port_ = 0;
    std::vector<std::string> args_;
    std::string password_;
    pid_t pid_ = -1;
};

class FarmHost : public mctest::RecordingHostServices {
public:
    velacore::RemoteTierSettings GetRemoteTierSettings() override { return remote; }
    velacore::RemoteTierSettings remote;
};

class FarmTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RedisServerBinary()) GTEST_SKIP() << "redis-server is not installed";
        host_->remote.backoffMs = 200;
        host_->remote.operationTimeoutMs = 5000;
        scoped_ = std::make_unique<mctest::ScopedHostServices>(host_);
        mc_settings::ResetForTesting();
        for (auto* n :
             {&c_.remoteHits, &c_.remotePublished, &c_.remoteChecksumRejects, &c_.remoteBackoffs})
            n->store(0);
        Birth();
    }
    void TearDown() override {
        MCr_SetTestHook({});
        if (scoped_) Death();
        scoped_.reset();
    }
    void Birth() {
        folder_ = std::make_unique<mctest::TempDir>("mc-farm");
        MC_Birth(false, 0x2B, false);
        TestPayload::RegisterFactory();
        MC_GlobalBag()->SetDiskCacheInfo(folder_->AsDir(), 4096);
        MC_GlobalBag()->EnableDiskCache(true);
    }
    void Death() {
        MC_StopAllAsyncWork();
        MC_Death();
        folder_.reset();
    }
    // Another machine (empty memory and disk, same servers), using `urls` when given.
    void Rebirth(std::vector<std::string> urls = {}) {
        Death();
        if (!urls.empty()) host_->remote.urls = urls;
        Birth();
    }

    // Renders (key, variant) of `size` bytes here and waits until the disk writer and then the
    // tier have sent it on (or dropped it).
    bool RenderAndPublish(uint32_t key, uint32_t size) {
        const uint32_t before = c_.remotePublished + c_.remotePublishDrops;
        {
            MC_ScCheckout r;
            if (r.FindAndCheckout(mctest::MakeRequest(key), MC_CheckoutFlag_CreatePending) !=
                MC_CheckoutResult_CreatedNewPending)
                return false;
            auto* p = new TestPayload(key, size);
            p->SetDiskCacheable(true);
            p->SetCachePriority(MC_CachePriority_High);
            r.GetStuffPtr()->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(p), 0.5);
        }
        return MC_Bag::WaitForDiskWrites(20) && MCr_WaitForPublishing(20) &&
               c_.remotePublished + c_.remotePublishDrops > before;
    }
    // What a request finds: nothing on a miss (a pending item was created, and is abandoned),
    // else whether it is exactly what RenderAndPublish(key, size) made. `fromFarm`: whether the
    // remote tier filled it.
    std::optional<bool> Fetch(uint32_t key, uint32_t size, bool* fromFarm = nullptr) {
        MC_ScCheckout r;
        const MC_CheckoutResult res = r.FindAndCheckout(
            mctest::MakeRequest(key), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending);
        if (fromFarm) *fromFarm = MCr_FilledByThisThread(r.GetStuffPtr().get());
        if (res != MC_CheckoutResult_CheckedOut) return std::nullopt;
        auto* payload = dynamic_cast<TestPayload*>(r.GetStuffPtr()->GetDataPtr().get());
        auto bytes = payload ? payload->Bytes() : nullptr;
        return bytes && *bytes == *TestPayload(key, size).Bytes();
    }

    std::shared_ptr<FarmHost> host_ = std::make_shared<FarmHost>();
    std::unique_ptr<mctest::ScopedHostServices> scoped_;
    std::unique_ptr<mctest::TempDir> folder_;
    MCp_Counters& c_ = MCp_GetCounters();
};

}  // namespace farmtest
