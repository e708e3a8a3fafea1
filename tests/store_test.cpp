#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "ol/file.h"
#include "ol/store.h"
#include "support.h"

namespace {

using tessel::test::Bytes;
using tessel::test::fromHex;
using tessel::test::TempRoot;

std::vector<std::uint32_t> idsOf(const ol::Store& s) { return {s.allocator().begin(), s.allocator().end()}; }

Bytes fileBytes(const std::string& path) { return tessel::test::bytesOf(ol::readFile(path)); }

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// An entry with every field kind, and its file bytes as written by Python (struct + zlib.crc32).
ol::message everyKind() {
  ol::message m;
  m.set(ol::u32_id{7}, 0x362B90u);
  m.set(ol::bool_id{0x0C}, true);
  m.set(ol::string_array_id{0x20}, {"x", ""});
  m.set(ol::string_id{0x71}, std::string("a"));
  m.set(ol::raw_id{0x81}, Bytes{0x00, 0xFF});
  return m;
}
constexpr const char* kEveryKindEntry =
    "6f6c6d312a0000003e000000070000000204000000902b36000c000000010100000001200000000509000000"
    "0100000078000000007100000004010000006181000000030200000000ffcede364a";

TEST(StoreMessage, TypedFields) {
  ol::message m = everyKind();
  EXPECT_TRUE(m.has(ol::u32_id{7}));
  EXPECT_FALSE(m.has(ol::bool_id{7}));  // the id exists but holds another kind
  EXPECT_EQ(m.get(ol::string_id{7}), nullptr);
  EXPECT_EQ(m.get(ol::u32_id{7}, 5), 0x362B90u);
  EXPECT_EQ(m.get(ol::u32_id{8}, 5), 5u);
  EXPECT_TRUE(m.get(ol::bool_id{4}, true));
  m.set(ol::bool_id{7}, false);  // replaces the u32
  EXPECT_FALSE(m.has(ol::u32_id{7}));
  EXPECT_FALSE(m.get(ol::bool_id{7}, true));
  for (std::uint32_t id : {7u, 0x0Cu, 0x20u, 0x71u, 0x81u, 0x99u}) m.erase(id);
  EXPECT_TRUE(m.empty());
}

TEST(StoreMessage, EntryEncodingMatchesFormat) {
  EXPECT_EQ(tessel::test::toHex(ol::encodeEntry(0x2A, everyKind())), kEveryKindEntry);
  Bytes file = fromHex(kEveryKindEntry);
  std::uint32_t id = 0;
  ol::message m;
  ASSERT_EQ(ol::decodeEntry(file, id, m), nullptr);
  EXPECT_EQ(id, 0x2Au);
  EXPECT_EQ(m, everyKind());
}

TEST(Store, RoundTripAcrossReopen) {
  TempRoot root;
  ol::message edges;
  edges.set(ol::u32_id{0}, 0u);
  edges.set(ol::u32_id{0xFFFFFFFF}, 0xFFFFFFFFu);
  edges.set(ol::bool_id{1}, false);
  edges.set(ol::raw_id{2}, Bytes{});
  edges.set(ol::raw_id{3}, Bytes(70000, 0x5A));
  edges.set(ol::string_id{4}, std::string("nul\0inside", 10));
  edges.set(ol::string_array_id{5}, {});
  const std::vector<std::pair<std::uint32_t, ol::message>> entries = {
      {0x2A, everyKind()}, {0, edges}, {0xFFFFFFFF, ol::message()}};
  {
    ol::Store s("cert/settings");
    for (const auto& [id, m] : entries) ASSERT_TRUE(s.put(id, m));
  }
  EXPECT_EQ(tessel::test::toHex(fileBytes(root.path("/rw/store/cert/settings/0000002a"))), kEveryKindEntry)
      << "file layout";
  ol::Store s("cert/settings");
  EXPECT_EQ(idsOf(s), (std::vector<std::uint32_t>{0, 0x2A, 0xFFFFFFFF}));
  for (const auto& [id, m] : entries) EXPECT_EQ(s.get(id), m) << id;
  EXPECT_TRUE(s.get(7).empty());
  EXPECT_TRUE(idsOf(ol::Store("cert")).empty()) << "a parent store does not see its children";
  EXPECT_TRUE(idsOf(ol::Store("missing")).empty());
}

TEST(Store, IdsAscendAndStateWordPersists) {
  TempRoot root;
  {
    ol::Store s("cerm");
    EXPECT_EQ(s.state(), ol::Store::initialState);
    for (std::uint32_t id : {0x100u, 3u, 0xFFFFFFFBu, 0u, 0x10u, 0x0Fu}) ASSERT_TRUE(s.put(id, everyKind()));
    ASSERT_TRUE(s.remove(0x10));
    ASSERT_TRUE(s.remove(0x11));  // never existed
    ASSERT_TRUE(s.setState(0xFFFFFFFD));
    EXPECT_EQ(idsOf(s), (std::vector<std::uint32_t>{0, 3, 0x0F, 0x100, 0xFFFFFFFB}));
  }
  ol::Store s("cerm");
  EXPECT_EQ(idsOf(s), (std::vector<std::uint32_t>{0, 3, 0x0F, 0x100, 0xFFFFFFFB}));
  EXPECT_EQ(s.state(), 0xFFFFFFFDu);
  EXPECT_EQ(ol::Store("cert/crl").state(), ol::Store::initialState);
}

TEST(Store, RefusesNamesLeavingItsFolder) {
  TempRoot root;
  for (const char* name : {"", "../cerm", "a//b", "a/./b", "/abs", "trail/"}) {
    ol::Store s(name);
    EXPECT_FALSE(s.put(1, everyKind())) << name;
    EXPECT_FALSE(s.setState(1)) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(root.path("/rw/cerm")));
}

TEST(Store, CrashLeftoversLeaveTheOldEntry) {
  TempRoot root;
  ol::message old = everyKind(), newer = everyKind();
  newer.set(ol::u32_id{7}, 1u);
  ASSERT_TRUE(ol::Store("cerm").put(5, old));
  // A crash before the rename leaves a temporary file, whole or cut short.
  Bytes whole = ol::encodeEntry(5, newer);
  root.write("/rw/store/cerm/00000005.4242.tmp", whole);
  root.write("/rw/store/cerm/00000005.4243.tmp", Bytes(whole.begin(), whole.begin() + 9));
  testing::internal::CaptureStdout();
  ol::Store s("cerm");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(idsOf(s), std::vector<std::uint32_t>{5});
  EXPECT_EQ(s.get(5), old);
}

TEST(Store, FailedWriteKeepsTheOldEntry) {
  TempRoot root;
  ol::Store s("cerm");
  ASSERT_TRUE(s.put(5, everyKind()));
  ASSERT_TRUE(s.setState(9));
  std::vector<std::string> before = filesIn(root.path("/rw/store/cerm"));
  ol::message big;
  big.set(ol::raw_id{1}, Bytes(1 << 16, 1));
  // Let the disk refuse the write half-way: the file size limit stops it with EFBIG.
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit limited = saved;
  limited.rlim_cur = 4096;
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  bool wrote = s.put(5, big);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
  signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(wrote);
  EXPECT_EQ(s.get(5), everyKind());
  EXPECT_EQ(filesIn(root.path("/rw/store/cerm")), before) << "no temporary file is left behind";
  ol::Store again("cerm");
  EXPECT_EQ(again.get(5), everyKind());
  EXPECT_EQ(again.state(), 9u);
}

// Damaged entry files (id 2) between two sound ones: each is reported on one line and skipped.
TEST(Store, CorruptEntriesAreReportedAndSkipped) {
  const Bytes good = ol::encodeEntry(2, everyKind());
  auto cut = [&](std::size_t n) { return Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n)); };
  auto flip = [&](std::size_t at) {
    Bytes b = good;
    b[at] ^= 0x01;
    return b;
  };
  Bytes longer = good;
  longer.push_back(0);
  struct Case {
    const char* name;
    Bytes file;
    const char* fault;
  };
  // The "bad fields" files carry valid checksums (Python struct + zlib.crc32).
  const Case cases[] = {
      {"empty", {}, "truncated"},
      {"short magic", cut(3), "truncated"},
      {"short header", cut(10), "truncated"},
      {"short payload", cut(20), "truncated"},
      {"no checksum", cut(good.size() - 1), "truncated"},
      {"magic", flip(0), "bad magic"},
      {"length", flip(8), "truncated"},
      {"trailing byte", longer, "bad length"},
      {"payload bit", flip(30), "bad checksum"},
      {"checksum bit", flip(good.size() - 1), "bad checksum"},
      {"id", ol::encodeEntry(3, everyKind()), "wrong id"},
      {"kind 9", fromHex("6f6c6d310200000009000000010000000900000000ad5bd81b"), "bad fields"},
      {"bool 2", fromHex("6f6c6d31020000000a00000001000000010100000002a9072239"), "bad fields"},
      {"u32 of 3", fromHex("6f6c6d31020000000c0000000100000002030000000000009e127de9"), "bad fields"},
      {"id twice", fromHex("6f6c6d31020000001a0000000200000002040000000000000002000000020400000000000000c57fd965"),
       "bad fields"},
      {"ids falling", fromHex("6f6c6d31020000001a000000030000000204000000000000000200000002040000000000000052d9c482"),
       "bad fields"},
      {"array item overrun", fromHex("6f6c6d31020000000f0000000100000005060000000500000061621ca25fbd"), "bad fields"},
      {"field cut", fromHex("6f6c6d31020000000f000000010000000204000000000000000500c6587162"), "bad fields"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempRoot root;
    {
      ol::Store w("cert/crl");
      ASSERT_TRUE(w.put(1, everyKind()));
      ASSERT_TRUE(w.put(3, everyKind()));
    }
    root.write("/rw/store/cert/crl/00000002", c.file);
    testing::internal::CaptureStdout();
    ol::Store s("cert/crl");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("[ERR] store cert/crl: skipped 00000002: ") + c.fault + "\n");
    EXPECT_EQ(idsOf(s), (std::vector<std::uint32_t>{1, 3}));
    EXPECT_EQ(s.get(3), everyKind());
  }
}

TEST(Store, CorruptStateWordReadsAsUnset) {
  TempRoot root;
  ASSERT_TRUE(ol::Store("cerm").setState(3));
  Bytes state = fileBytes(root.path("/rw/store/cerm/state"));
  state.back() ^= 0x80;
  root.write("/rw/store/cerm/state", state);
  testing::internal::CaptureStdout();
  ol::Store s("cerm");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[ERR] store cerm: skipped state: bad checksum\n");
  EXPECT_EQ(s.state(), ol::Store::initialState);
}

}  // namespace
