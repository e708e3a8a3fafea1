// EC keys: Wycheproof ECDH, RFC 6979 signatures as Python's cryptography computes them (which
// OpenSSL then verifies alike), keys from `openssl genpkey` (the 25519 ones too) and RFC 5915
// shapes. The constant-time curve code under them is checked point for point in ec_test.cpp.
#include <sstream>
#include <string>

#include "backends.h"
#include "bignum_support.h"
#include "tessel/ec_key.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/factory.h"
#include "tessel/hash.h"
#include "tessel/pkcs8.h"

namespace tessel {
namespace {

using test::Bytes;
using test::field;
using test::fromHex;
using test::toHex;

constexpr Curve kCurves[] = {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521};

// curveNamed maps "P-256" (or Wycheproof's "secp256r1") to the curve.
Curve curveNamed(std::string name) {
  if (name.starts_with("secp")) name = "P-" + name.substr(4, 3);
  for (Curve c : kCurves)
    if (name == getCurveName(c)) return c;
  return Curve(0);
}

Bytes digestOf(unsigned id, const Bytes& msg) {
  auto h = createHash(id);
  h->update(std::span<const unsigned char>(msg));
  return h->digest();
}

// rsPair reads (r, s) as the verifier does, for comparing signatures by value.
std::string rsPair(const Bytes& sig) {
  asn1::parser der{asn1::blob(sig)};
  if (!der.enter()) return "";
  const std::string r = BigNum(der.takeContent()).str();
  return r + "," + BigNum(der.takeContent()).str();
}

// ECDH through the key interface CMS uses: valid cases give the listed secret; invalid ones
// (points off the curve or on another curve, broken encodings) give none; acceptable ones, when
// they go through, the listed secret. (ECDSA's Wycheproof files run in signature_test.cpp.)
class EcdhWycheproof : public ::testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(EcdhWycheproof, EveryCase) {
  LOAD_VECTORS(v, std::string("wycheproof/") + GetParam().first);
  const int n = test::forEachWycheproofTest(v, [&](const nlohmann::json& g, const nlohmann::json& t) {
    const std::string result = t["result"];
    auto peer = parsePkcs8PublicKey(asn1::blob(*field(t, "public")));
    EcPrivateKey ours;
    const bool set = peer && ours.setPrivateKey(curveNamed(g["curve"]), BigNum(asn1::blob(*field(t, "private"))));
    const Bytes secret = set ? ours.agree(*peer) : Bytes{};
    EXPECT_TRUE(result != "invalid" || secret.empty()) << t["comment"];
    const bool agrees = toHex(secret) == toHex(*field(t, "shared"));
    EXPECT_TRUE(agrees || result == "invalid" || (result == "acceptable" && secret.empty())) << t["comment"];
  });
  EXPECT_EQ(n, GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Files, EcdhWycheproof,
                         ::testing::Values(std::pair{"ecdh_secp224r1_test.json", 714},
                                           std::pair{"ecdh_secp256r1_test.json", 612},
                                           std::pair{"ecdh_secp384r1_test.json", 1047}));

// Keys at the edges (1, n − 1), short and full-width, with digests longer and shorter than the
// order, on every curve; the first case is RFC 6979 A.2.5 (tests/data/gen_num_ecdsa.py).
TEST(EcPrivateKey, Rfc6979SignaturesMatchPython) {
  const nlohmann::json cases = test::dataFile("num_ecdsa.json");
  for (const auto& c : cases["signatures"]) {
    EcPrivateKey key;
    ASSERT_TRUE(key.setPrivateKey(curveNamed(c["curve"]), test::hexNum(c["d"].get<std::string>()))) << c;
    const Bytes hash = test::hexField(c, "digest");
    const Bytes sig = key.signHashed(test::hashIdForName(c["hash"]), asn1::blob(hash));
    EXPECT_EQ(rsPair(sig), c["r"].get<std::string>() + "," + c["s"].get<std::string>()) << c;
    EXPECT_TRUE(key.verifyHashed(asn1::blob(hash), asn1::blob(sig)));
  }
}

TEST(EcPublicKey, ParametersAndPoints) {
  EcPublicKey key;
  EcPrivateKey priv;
  ASSERT_TRUE(priv.setPrivateKey(Curve::p384, BigNum(12345u)));
  const Bytes point = priv.EcPublicKey::encodeToDerEncoded(), params = priv.encodeParams();
  EXPECT_TRUE(key.parseFromDerEncoded(asn1::blob(point), asn1::blob(params)));
  EXPECT_TRUE(key.equals(priv));
  Bytes off = point;
  off.back() ^= 1;
  EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(off), asn1::blob(params))) << "not on the curve";
  EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(Bytes(point.begin(), point.end() - 1)), asn1::blob(params)));
  const Bytes k1 = fromHex("06052b8104000a");  // secp256k1 is no curve of ours
  EXPECT_EQ(test::said([&] { EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(point), asn1::blob(k1))); }),
            "[ERR] unknown ec id 1.3.132.0.10\n");
  EXPECT_EQ(test::dumpOf(priv),
            "[EC-PRIVATE]\ncurve: P-384\npoint: " + toHex(point) + "\nprivateKey: " + BigNum(12345u).str() + "\n");
}

