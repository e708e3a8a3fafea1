#include "tessel/algorithm_id.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/objects.h>
#endif

#include "support.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

// der wraps hex element bytes in a SEQUENCE.
Bytes seq(const std::string& hex) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) { s.addBytes(asn1::blob(fromHex(hex))); });
  return e.data;
}

const nlohmann::json& cases() {
  static const nlohmann::json all = test::dataFile("algorithm_id_cases.json");
  return all;
}

#if TESSEL_HAVE_OPENSSL
Bytes opensslOid(const char* dotted) {
  ASN1_OBJECT* obj = OBJ_txt2obj(dotted, 1);
  Bytes out(OBJ_get0_data(obj), OBJ_get0_data(obj) + OBJ_length(obj));
  ASN1_OBJECT_free(obj);
  return out;
}

// Every OID constant of ours against OpenSSL's encoding of its dotted form.
TEST(AlgorithmId, OidConstantsMatchTheirDottedForms) {
  const nlohmann::json& file = cases();
  for (const auto& r : file.at("digests")) {
    const Bytes oid = opensslOid(r[1].get<std::string>().c_str());
    EXPECT_EQ(toHex(getHashOid(r[0]).vec()), toHex(oid)) << r;
    EXPECT_EQ(getHashID(asn1::blob(oid)), r[0].get<unsigned>()) << r;
  }
  for (const auto& r : file.at("signatures")) {
    const Bytes oid = opensslOid(r[2].get<std::string>().c_str());
    EXPECT_EQ(toHex(getKeyInfoFromKeyHash(r[0], r[1]).vec()), toHex(oid)) << r;
    KeyType k{};
    HashID h{};
    DerEncoder e;
    e.sequence([&](DerEncoder& s) { s.addOid(asn1::blob(oid)); });
    ASSERT_TRUE(parseAlgosFromKeyInfo(asn1::blob(e.data), &k, &h)) << r;
    EXPECT_EQ(k, r[0].get<unsigned>());
    EXPECT_EQ(h, r[1].get<unsigned>());
  }
  for (const auto& r : file.at("keys"))
    EXPECT_EQ(keyTypeFromOid(asn1::blob(opensslOid(r[0].get<std::string>().c_str()))), r[1].get<unsigned>()) << r;
}
#endif

TEST(AlgorithmId, HashLookupsAndRefusals) {
  for (const auto& r : cases()["hmac"])
    EXPECT_EQ(getHashID(asn1::blob(fromHex(r[0].get<std::string>()))), r[1].get<unsigned>()) << r;
  for (const auto& id : cases()["noDigestOid"]) EXPECT_TRUE(getHashOid(id).empty()) << id;
  for (const auto& r : cases()["noSignatureOid"]) EXPECT_TRUE(getKeyInfoFromKeyHash(r[0], r[1]).empty()) << r;
}

TEST(AlgorithmId, DigestIdentifiersNeedTheirNull) {
  for (const auto& r : cases()["digestInfo"])
    EXPECT_EQ(getHashFromDER(asn1::blob(fromHex(r[0].get<std::string>()))), r[1].get<unsigned>()) << r;
  DerEncoder e;
  saveDigest(e, hashSha256, asn1::blob(Bytes(32, 0xab)));
  // The DigestInfo prefix every PKCS#1 v1.5 SHA-256 signature carries (RFC 8017 section 9.2).
  EXPECT_EQ(toHex(e.data), "3031300d060960864801650304020105000420" + toHex(Bytes(32, 0xab)));
}

TEST(AlgorithmId, SignatureIdentifierShapes) {
  for (const auto& r : cases()["signatureShapes"]) {
    KeyType k = keyX25519;
    HashID h = hashMd4;
    const bool ok = r[1];
    EXPECT_EQ(parseAlgosFromKeyInfo(asn1::blob(fromHex(r[0].get<std::string>())), &k, &h), ok) << r;
    EXPECT_EQ(k, ok ? keyRsa : keyX25519) << "outputs stay untouched on failure";
    EXPECT_EQ(h, ok ? hashSha256 : hashMd4);
  }
}

TEST(AlgorithmId, RawIdentifierParseAndSave) {
  for (const auto& r : cases()["raw"]) {
    AlgorithmIdentifier id;
    ASSERT_EQ(parse(id, asn1::blob(fromHex(r[0].get<std::string>()))), r[1].get<bool>()) << r;
    if (!r[1].get<bool>()) continue;
    EXPECT_EQ(toHex(id.oid), "608648016503040201");
    EXPECT_EQ(toHex(id.params), r[2]);
    EXPECT_EQ(toHex(encode(id)), toHex(seq(r[0])));  // written back as found
  }
}

TEST(AlgorithmId, OneShotDigestAndCurveLengths) {
  // FIPS 180-2 appendix B.1.
  EXPECT_EQ(toHex(calcDigest(hashSha256, asn1::blob(std::string_view("abc")))),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_TRUE(calcDigest(hashNone, {}).empty());
  EXPECT_TRUE(calcDigest(9, {}).empty());
  for (const auto& r : cases()["curveLengths"])
    EXPECT_EQ(getModLen(static_cast<Curve>(r[0].get<unsigned>())), r[1].get<unsigned>()) << r;
}

}  // namespace
}  // namespace tessel
