// The remote tier end to end against a real redis-server: what one machine renders another gets
// without rendering, never with damaged or partial bytes, and the cache keeps working when a
// server dies, refuses, or evicts. Also its settings: the [remote] table, then the MC_REMOTE_*
// variables over it.
#include "FarmFixture.h"
#include "mc/standalone/StandaloneHost.h"

using namespace farmtest;

namespace {

constexpr std::optional<bool> kMiss = std::nullopt;

// A wrong password turns the tier off without logging the password; with the right one, what
// one machine rendered comes back on another.
TEST_F(FarmTest, ItemsOfEverySizeComeBackOnAnotherMachineWithoutRendering) {
    RedisServer server({"--requirepass", "s3cret-pw"});
    ASSERT_TRUE(server.Start());
    Rebirth({server.Url(":wrong-pw")});
    ASSERT_TRUE(RenderAndPublish(400, 1000));
    EXPECT_EQ(c_.remotePublished.load(), 0u);
    EXPECT_GE(c_.remoteBackoffs.load(), 1u);
    bool logged = false;
    for (const auto& line : host_->LogLines())
        logged = logged || line.text.find("refused") != std::string::npos;
    EXPECT_TRUE(logged);

    Rebirth({server.Url(":s3cret-pw")});
    // Bodies (4-byte length + bytes) around the 4 MiB chunk: small, exactly one chunk, one byte
    // over, three chunks.
    const uint32_t sizes[] = {1, 300000, (4u << 20) - 4, (4u << 20) - 3, 9u << 20};
    for (uint32_t key = 0; key < 5; ++key) ASSERT_TRUE(RenderAndPublish(key, sizes[key]));
    EXPECT_EQ(c_.remotePublished.load(), 5u);
    EXPECT_EQ(server.Do({"KEYS", "MC:2B:c:*"})->elements, 1u + 1 + 1 + 2 + 3);

    Rebirth();
    for (uint32_t key = 0; key < 5; ++key) {
        bool fromFarm = false;
        EXPECT_EQ(Fetch(key, sizes[key], &fromFarm), true) << sizes[key];
        EXPECT_TRUE(fromFarm) << sizes[key];
    }
    EXPECT_EQ(c_.remoteHits.load(), 5u);
    // Once fetched, the item is this machine's: the next request is a memory hit.
    bool fromFarm = true;
    EXPECT_EQ(Fetch(0, 1, &fromFarm), true);
    EXPECT_FALSE(fromFarm);
    for (const auto& line : host_->LogLines()) EXPECT_EQ(line.text.find("-pw"), std::string::npos);
}

TEST_F(FarmTest, DamagedTruncatedOrMissingValuesAreMissesAndTheEntryIsDeleted) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    host_->remote.urls = {server.Url()};
    constexpr uint32_t kSize = 6u << 20;  // two chunks
    struct Case {
        const char* what;
        std::vector<std::string> damage;  // $c: a chunk, $i: the index, $f: its record
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
        const auto chunks = server.Do({"KEYS", "MC:2B:c:*"});
        const auto index = server.Do({"KEYS", "MC:2B:g:*"});
        ASSERT_TRUE(chunks->elements == 2 && index->elements == 1);
        const std::string indexKey = index->element[0]->str;
        const auto field = server.Do({"HKEYS", indexKey});
        for (std::string& a : c.damage) {
            if (a == "$c") a.assign(chunks->element[1]->str, chunks->element[1]->len);
            if (a == "$i") a = indexKey;
            if (a == "$f") a.assign(field->element[0]->str, field->element[0]->len);
        }
        server.Do(c.damage);
        Rebirth();
        const uint32_t rejects = c_.remoteChecksumRejects.load();
        EXPECT_EQ(Fetch(key, kSize), kMiss);
        EXPECT_EQ(c_.remoteChecksumRejects.load() - rejects, c.counted ? 1u : 0u);
        EXPECT_EQ(server.Do({"HLEN", indexKey})->integer, 0);
        server.Do({"FLUSHALL"});
    }
}

TEST_F(FarmTest, ServerKilledMidPublishOrMidFetchBacksOffAndComesBack) {
    RedisServer server;
    ASSERT_TRUE(server.Start());
    host_->remote.urls = {server.Url()};
    // Killed after the chunks went out, before the record: nothing was published.
    MCr_SetTestHook([&](std::string_view point) {
        if (point == "publish:chunks-written") server.Kill();
    });
    ASSERT_TRUE(RenderAndPublish(300, 5u << 20));
    EXPECT_EQ(c_.remotePublished.load(), 0u);
    EXPECT_EQ(c_.remoteBackoffs.load(), 1u);
    MCr_SetTestHook({});
    // Down: a miss renders as usual, quickly.
    Rebirth();
    EXPECT_EQ(Fetch(300, 5u << 20), kMiss);

    ASSERT_TRUE(server.Start());
    Rebirth();
    ASSERT_TRUE(RenderAndPublish(301, 5u << 20));
    EXPECT_EQ(c_.remotePublished.load(), 1u);
    // Killed after the records were read, before the body: a miss, never a partial item.
    MCr_SetTestHook([&](std::string_view point) {
        if (point == "fetch:records-read") server.Kill();
    });
    Rebirth();
    const uint32_t before = c_.remoteBackoffs.load();
    EXPECT_EQ(Fetch(301, 5u << 20), kMiss);
    EXPECT_EQ(c_.remoteBackoffs.load() - before, 1u);
    MCr_SetTestHook({});
    ASSERT_TRUE(server.Start());
    Rebirth();
    ASSERT_TRUE(RenderAndPublish(302, 1000));
    Rebirth();
    EXPECT_EQ(Fetch(302, 1000), true);
}

// Unknown keys and values of the wrong type are errors.
TEST(FarmSettings, TableThenEnvironment) {
    using velacore::StandaloneConfig;
    StandaloneConfig c = StandaloneConfig::FromTomlText(
        "[remote]\nurls = [\"redis://a:1\"]\nmax_item_bytes = \"8M\"\nread_only = true\n", "t");
    EXPECT_EQ(c.remote.urls, std::vector<std::string>{"redis://a:1"});
    c.ApplyEnvironment([](std::string_view name) -> std::optional<std::string> {
        if (name == "MC_REMOTE_URLS") return "redis://c:5, redis://d:6";
        if (name == "MC_REMOTE_READ_ONLY") return "no";
        return std::nullopt;
    });
    EXPECT_EQ(c.remote.urls, (std::vector<std::string>{"redis://c:5", "redis://d:6"}));
    EXPECT_FALSE(c.remote.readOnly);
    EXPECT_EQ(c.remote.maxItemBytes, 8u << 20);
    for (const char* bad : {"[remote]\nurl = \"x\"\n", "[remote]\nurls = \"redis://a:1\"\n"})
        EXPECT_THROW(StandaloneConfig::FromTomlText(bad, "t"), velacore::StandaloneConfigError);
}

}  // namespace
