#include <algorithm>
#include <memory>

#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif
#include "backends.h"
#include "support.h"
#include "tessel/hmac.h"

namespace tessel {
namespace {

using test::Bytes;
using test::toHex;

Bytes hmacOf(unsigned id, const Bytes& key, const Bytes& msg) {
  auto h = test::makeSoftwareHash(id);
  return HMAC(h.get(), key.data(), static_cast<unsigned>(key.size())).update(msg).digest();
}

// The HMAC known answers run through the runner the kernel digests share (factory_test.cpp).
class HmacWycheproof : public testing::TestWithParam<const char*> {};

TEST_P(HmacWycheproof, ExpectedVerdicts) {
  LOAD_VECTORS(file, std::string("wycheproof/hmac_") + GetParam() + "_test.json");
  unsigned id = test::hashIdForName(file["algorithm"]);
  const int checked = test::forEachWycheproofTest(file, [&](const nlohmann::json& group, const nlohmann::json& t) {
    const Bytes mac = hmacOf(id, *test::field(t, "key"), *test::field(t, "msg"));
    const bool match = toHex(mac.data(), group["tagSize"].get<std::size_t>() / 8) == t["tag"].get<std::string>();
    EXPECT_EQ(match, t["result"] == "valid");
  });
  EXPECT_EQ(checked, file["numberOfTests"].get<int>());
}

INSTANTIATE_TEST_SUITE_P(All, HmacWycheproof, testing::Values("sha1", "sha256", "sha384", "sha512"));

#if TESSEL_HAVE_OPENSSL
// Random keys (first every length around the block, the empty key and a 1 MiB key), messages fed
// in random pieces, and each HMAC object reused for a second message, against OpenSSL.
TEST(Hmac, MatchesOpenSslForKeysMessagesSplitsAndReuse) {
  ASSERT_TRUE(test::legacyProviders());
  test::TestRng rng(0x4ac);
  for (unsigned id = 1; id <= 7; ++id) {
    auto h = test::makeSoftwareHash(id);
    const std::size_t block = h->blockLength();
    const std::size_t edgeKeys[] = {0, 1, block - 1, block, block + 1, std::size_t{1} << 20};
    for (int i = 0; i < test::rounds(300); ++i) {
      const Bytes key = rng.bytes(i < 6 ? edgeKeys[i] : rng.below(300));
      HMAC mac(h.get(), key.data(), static_cast<unsigned>(key.size()));
      if (i == 0) {
        EXPECT_EQ(mac.digest(), test::opensslHmac(id, key, {}));  // no update at all
      }
      for (int use = 0; use < 2; ++use) {
        const Bytes msg = rng.bytes(use && i % 7 == 0 ? 0 : rng.below(3000));
        std::size_t at = 0;
        for (std::size_t n : test::randomSplits(rng, msg.size())) {
          mac.update(msg.data() + at, static_cast<unsigned>(n));
          at += n;
        }
        ASSERT_EQ(toHex(mac.digest()), toHex(test::opensslHmac(id, key, msg)))
            << "id " << id << " iteration " << i << " use " << use << " key " << key.size() << " msg " << msg.size();
      }
    }
  }
}
#endif

TEST(Hkdf, KnownAnswers) {
  LOAD_VECTORS(cases, "kat/hkdf.json");
  for (const auto& c : cases) {
    SCOPED_TRACE(c["id"].get<std::string>());
    auto h = test::makeSoftwareHash(test::hashIdForName(c["hash"]));
    Bytes salt = test::field(c, "salt").value_or(Bytes{});  // absent salt: empty key, as the RFC's zeros
    Bytes info = *test::field(c, "info"), prk = *test::field(c, "prk");
    EXPECT_EQ(toHex(HKPDF(*h, salt, info, *test::field(c, "ikm"), c["length"])), c["okm"].get<std::string>());
    Bytes expanded = HKPDF_Expand(*h, info.data(), static_cast<unsigned>(info.size()), prk.data(),
                                  static_cast<unsigned>(prk.size()), c["length"]);
    EXPECT_EQ(toHex(expanded), c["okm"].get<std::string>());
  }
}

class HkdfWycheproof : public testing::TestWithParam<const char*> {};

// Wycheproof calls a request for more than 255 blocks invalid. This library does not refuse
// it: the counter byte wraps and block 256 uses counter 0, which existing derived keys rely
// on. Those cases (flag SizeTooLarge) are checked for exactly that behaviour.
TEST_P(HkdfWycheproof, ExpectedVerdictsOrSpecifiedWrap) {
  LOAD_VECTORS(file, std::string("wycheproof/hkdf_") + GetParam() + "_test.json");
  const std::string algo = file["algorithm"];  // "HKDF-SHA-256"
  unsigned id = test::hashIdForName(algo.substr(5));
  auto h = test::makeSoftwareHash(id);
  int wrapped = 0;
  test::forEachWycheproofTest(file, [&](const nlohmann::json&, const nlohmann::json& t) {
    Bytes ikm = *test::field(t, "ikm"), salt = *test::field(t, "salt"), info = *test::field(t, "info");
    unsigned size = t["size"];
    Bytes okm = HKPDF(*h, salt, info, ikm, size);
    const auto& flags = t["flags"];
    if (std::find(flags.begin(), flags.end(), "SizeTooLarge") == flags.end()) {
      EXPECT_EQ(t["result"], "valid");
      EXPECT_EQ(toHex(okm), t["okm"].get<std::string>());
      return;
    }
    ASSERT_EQ(t["result"], "invalid");
    const unsigned L = h->digestLength();
    ASSERT_EQ(okm.size(), size);
    ASSERT_GT(size, 255 * L);
    // Block 256: HMAC(PRK, block 255 || info || 0), the one-byte counter wrapped to 0.
    Bytes msg(okm.begin() + 254 * L, okm.begin() + 255 * L);
    msg.insert(msg.end(), info.begin(), info.end());
    msg.push_back(0);
    const Bytes expected = hmacOf(id, hmacOf(id, salt, ikm), msg);
    EXPECT_EQ(toHex(okm.data() + 255 * L, size - 255 * L), toHex(expected.data(), size - 255 * L));
    ++wrapped;
  });
  EXPECT_EQ(wrapped, 3);
}

INSTANTIATE_TEST_SUITE_P(All, HkdfWycheproof, testing::Values("sha1", "sha256", "sha384", "sha512"));

// Shorter outputs (the empty one too) are prefixes of longer ones, whatever the block edge.
TEST(Hkdf, LengthsAroundBlocks) {
  SHA256 h;
  const Bytes prk(32, 0x0b), info = test::bytesOf("ctx");
  Bytes full = HKPDF_Expand(h, info.data(), 3, prk.data(), 32, 96);
  for (unsigned len : {0u, 1u, 31u, 32u, 33u, 95u})
    EXPECT_EQ(HKPDF_Expand(h, info.data(), 3, prk.data(), 32, len), Bytes(full.begin(), full.begin() + len)) << len;
}

// PBKDF2 cases with this many iterations are left to native builds: under the sanitizers they
// take minutes and add nothing the shorter cases do not check.
constexpr unsigned kSlowIterations = test::kSanitized ? 100000 : 0xFFFFFFFF;

Bytes pbkdf2Of(const std::string& prf, const nlohmann::json& c, const char* iterations, const char* length) {
  auto h = test::makeSoftwareHash(prf.ends_with("256") ? hashSha256 : hashSha1);
  Bytes salt = *test::field(c, "salt"), password = *test::field(c, "password");
  return pbkdf2(*h, std::string(password.begin(), password.end()), salt.data(), static_cast<unsigned>(salt.size()),
                c[iterations], c[length]);
}

class Pbkdf2Wycheproof : public testing::TestWithParam<const char*> {};

TEST_P(Pbkdf2Wycheproof, ExpectedKeys) {
  LOAD_VECTORS(file, std::string("wycheproof/pbkdf2_hmac") + GetParam() + "_test.json");
  int checked = 0, skipped = 0;
  test::forEachWycheproofTest(file, [&](const nlohmann::json&, const nlohmann::json& t) {
    if (t["iterationCount"] >= kSlowIterations) return void(++skipped);
    EXPECT_EQ(toHex(pbkdf2Of(GetParam(), t, "iterationCount", "dkLen")) == t["dk"], t["result"] == "valid");
    ++checked;
  });
  EXPECT_EQ(checked + skipped, file["numberOfTests"].get<int>());
  if (skipped) std::printf("note: %d slow PBKDF2 cases left to the native build\n", skipped);
}

INSTANTIATE_TEST_SUITE_P(All, Pbkdf2Wycheproof, testing::Values("sha1", "sha256"));

#if TESSEL_HAVE_OPENSSL
// Both derivation paths against OpenSSL: the kept-pad-state one of the SHA and MD5 digests, and
// the generic HMAC one (MD4 here), with passwords around the block length and multi-block output.
TEST(Pbkdf2, MatchesOpenSslOnBothPaths) {
  ASSERT_TRUE(test::legacyProviders());
  test::TestRng rng(8018);
  for (unsigned id : {hashMd4, hashMd5, hashSha1, hashSha256, hashSha384, hashSha512}) {
    auto h = test::makeSoftwareHash(id);
    for (int i = 0; i < 40; ++i) {
      Bytes password = rng.bytes(rng.below(2) ? rng.below(20) : h->blockLength() - 1 + rng.below(3));
      Bytes salt = rng.bytes(rng.below(40));
      int iterations = 1 + static_cast<int>(rng.below(50)), length = 1 + static_cast<int>(rng.below(150));
      std::string_view pw(reinterpret_cast<const char*>(password.data()), password.size());
      Bytes ours = pbkdf2(*h, pw, salt.data(), static_cast<unsigned>(salt.size()), iterations, length), theirs(length);
      ASSERT_EQ(PKCS5_PBKDF2_HMAC(pw.data(), static_cast<int>(pw.size()), salt.data(), static_cast<int>(salt.size()),
                                  iterations, test::evpDigest(id), length, theirs.data()),
                1);
      ASSERT_EQ(toHex(ours), toHex(theirs)) << "id " << id << " case " << i;
    }
  }
}
#endif

}  // namespace
}  // namespace tessel
