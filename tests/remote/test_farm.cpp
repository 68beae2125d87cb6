// The remote tier end to end against a real redis-server: what one machine renders another gets
// without rendering, with the right choice among variants, never with damaged or partial bytes,
// and the cache keeps working when a server dies, refuses, or evicts.
#include "FarmFixture.h"

using namespace farmtest;

namespace {

TEST_F(FarmTest, ItemsOfEverySizeComeBackOnAnotherMachineWithoutRendering) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    UseServers({server.Url()});
    // Bodies (4-byte length + bytes) around the 4 MiB chunk: small, exactly one chunk, one byte
    // over, three chunks.
    const uint32_t sizes[] = {1, 300000, (4u << 20) - 4, (4u << 20) - 3, 9u << 20};
    uint32_t key = 100;
    for (uint32_t size : sizes) ASSERT_TRUE(RenderAndPublish(key++, size)) << size;
    EXPECT_EQ(counters().remotePublished.load(), 5u);
    EXPECT_EQ(server.Keys("MC:2B:c:*").size(), 1u + 1 + 1 + 2 + 3);

    Rebirth();
    const uint32_t hitsBefore = counters().remoteHits.load();
    key = 100;
    for (uint32_t size : sizes) {
        bool fromFarm = false;
        IntrusivePtr<MC_StuffData> data = Fetch(key, 0, &fromFarm);
        EXPECT_TRUE(fromFarm) << size;
        EXPECT_TRUE(HasKeyPattern(data, key, size)) << size;
        ++key;
    }
    EXPECT_EQ(counters().remoteHits.load() - hitsBefore, 5u);
    // Once fetched, the item is this machine's: the next request is a memory hit.
    bool fromFarm = true;
    EXPECT_TRUE(HasKeyPattern(Fetch(100, 0, &fromFarm), 100, 1));
    EXPECT_FALSE(fromFarm);
}

TEST_F(FarmTest, IdenticalIsChosenBeforeSatisfyingAndNoMatchIsAMiss) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    UseServers({server.Url()});
    ASSERT_TRUE(RenderAndPublish(7, 1000, 1));
    ASSERT_TRUE(RenderAndPublish(7, 2000, 3));
    ASSERT_TRUE(RenderAndPublish(7, 3000, 5));
    struct Case {
        uint32_t want;
        std::optional<uint32_t> got;
    } cases[] = {{3, 3}, {1, 1}, {2, 3}, {4, 5}, {6, std::nullopt}};
    for (const Case& c : cases) {
        Rebirth();
        IntrusivePtr<MC_StuffData> data = Fetch(7, c.want);
        auto* p = dynamic_cast<TestPayload*>(data.get());
        if (!c.got) {
            EXPECT_EQ(p, nullptr) << c.want;
            continue;
        }
        ASSERT_NE(p, nullptr) << c.want;
        // Identical (same variant) wins over an earlier satisfying one; otherwise the first
        // that satisfies (variant at least the request's).
        if (c.want == *c.got)
            EXPECT_EQ(p->Variant(), *c.got);
        else
            EXPECT_GE(p->Variant(), c.want);
    }
}

