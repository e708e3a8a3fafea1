// EC keys: Wycheproof ECDSA verification through the key, RFC 6979 known answers, RFC 5915
// shapes and OpenSSL as the peer for signatures and ECDH.
#include <map>
#include <set>
#include <sstream>
#include <string>

#if TESSEL_HAVE_OPENSSL
#include <openssl/ec.h>
#include <openssl/evp.h>

#include "openssl_oracle.h"
#endif
#include "support.h"
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

struct WycheproofFile {
  const char* name;
  int count;
};

class EcdsaWycheproof : public ::testing::TestWithParam<WycheproofFile> {};

// rsPair reads (r, s) as the verifier does, for comparing signatures by value.
std::string rsPair(const Bytes& sig) {
  asn1::parser der{asn1::blob(sig)};
  if (!der.enter()) return "";
  const std::string r = BigNum(der.takeContent()).str();
  return r + "," + BigNum(der.takeContent()).str();
}

// Every case gives the listed verdict, except that signatures the DER reader's leniency lets
// through (non-minimal lengths and INTEGERs, INTEGERs missing their sign byte) may verify.
// Those are collected, and each must carry the same (r, s) values as a valid signature of the
// same group: a re-encoding, never a forgery.
TEST_P(EcdsaWycheproof, EveryCase) {
  LOAD_VECTORS(v, std::string("wycheproof/") + GetParam().name);
  std::vector<int> lenient;
  int n = 0;
  for (const auto& g : v["testGroups"]) {
    const Bytes spki = fromHex(g["publicKeyDer"].get<std::string>());
    auto key = std::dynamic_pointer_cast<EcPublicKey>(parsePkcs8PublicKey(asn1::blob(spki)));
    ASSERT_TRUE(key);
    std::set<std::string> validValues;
    for (const auto& t : g["tests"])
      if (t["result"] == "valid") validValues.insert(rsPair(*field(t, "sig")));
    for (const auto& t : g["tests"]) {
      SCOPED_TRACE("tcId " + std::to_string(t["tcId"].get<int>()));
      ++n;
      const Bytes hash = digestOf(hashIdOf(g["sha"].get<std::string>()), *field(t, "msg"));
      const Bytes sig = *field(t, "sig");
      const bool ok = key->verifyHashed(asn1::blob(hash), asn1::blob(sig));
      const std::string result = t["result"];
      if (result == "valid") {
        EXPECT_TRUE(ok);
      } else if (result == "invalid" && ok) {
        EXPECT_TRUE(validValues.count(rsPair(sig))) << "an invalid signature verified: " << t["comment"];
        lenient.push_back(t["tcId"].get<int>());
      }
    }
  }
  EXPECT_EQ(n, GetParam().count);
  std::ostringstream ids;
  for (int id : lenient) ids << " " << id;
  std::cout << GetParam().name << ": " << n << " cases, accepted by the lenient DER reading:" << ids.str() << "\n";
}

INSTANTIATE_TEST_SUITE_P(Files, EcdsaWycheproof,
                         ::testing::Values(WycheproofFile{"ecdsa_secp224r1_sha256_test.json", 481},
                                           WycheproofFile{"ecdsa_secp256r1_sha256_test.json", 484},
                                           WycheproofFile{"ecdsa_secp384r1_sha384_test.json", 504},
                                           WycheproofFile{"ecdsa_secp521r1_sha512_test.json", 542}));

