#include "tessel/rsa.h"

#include <sstream>

#if TESSEL_HAVE_OPENSSL
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#endif

#include "support.h"
#include "tessel/reducer.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

const unsigned kSizes[] = {1024, 1536, 2048, 3072, 4096};

std::string keyPath(unsigned bits, const char* form) { return "keys/rsa" + std::to_string(bits) + "." + form; }

// publicDer writes SEQUENCE { n, e } from hex values, plus optional trailing elements.
Bytes publicDer(const BigNum& n, const BigNum& e, const std::string& trailing = "") {
  DerEncoder enc;
  enc.sequence([&](DerEncoder& s) {
    s.addInt(2, n);
    s.addInt(2, e);
    s.addBytes(asn1::blob(fromHex(trailing)));
  });
  return enc.data;
}

BigNum topBitNumber(unsigned bits) {  // an odd number of exactly `bits` bits
  BigNum n(1);
  n <<= bits - 1;
  n += 1;
  return n;
}

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("rsa_cases.json");
  return all.at(table);
}

TEST(RsaPublicKey, AcceptanceRules) {
  for (const auto& r : cases("publicKeys")) {
    RsaPublicKey key;
    const BigNum n = topBitNumber(r[0]), e(asn1::blob(fromHex(r[1].get<std::string>())));
    EXPECT_EQ(key.parseFromDerEncoded(asn1::blob(publicDer(n, e)), {}), r[2].get<bool>()) << r;
  }
  RsaPublicKey key;
  EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(publicDer(topBitNumber(2048), 65537, "0500")), {}));
  EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(fromHex("3003020101")), {}));  // no e
  EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(fromHex("0403020101")), {}));
  EXPECT_FALSE(key.parseFromDerEncoded({}, {}));
}

// Every fixture reads and writes back byte for byte in pkcs8_test.cpp.

TEST(RsaPrivateKey, StructureRules) {
  Bytes der = test::readFixture(keyPath(1024, "pkcs1.der"));
  RsaPrivateKey good;
  ASSERT_TRUE(good.parseFromDerEncoded(asn1::blob(der), {}));
  auto rewrite = [&](unsigned version, const std::string& trailing, int dropLast) {
    DerEncoder enc;
    enc.sequence([&](DerEncoder& s) {
      s.addInt(2, version);
      std::vector<const BigNum*> parts = {&good.n, &good.e, &good.d, &good.p, &good.q, &good.dP, &good.dQ, &good.qInv};
      for (std::size_t i = 0; i + dropLast < parts.size(); ++i) s.addInt(2, *parts[i]);
      s.addBytes(asn1::blob(fromHex(trailing)));
    });
    RsaPrivateKey k;
    return k.parseFromDerEncoded(asn1::blob(enc.data), {});
  };
  EXPECT_TRUE(rewrite(0, "", 0));
  EXPECT_FALSE(rewrite(1, "", 0));            // version 1 (multi-prime) is refused
  EXPECT_FALSE(rewrite(0, "3000", 0));        // otherPrimeInfos or anything after qInv
  EXPECT_FALSE(rewrite(0, "", 1));            // qInv missing
}

TEST(RsaPrivateKey, DumpLines) {
  RsaPrivateKey key;
  key.n = BigNum(0xabcdef01u);
  key.e = BigNum(65537u);
  key.d = BigNum(0x1234u);
  std::ostringstream priv, pub;
  key.dump(priv);
  key.RsaPublicKey::dump(pub);
  EXPECT_EQ(priv.str(), "[RSA-PRIVATE]\nmodulus: " + key.n.str() + "\npublicExponent: " + key.e.str() +
                            "\nprivateExponent: " + key.d.str() + "\n");
  EXPECT_EQ(pub.str(), "[RSA-PUBLIC]\nmodulus: " + key.n.str() + "\npublicExponent: " + key.e.str() + "\n");
}

TEST(RsaPrivateKey, CrtAndPlainPathsAgree) {
  RsaPrivateKey crt;
  ASSERT_TRUE(crt.parseFromDerEncoded(asn1::blob(test::readFixture(keyPath(2048, "pkcs1.der"))), {}));
  RsaPrivateKey plain = crt;
  plain.p = plain.q = plain.dP = plain.dQ = plain.qInv = BigNum();
  Bytes digest(32, 0x42);
  Bytes a = crt.signHashed(hashSha256, asn1::blob(digest));
  ASSERT_EQ(a.size(), 256u);
  EXPECT_EQ(a, plain.signHashed(hashSha256, asn1::blob(digest)));
  // A key whose CRT values do not belong to it is caught by the check, not signed with.
  RsaPrivateKey broken = crt;
  broken.dP += 2;
  EXPECT_TRUE(broken.signHashed(hashSha256, asn1::blob(digest)).empty());
  // Inputs not below n are refused.
  EXPECT_TRUE(crt.privateOperation(asn1::blob(crt.n.bin())).empty());
}