TEST_F(FarmTest, DamagedTruncatedOrMissingValuesAreMissesAndTheEntryIsDeleted) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    UseServers({server.Url()});
    constexpr uint32_t kSize = 6u << 20;  // two chunks
    struct Case {
        const char* what;
        std::function<void(const std::string& chunk, const std::string& index)> damage;
        bool counted;  // a checksum reject (a missing chunk is only evicted)
    } cases[] = {
        {"flipped body byte",
         [&](const std::string& chunk, const std::string&) {
             server.Do({"SETRANGE", chunk, "1000", "X"});
         },
         true},
        {"truncated chunk",
         [&](const std::string& chunk, const std::string&) {
             server.Do({"SET", chunk, "short"});
         },
         true},
        {"missing chunk",
         [&](const std::string& chunk, const std::string&) {
             server.Do({"DEL", chunk});
         },
         false},
        {"garbled record",
         [&](const std::string&, const std::string& index) {
             auto f = server.Do({"HKEYS", index});
             server.Do(
                 {"HSET", index, std::string(f->element[0]->str, f->element[0]->len), "junk"});
         },
         true},
    };
    uint32_t key = 200;
    for (const Case& c : cases) {
        Rebirth();
        ASSERT_TRUE(RenderAndPublish(key, kSize)) << c.what;
        const std::vector<std::string> chunks = server.Keys("MC:2B:c:*");
        const std::vector<std::string> index = server.Keys("MC:2B:g:*");
        ASSERT_EQ(chunks.size(), 2u);
        ASSERT_EQ(index.size(), 1u);
        c.damage(chunks[1], index[0]);
        Rebirth();
        const uint32_t rejects = counters().remoteChecksumRejects.load();
        EXPECT_EQ(Fetch(key), nullptr) << c.what;
        EXPECT_EQ(counters().remoteChecksumRejects.load() - rejects, c.counted ? 1u : 0u) << c.what;
        EXPECT_EQ(server.Do({"HLEN", index[0]})->integer, 0) << c.what;
        server.Do({"FLUSHALL"});
        ++key;
    }
}

TEST_F(FarmTest, ServerKilledMidPublishOrMidFetchBacksOffAndComesBack) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    UseServers({server.Url()});
    auto& c = counters();
    // Killed after the chunks went out, before the record: nothing was published.
    MCr_SetTestHook([&](std::string_view point) {
        if (point == "publish:chunks-written") server.Kill();
    });
    const uint32_t backoffs = c.remoteBackoffs.load();
    ASSERT_TRUE(RenderAndPublish(300, 5u << 20));
    EXPECT_EQ(c.remotePublished.load(), 0u);
    EXPECT_EQ(c.remoteBackoffs.load() - backoffs, 1u);
    MCr_SetTestHook({});
    // Down: a miss renders as usual, quickly.
    Rebirth();
    EXPECT_EQ(Fetch(300), nullptr);

    ASSERT_TRUE(server.Start());
    // Back by itself once the back-off has passed.
    ASSERT_TRUE(Eventually([&] {
        Rebirth();
        return RenderAndPublish(301, 5u << 20) && c.remotePublished.load() == 1;
    }));
    // Killed after the records were read, before the body: a miss, never a partial item.
    MCr_SetTestHook([&](std::string_view point) {
        if (point == "fetch:records-read") server.Kill();
    });
    Rebirth();
    const uint32_t before = c.remoteBackoffs.load();
    EXPECT_EQ(Fetch(301), nullptr);
    EXPECT_EQ(c.remoteBackoffs.load() - before, 1u);
    MCr_SetTestHook({});
    ASSERT_TRUE(server.Start());
    ASSERT_TRUE(Eventually([&] {
        Rebirth();
        return RenderAndPublish(302, 1000) && c.remotePublished.load() == 2;
    }));
    Rebirth();
    EXPECT_TRUE(HasKeyPattern(Fetch(302), 302, 1000));
}

TEST_F(FarmTest, WrongPasswordTurnsTheTierOffWithoutLoggingThePassword) {
    RedisServer server({"--requirepass", "s3cret-pw"});
    ASSERT_TRUE(server.Start());
    UseServers({server.Url(":wrong-pw")});
    Rebirth();
    ASSERT_TRUE(RenderAndPublish(400, 1000));
    EXPECT_EQ(counters().remotePublished.load(), 0u);
    EXPECT_GE(counters().remoteBackoffs.load(), 1u);
    bool logged = false;
    for (const auto& line : host_->LogLines()) {
        EXPECT_EQ(line.text.find("wrong-pw"), std::string::npos) << line.text;
        logged = logged || line.text.find("refused") != std::string::npos;
    }
    EXPECT_TRUE(logged);

    UseServers({server.Url(":s3cret-pw")});
    Rebirth();
    ASSERT_TRUE(RenderAndPublish(401, 1000));
    Rebirth();
    EXPECT_TRUE(HasKeyPattern(Fetch(401), 401, 1000));
    for (const auto& line : host_->LogLines())
        EXPECT_EQ(line.text.find("s3cret"), std::string::npos);
}

