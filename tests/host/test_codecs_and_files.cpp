// Codecs: base64, UTF-8/UTF-16 conversion and the GUID text form as one table of inputs and
// outputs; MurmurHash3 x64-128 against reference vectors fed in pieces. Files: the operating
// system's error mapping, listings and removal that never follow links, and block writes (safe
// save under faults is driven by the disk writer's fault table).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/NativeFileSystem.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/BinaryText.h"
#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "mc/host/Guid.h"
#include "mc/host/Murmur3.h"
#include "mc/host/TextConvert.h"
#include "support/TempDir.h"

namespace velacore {
namespace {

std::string Hex16(const std::u16string& s) {  // UTF-16 code units, for comparing
    std::string out;
    for (char16_t c : s) out += std::to_string(c) + " ";
    return out;
}

TEST(Codecs, Table) {
    const std::string kThrows = "<FormatError>";
    const std::string fffd = "65533 ";
    auto enc = [](std::vector<uint8_t> b) {
        return [b] { return EncodeBinaryDataToUTF8String(b); };
    };
    auto dec = [](std::string t) {
        return [t] {
            auto b = DecodeBinaryDataFromUTF8String(t);
            return std::string(b.begin(), b.end());
        };
    };
    auto u16 = [](std::string t) { return [t] { return Hex16(ToUtf16(t)); }; };
    auto u8 = [](std::u16string t) { return [t] { return ToUtf8(t); }; };
    auto guid = [](std::string t) { return [t] { return Guid(std::string_view(t)).AsString(); }; };
    auto wguid = [](std::u16string t) {
        return [t] { return Guid(std::u16string_view(t)).AsString(); };
    };
    const std::string g = "00112233-4455-6677-8899-AABBCCDDEEFF";
    const std::u16string edges =
        u"A\u00E9\u20AC\U0001F600\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U0010FFFF";
    const struct {
        std::string name;
        std::function<std::string()> run;
        std::string expected;
    } rows[] = {
        {"b64 empty", enc({}), ""},
        {"b64 1", enc({'f'}), "Zg=="},
        {"b64 6", enc({'f', 'o', 'o', 'b', 'a', 'r'}), "Zm9vYmFy"},
        {"b64 high bits", enc({0xFB, 0xFF, 0xBF}), "+/+/"},
        {"b64 ff ff", enc({0xFF, 0xFF}), "//8="},
        {"b64 decode", dec("Zm9vYmFy"), "foobar"},
        {"b64 decode pad", dec("//8="), "\xFF\xFF"},
        {"b64 short", dec("Zm9"), kThrows},
        {"b64 pad inside", dec("Zm=v"), kThrows},
        {"b64 space", dec("Zm 9v"), kThrows},
        {"b64 stray bits", dec("Zh=="), kThrows},
        {"b64 stray bits 2", dec("Zm9="), kThrows},
        {"b64 NUL", dec({"Zm9\0", 4}), kThrows},
        {"utf8 out", u8(u"A\u00E9\u20AC\U0001F600"), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"utf8 round trip", [&] { return Hex16(ToUtf16(ToUtf8(edges))); }, Hex16(edges)},
        {"overlong NUL", u16("\xC0\x80"), fffd + fffd},
        {"encoded surrogate", u16("\xED\xA0\x80"), fffd + fffd + fffd},
        {"past U+10FFFF", u16("\xF4\x90\x80\x80"), fffd + fffd + fffd + fffd},
        {"stray continuation", u16("\x80x"), fffd + "120 "},
        {"truncated", u16("\xE2\x82x"), fffd + "120 "},
        {"truncated then whole", u16("\xF0\x9F\x98\xF0\x9F\x98\x80"), fffd + "55357 56832 "},
        {"lone high surrogate", u8(std::u16string{char16_t(0xD83D), u'x'}), "\xEF\xBF\xBDx"},
        {"swapped surrogates", u8(std::u16string{char16_t(0xDE00), char16_t(0xD83D)}),
         "\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"guid braces lower", guid("{00112233-4455-6677-8899-aabbccddeeff}"), g},
        {"guid wide mixed", wguid(u"00112233-4455-6677-8899-aAbBcCdDeEfF"), g},
        {"guid not hex", guid("00112233-4455-6677-8899-AABBCCDDEEFG"), kThrows},
        {"guid wide look-alike", wguid(u"\u0130\u0130112233-4455-6677-8899-AABBCCDDEEFF"), kThrows},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string got;
        try {
            got = row.run();
        } catch (const FormatError&) {
            got = kThrows;
        }
        EXPECT_EQ(got, row.expected);
    }
}

std::vector<uint8_t> FromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; hex != "-" && i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

// Every reference vector, one shot and fed in random pieces with the result read midway.
TEST(Codecs, Murmur3MatchesTheReferenceVectorsHoweverFed) {
    std::ifstream in(std::string(MC_TEST_DATA_DIR) + "/murmur3_x64_128.tsv");
    std::mt19937 rng(20240611);
    int vectors = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string seedHex, inputHex, h1, h2, bytesHex;
        fields >> seedHex >> inputHex >> h1 >> h2 >> bytesHex;
        const auto seed = static_cast<uint32_t>(std::stoul(seedHex, nullptr, 16));
        const auto input = FromHex(inputHex);
        const auto expected = FromHex(bytesHex);
        for (size_t maxPiece : {size_t{0}, size_t{1}, size_t{7}, size_t{40}}) {
            Murmur3MixerState state(seed);
            for (size_t at = 0, piece = 0; at < input.size(); at += piece) {
                piece = maxPiece == 0 ? input.size()
                                      : std::min(input.size() - at, 1 + rng() % maxPiece);
                state.UpdateHashState(input.data() + at, piece);
                (void)state.GetHashBytes();
            }
            const auto got = state.GetHashBytes();
            EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.end()), expected)
                << input.size() << " bytes, seed " << seed << ", pieces up to " << maxPiece;
        }
        ++vectors;
    }
    EXPECT_GE(vectors, 30) << "reference file missing or truncated";
}

}  // namespace
}  // namespace velacore

