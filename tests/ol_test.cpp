#include <arpa/inet.h>
#if TESSEL_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

#include <cstring>

#include "ol/base64.h"
#include "ol/file.h"
#include "ol/ipaddr.h"
#include "support.h"

namespace {

using tessel::test::Bytes;

// decode fills `out` from `text` with room for `capacity` bytes; guard bytes past it must survive.
int decode(std::string_view text, Bytes& out, std::size_t capacity) {
  out.assign(capacity + 8, 0xAA);
  int n = ol::base64Decode(text.data(), text.size(), out.data(), capacity);
  EXPECT_EQ(Bytes(out.begin() + static_cast<long>(capacity), out.end()), Bytes(8, 0xAA)) << "overrun";
  return n;
}

#if TESSEL_HAVE_OPENSSL
TEST(Base64, MatchesOpenSslBothWays) {
  tessel::test::TestRng rng(64);
  for (std::size_t len = 0; len < 400; ++len) {
    Bytes data = rng.bytes(len), back;
    std::string ours(ol::base64EncodedLength(len), '\0'), theirs(ours.size() + 1, '\0');
    ASSERT_EQ(ol::base64Encode(data.data(), len, ours.data(), ours.size()), static_cast<int>(ours.size()));
    theirs.resize(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(theirs.data()), data.data(), static_cast<int>(len)));
    ASSERT_EQ(ours, theirs) << len;
    ASSERT_EQ(decode(ours, back, len), static_cast<int>(len)) << len;
    ASSERT_EQ(Bytes(back.begin(), back.begin() + static_cast<long>(len)), data) << len;
  }
}
#endif

// Malformed text and too little room are refused; unused low bits of the last character are ignored.
TEST(Base64, MalformedTextAndCapacity) {
  std::vector<std::string> bad = tessel::test::parseCases("base64Bad");
  bad.push_back("QUJ\xff");
  Bytes out;
  for (const std::string& t : bad) EXPECT_EQ(decode(t, out, 16), -1) << t;
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
    unsigned char raw[16];
    char buf[INET6_ADDRSTRLEN];
    ASSERT_TRUE(a.parse(t)) << t;
    ASSERT_EQ(inet_pton(AF_INET6, t, raw), 1) << t;
    EXPECT_EQ(0, std::memcmp(a.bytes().data(), raw, 16)) << t;
    EXPECT_EQ(a.isV4() ? a.str(false) : a.str(), inet_ntop(AF_INET6, raw, buf, sizeof buf)) << t;
  }
}

TEST(IPAddr6, Ipv4FormsAndMapping) {
  ol::IPAddr6 a, b;
  ASSERT_TRUE(a.parse("192.0.2.33") && b.parse("::FFFF:192.0.2.33"));
  EXPECT_TRUE(a.isV4());
  EXPECT_EQ(a.str(), "192.0.2.33");
  EXPECT_EQ(a.str(false), "::ffff:192.0.2.33");
  EXPECT_EQ(a, b);
  const std::uint8_t four[4] = {10, 0, 0, 1};
  EXPECT_EQ(ol::IPAddr6::fromBytes(four).str(), "10.0.0.1");
  EXPECT_EQ(ol::IPAddr6::fromBytes(std::span<const std::uint8_t>(four, 3)).str(), "::");
  EXPECT_TRUE(ol::IPAddr6().isZero());
}

TEST(IPAddr6, RejectsMalformedText) {
  for (const std::string t : tessel::test::parseCases("ipBad")) {
    ol::IPAddr6 a;
    ASSERT_TRUE(a.parse("2001:db8::7"));
    EXPECT_FALSE(a.parse(t)) << t;
    EXPECT_EQ(a.str(), "2001:db8::7") << "changed by " << t;
  }
}

TEST(OlFile, ReadFileWholeRangesAndFailures) {
  tessel::test::TempRoot root;
  std::string content(40000, 'x'), part;
  content[39999] = 'z';
  root.write("/big", tessel::test::bytesOf(content));
  root.write("/empty", {});
  EXPECT_EQ(ol::readFile(root.path("/big")), content);
  EXPECT_TRUE(ol::readFile(part, root.path("/big"), 5, 39995));
  EXPECT_EQ(part, "xxxxz");
  EXPECT_TRUE(ol::readFile(part, root.path("/big"), -1, 39999));
  EXPECT_EQ(part, "z");
  EXPECT_FALSE(ol::readFile(part, root.path("/missing")));
  EXPECT_TRUE(part.empty());
  EXPECT_EQ(ol::readFile(root.path("/missing")), "");
  EXPECT_FALSE(ol::readFile(part, root.path("/")));  // a directory is not a file
  EXPECT_TRUE(ol::readFile(part, root.path("/empty")));
  EXPECT_TRUE(part.empty());
}

TEST(OlFile, FixedPathsResolveUnderTheRoot) {
  EXPECT_EQ(ol::rootPath("/proc/crypto"), "/proc/crypto");
  tessel::test::TempRoot root;
  root.write("/proc/crypto", tessel::test::bytesOf("name : sha256\n"));
  const std::string dir = root.path("");
  ol::setRoot(dir + "/");  // a trailing slash is dropped
  EXPECT_EQ(ol::root(), dir);
  EXPECT_EQ(ol::rootPath("/proc/crypto"), dir + "/proc/crypto");
  EXPECT_EQ(ol::readFile(ol::rootPath("/proc/crypto")), "name : sha256\n");
  ol::setRoot("");
  EXPECT_EQ(ol::root(), "/");
}

}  // namespace
