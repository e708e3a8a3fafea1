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

const std::string kSha256Oid = "0609608648016503040201";
const std::string kSha256RsaOid = "06092a864886f70d01010b";

#if TESSEL_HAVE_OPENSSL
Bytes opensslOid(const char* dotted) {
  ASN1_OBJECT* obj = OBJ_txt2obj(dotted, 1);
  Bytes out(OBJ_get0_data(obj), OBJ_get0_data(obj) + OBJ_length(obj));
  ASN1_OBJECT_free(obj);
  return out;
}

// Every OID constant of ours against OpenSSL's encoding of its dotted form.
TEST(AlgorithmId, OidConstantsMatchTheirDottedForms) {
  const nlohmann::json file = test::dataFile("algorithm_id_cases.json");
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
  EXPECT_EQ(getHashID(asn1::blob(fromHex("2a864886f70d020b"))), hashSha512);  // HMAC-SHA512
  EXPECT_EQ(getHashID(asn1::blob(fromHex("2a864886f70d0207"))), hashSha1);    // HMAC-SHA1
  EXPECT_EQ(getHashID(asn1::blob(fromHex("2a864886f70d020a"))), hashNone);    // HMAC-SHA384: not ours
  for (unsigned id : {0u, 1u, 2u, 8u}) EXPECT_TRUE(getHashOid(id).empty()) << id;
  EXPECT_TRUE(getKeyInfoFromKeyHash(keyRsa, hashMd5).empty());
  EXPECT_TRUE(getKeyInfoFromKeyHash(keyEd25519, hashSha256).empty());
  EXPECT_TRUE(getKeyInfoFromKeyHash(keyEc, hashNone).empty());
  EXPECT_TRUE(getKeyInfoFromKeyHash(1, hashSha256).empty());
}

TEST(AlgorithmId, DigestIdentifiersNeedTheirNull) {
  const std::pair<std::string, HashID> rows[] = {
      {toHex(seq(kSha256Oid + "0500")), hashSha256}, {toHex(seq(kSha256Oid)), hashNone},
      {toHex(seq(kSha256Oid + "020100")), hashNone}, {toHex(seq("0500" + kSha256Oid)), hashNone},
      {"0609608648016503040201", hashNone},          {"300d0609608648016503040201", hashNone}};
  for (const auto& [hex, id] : rows) EXPECT_EQ(getHashFromDER(asn1::blob(fromHex(hex))), id) << hex;
  DerEncoder e;
  saveDigest(e, hashSha256, asn1::blob(Bytes(32, 0xab)));
  // The DigestInfo prefix every PKCS#1 v1.5 SHA-256 signature carries (RFC 8017 section 9.2).
  std::string digestHex;
  for (int i = 0; i < 32; ++i) digestHex += "ab";
  EXPECT_EQ(toHex(e.data), "3031300d060960864801650304020105000420" + digestHex);
}

TEST(AlgorithmId, SignatureIdentifierShapes) {
  struct Row {
    std::string hex;
    bool ok;
  };
  const Row rows[] = {{toHex(seq(kSha256RsaOid + "0500")), true}, {toHex(seq(kSha256RsaOid)), true},
                      {toHex(seq(kSha256RsaOid + "020100")), false}, {toHex(seq(kSha256RsaOid + "05000500")), false},
                      {toHex(seq("06082a8648ce3d040301")), false} /* ECDSA with SHA-224 */,
                      {kSha256RsaOid, false}};
  for (const Row& r : rows) {
    KeyType k = keyX25519;
    HashID h = hashMd4;
    EXPECT_EQ(parseAlgosFromKeyInfo(asn1::blob(fromHex(r.hex)), &k, &h), r.ok) << r.hex;
    if (r.ok) {
      EXPECT_EQ(k, keyRsa);
      EXPECT_EQ(h, hashSha256);
    } else {
      EXPECT_EQ(k, keyX25519) << "outputs must stay untouched";
      EXPECT_EQ(h, hashMd4);
    }
  }
}

TEST(AlgorithmId, RawIdentifierParseAndSave) {
  struct Row {
    std::string content;
    bool ok;
    std::string params;
  };
  const Row rows[] = {{kSha256Oid, true, ""},
                      {kSha256Oid + "0500", true, "0500"},
                      {kSha256Oid + "3003020101", true, "3003020101"},
                      {kSha256Oid + "05000500", false, ""},
                      {"0500", false, ""},
                      {kSha256Oid + "05", false, ""}};
  for (const Row& r : rows) {
    AlgorithmIdentifier id;
    ASSERT_EQ(parse(id, asn1::blob(fromHex(r.content))), r.ok) << r.content;
    if (!r.ok) continue;
    EXPECT_EQ(toHex(id.oid), kSha256Oid.substr(4));
    EXPECT_EQ(toHex(id.params), r.params);
    EXPECT_EQ(toHex(encode(id)), toHex(seq(r.content)));  // written back as found
  }
}

TEST(AlgorithmId, OneShotDigestAndCurveLengths) {
  // FIPS 180-2 appendix B.1.
  EXPECT_EQ(toHex(calcDigest(hashSha256, asn1::blob(std::string_view("abc")))),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_TRUE(calcDigest(hashNone, {}).empty());
  EXPECT_TRUE(calcDigest(9, {}).empty());
  const std::pair<unsigned, unsigned> rows[] = {{0, 0}, {1, 24}, {2, 28}, {3, 32}, {4, 48}, {5, 66}, {6, 0}};
  for (auto [curve, len] : rows) EXPECT_EQ(getModLen(static_cast<Curve>(curve)), len) << curve;
}

}  // namespace
}  // namespace tessel