namespace {

using mctest::PatternBytes;
using mctest::ReadWholeFile;
using mctest::TempDir;
using velacore::FileNotFoundError;
using velacore::IOError;

velacore::FileSystem& Fs() {
    return velacore::GetFileSystem();
}

// The errno of the IOError action throws (0 when it throws none); `what` gets the message.
int ErrnoOf(const std::function<void()>& action, std::string* what = nullptr) {
    try {
        action();
    } catch (const FileNotFoundError& e) {
        EXPECT_EQ(e.Code(), velacore::kFileNotFoundCode);
        if (what) *what = e.what();
        return ENOENT;
    } catch (const IOError& e) {
        EXPECT_EQ(e.Code(), velacore::kIOErrorCode);
        return e.SysErrno();
    }
    return 0;
}

TEST(FileSystem, MissingPathsAreNotFoundNamingThePathOtherErrorsKeepTheirErrno) {
    TempDir dir;
    const auto missing = dir / "nope" / "x.bin";
    const auto folder = dir / "folder";
    const auto file = dir / "file";
    Fs().CreateDirectory(folder);
    Fs().CreateDirectory(folder);  // idempotent
    Fs().CreateFile(folder / "inside", true);
    Fs().CreateFile(file, true);
    auto closed = Fs().OpenForDirectWrite(file);
    closed->Close();
    const char byte = 'x';
    const std::set<int> kMissing = {ENOENT};  // FileNotFoundError naming the path
    const std::vector<std::pair<std::function<void()>, std::set<int>>> rows = {
        {[&] { Fs().CreateFile(missing, false); }, kMissing},
        {[&] { Fs().DeleteFile(missing); }, kMissing},
        {[&] { Fs().Rename(missing, dir / "y"); }, kMissing},
        {[&] { Fs().FileSize(missing); }, kMissing},
        {[&] { Fs().CreationTime(missing); }, kMissing},
        {[&] { Fs().ModificationTime(missing); }, kMissing},
        {[&] { Fs().OpenForRead(missing); }, kMissing},
        {[&] { Fs().CreateDirectory(missing); }, kMissing},
        {[&] { Fs().RemoveDirectory(missing); }, kMissing},
        {[&] { Fs().RemoveDirectoryRecursive(missing); }, kMissing},
        {[&] { Fs().ListDirectory(missing); }, kMissing},
        {[&] { Fs().GetBlockSize(missing); }, kMissing},
        {[&] { Fs().GetFreeSpace(missing); }, kMissing},
        {[&] { Fs().OpenForDirectWrite(missing); }, kMissing},
        {[&] { Fs().CreateFile(file, true); }, {EEXIST}},
        {[&] { Fs().CreateDirectory(file); }, {EEXIST}},
        {[&] { Fs().RemoveDirectory(folder); }, {ENOTEMPTY, EEXIST}},
        {[&] { Fs().DeleteFile(folder); }, {EISDIR, EPERM}},
        {[&] { Fs().OpenForDirectWrite(folder); }, {EISDIR}},
        {[&] { closed->Append(&byte, 1); }, {EBADF}},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        std::string what;
        EXPECT_EQ(rows[i].second.count(ErrnoOf(rows[i].first, &what)), 1u) << "row " << i;
        EXPECT_TRUE(rows[i].second != kMissing || what.find(missing.string()) != std::string::npos);
    }
    EXPECT_FALSE(Fs().Exists(missing) || Fs().IsDirectory(missing));
    EXPECT_TRUE(Fs().IsDirectory(folder) && !Fs().IsDirectory(file));
}

TEST(FileSystem, ListingAndRecursiveRemovalNeverFollowLinks) {
    TempDir dir;
    const auto outside = dir / "outside";
    Fs().CreateDirectory(outside);
    Fs().CreateFile(outside / "keep.bin", true);
    const auto tree = dir / "tree";
    Fs().CreateDirectory(tree);
    Fs().CreateDirectory(tree / "\xE6\x97\xA5");
    Fs().CreateFile(tree / "caf\xC3\xA9.zkcache", true);
    Fs().CreateFile(tree / "\xE6\x97\xA5" / "deep.bin", true);
#ifdef _WIN32
    std::error_code linkError;
    std::filesystem::create_directory_symlink(outside, tree / "to-outside", linkError);
    if (linkError) GTEST_SKIP() << "this account or Wine cannot create symbolic links";
#else
    std::filesystem::create_directory_symlink(outside, tree / "to-outside");
#endif
    std::filesystem::create_symlink(outside / "keep.bin", tree / "file-link");

    std::map<std::string, char> listing;  // 'd' folder, 'f' regular file, '-' anything else
    for (const auto& entry : Fs().ListDirectory(tree))
        listing[entry.name] = entry.isDirectory ? 'd' : entry.isRegularFile ? 'f' : '-';
    const std::map<std::string, char> expected = {{"caf\xC3\xA9.zkcache", 'f'},
                                                  {"\xE6\x97\xA5", 'd'},
                                                  {"to-outside", '-'},
                                                  {"file-link", '-'}};
    EXPECT_EQ(listing, expected);

    Fs().RemoveDirectoryRecursive(tree);
    EXPECT_FALSE(Fs().Exists(tree));
    EXPECT_TRUE(Fs().Exists(outside / "keep.bin"));
}

// Whole aligned blocks stay direct; an odd tail falls back to buffered writes; a file system
// that refuses direct I/O writes any size. The bytes on disk are always exactly what was sent.
TEST(DirectWrite, BytesOnDiskMatchWhateverTheMode) {
    TempDir dir;
    const auto buffered = velacore::MakeNativeFileSystem({.allowDirectIo = false});
    for (velacore::FileSystem* fs : {&Fs(), buffered.get()}) {
        const auto path = dir / "blocks.bin";
        mctest::WriteWholeFile(path, PatternBytes(100000, 2));  // opening discards it
        const size_t block = fs->GetBlockSize(path);
        const auto data = PatternBytes(block * 9 + 123, 4);
        auto file = fs->OpenForDirectWrite(path);
        const bool direct = file->IsDirectIo();
        velacore::AlignedBuffer buffer(block * 4, block);
        size_t done = 0;
        while (data.size() - done >= block) {  // 4 + 4 + 1 blocks
            const size_t piece = std::min(buffer.Size(), (data.size() - done) / block * block);
            std::memcpy(buffer.Data(), data.data() + done, piece);
            file->Append(buffer.Data(), piece);
            done += piece;
        }
        EXPECT_EQ(file->IsDirectIo(), direct);  // aligned blocks never need the fallback
        file->Append(data.data() + done, data.size() - done);
        file->Sync();
        file->Close();
        EXPECT_EQ(ReadWholeFile(path), data);
        EXPECT_TRUE(fs != buffered.get() || !direct);
    }
}

}  // namespace