TEST(RsaPrivateKey, ShortModulusKeepsTheSingleLengthCheck) {
  // With k = |T| + 1 .. |T| + 10 the usual eight 0xFF bytes do not fit; signing still goes ahead,
  // and the public operation gives back 00 01 FF.. 00 T exactly as laid out.
  RsaPrivateKey key;
  ASSERT_TRUE(key.parseFromDerEncoded(asn1::blob(test::readFixture(keyPath(1024, "pkcs1.der"))), {}));
  Bytes digest(64, 0x17);  // SHA-512: T is 83 bytes, k is 128
  Bytes sig = key.signHashed(hashSha512, asn1::blob(digest));
  ASSERT_EQ(sig.size(), 128u);
  Bytes em = expByMod(BigNum(asn1::blob(sig)), key.e, key.n).bin(128);
  EXPECT_EQ(toHex(Bytes(em.begin(), em.begin() + 2)), "0001");
  EXPECT_EQ(em[128 - 83 - 1], 0);
  EXPECT_EQ(toHex(Bytes(em.end() - 64, em.end())), toHex(digest));
  Bytes tooLong(200, 1);
  EXPECT_TRUE(key.signHashed(hashMd5Sha1, asn1::blob(tooLong)).empty());
}

TEST(RsaPublicKey, DigestInfoChecks) {
  for (const auto& r : cases("digestInfo")) {
    const Bytes block = fromHex(r[0].get<std::string>());
    asn1::blob digest;
    const std::string printed = test::said([&] { digest = RsaPublicKey::parseHashFromDerEncoded(r[1], asn1::blob(block)); });
    EXPECT_EQ(toHex(digest.vec()), r[2].is_null() ? std::string(64, '1') : "") << r;
    EXPECT_EQ(printed, r[2].is_null() ? "" : r[2].get<std::string>() + "\n") << r;
  }
}

#if TESSEL_HAVE_OPENSSL
BigNum opensslParam(EVP_PKEY* pkey, const char* name) {
  BIGNUM* bn = nullptr;
  EVP_PKEY_get_bn_param(pkey, name, &bn);
  Bytes bytes(static_cast<std::size_t>(BN_num_bytes(bn)));
  BN_bn2bin(bn, bytes.data());
  BN_free(bn);
  return BigNum(asn1::blob(bytes));
}

// Signatures of every fixture key match OpenSSL's deterministic PKCS#1 v1.5 signatures byte for
// byte and verify with OpenSSL, for every digest we sign with and for the MD5+SHA-1 pair.
TEST(RsaPrivateKey, SignaturesMatchOpenSsl) {
  for (unsigned bits : kSizes) {
    Bytes der = test::readFixture(keyPath(bits, "pkcs1.der"));
    RsaPrivateKey ours;
    ASSERT_TRUE(ours.parseFromDerEncoded(asn1::blob(der), {}));
    const unsigned char* p = der.data();
    EVP_PKEY* pkey = d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size()));
    ASSERT_TRUE(pkey);
    EXPECT_EQ(ours.n, opensslParam(pkey, OSSL_PKEY_PARAM_RSA_N));
    EXPECT_EQ(ours.qInv, opensslParam(pkey, OSSL_PKEY_PARAM_RSA_COEFFICIENT1));
    const std::pair<unsigned, const EVP_MD*> digests[] = {
        {hashSha1, EVP_sha1()}, {hashSha256, EVP_sha256()}, {hashSha384, EVP_sha384()},
        {hashSha512, EVP_sha512()}, {hashMd5Sha1, EVP_md5_sha1()}};
    test::TestRng rng(bits);
    for (auto [id, md] : digests) {
      Bytes digest = rng.bytes(static_cast<std::size_t>(EVP_MD_get_size(md)));
      Bytes sig = ours.signHashed(id, asn1::blob(digest));
      EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(pkey, nullptr);
      EVP_PKEY_sign_init(ctx);
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
      EVP_PKEY_CTX_set_signature_md(ctx, md);
      std::size_t len = 0;
      EVP_PKEY_sign(ctx, nullptr, &len, digest.data(), digest.size());
      Bytes expected(len);
      ASSERT_EQ(EVP_PKEY_sign(ctx, expected.data(), &len, digest.data(), digest.size()), 1);
      expected.resize(len);
      EXPECT_EQ(toHex(sig), toHex(expected)) << bits << " bits, hash " << id;
      EVP_PKEY_verify_init(ctx);
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
      EVP_PKEY_CTX_set_signature_md(ctx, md);
      EXPECT_EQ(EVP_PKEY_verify(ctx, sig.data(), sig.size(), digest.data(), digest.size()), 1);
      EVP_PKEY_CTX_free(ctx);
    }
    EVP_PKEY_free(pkey);
  }
}
#endif

}  // namespace
}  // namespace tessel