// Keys from `openssl genpkey` (tests/data/make_ec_keys.sh) in every container read back: the
// plain ones re-encode byte for byte, and every private key has the public key of OpenSSL's
// SubjectPublicKeyInfo. The 25519 keys hold OpenSSL's own hex of both halves (keys/<alg>.raw);
// the EC keys sign what their public key verifies.
class KeyFixtures : public ::testing::TestWithParam<const char*> {};

TEST_P(KeyFixtures, EveryContainerReadsBack) {
  const std::string alg = GetParam();
  const bool ec = alg.starts_with("ec");
  auto read = [&](const std::string& suffix) { return test::fixtureDer("keys/" + alg + "." + suffix); };
  const Bytes spki = read("pub.der");
  EXPECT_EQ(toHex(read("pub.pem")), toHex(spki));
  auto pub = parsePkcs8PublicKey(asn1::blob(spki));
  ASSERT_TRUE(pub);
  EXPECT_EQ(toHex(encodePkcs8PublicKey(*pub)), toHex(spki));
  EXPECT_EQ(pub->getKeyType(), alg == "ed25519" ? keyEd25519 : alg == "x25519" ? keyX25519 : keyEc);
  std::string raw[2];  // the private and the public key as OpenSSL prints them
  if (!ec) {
    std::istringstream(test::fixtureText("keys/" + alg + ".raw")) >> raw[0] >> raw[1];
    EXPECT_EQ(toHex(dynamic_cast<Key25519Public&>(*pub).publicKey.data(), 32), raw[1]);
  }
  const Bytes hash = digestOf(hashSha256, test::bytesOf("fixture"));
  for (const std::string f : {"pkcs8.pem", "pkcs8.der", "enc.pem", "enc.der", "sec1.pem", "sec1.der"}) {
    SCOPED_TRACE(f);
    if (f.starts_with("sec1") && !ec) continue;
    auto sec1 = std::make_shared<EcPrivateKey>();
    std::shared_ptr<PrivateKey> key;
    if (f.starts_with("pkcs8")) key = parseOneAssimetricKey(asn1::blob(read(f))).first;
    if (f.starts_with("enc")) key = parsePkcs8EncryptedPrivateKey(asn1::blob(read(f)), "tessel-fixture");
    if (f.starts_with("sec1") && sec1->parseFromDerEncoded(asn1::blob(read(f)), {})) key = sec1;
    ASSERT_TRUE(key);
    if (f.starts_with("pkcs8")) {
      EXPECT_EQ(toHex(encodePkcs8PrivateKey(*key)), toHex(read(f))) << "re-encodes byte for byte";
    }
    EXPECT_EQ(key->getKeyType(), pub->getKeyType());
    EXPECT_TRUE(pub->equals(*key) && key->equals(*pub));
    if (auto* k = dynamic_cast<Key25519Private*>(key.get())) {
      EXPECT_EQ(toHex(k->privateKey.data(), 32), raw[0]);
      EXPECT_EQ(toHex(k->publicKey.data(), 32), raw[1]) << "derived public key matches OpenSSL's";
      continue;
    }
    const Bytes sig = dynamic_cast<EcPrivateKey&>(*key).signHashed(hashSha256, asn1::blob(hash));
    EXPECT_TRUE(std::dynamic_pointer_cast<EcPublicKey>(pub)->verifyHashed(asn1::blob(hash), asn1::blob(sig)));
  }
}

INSTANTIATE_TEST_SUITE_P(OpenSslGenpkey, KeyFixtures,
                         ::testing::Values("ec192", "ec224", "ec256", "ec384", "ec521", "ed25519", "x25519"));

TEST(EcPrivateKey, Rfc5915Shapes) {
  EcPrivateKey k, back;
  ASSERT_TRUE(k.setPrivateKey(Curve::p256, BigNum(7u)));
  const Bytes body = k.encodeToDerEncoded(), params = k.encodeParams();
  EXPECT_TRUE(back.parseFromDerEncoded(asn1::blob(body), asn1::blob(params)));
  EXPECT_TRUE(back.equals(k));
  EXPECT_FALSE(back.parseFromDerEncoded(asn1::blob(body), {})) << "no curve anywhere";
  Bytes wrongPub = body, version2 = body;
  wrongPub.back() ^= 1;
  version2[4] = 2;
  EXPECT_FALSE(back.parseFromDerEncoded(asn1::blob(wrongPub), asn1::blob(params))) << "[1] does not match d";
  EXPECT_FALSE(back.parseFromDerEncoded(asn1::blob(version2), asn1::blob(params)));
  EXPECT_FALSE(back.setPrivateKey(Curve::p256, BigNum())) << "d = 0";
  EXPECT_FALSE(back.setPrivateKey(Curve::p256, getOrderForECCurve(Curve::p256))) << "d = n";
}

}  // namespace
}  // namespace tessel