// RFC 6979 appendix A.2.5 (P-256, SHA-256, message "sample").
TEST(EcPrivateKey, Rfc6979KnownAnswer) {
  EcPrivateKey key;
  ASSERT_TRUE(key.setPrivateKey(Curve::p256, BigNum(asn1::blob(fromHex(
                                                 "c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721")))));
  EXPECT_EQ(toHex(key.Q.x.bin(32)), "60fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6");
  const Bytes hash = digestOf(hashSha256, test::bytesOf("sample"));
  const Bytes sig = key.signHashed(hashSha256, asn1::blob(hash));
  asn1::parser der{asn1::blob(sig)};
  ASSERT_TRUE(der.enter());
  EXPECT_EQ(toHex(BigNum(der.takeContent()).bin(32)), "efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716");
  EXPECT_EQ(toHex(BigNum(der.takeContent()).bin(32)), "f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8");
  EXPECT_TRUE(key.verifyHashed(asn1::blob(hash), asn1::blob(sig)));
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
  Bytes shortPoint(point.begin(), point.end() - 1);
  EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(shortPoint), asn1::blob(params)));
  // secp256k1 is no curve of ours.
  const Bytes k1 = fromHex("06052b8104000a");
  EXPECT_EQ(test::said([&] { EXPECT_FALSE(key.parseFromDerEncoded(asn1::blob(point), asn1::blob(k1))); }),
            "[ERR] unknown ec id 1.3.132.0.10\n");
  EXPECT_EQ(test::dumpOf(priv), "[EC-PRIVATE]\ncurve: P-384\npoint: " + toHex(point) + "\nprivateKey: " + BigNum(12345u).str() + "\n");
}


// Keys from `openssl genpkey` (tests/data/make_ec_keys.sh) in every container read back, and the
// public point each private key computes equals the one in OpenSSL's SubjectPublicKeyInfo.
class EcKeyFixtures : public ::testing::TestWithParam<const char*> {};

TEST_P(EcKeyFixtures, EveryContainerReadsBack) {
  const std::string base = std::string("keys/") + GetParam() + ".";
  auto read = [&](const std::string& suffix) {
    Bytes b = test::readFixture(base + suffix);
    return suffix.ends_with(".pem") ? test::pemBody(b) : b;
  };
  const Bytes spki = read("pub.der");
  auto pub = parsePkcs8PublicKey(asn1::blob(spki));
  ASSERT_TRUE(pub);
  EXPECT_EQ(pub->getKeyType(), keyEc);
  EXPECT_EQ(toHex(encodePkcs8PublicKey(*pub)), toHex(spki));
  EXPECT_EQ(toHex(read("pub.pem")), toHex(spki));
  std::vector<std::shared_ptr<PrivateKey>> keys;
  for (const char* f : {"pkcs8.pem", "pkcs8.der"}) {
    const Bytes der = read(f);
    keys.push_back(parseOneAssimetricKey(asn1::blob(der)).first);
    ASSERT_TRUE(keys.back()) << f;
    EXPECT_EQ(toHex(encodePkcs8PrivateKey(*keys.back())), toHex(der)) << f << " re-encodes byte for byte";
  }
  for (const char* f : {"enc.pem", "enc.der"}) keys.push_back(parsePkcs8EncryptedPrivateKey(asn1::blob(read(f)), "tessel-fixture"));
  for (const char* f : {"sec1.pem", "sec1.der"}) {
    auto k = std::make_shared<EcPrivateKey>();
    EXPECT_TRUE(k->parseFromDerEncoded(asn1::blob(read(f)), {})) << f;
    keys.push_back(k);
  }
  for (const auto& k : keys) {
    ASSERT_TRUE(k);
    EXPECT_TRUE(pub->equals(*k));
    auto& ec = dynamic_cast<EcPrivateKey&>(*k);
    const Bytes hash = digestOf(hashSha256, test::bytesOf("fixture"));
    EXPECT_TRUE(dynamic_cast<EcPublicKey&>(*pub).verifyHashed(asn1::blob(hash), asn1::blob(ec.signHashed(hashSha256, asn1::blob(hash)))));
  }
}

INSTANTIATE_TEST_SUITE_P(OpenSslGenpkey, EcKeyFixtures, ::testing::Values("ec192", "ec224", "ec256", "ec384", "ec521"));

