// The remote tier end to end against a real redis-server: what one machine renders another gets
// without rendering, never with damaged or partial bytes,
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

TEST_F(FarmTest, DamagedTruncatedOrMissingValuesAreMissesAndTheEntryIsDeleted) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    UseServers({server.Url()});
    constexpr uint32_t kSize = 6u << 20;  // two chunks
    struct Case {
        const char* what;
        std::vector<std::string> damage;  // $c: the second chunk, $i: the index, $f: its record
        bool counted;                     // a checksum reject (a missing chunk is only evicted)
    } cases[] = {
        {"flipped body byte", {"SETRANGE", "$c", "1000", "X"}, true},
        {"truncated chunk", {"SET", "$c", "short"}, true},
        {"missing chunk", {"DEL", "$c"}, false},
        {"garbled record", {"HSET", "$i", "$f", "junk"}, true},
    };
    uint32_t key = 200;
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rebirth();
        ASSERT_TRUE(RenderAndPublish(++key, kSize));
        const std::vector<std::string> chunks = server.Keys("MC:2B:c:*");
        const std::vector<std::string> index = server.Keys("MC:2B:g:*");
        ASSERT_TRUE(chunks.size() == 2 && index.size() == 1);
        auto field = server.Do({"HKEYS", index[0]});
        for (std::string& a : c.damage) {
            if (a == "$c") a = chunks[1];
            if (a == "$i") a = index[0];
            if (a == "$f") a.assign(field->element[0]->str, field->element[0]->len);
        }
        server.Do(c.damage);
        Rebirth();
        const uint32_t rejects = counters().remoteChecksumRejects.load();
        EXPECT_EQ(Fetch(key), nullptr);
        EXPECT_EQ(counters().remoteChecksumRejects.load() - rejects, c.counted ? 1u : 0u);
        EXPECT_EQ(server.Do({"HLEN", index[0]})->integer, 0);
        server.Do({"FLUSHALL"});
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
    Rebirth();
    ASSERT_TRUE(RenderAndPublish(301, 5u << 20));
    EXPECT_EQ(c.remotePublished.load(), 1u);
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
    Rebirth();
    ASSERT_TRUE(RenderAndPublish(302, 1000));
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

}  // namespace
