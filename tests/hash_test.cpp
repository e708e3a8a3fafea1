#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif
#include "backends.h"
#include "support.h"
#include "tessel/hash.h"

namespace tessel {
namespace {

using test::Bytes;
using test::toHex;

class DigestVectors : public testing::TestWithParam<const char*> {};

// Through the runner the kernel digests share (backends.h), once per code path.
TEST_P(DigestVectors, KnownAnswers) {
  LOAD_VECTORS(cases, GetParam());
  ASSERT_FALSE(cases.empty());
  test::forEachDigestPath(
      [&] { EXPECT_EQ(test::digestKnownAnswers(test::softwareBackend(), cases), static_cast<int>(cases.size())); });
}

INSTANTIATE_TEST_SUITE_P(Kat, DigestVectors, testing::Values("kat/md4.json", "kat/md5.json", "kat/sha.json"));

// A digest written against HashImpl with only init and transform: it records every block it is
// given, so the test sees that all the message's bytes and the padding pass through transform,
// whatever the split of the input.
class BlockRecorder : public HashImpl {
 public:
  unsigned blockLength() const override { return 64; }
  unsigned digestLength() const override { return 0; }
  void digest(unsigned char*) override { finish(false); }
  Bytes seen;

 protected:
  void init() override { seen.clear(); }
  void transform() override { seen.insert(seen.end(), buffer_, buffer_ + 64); }
};

TEST(Digest, DerivedWithOnlyInitAndTransformSeesEveryByte) {
  test::TestRng rng(0x70e);
  for (std::size_t len : {0, 1, 55, 56, 63, 64, 65, 128, 1000}) {
    const Bytes msg = rng.bytes(len);
    // Merkle-Damgard padding: 0x80, zeros to 56 mod 64, the bit length big-endian.
    Bytes padded = msg;
    padded.push_back(0x80);
    while (padded.size() % 64 != 56) padded.push_back(0);
    for (int i = 7; i >= 0; --i) padded.push_back(static_cast<unsigned char>(uint64_t{len} * 8 >> (8 * i)));
    BlockRecorder recorder;
    Hash& h = recorder;
    std::size_t at = 0;
    for (std::size_t n : test::randomSplits(rng, len)) {
      h.update(msg.data() + at, static_cast<unsigned>(n));
      at += n;
    }
    h.digest();
    EXPECT_EQ(toHex(recorder.seen), toHex(padded)) << len;
  }
}

// The names exist only for certificate digests. (Block and length-field sizes show in the
// digests and HMACs checked against OpenSSL.)
TEST(Digest, Names) {
  const char* names[] = {"unknown", "unknown", "unknown", "MD5", "SHA1", "SHA256", "SHA384", "SHA512", "unknown"};
  for (unsigned id = 0; id <= 8; ++id) EXPECT_EQ(getHashName(id), names[id]) << id;
  EXPECT_EQ(getHashName(0xffffffffu), "unknown");
}

#if TESSEL_HAVE_OPENSSL
// Random messages around every block and padding boundary, fed in random splits, against
// OpenSSL, every id on every code path (the empty message first).
TEST(Digest, MatchesOpenSslForRandomMessagesAndSplits) {
  ASSERT_TRUE(test::legacyProviders());
  test::forEachDigestPath([&] {
    const int perId = std::max(300, test::rounds(2000));  // every short length even sanitized
    EXPECT_EQ(test::digestsMatchOpenSsl(test::softwareBackend(), perId), 7 * perId);
  });
}
#endif

}  // namespace
}  // namespace tessel
