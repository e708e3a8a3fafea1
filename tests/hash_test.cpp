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
  test::forEachDigestPath([&] {
    EXPECT_EQ(test::digestKnownAnswers(test::softwareBackend(), cases), static_cast<int>(cases.size()));
  });
}

INSTANTIATE_TEST_SUITE_P(Kat, DigestVectors, testing::Values("kat/md4.json", "kat/md5.json", "kat/sha.json"));

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
        if (i < 300)
          len = static_cast<std::size_t>(i);  // every length up to past two 128-byte blocks
        else if (i % 3 == 0)
          len = 128 * rng.below(33) + rng.below(3) - 1 + (rng.below(2) ? 0 : 8);  // near block edges
        else
          len = rng.below(4096);
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
