// Key generation: every key type's fresh key is checked by OpenSSL's libcrypto (its key check, the
// public part it derives, a signature it verifies), comes from the given source alone, and fails
// with it. The RSA prime test and derivation are also checked on their own against libcrypto.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "bignum_support.h"
#include "keys/rsa_keygen.h"
#include "tessel/keygen.h"
#include "tessel/mlkem_keys.h"
#include "tessel/pkcs8.h"
#include "tessel/rsa.h"
#include "test_rng.h"

#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"

namespace tessel::test {
namespace {

// checkedKey reads our PKCS#8 with libcrypto and expects its key check to pass.
EvpKey checkedKey(const Bytes& der) {
  EvpKey key = opensslKey(der);
  EVP_PKEY_CTX* ctx = key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr;
  EXPECT_TRUE(ctx && EVP_PKEY_check(ctx) == 1) << "libcrypto refuses the PKCS#8 or its key check fails";
  EVP_PKEY_CTX_free(ctx);
  return key;
}

// checkRsaShape checks what libcrypto's key check does not: the sizes, |p − q|, and d below λ.
void checkRsaShape(const RsaPrivateKey& key, unsigned bits) {
  EXPECT_EQ(key.n.bits(), bits);
  EXPECT_EQ(key.e, BigNum(65537));
  for (const BigNum* prime : {&key.p, &key.q})
    EXPECT_TRUE(prime->bits() == bits / 2 && prime->getBit(bits / 2 - 2)) << "top two bits";
  const BigNum p1 = key.p - BigNum(1u), q1 = key.q - BigNum(1u);
  auto quotient = [](BIGNUM* r, const BIGNUM* x, const BIGNUM* y, BN_CTX* c) { return BN_div(r, nullptr, x, y, c); };
  EXPECT_LT(key.d, ossl(quotient, ossl(BN_mul, p1, q1), ossl(BN_gcd, p1, q1))) << "d not reduced mod lcm(p-1, q-1)";
  EXPECT_GT((key.p < key.q ? key.q - key.p : key.p - key.q).bits(), bits / 2 - 100);
}

struct Case {
  const char* name;
  KeyType type;
  unsigned size;
  HashID hash;
};
const Case kCases[] = {
    {"RSA-2048", keyRsa, 2048, hashSha256},   {"RSA-3072", keyRsa, 3072, hashSha384},
    {"RSA-4096", keyRsa, 4096, hashSha512},   {"P-192", keyEc, 1, hashSha1},
    {"P-224", keyEc, 2, hashSha256},          {"P-256", keyEc, 3, hashSha256},
    {"P-384", keyEc, 4, hashSha384},          {"P-521", keyEc, 5, hashSha512},
    {"Ed25519", keyEd25519, 0, hashNone},     {"X25519", keyX25519, 0, hashNone},
    {"ML-KEM-768", keyMlkem768, 0, hashNone},
};

TEST(KeyGen, EveryTypeIsReproducibleFreshAndAcceptedByOpenssl) {
  const Bytes msg = fromHex("0102030405060708090a");
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    if (c.size > 2048 && !std::getenv("TESSEL_SLOW")) continue;
    auto rng = ScriptedRng::seeded(c.size + c.type), same = ScriptedRng::seeded(c.size + c.type);
    auto key = generatePrivateKey(c.type, c.size, rng), again = generatePrivateKey(c.type, c.size, same);
    auto other = generatePrivateKey(c.type, c.size);
    ASSERT_TRUE(key && again && other);
    const Bytes der = encodePkcs8PrivateKey(*key);
    EXPECT_EQ(der, encodePkcs8PrivateKey(*again)) << "the source is not the only input";
    EXPECT_NE(der, encodePkcs8PrivateKey(*other));
    for (std::size_t budget : {0, 16, c.type == keyRsa ? 3000 : 0}) {
      auto failing = ScriptedRng::seeded(1, budget);
      EXPECT_FALSE(generatePrivateKey(c.type, c.size, failing)) << "budget " << budget;
    }
    if (c.type == keyMlkem768) {  // libcrypto 3.0 has no ML-KEM: decapsulate what the public part encapsulates
      auto read = parseOneAssimetricKey(asn1::blob(der)).first;
      auto pub = std::dynamic_pointer_cast<MLKEMPublicKey>(key->publicPart());
      Bytes ct, secret, back;
      ASSERT_TRUE(read && pub && pub->encapsulate(rng, ct, secret));
      ASSERT_TRUE(static_cast<MLKEMPrivateKey&>(*read).decapsulate(ct, back));
      EXPECT_EQ(secret, back);
      continue;
    }
    EvpKey theirs = checkedKey(der);
    ASSERT_TRUE(theirs);
    unsigned char* spki = nullptr;
    const int spkiLen = i2d_PUBKEY(theirs.get(), &spki);
    EXPECT_EQ(Bytes(spki, spki + spkiLen), encodeSubjectPublicKeyInfo(*key)) << "public part differs";
    OPENSSL_free(spki);
    if (c.type == keyRsa) checkRsaShape(static_cast<RsaPrivateKey&>(*key), c.size);
    if (c.type == keyX25519) continue;
    for (bool pss : {false, true}) {
      if (pss && c.type != keyRsa) continue;
      SignatureParams params;
      params.hash = c.hash;
      params.pss = pss;
      EXPECT_TRUE(opensslVerifies(theirs.get(), params, msg, key->sign(asn1::blob(msg), params))) << "pss " << pss;
    }
  }
}

TEST(KeyGen, RefusedSizes) {
  for (unsigned bits : {0u, 1024u, 2047u, 2050u + 1, 4098u, 8192u}) EXPECT_FALSE(generatePrivateKey(keyRsa, bits));
  for (unsigned curve : {0u, 6u}) EXPECT_FALSE(generatePrivateKey(keyEc, curve));
  EXPECT_FALSE(generatePrivateKey(static_cast<KeyType>(1), 0));
}

// The internal generator takes short and odd sizes, whose primes end inside a limb or a byte.
TEST(KeyGen, ShortRsaKeysPassOpensslCheck) {
  for (unsigned bits : {512u, 770u, 1024u, 1090u}) {
    SCOPED_TRACE(bits);
    auto rng = ScriptedRng::seeded(bits);
    RsaPrivateKey key;
    ASSERT_TRUE(rsa::generateKey(key, bits, rng));
    ASSERT_TRUE(checkedKey(encodePkcs8PrivateKey(key)));
    checkRsaShape(key, bits);
    EXPECT_FALSE(rsa::deriveKey(key, key.p, key.p, bits / 2)) << "p = q must be refused";
  }
}

// isProbablePrime against BN_check_prime: random odd numbers, libcrypto's primes, their
// products, and Carmichael numbers (6k+1)(12k+1)(18k+1), which pass every Fermat test.
TEST(KeyGen, PrimeTestAgreesWithOpenssl) {
  BnCtx ctx;
  TestRng gen(7);
  auto rng = ScriptedRng::seeded(8);
  auto agree = [&](const BigNum& x) {
    EXPECT_EQ(rsa::isProbablePrime(x, 8, rng), BN_check_prime(toBn(x).get(), ctx, nullptr) == 1) << x.str();
  };
  for (int i = 0; i < rounds(300); ++i) {
    Bytes w = gen.bytes(4 + gen.below(40));
    w[0] |= 0x80;
    w.back() |= 1;
    agree(BigNum(asn1::blob(w)));
  }
  for (int bits : {40, 64, 100, 256, 521}) {
    Bn p = newBn(), q = newBn();
    BN_generate_prime_ex(p.get(), bits, 0, nullptr, nullptr, nullptr);
    BN_generate_prime_ex(q.get(), bits, 0, nullptr, nullptr, nullptr);
    agree(fromBn(p.get()));
    agree(ossl(BN_mul, fromBn(p.get()), fromBn(q.get())));
  }
  int found = 0;
  for (std::uint64_t k = 400; found < 3; ++k) {
    const std::uint64_t f[] = {6 * k + 1, 12 * k + 1, 18 * k + 1};
    bool allPrime = true;
    for (std::uint64_t v : f)
      for (std::uint64_t t = 2; t * t <= v && allPrime; ++t) allPrime = v % t != 0;
    if (!allPrime) continue;
    ++found;
    agree(bn64(f[0] * f[1] * f[2]));
  }
}

}  // namespace
}  // namespace tessel::test
#endif
