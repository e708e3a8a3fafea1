// The message store under abuse: writers killed mid-write, two writers in one process, damaged
// settings deciding the built-in CAs, and files in a store folder that are not regular files.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>

#include "ol/file.h"
#include "ol/store.h"
#include "support.h"
#include "tessel/cert_store.h"

namespace {

using tessel::test::Bytes;
using tessel::test::said;
using tessel::test::TempRoot;

// AlarmGuard ends the test program if a test hangs (a FIFO read blocking, say) instead of
// leaving the suite waiting for its time limit.
struct AlarmGuard {
  explicit AlarmGuard(unsigned seconds) { ::alarm(seconds); }
  ~AlarmGuard() { ::alarm(0); }
};

// version is the n-th value a writer stores: every byte depends on n, and the size varies, so
// a file mixing two writes cannot pass for either.
ol::message version(std::uint32_t n) {
  ol::message m;
  m.set(ol::u32_id{1}, n);
  Bytes body(40 + (n * 7919u) % 6000u);
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<unsigned char>(n * 31u + i);
  m.set(ol::raw_id{2}, std::move(body));
  return m;
}

// versionOf returns n when `m` is exactly version(n), else 0 (no version 0 is ever written).
std::uint32_t versionOf(const ol::message& m) {
  const std::uint32_t n = m.get(ol::u32_id{1}, 0);
  return n != 0 && m == version(n) ? n : 0;
}

int temporariesIn(const std::string& dir) {
  int n = 0;
  if (!std::filesystem::exists(dir)) return 0;  // a writer killed before it made the folder
  for (const auto& e : std::filesystem::directory_iterator(dir)) n += e.path().filename().string().ends_with(".tmp");
  return n;
}

// A writer killed at random moments leaves each entry whole, at some version it wrote, and the
// next open deletes the temporary files of dead writers, silently.
TEST(StoreTorture, KilledWriterLeavesWholeEntries) {
  TempRoot root;
  AlarmGuard guard(60);
  tessel::test::TestRng rng(20261122);
  int leftovers = 0;
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ol::Store s("torture");
      for (std::uint32_t n = 1; n < 1000000; ++n) s.put(n % 3, version(n));
      ::_exit(0);
    }
    ::usleep(static_cast<useconds_t>(2000 + rng.below(30000)));
    ::kill(child, SIGKILL);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    leftovers += temporariesIn(root.path("/rw/store/torture")) > 0;
    EXPECT_EQ(said([&] {
                ol::Store s("torture");
                for (std::uint32_t id : s.allocator()) {
                  const std::uint32_t n = versionOf(s.get(id));
                  EXPECT_TRUE(n != 0 && n % 3 == id) << "entry " << id << " holds no whole version";
                }
              }),
              "");
    EXPECT_EQ(temporariesIn(root.path("/rw/store/torture")), 0);
  }
  std::cout << "[          ] rounds that left a temporary file: " << leftovers << " of 12\n";
}

