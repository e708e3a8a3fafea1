#include <arpa/inet.h>
#if TESSEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "ol/base64.h"
#include "ol/file.h"
#include "ol/ipaddr.h"
#include "support.h"

namespace {

using tessel::test::Bytes;

int decode(std::string_view text, Bytes& out, std::size_t capacity) {
  out.assign(capacity + 8, 0xAA);  // guard bytes past the capacity must survive
  int n = ol::base64Decode(text.data(), text.size(), out.data(), capacity);
  for (std::size_t i = capacity; i < out.size(); ++i) EXPECT_EQ(out[i], 0xAA) << "overrun at " << i;
  return n;
}

#if TESSEL_HAVE_OPENSSL
TEST(Base64, MatchesOpenSslBothWays) {
  tessel::test::TestRng rng(64);
  for (std::size_t len = 0; len < 400; ++len) {
    Bytes data = rng.bytes(len);
    std::string ours(ol::base64EncodedLength(len), '\0');
    ASSERT_EQ(ol::base64Encode(data.data(), len, ours.data(), ours.size()), static_cast<int>(ours.size()));
    std::string theirs(ours.size() + 1, '\0');
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(theirs.data()), data.data(), static_cast<int>(len));
    theirs.resize(static_cast<std::size_t>(n));
    ASSERT_EQ(ours, theirs) << len;
    Bytes back;
    ASSERT_EQ(decode(ours, back, len), static_cast<int>(len)) << len;
    back.resize(len);
    ASSERT_EQ(back, data) << len;
  }
}
#endif

TEST(Base64, MalformedTextIsRefused) {
  std::vector<std::string> bad = tessel::test::parseCases("base64Bad");
  bad.push_back("QUJ\xff");
  for (const std::string& t : bad) {
    Bytes out;
    EXPECT_EQ(decode(t, out, 16), -1) << t;
  }
}

TEST(Base64, CapacityIsNeverExceededAndUnusedLowBitsAreIgnored) {
  Bytes out;
  EXPECT_EQ(decode("QUJDRA==", out, 3), -1);  // "ABCD" needs 4
  EXPECT_EQ(decode("QUJDRA==", out, 4), 4);
  EXPECT_EQ(decode("", out, 0), 0);
  char small[3];
  EXPECT_EQ(ol::base64Encode("A", 1, small, sizeof small), -1);
  EXPECT_EQ(ol::base64Encode("", 0, small, 0), 0);
  ASSERT_EQ(decode("QR==", out, 4), 1);  // 'R' carries bits below the single decoded byte
  EXPECT_EQ(out[0], 'A');
}

TEST(IPAddr6, ParsesAndPrintsLikeTheCLibrary) {
  for (const std::string text : tessel::test::parseCases("ipv6Texts")) {
    const char* t = text.c_str();
    ol::IPAddr6 a;
    ASSERT_TRUE(a.parse(t)) << t;
    unsigned char raw[16];
    ASSERT_EQ(inet_pton(AF_INET6, t, raw), 1) << t;
    EXPECT_EQ(0, std::memcmp(a.bytes().data(), raw, 16)) << t;
    char buf[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, raw, buf, sizeof buf);
    EXPECT_EQ(a.isV4() ? a.str(false) : a.str(), buf) << t;
  }
}

TEST(IPAddr6, Ipv4FormsAndMapping) {
  ol::IPAddr6 a;
  ASSERT_TRUE(a.parse("192.0.2.33"));
  EXPECT_TRUE(a.isV4());
  EXPECT_EQ(a.str(), "192.0.2.33");
  EXPECT_EQ(a.str(false), "::ffff:192.0.2.33");
  ol::IPAddr6 b;
  ASSERT_TRUE(b.parse("::FFFF:192.0.2.33"));
  EXPECT_EQ(a, b);
  const std::uint8_t four[4] = {10, 0, 0, 1};
  EXPECT_EQ(ol::IPAddr6::fromBytes(four).str(), "10.0.0.1");
  EXPECT_TRUE(ol::IPAddr6().isZero());
  EXPECT_EQ(ol::IPAddr6::fromBytes(std::span<const std::uint8_t>(four, 3)).str(), "::");
  ol::IPAddr6 c;
  ASSERT_TRUE(c.parse("64:ff9b::1.2.3.4"));
  EXPECT_EQ(c.str(), "64:ff9b::102:304");
}

TEST(IPAddr6, RejectsMalformedText) {
  for (const std::string t : tessel::test::parseCases("ipBad")) {
    ol::IPAddr6 a;
    ASSERT_TRUE(a.parse("2001:db8::7"));
    EXPECT_FALSE(a.parse(t)) << t;
    EXPECT_EQ(a.str(), "2001:db8::7") << "changed by " << t;
  }
}

class TempDir : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("tessel-ol-" + std::to_string(::getpid()) + "-" + testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    ol::setRoot("/");
    std::filesystem::remove_all(dir_);
  }
  std::string write(const std::string& name, const std::string& content) {
    auto p = dir_ / name;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << content;
    return p.string();
  }
  std::filesystem::path dir_;
};

TEST_F(TempDir, ReadFileWholeRangesAndFailures) {
  std::string content(40000, 'x');
  content[39999] = 'z';
  std::string path = write("big", content);
  EXPECT_EQ(ol::readFile(path), content);
  std::string part;
  EXPECT_TRUE(ol::readFile(part, path, 5, 39995));
  EXPECT_EQ(part, "xxxxz");
  EXPECT_TRUE(ol::readFile(part, path, -1, 39999));
  EXPECT_EQ(part, "z");
  EXPECT_FALSE(ol::readFile(part, (dir_ / "missing").string()));
  EXPECT_TRUE(part.empty());
  EXPECT_EQ(ol::readFile((dir_ / "missing").string()), "");
  EXPECT_FALSE(ol::readFile(part, dir_.string()));  // a directory is not a file
  EXPECT_TRUE(ol::readFile(part, write("empty", "")));
  EXPECT_TRUE(part.empty());
}

TEST_F(TempDir, FixedPathsResolveUnderTheRoot) {
  EXPECT_EQ(ol::rootPath("/proc/crypto"), "/proc/crypto");
  write("proc/crypto", "name : sha256\n");
  ol::setRoot(dir_.string() + "/");
  EXPECT_EQ(ol::root(), dir_.string());
  EXPECT_EQ(ol::rootPath("/proc/crypto"), dir_.string() + "/proc/crypto");
  EXPECT_EQ(ol::readFile(ol::rootPath("/proc/crypto")), "name : sha256\n");
  ol::setRoot("");
  EXPECT_EQ(ol::root(), "/");
}

}  // namespace
