#include <algorithm>
#include <memory>

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

// digestBySplits hashes `msg` fed in the given piece lengths.
Bytes digestBySplits(Hash& h, const Bytes& msg, const std::vector<std::size_t>& pieces) {
  std::size_t at = 0;
  for (std::size_t n : pieces) {
    h.update(msg.data() + at, static_cast<unsigned>(n));
    at += n;
  }
  return h.digest();
}

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
    BlockRecorder h;
    digestBySplits(h, msg, test::randomSplits(rng, len));
    EXPECT_EQ(toHex(h.seen), toHex(padded)) << len;
  }
}

TEST(Digest, ConstantsPerAlgorithm) {
  struct Row {
    unsigned id, block, length, field;
  };
  const Row rows[] = {{hashMd5Sha1, 64, 36, 8}, {hashMd4, 64, 16, 8},    {hashMd5, 64, 16, 8},
                      {hashSha1, 64, 20, 8},    {hashSha256, 64, 32, 8}, {hashSha384, 128, 48, 16},
                      {hashSha512, 128, 64, 16}};
  for (const Row& r : rows) {
    auto h = test::makeSoftwareHash(r.id);
    EXPECT_EQ(h->blockLength(), r.block) << r.id;
    EXPECT_EQ(h->digestLength(), r.length) << r.id;
    EXPECT_EQ(h->lengthFieldSize(), r.field) << r.id;
    // Empty updates leave the digest of the empty message.
    const Bytes empty = h->update(nullptr, 0).update(nullptr, 0).digest();
    EXPECT_EQ(empty.size(), r.length) << r.id;
#if TESSEL_HAVE_OPENSSL
    EXPECT_EQ(empty, test::opensslDigest(r.id, {})) << r.id;
#endif
  }
}

TEST(Digest, NamesOnlyForCertificateDigests) {
  const std::pair<unsigned, const char*> rows[] = {
      {0, "unknown"}, {1, "unknown"}, {2, "unknown"}, {3, "MD5"},     {4, "SHA1"},
      {5, "SHA256"},  {6, "SHA384"},  {7, "SHA512"},  {8, "unknown"}, {0xffffffffu, "unknown"}};
  for (auto [id, name] : rows) EXPECT_EQ(getHashName(id), name) << id;
}

#if TESSEL_HAVE_OPENSSL
// Random messages around every block and padding boundary, fed in random splits, against
// OpenSSL. A failure prints the seed and length needed to replay it.
TEST(Digest, MatchesOpenSslForRandomMessagesAndSplits) {
  ASSERT_TRUE(test::legacyProviders());
  test::forEachDigestPath([&] {
    test::TestRng rng(0x7e55e1);
    for (unsigned id = 1; id <= 7; ++id) {
      auto h = test::makeSoftwareHash(id);
      for (int i = 0; i < std::max(300, test::rounds(2000)); ++i) {  // every short length even sanitized
        std::size_t len;
        if (i < 300) len = static_cast<std::size_t>(i);  // every length up to past two 128-byte blocks
        else if (i % 3 == 0) len = 128 * rng.below(33) + rng.below(3) - 1 + (rng.below(2) ? 0 : 8);  // near block edges
        else len = rng.below(4096);
        if (len > 5000) len = 0;  // the edge formula can wrap below zero
        Bytes msg = rng.bytes(len);
        auto pieces = test::randomSplits(rng, len);
        ASSERT_EQ(toHex(digestBySplits(*h, msg, pieces)), toHex(test::opensslDigest(id, msg)))
            << "id " << id << " iteration " << i << " length " << len;
      }
    }
  });
}
#endif

}  // namespace
}  // namespace tessel