// Temporary names of dead processes go; those of live ones (ours, or process 1) stay unless two
// hours old; other names are not temporaries (tests/data/pki_store.json).
TEST(StoreTorture, OpeningDeletesOnlyAbandonedTemporaries) {
  TempRoot root;
  ASSERT_TRUE(ol::Store("t").put(1, version(1)));
  const pid_t gone = ::fork();
  if (gone == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
  const nlohmann::json cases = tessel::test::dataFile("pki_store.json")["temporaries"];
  auto name = [&](const nlohmann::json& c) {
    std::string n = c[0];
    for (const auto& [from, to] : {std::pair{"DEAD", std::to_string(gone)}, {"ME", std::to_string(::getpid())}})
      if (const std::size_t at = n.find(from); at != std::string::npos) n.replace(at, std::strlen(from), to);
    return "/rw/store/t/" + n;
  };
  for (const auto& c : cases) {
    root.write(name(c), ol::encodeEntry(1, version(2)));
    const std::time_t at = ::time(nullptr) - (c[1].get<bool>() ? 7200 : 0);
    const timespec times[2] = {{at, 0}, {at, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, root.path(name(c)).c_str(), times, 0), 0);
  }
  EXPECT_EQ(versionOf(ol::Store("t").get(1)), 1u);
  for (const auto& c : cases) EXPECT_EQ(std::filesystem::exists(root.path(name(c))), c[2].get<bool>()) << c[0];
}

// Two Store objects of one process (one per thread) putting the same entries in lock step:
// every put succeeds and every entry ends as one of the last two versions written to it.
TEST(StoreTorture, TwoWritersInOneProcess) {
  TempRoot root;
  AlarmGuard guard(60);
  constexpr std::uint32_t kRounds = 40;
  std::barrier sync(2);
  std::atomic<int> refused{0};
  auto writer = [&](std::uint32_t t) {
    ol::Store s("shared");
    for (std::uint32_t r = 0; r < kRounds; ++r) {
      sync.arrive_and_wait();
      refused += !s.put(r % 2, version(2 * r + t + 1));
    }
  };
  std::thread a(writer, 0), b(writer, 1);
  a.join();
  b.join();
  EXPECT_EQ(refused.load(), 0);
  EXPECT_EQ(said([&] {
              ol::Store s("shared");
              ASSERT_EQ(s.allocator().size(), 2u);
              for (std::uint32_t id : {0u, 1u}) {
                const std::uint32_t last = 2 * (kRounds - 2 + id), n = versionOf(s.get(id));  // its last round
                EXPECT_TRUE(n == last + 1 || n == last + 2) << "entry " << id << " holds " << n;
              }
            }),
            "");
  EXPECT_EQ(temporariesIn(root.path("/rw/store/shared")), 0);
}

// FIFOs, device links and other odd files named like entries are skipped on one line each,
// without blocking and without reading a device, and count as damaged until a write replaces
// them; an entry too large to read back is not written at all.
TEST(StoreTorture, OnlyRegularFilesAreRead) {
  TempRoot root;
  AlarmGuard guard(20);
  ASSERT_TRUE(ol::Store("odd").put(5, version(5)));
  ASSERT_TRUE(ol::Store("elsewhere").put(3, version(3)));
  const std::string dir = root.path("/rw/store/odd/");
  ASSERT_EQ(::mkfifo((dir + "00000001").c_str(), 0644), 0);
  ASSERT_EQ(::symlink("/dev/zero", (dir + "00000002").c_str()), 0);
  ASSERT_EQ(::symlink(root.path("/rw/store/elsewhere/00000003").c_str(), (dir + "00000003").c_str()), 0);
  root.write("/rw/store/odd/00000004", {});
  ASSERT_EQ(::truncate((dir + "00000004").c_str(), static_cast<off_t>(ol::Store::maxEntryFile + 1)), 0);
  ASSERT_EQ(::mkfifo((dir + "state").c_str(), 0644), 0);
  std::optional<ol::Store> s;
  const std::string out = said([&] { s.emplace("odd"); });  // in the folder's order
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 5) << out;
  for (const char* line : {"00000001: not a regular file\n", "00000002: not a regular file\n",
                           "00000003: not a regular file\n", "00000004: too large\n", "state: not a regular file\n"})
    EXPECT_NE(out.find(std::string("[ERR] store odd: skipped ") + line), std::string::npos) << line;
  EXPECT_EQ(versionOf(s->get(5)), 5u);
  EXPECT_EQ(s->lookup(5), ol::Presence::present);
  for (std::uint32_t id : {1u, 2u, 3u, 4u}) EXPECT_EQ(s->lookup(id), ol::Presence::damaged) << id;
  EXPECT_EQ(s->lookup(6), ol::Presence::absent);
  EXPECT_EQ(s->stateLookup(), ol::Presence::damaged);
  EXPECT_EQ(s->damaged(), (std::set<std::uint32_t>{1, 2, 3, 4}));
  EXPECT_TRUE(s->get(2).empty());
  ASSERT_TRUE(s->put(1, version(1)));
  EXPECT_EQ(s->lookup(1), ol::Presence::present);
  ol::message huge;
  huge.set(ol::raw_id{1}, Bytes(ol::Store::maxEntryFile, 1));
  EXPECT_FALSE(s->put(7, huge));
  EXPECT_EQ(s->lookup(7), ol::Presence::absent);
  EXPECT_FALSE(std::filesystem::exists(dir + "00000007"));
}

