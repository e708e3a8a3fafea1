// RSA keys: acceptance rules for public and private key bodies, the CRT and plain private
// operations, DigestInfo checks, and PKCS#1 v1.5 signatures of the fixture keys as OpenSSL makes
// them (tests/data/rsa_cases.json).
#include "tessel/rsa.h"

#include <map>

#include "bignum_support.h"
#include "tessel/reducer.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

// keyOf reads the PKCS#1 fixture of a size (every fixture reads and writes back in pkcs8_test.cpp).
RsaPrivateKey keyOf(unsigned bits) {
  RsaPrivateKey key;
  EXPECT_TRUE(
      key.parseFromDerEncoded(asn1::blob(test::readFixture("keys/rsa" + std::to_string(bits) + ".pkcs1.der")), {}));
  return key;
}

// encode writes SEQUENCE { version?, numbers..., trailing } as a key body.
Bytes encode(std::vector<BigNum> numbers, const std::string& trailing = "") {
  DerEncoder enc;
  enc.sequence([&](DerEncoder& s) {
    for (const BigNum& x : numbers) s.addInt(2, x);
    s.addBytes(asn1::blob(fromHex(trailing)));
  });
  return enc.data;
}

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("rsa_cases.json");
  return all.at(table);
}

TEST(RsaPublicKey, AcceptanceRules) {
  auto accepts = [](const Bytes& der) { return RsaPublicKey().parseFromDerEncoded(asn1::blob(der), {}); };
  auto oddOfBits = [](unsigned bits) { return (BigNum(1u) << (bits - 1)) + BigNum(1u); };
  for (const auto& r : cases("publicKeys"))
    EXPECT_EQ(accepts(encode({oddOfBits(r[0]), test::hexNum(r[1].get<std::string>())})), r[2].get<bool>()) << r;
  EXPECT_FALSE(accepts(encode({oddOfBits(2048), BigNum(65537u)}, "0500")));
  EXPECT_FALSE(accepts(fromHex("3003020101")));  // no e
  EXPECT_FALSE(accepts(fromHex("0403020101")));
  EXPECT_FALSE(accepts({}));
}

TEST(RsaPrivateKey, StructureRules) {
  const RsaPrivateKey good = keyOf(1024);
  auto accepts = [&](unsigned version, const std::string& trailing, bool withQInv) {
    std::vector<BigNum> parts = {BigNum(version), good.n, good.e, good.d, good.p, good.q, good.dP, good.dQ, good.qInv};
    if (!withQInv) parts.pop_back();
    return RsaPrivateKey().parseFromDerEncoded(asn1::blob(encode(parts, trailing)), {});
  };
  EXPECT_TRUE(accepts(0, "", true));
  EXPECT_FALSE(accepts(1, "", true));      // version 1 (multi-prime) is refused
  EXPECT_FALSE(accepts(0, "3000", true));  // otherPrimeInfos or anything after qInv
  EXPECT_FALSE(accepts(0, "", false));
}

TEST(RsaPrivateKey, DumpLines) {
  RsaPrivateKey key;
  key.n = BigNum(0xabcdef01u);
  key.e = BigNum(65537u);
  key.d = BigNum(0x1234u);
  const std::string pub = "modulus: abcdef01\npublicExponent: 10001\n";
  EXPECT_EQ(test::dumpOf(key), "[RSA-PRIVATE]\n" + pub + "privateExponent: 1234\n");
  std::ostringstream os;
  key.RsaPublicKey::dump(os);
  EXPECT_EQ(os.str(), "[RSA-PUBLIC]\n" + pub);
}

TEST(RsaPrivateKey, CrtAndPlainPathsAgree) {
  const RsaPrivateKey crt = keyOf(2048);
  RsaPrivateKey plain = crt, broken = crt;
  plain.p = plain.q = plain.dP = plain.dQ = plain.qInv = BigNum();
  broken.dP += 2;
  const Bytes digest(32, 0x42), a = crt.signHashed(hashSha256, asn1::blob(digest));
  ASSERT_EQ(a.size(), 256u);
  EXPECT_EQ(a, plain.signHashed(hashSha256, asn1::blob(digest)));
  // A key whose CRT values do not belong to it is caught by the check, not signed with.
  EXPECT_TRUE(broken.signHashed(hashSha256, asn1::blob(digest)).empty());
  EXPECT_TRUE(crt.privateOperation(asn1::blob(crt.n.bin())).empty()) << "inputs not below n are refused";
}

TEST(RsaPrivateKey, ShortModulusKeepsTheSingleLengthCheck) {
  // With k = |T| + 1 .. |T| + 10 the usual eight 0xFF bytes do not fit; signing still goes ahead,
  // and the public operation gives back 00 01 FF.. 00 T exactly as laid out.
  const RsaPrivateKey key = keyOf(1024);
  const Bytes digest(64, 0x17);  // SHA-512: T is 83 bytes, k is 128
  const Bytes sig = key.signHashed(hashSha512, asn1::blob(digest));
  ASSERT_EQ(sig.size(), 128u);
  const std::string em = toHex(expByMod(BigNum(asn1::blob(sig)), key.e, key.n).bin(128));
  EXPECT_EQ(em.substr(0, 4), "0001");
  EXPECT_EQ(em.substr(2 * (128 - 84), 2), "00");
  EXPECT_EQ(em.substr(2 * (128 - 64)), toHex(digest));
  EXPECT_TRUE(key.signHashed(hashMd5Sha1, asn1::blob(Bytes(200, 1))).empty());
}

TEST(RsaPublicKey, DigestInfoChecks) {
  for (const auto& r : cases("digestInfo")) {
    const Bytes block = fromHex(r[0].get<std::string>());
    asn1::blob digest;
    const std::string printed =
        test::said([&] { digest = RsaPublicKey::parseHashFromDerEncoded(r[1], asn1::blob(block)); });
    EXPECT_EQ(toHex(digest.vec()), r[2].is_null() ? std::string(64, '1') : "") << r;
    EXPECT_EQ(printed, r[2].is_null() ? "" : r[2].get<std::string>() + "\n") << r;
  }
}

// Signatures of every fixture key equal OpenSSL's deterministic PKCS#1 v1.5 signatures byte for
// byte (tests/data/gen_num_rsa.py), for every digest we sign with and for the MD5+SHA-1 pair.
TEST(RsaPrivateKey, SignaturesMatchOpenSsl) {
  const std::map<std::string, unsigned> ids = {{"SHA-1", hashSha1},
                                               {"SHA-256", hashSha256},
                                               {"SHA-384", hashSha384},
                                               {"SHA-512", hashSha512},
                                               {"MD5+SHA-1", hashMd5Sha1}};
  for (const auto& r : cases("signatures")) {
    const Bytes digest = fromHex(r[2].get<std::string>());
    EXPECT_EQ(toHex(keyOf(r[0]).signHashed(ids.at(r[1]), asn1::blob(digest))), r[3]) << r[0] << " bits, " << r[1];
  }
}

}  // namespace
}  // namespace tessel