TEST_F(FarmTest, WithOneOfTwoShardsDownItsItemsAreMissesAndTheOthersStillHit) {
    RedisServer a, b;
    ASSERT_TRUE(a.Start());
    ASSERT_TRUE(b.Start());
    UseServers({a.Url(), b.Url()});
    Rebirth();
    constexpr uint32_t kItems = 24;
    for (uint32_t k = 0; k < kItems; ++k) ASSERT_TRUE(RenderAndPublish(500 + k, 2000));
    ASSERT_EQ(counters().remotePublished.load(), kItems);
    const size_t onA = a.Keys("MC:2B:g:*").size();
    ASSERT_EQ(onA + b.Keys("MC:2B:g:*").size(), kItems);
    ASSERT_GT(onA, 0u);  // rendezvous placement spreads the GUIDs
    ASSERT_LT(onA, kItems);
    b.Kill();
    Rebirth();
    const uint32_t backoffs = counters().remoteBackoffs.load();
    size_t hits = 0;
    for (uint32_t k = 0; k < kItems; ++k)
        if (HasKeyPattern(Fetch(500 + k), 500 + k, 2000)) ++hits;
    EXPECT_EQ(hits, onA);
    EXPECT_EQ(counters().remoteBackoffs.load() - backoffs, 1u);  // one back-off, not one per item
}

TEST_F(FarmTest, EvictionUnderMemoryPressureGivesMissesNeverWrongBytes) {
    RedisServer server({"--maxmemory", "24mb", "--maxmemory-policy", "allkeys-lru"});
    ASSERT_TRUE(server.Start());
    UseServers({server.Url()});
    Rebirth();
    constexpr uint32_t kItems = 12, kSize = 5u << 20;  // 60 MiB into 24
    for (uint32_t k = 0; k < kItems; ++k) ASSERT_TRUE(RenderAndPublish(600 + k, kSize));
    auto info = server.Do({"INFO", "stats"});
    ASSERT_NE(std::string(info->str, info->len).find("evicted_keys:"), std::string::npos);
    EXPECT_EQ(std::string(info->str, info->len).find("evicted_keys:0\r"), std::string::npos);
    Rebirth();
    uint32_t hits = 0, misses = 0;
    for (uint32_t k = 0; k < kItems; ++k) {
        IntrusivePtr<MC_StuffData> data = Fetch(600 + k);
        if (!data) {
            ++misses;
            continue;
        }
        EXPECT_TRUE(HasKeyPattern(data, 600 + k, kSize)) << k;
        ++hits;
    }
    EXPECT_GT(misses, 0u);
    EXPECT_EQ(counters().remoteChecksumRejects.load(), 0u);
}

}  // namespace

#ifdef MC_MCACHE_PATH
#include <nlohmann/json.hpp>

namespace {

// Runs one mcache demo process over the timeline and returns its JSON summary.
nlohmann::json DemoProcess(const std::string& url, const std::filesystem::path& folder) {
    const std::string cmd = std::string(MC_MCACHE_PATH) + " demo --remote " + url +
                            " --farm-order 0 --frames 16 --width 64 --height 64 --cost 1"
                            " --cache-priority high --json --quiet --folder " +
                            folder.string();
    std::string out;
    if (FILE* p = ::popen(cmd.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        ::pclose(p);
    }
    return nlohmann::json::parse(out, nullptr, false);
}

TEST_F(FarmTest, WhatOneProcessRenderedAnotherGetsWithoutRendering) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    mctest::TempDir root("mc-farm-procs");
    const nlohmann::json first = DemoProcess(server.Url(), root.Path() / "a");
    ASSERT_FALSE(first.is_discarded());
    EXPECT_EQ(first["passes"][0]["rendered"], 16);
    EXPECT_EQ(first["remote"]["published"], 16);
    const nlohmann::json second = DemoProcess(server.Url(), root.Path() / "b");
    ASSERT_FALSE(second.is_discarded());
    EXPECT_EQ(second["passes"][0]["rendered"], 0);
    EXPECT_EQ(second["passes"][0]["from_farm"], 16);
    EXPECT_EQ(second["remote"]["hits"], 16);
}

}  // namespace
#endif
