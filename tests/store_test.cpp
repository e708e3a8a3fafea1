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
using Ids = std::vector<std::uint32_t>;

Ids idsOf(const ol::Store& s) { return {s.allocator().begin(), s.allocator().end()}; }

const nlohmann::json& cases() {
  static const nlohmann::json all = tessel::test::dataFile("sym_store_cases.json");
  return all;
}

// An entry with every field kind; its file bytes (everyKind in the case file) are Python's.
ol::message everyKind() {
  ol::message m;
  m.set(ol::u32_id{7}, 0x362B90u);
  m.set(ol::bool_id{0x0C}, true);
  m.set(ol::string_array_id{0x20}, {"x", ""});
  m.set(ol::string_id{0x71}, std::string("a"));
  m.set(ol::raw_id{0x81}, Bytes{0x00, 0xFF});
  return m;
}

TEST(StoreMessage, TypedFieldsAndEntryEncoding) {
  ol::message m = everyKind(), decoded;
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
  EXPECT_EQ(tessel::test::toHex(ol::encodeEntry(0x2A, everyKind())), cases()["everyKind"]);
  std::uint32_t id = 0;
  ASSERT_EQ(ol::decodeEntry(fromHex(cases()["everyKind"].get<std::string>()), id, decoded), nullptr);
  EXPECT_EQ(id, 0x2Au);
  EXPECT_EQ(decoded, everyKind());
}

TEST(Store, EntriesIdsAndStateWordSurviveReopen) {
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
  EXPECT_EQ(tessel::test::toHex(tessel::test::bytesOf(ol::readFile(root.path("/rw/store/cert/settings/0000002a")))),
            cases()["everyKind"])
      << "file layout";
  ol::Store s("cert/settings");
  EXPECT_EQ(idsOf(s), (Ids{0, 0x2A, 0xFFFFFFFF}));
  for (const auto& [id, m] : entries) EXPECT_EQ(s.get(id), m) << id;
  EXPECT_TRUE(s.get(7).empty());
  EXPECT_TRUE(idsOf(ol::Store("cert")).empty()) << "a parent store does not see its children";
  EXPECT_TRUE(idsOf(ol::Store("missing")).empty());
  // Ids ascend whatever the order they were put in, and the state word persists.
  {
    ol::Store cerm("cerm");
    EXPECT_EQ(cerm.state(), ol::Store::initialState);
    for (std::uint32_t id : {0x100u, 3u, 0xFFFFFFFBu, 0u, 0x10u, 0x0Fu}) ASSERT_TRUE(cerm.put(id, everyKind()));
    ASSERT_TRUE(cerm.remove(0x10));
    ASSERT_TRUE(cerm.remove(0x11));  // never existed
    ASSERT_TRUE(cerm.setState(0xFFFFFFFD));
  }
  ol::Store cerm("cerm");
  EXPECT_EQ(idsOf(cerm), (Ids{0, 3, 0x0F, 0x100, 0xFFFFFFFB}));
  EXPECT_EQ(cerm.state(), 0xFFFFFFFDu);
  EXPECT_EQ(ol::Store("cert/crl").state(), ol::Store::initialState);
  for (const char* name : {"", "../cerm", "a//b", "a/./b", "/abs", "trail/"}) {  // names leaving the folder
    EXPECT_FALSE(ol::Store(name).put(1, everyKind())) << name;
    EXPECT_FALSE(ol::Store(name).setState(1)) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(root.path("/rw/cerm")));
}

// The disk refuses the write half-way (the file size limit stops it with EFBIG): the old entry
// and state stay, and no temporary file is left behind.
TEST(Store, FailedWriteKeepsTheOldEntry) {
  TempRoot root;
  ol::Store s("cerm");
  ASSERT_TRUE(s.put(5, everyKind()));
  ASSERT_TRUE(s.setState(9));
  ol::message big;
  big.set(ol::raw_id{1}, Bytes(1 << 16, 1));
  rlimit saved, limited;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  limited = {4096, saved.rlim_max};
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  const bool wrote = s.put(5, big);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
  signal(SIGXFSZ, oldHandler);
  EXPECT_FALSE(wrote);
  EXPECT_EQ(s.get(5), everyKind());
  const auto files = std::filesystem::directory_iterator(root.path("/rw/store/cerm"));
  EXPECT_EQ(std::distance(begin(files), end(files)), 2) << "the entry and the state word only";
  ol::Store again("cerm");
  EXPECT_EQ(again.get(5), everyKind());
  EXPECT_EQ(again.state(), 9u);
}

// Damaged entry files (id 2) between two sound ones, and a damaged state word: each is reported
// on one line and skipped.
TEST(Store, CorruptEntriesAreReportedAndSkipped) {
  for (const auto& c : cases()["corrupt"]) {
    SCOPED_TRACE(c[0].get<std::string>());
    TempRoot root;
    ASSERT_TRUE(ol::Store("cert/crl").put(1, everyKind()));
    ASSERT_TRUE(ol::Store("cert/crl").put(3, everyKind()));
    root.write("/rw/store/cert/crl/00000002", fromHex(c[1].get<std::string>()));
    std::optional<ol::Store> s;
    EXPECT_EQ(tessel::test::said([&] { s.emplace("cert/crl"); }),
              "[ERR] store cert/crl: skipped 00000002: " + c[2].get<std::string>() + "\n");
    EXPECT_EQ(idsOf(*s), (Ids{1, 3}));
    EXPECT_EQ(s->get(3), everyKind());
  }
  TempRoot root;
  ASSERT_TRUE(ol::Store("cerm").setState(3));
  Bytes state = tessel::test::bytesOf(ol::readFile(root.path("/rw/store/cerm/state")));
  state.back() ^= 0x80;
  root.write("/rw/store/cerm/state", state);
  std::optional<ol::Store> s;
  EXPECT_EQ(tessel::test::said([&] { s.emplace("cerm"); }), "[ERR] store cerm: skipped state: bad checksum\n");
  EXPECT_EQ(s->state(), ol::Store::initialState);
}

}  // namespace