TEST(EcPrivateKey, Rfc5915Shapes) {
  EcPrivateKey k;
  ASSERT_TRUE(k.setPrivateKey(Curve::p256, BigNum(7u)));
  const Bytes body = k.encodeToDerEncoded(), params = k.encodeParams();
  EcPrivateKey back;
  EXPECT_TRUE(back.parseFromDerEncoded(asn1::blob(body), asn1::blob(params)));
  EXPECT_TRUE(back.equals(k));
  EXPECT_FALSE(back.parseFromDerEncoded(asn1::blob(body), {})) << "no curve anywhere";
  Bytes wrongPub = body;
  wrongPub.back() ^= 1;
  EXPECT_FALSE(back.parseFromDerEncoded(asn1::blob(wrongPub), asn1::blob(params))) << "[1] does not match d";
  Bytes version2 = body;
  version2[4] = 2;
  EXPECT_FALSE(back.parseFromDerEncoded(asn1::blob(version2), asn1::blob(params)));
  EXPECT_FALSE(back.setPrivateKey(Curve::p256, BigNum())) << "d = 0";
  EXPECT_FALSE(back.setPrivateKey(Curve::p256, getOrderForECCurve(Curve::p256))) << "d = n";
}

#if TESSEL_HAVE_OPENSSL

// opensslKey builds an OpenSSL key from our PKCS#8 encoding (a second parser as the oracle).
EVP_PKEY* opensslKey(const PrivateKey& key) {
  const Bytes der = encodePkcs8PrivateKey(key);
  const unsigned char* p = der.data();
  return d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size()));
}

TEST(EcPrivateKey, InteropWithOpenSSL) {
  test::TestRng rng(6979);
  for (Curve c : {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521}) {
    SCOPED_TRACE(getCurveName(c));
    const unsigned id = c == Curve::p384 ? hashSha384 : c == Curve::p521 ? hashSha512 : hashSha256;
    EcPrivateKey ours, peer;
    ASSERT_TRUE(ours.setPrivateKey(c, BigNum(asn1::blob(rng.bytes(20)))));
    ASSERT_TRUE(peer.setPrivateKey(c, BigNum(asn1::blob(rng.bytes(20)))));
    EVP_PKEY* ok = opensslKey(ours);
    EVP_PKEY* pk = opensslKey(peer);
    ASSERT_TRUE(ok && pk);
    const Bytes msg = rng.bytes(100), hash = digestOf(id, msg);
    // Our signature verifies with OpenSSL, OpenSSL's with ours, and the ECDH secrets agree.
    const Bytes sig = ours.signHashed(id, asn1::blob(hash));
    // Deterministic nonces: the random blinding inside signing must not show in the output.
    EXPECT_EQ(ours.signHashed(id, asn1::blob(hash)), sig);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(ok, nullptr);
    Bytes osig(200), secret(80);
    size_t sigLen = osig.size(), secretLen = secret.size();
    EXPECT_TRUE(EVP_PKEY_verify_init(ctx) == 1 && EVP_PKEY_verify(ctx, sig.data(), sig.size(), hash.data(), hash.size()) == 1);
    ASSERT_TRUE(EVP_PKEY_sign_init(ctx) == 1 && EVP_PKEY_sign(ctx, osig.data(), &sigLen, hash.data(), hash.size()) == 1);
    ASSERT_TRUE(EVP_PKEY_derive_init(ctx) == 1 && EVP_PKEY_derive_set_peer(ctx, pk) == 1 &&
                EVP_PKEY_derive(ctx, secret.data(), &secretLen) == 1);
    EVP_PKEY_CTX_free(ctx);
    osig.resize(sigLen);
    secret.resize(secretLen);
    EXPECT_TRUE(ours.verifyHashed(asn1::blob(hash), asn1::blob(osig)));
    EXPECT_EQ(toHex(ours.deriveSharedSecret(peer)), toHex(secret));
    EVP_PKEY_free(ok);
    EVP_PKEY_free(pk);
  }
}

#endif  // TESSEL_HAVE_OPENSSL

}  // namespace
}  // namespace tessel
