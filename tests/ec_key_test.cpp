// EC keys: Wycheproof ECDSA verification and ECDH, RFC 6979 signatures as Python's cryptography
// computes them (which OpenSSL then verifies alike), keys from `openssl genpkey` and RFC 5915
// shapes. The constant-time curve code under them is checked point for point in ec_test.cpp.
#include <map>
#include <string>

#include "bignum_support.h"
#include "tessel/ec_key.h"
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

unsigned hashIdOf(const std::string& name) {
  static const std::map<std::string, unsigned> ids = {
      {"SHA-1", hashSha1}, {"SHA-256", hashSha256}, {"SHA-384", hashSha384}, {"SHA-512", hashSha512}};
  return ids.at(name);
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

struct WycheproofFile {
  const char* name;
  int count;
};

class EcWycheproof : public ::testing::TestWithParam<WycheproofFile> {};

// ECDSA: every case gives the listed verdict, except that signatures the DER reader's leniency
// lets through (non-minimal lengths and INTEGERs, INTEGERs missing their sign byte) may verify
// if they carry the (r, s) of a valid signature of the group: a re-encoding, never a forgery.
// ECDH: valid cases give the listed secret; invalid ones (points off the curve or on another
// curve, broken encodings) give none; acceptable ones, when they go through, the listed secret.
TEST_P(EcWycheproof, EveryCase) {
  LOAD_VECTORS(v, std::string("wycheproof/") + GetParam().name);
  const bool ecdh = std::string(GetParam().name).starts_with("ecdh");
  const int n = test::forEachWycheproofTest(v, [&](const nlohmann::json& g, const nlohmann::json& t) {
    const std::string result = t["result"];
    if (ecdh) {
      auto peer = parsePkcs8PublicKey(asn1::blob(*field(t, "public")));
      EcPrivateKey ours;
      const bool set = peer && ours.setPrivateKey(curveNamed(g["curve"]), BigNum(asn1::blob(*field(t, "private"))));
      const Bytes secret = set ? ours.agree(*peer) : Bytes{};  // through the key interface CMS uses
      EXPECT_TRUE(result != "invalid" || secret.empty()) << t["comment"];
      const bool agrees = toHex(secret) == toHex(*field(t, "shared"));
      EXPECT_TRUE(agrees || result == "invalid" || (result == "acceptable" && secret.empty())) << t["comment"];
      return;
    }
    auto key = std::dynamic_pointer_cast<EcPublicKey>(
        parsePkcs8PublicKey(asn1::blob(fromHex(g["publicKeyDer"].get<std::string>()))));
    ASSERT_TRUE(key);
    const Bytes sig = *field(t, "sig"), hash = digestOf(hashIdOf(g["sha"]), *field(t, "msg"));
    const bool ok = key->verifyHashed(asn1::blob(hash), asn1::blob(sig));
    EXPECT_TRUE(ok || result != "valid");
    if (result != "invalid" || !ok) return;
    bool reencoded = false;
    for (const auto& u : g["tests"]) reencoded |= u["result"] == "valid" && rsPair(*field(u, "sig")) == rsPair(sig);
    EXPECT_TRUE(reencoded) << "an invalid signature verified: " << t["comment"];
  });
  EXPECT_EQ(n, GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(Files, EcWycheproof,
                         ::testing::Values(WycheproofFile{"ecdsa_secp224r1_sha256_test.json", 481},
                                           WycheproofFile{"ecdsa_secp256r1_sha256_test.json", 484},
                                           WycheproofFile{"ecdsa_secp384r1_sha384_test.json", 504},
                                           WycheproofFile{"ecdsa_secp521r1_sha512_test.json", 542},
                                           WycheproofFile{"ecdh_secp224r1_test.json", 714},
                                           WycheproofFile{"ecdh_secp256r1_test.json", 612},
                                           WycheproofFile{"ecdh_secp384r1_test.json", 1047}));

// Keys at the edges (1, n − 1), short and full-width, with digests longer and shorter than the
// order, on every curve; the first case is RFC 6979 A.2.5 (tests/data/gen_num_ecdsa.py).
TEST(EcPrivateKey, Rfc6979SignaturesMatchPython) {
  const nlohmann::json cases = test::dataFile("num_ecdsa.json");
  for (const auto& c : cases["signatures"]) {
    EcPrivateKey key;
    ASSERT_TRUE(key.setPrivateKey(curveNamed(c["curve"]), test::hexNum(c["d"].get<std::string>()))) << c;
    const Bytes hash = test::hexField(c, "digest");
    const Bytes sig = key.signHashed(hashIdOf(c["hash"]), asn1::blob(hash));
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

// Keys from `openssl genpkey` (tests/data/make_ec_keys.sh) in every container read back, and the
// public point each private key computes equals the one in OpenSSL's SubjectPublicKeyInfo.
class EcKeyFixtures : public ::testing::TestWithParam<const char*> {};

TEST_P(EcKeyFixtures, EveryContainerReadsBack) {
  auto read = [&](const std::string& suffix) {
    return test::fixtureDer("keys/" + std::string(GetParam()) + "." + suffix);
  };
  const Bytes spki = read("pub.der");
  auto pub = std::dynamic_pointer_cast<EcPublicKey>(parsePkcs8PublicKey(asn1::blob(spki)));
  ASSERT_TRUE(pub);
  EXPECT_EQ(toHex(encodePkcs8PublicKey(*pub)), toHex(spki));
  EXPECT_EQ(toHex(read("pub.pem")), toHex(spki));
  std::vector<std::shared_ptr<PrivateKey>> keys;
  for (const char* f : {"pkcs8.pem", "pkcs8.der"}) {
    keys.push_back(parseOneAssimetricKey(asn1::blob(read(f))).first);
    ASSERT_TRUE(keys.back()) << f;
    EXPECT_EQ(toHex(encodePkcs8PrivateKey(*keys.back())), toHex(read(f))) << f << " re-encodes byte for byte";
  }
  for (const char* f : {"enc.pem", "enc.der"})
    keys.push_back(parsePkcs8EncryptedPrivateKey(asn1::blob(read(f)), "tessel-fixture"));
  for (const char* f : {"sec1.pem", "sec1.der"}) {
    keys.push_back(std::make_shared<EcPrivateKey>());
    EXPECT_TRUE(keys.back()->parseFromDerEncoded(asn1::blob(read(f)), {})) << f;
  }
  const Bytes hash = digestOf(hashSha256, test::bytesOf("fixture"));
  for (const auto& k : keys) {
    ASSERT_TRUE(k);
    EXPECT_TRUE(pub->equals(*k));
    const Bytes sig = dynamic_cast<EcPrivateKey&>(*k).signHashed(hashSha256, asn1::blob(hash));
    EXPECT_TRUE(pub->verifyHashed(asn1::blob(hash), asn1::blob(sig)));
  }
}

INSTANTIATE_TEST_SUITE_P(OpenSslGenpkey, EcKeyFixtures, ::testing::Values("ec192", "ec224", "ec256", "ec384", "ec521"));

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
