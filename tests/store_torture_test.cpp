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
#include <filesystem>
#include <optional>
#include <sstream>
#include <thread>

#include "ol/file.h"
#include "ol/store.h"
#include "support.h"
#include "tessel/cert_store.h"

namespace {

using tessel::test::Bytes;
using tessel::test::TempRoot;
using tessel::test::TestRng;

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

std::vector<std::string> temporariesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (!std::filesystem::exists(dir)) return names;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    if (e.path().filename().string().ends_with(".tmp")) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

// A writer killed at random moments leaves each entry whole, at some version it wrote, and the
// next open deletes the temporary files of dead writers (and only those).
TEST(StoreTorture, KilledWriterLeavesWholeEntries) {
  TempRoot root;
  AlarmGuard guard(60);
  TestRng rng(20261122);
  const std::string dir = root.path("/rw/store/torture");
  int leftovers = 0;
  for (int round = 0; round < 12; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ol::Store s("torture");
      for (std::uint32_t n = 1; n < 1000000; ++n) s.put(n % 3, version(n));
      ::_exit(0);
    }
    ::usleep(static_cast<useconds_t>(2000 + rng.below(30000)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    leftovers += !temporariesIn(dir).empty();
    std::string out = tessel::test::said([&] {
      ol::Store s("torture");
      for (std::uint32_t id : s.allocator()) {
        const std::uint32_t n = versionOf(s.get(id));
        EXPECT_TRUE(n != 0 && n % 3 == id) << "entry " << id << " holds no whole version";
      }
    });
    EXPECT_EQ(out, "") << "round " << round;
    EXPECT_EQ(temporariesIn(dir), std::vector<std::string>{}) << "round " << round;
  }
  std::cout << "[          ] rounds that left a temporary file: " << leftovers << " of 12\n";
}

TEST(StoreTorture, OpeningDeletesOnlyAbandonedTemporaries) {
  TempRoot root;
  ASSERT_TRUE(ol::Store("t").put(1, version(1)));
  const pid_t gone = ::fork();
  if (gone == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
  const std::string me = std::to_string(::getpid()), dead = std::to_string(gone);
  const Bytes whole = ol::encodeEntry(1, version(2));
  struct Case {
    std::string name;
    bool old;   // modified two hours ago
    bool kept;  // expected to survive the open
  };
  // Process 1 is always alive (and not ours to signal): only age decides for it.
  const std::vector<Case> cases = {
      {"00000001." + dead + ".7.0.tmp", false, false},
      {"00000001." + dead + ".tmp", false, false},  // the older firmware's name
      {"state." + dead + ".1.2.tmp", false, false},
      {"00000001." + me + ".1.2.tmp", false, true},  // perhaps a write of another thread
      {"00000001.1.1.1.tmp", false, true},
      {"00000001.1.1.1.tmp.x", true, true},  // not a temporary name
      {"00000001.1.2.3.tmp", true, false},
      {"0000001." + dead + ".tmp", false, true},
      {"notes." + dead + ".tmp", false, true},
      {"00000001." + dead + ".x.tmp", false, true},
  };
  for (const Case& c : cases) {
    const std::string path = root.path("/rw/store/t/" + c.name);
    root.write("/rw/store/t/" + c.name, whole);
    if (c.old) {
      const timespec times[2] = {{::time(nullptr) - 7200, 0}, {::time(nullptr) - 7200, 0}};
      ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
  }
  ol::Store s("t");
  EXPECT_EQ(versionOf(s.get(1)), 1u);
  for (const Case& c : cases) EXPECT_EQ(std::filesystem::exists(root.path("/rw/store/t/" + c.name)), c.kept) << c.name;
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
      if (!s.put(r % 2, version(2 * r + t + 1))) ++refused;
    }
  };
  std::thread a(writer, 0), b(writer, 1);
  a.join();
  b.join();
  EXPECT_EQ(refused.load(), 0);
  std::string out = tessel::test::said([&] {
    ol::Store s("shared");
    ASSERT_EQ(s.allocator().size(), 2u);
    for (std::uint32_t id : {0u, 1u}) {
      const std::uint32_t last = kRounds - 2 + id;  // the last round that wrote this entry
      const std::uint32_t n = versionOf(s.get(id));
      EXPECT_TRUE(n == 2 * last + 1 || n == 2 * last + 2) << "entry " << id << " holds " << n;
    }
  });
  EXPECT_EQ(out, "");
  EXPECT_EQ(temporariesIn(root.path("/rw/store/shared")), std::vector<std::string>{});
}

// FIFOs, device links and other odd files named like entries are skipped on one line each,
// without blocking and without reading a device, and count as damaged.
TEST(StoreTorture, OnlyRegularFilesAreRead) {
  TempRoot root;
  AlarmGuard guard(20);
  ASSERT_TRUE(ol::Store("odd").put(5, version(5)));
  ASSERT_TRUE(ol::Store("elsewhere").put(3, version(3)));
  const std::string dir = root.path("/rw/store/odd/");
  ASSERT_EQ(::mkfifo((dir + "00000001").c_str(), 0644), 0);
  ASSERT_EQ(::symlink("/dev/zero", (dir + "00000002").c_str()), 0);
  ASSERT_EQ(::symlink(root.path("/rw/store/elsewhere/00000003").c_str(), (dir + "00000003").c_str()), 0);
  {
    const int fd = ::open((dir + "00000004").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(ol::Store::maxEntryFile + 1)), 0);
    ::close(fd);
  }
  ASSERT_EQ(::mkfifo((dir + "state").c_str(), 0644), 0);
  std::string out;
  {
    testing::internal::CaptureStdout();
    ol::Store s("odd");
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(versionOf(s.get(5)), 5u);
    EXPECT_EQ(s.lookup(5), ol::Presence::present);
    for (std::uint32_t id : {1u, 2u, 3u, 4u}) EXPECT_EQ(s.lookup(id), ol::Presence::damaged) << id;
    EXPECT_EQ(s.lookup(6), ol::Presence::absent);
    EXPECT_EQ(s.stateLookup(), ol::Presence::damaged);
    EXPECT_EQ(s.damaged(), (std::set<std::uint32_t>{1, 2, 3, 4}));
    EXPECT_TRUE(s.get(2).empty());
  }
  EXPECT_EQ(linesOf(out), (std::vector<std::string>{
                              "[ERR] store odd: skipped 00000001: not a regular file",
                              "[ERR] store odd: skipped 00000002: not a regular file",
                              "[ERR] store odd: skipped 00000003: not a regular file",
                              "[ERR] store odd: skipped 00000004: too large",
                              "[ERR] store odd: skipped state: not a regular file",
                          }));
  // A write replaces the odd file and ends the damage.
  ::unlink((dir + "state").c_str());
  std::optional<ol::Store> again;
  EXPECT_NE(tessel::test::said([&] { again.emplace("odd"); }), "");
  ol::Store& s = *again;
  ASSERT_TRUE(s.put(1, version(1)));
  EXPECT_EQ(s.lookup(1), ol::Presence::present);
  // An entry too large to read back is not written at all.
  ol::message huge;
  huge.set(ol::raw_id{1}, Bytes(ol::Store::maxEntryFile, 1));
  EXPECT_FALSE(s.put(7, huge));
  EXPECT_EQ(s.lookup(7), ol::Presence::absent);
  EXPECT_FALSE(std::filesystem::exists(dir + "00000007"));
}

TEST(StoreTorture, CaFolderSkipsWhatIsNotARegularFile) {
  TempRoot root;
  AlarmGuard guard(20);
  root.write("/ca/a.pem", tessel::test::readFixture("certs/ca.pem"));
  const std::string dir = root.path("/ca/");
  ASSERT_EQ(::mkfifo((dir + "fifo.pem").c_str(), 0644), 0);
  ASSERT_EQ(::symlink("/dev/zero", (dir + "zero.pem").c_str()), 0);
  ASSERT_EQ(::symlink((dir + "a.pem").c_str(), (dir + "link.pem").c_str()), 0);
  tessel::CertificateMemoryStore store;
  EXPECT_EQ(tessel::test::said([&] { EXPECT_TRUE(store.loadFromDir(dir, true)); }), "");
  EXPECT_EQ(store.certificates.size(), 2u) << "the file and the link to it";
}

// Built-in CAs switched off by the administrator stay off whichever byte of the deciding entry
// has a bit flipped: the settings entry, or the manager's state word when the settings are from
// before the mask fields existed.
TEST(StoreTorture, DamagedSettingsKeepBuiltInCasOff) {
  constexpr unsigned kUse = 0x10;  // one of the uses the default mask trusts the built-ins for
  struct Case {
    const char* what;
    const char* file;  // the file damaged, below /rw/store
    const char* line;
  };
  const Case cases[] = {
      {"settings with the mask off", "cert/settings/00000000", "[ERR] cert settings damaged: built-in CAs off"},
      {"legacy settings, long-used manager", "cerm/state", "[ERR] cerm state damaged: built-in CAs off"},
  };
  for (const Case& c : cases) {
    TempRoot root;
    root.write("/orlin/etc/ca/builtin.pem", tessel::test::readFixture("certs/nc-dns.pem"));
    ol::message settings;
    if (c.file == std::string_view("cerm/state")) {
      settings.set(ol::u32_id{3}, 0u);  // no mask field: the state word decides
      ASSERT_TRUE(ol::Store("cerm").setState(~5u));
    } else {
      settings.set(ol::u32_id{7}, 0u);
    }
    ASSERT_TRUE(ol::Store("cert/settings").put(0, settings));
    auto load = [&] {
      tessel::CertificateMemoryStore store;
      std::string out = tessel::test::said([&] { store.loadFromCerm(kUse, false); });
      return std::make_pair(store.certificates.size(), out);
    };
    ASSERT_EQ(load(), std::make_pair(std::size_t{0}, std::string())) << c.what << ": switched off when sound";
    const std::string path = root.path(std::string("/rw/store/") + c.file);
    const Bytes sound = tessel::test::bytesOf(ol::readFile(path));
    for (std::size_t at = 0; at < sound.size(); ++at) {  // every byte, a different bit each time
      const std::size_t bit = at * 8 + at % 8;
      Bytes damaged = sound;
      damaged[at] ^= static_cast<unsigned char>(1u << (at % 8));
      root.write(std::string("/rw/store/") + c.file, damaged);
      auto [certs, out] = load();
      EXPECT_EQ(certs, 0u) << c.what << ", bit " << bit;
      EXPECT_TRUE(out.ends_with(std::string(c.line) + "\n")) << c.what << ", bit " << bit << ": " << out;
      EXPECT_NE(out.find("skipped"), std::string::npos) << "the store's own line stays";
    }
    ::unlink(path.c_str());
    EXPECT_EQ(load().first, 1u) << c.what << ": an absent entry still means the default";
  }
}

}  // namespace