TEST(StoreTorture, CaFolderReadsOnlyRegularFiles) {
  TempRoot root;
  AlarmGuard guard(20);
  root.write("/ca/a.pem", tessel::test::readFixture("certs/ca.pem"));
  const std::string dir = root.path("/ca/");
  ASSERT_EQ(::mkfifo((dir + "fifo.pem").c_str(), 0644), 0);
  ASSERT_EQ(::symlink("/dev/zero", (dir + "zero.pem").c_str()), 0);
  ASSERT_EQ(::symlink((dir + "a.pem").c_str(), (dir + "link.pem").c_str()), 0);
  tessel::CertificateMemoryStore store;
  EXPECT_EQ(said([&] { EXPECT_TRUE(store.loadFromDir(dir, true)); }), "");
  EXPECT_EQ(store.certificates.size(), 2u) << "the file and the link to it";
  // CRLs only when asked for; other files and folders are passed over; a missing folder fails.
  root.write("/ca/list.crl", tessel::test::readFixture("certs/crl.pem"));
  root.write("/ca/junk.txt", tessel::test::bytesOf("neither"));
  std::filesystem::create_directory(dir + "sub");
  tessel::CertificateMemoryStore with, without;
  said([&] { EXPECT_TRUE(with.loadFromDir(dir, true) && without.loadFromDir(dir, false)); });
  EXPECT_EQ(std::make_pair(with.certificates.size(), with.crls.size()), std::make_pair(std::size_t{2}, std::size_t{1}));
  EXPECT_EQ(std::make_pair(without.certificates.size(), without.crls.size()),
            std::make_pair(std::size_t{2}, std::size_t{0}));
  EXPECT_EQ(said([&] { EXPECT_FALSE(with.loadFromDir(dir + "missing", true)); }),
            "[ERR] opendir: No such file or directory\n");
  EXPECT_EQ(with.certificates.size(), 2u);
}

// Built-in CAs switched off by the administrator stay off whichever byte of the deciding entry
// has a bit flipped: the settings entry, or the manager's state word when the settings are from
// before the mask fields existed.
TEST(StoreTorture, DamagedSettingsKeepBuiltInCasOff) {
  constexpr unsigned kUse = 0x10;  // one of the uses the default mask trusts the built-ins for
  for (bool legacy : {false, true}) {
    SCOPED_TRACE(legacy ? "legacy settings, long-used manager" : "settings with the mask off");
    const std::string file = legacy ? "/rw/store/cerm/state" : "/rw/store/cert/settings/00000000";
    const std::string line =
        legacy ? "[ERR] cerm state damaged: built-in CAs off\n" : "[ERR] cert settings damaged: built-in CAs off\n";
    TempRoot root;
    root.write("/orlin/etc/ca/builtin.pem", tessel::test::readFixture("certs/nc-dns.pem"));
    ol::message settings;
    settings.set(ol::u32_id{legacy ? 3u : 7u}, 0u);  // without the mask field (7) the state word decides
    ASSERT_TRUE(!legacy || ol::Store("cerm").setState(~5u));
    ASSERT_TRUE(ol::Store("cert/settings").put(0, settings));
    auto load = [&] {
      tessel::CertificateMemoryStore store;
      std::string out = said([&] { store.loadFromCerm(kUse, false); });
      return std::make_pair(store.certificates.size(), out);
    };
    ASSERT_EQ(load(), std::make_pair(std::size_t{0}, std::string())) << "switched off when sound";
    const Bytes sound = tessel::test::bytesOf(ol::readFile(root.path(file)));
    for (std::size_t at = 0; at < sound.size(); ++at) {  // every byte, a different bit each time
      Bytes damaged = sound;
      damaged[at] ^= static_cast<unsigned char>(1u << (at % 8));
      root.write(file, damaged);
      auto [certs, out] = load();
      EXPECT_EQ(certs, 0u) << "byte " << at;
      EXPECT_TRUE(out.ends_with(line)) << "byte " << at << ": " << out;
      EXPECT_NE(out.find("skipped"), std::string::npos) << "the store's own line stays";
    }
    ::unlink(root.path(file).c_str());
    EXPECT_EQ(load().first, 1u) << "an absent entry still means the default";
  }
}

}  // namespace
