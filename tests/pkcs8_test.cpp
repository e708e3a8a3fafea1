#include "tessel/pkcs8.h"

#include "support.h"
#include "tessel/block.h"
#include "tessel/cipher.h"
#include "tessel/hmac.h"
#include "tessel/rsa.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

const std::string kPassword = "tessel-fixture";  // as tests/data/make_keys.sh wrote the keys
const unsigned kSizes[] = {1024, 1536, 2048, 3072, 4096};

Bytes fixture(unsigned bits, const std::string& form) {
  return test::readFixture("keys/rsa" + std::to_string(bits) + "." + form);
}

TEST(Pkcs8, PlainContainersRoundTripEveryFixture) {
  for (unsigned bits : kSizes) {
    SCOPED_TRACE(bits);
    Bytes pkcs8 = fixture(bits, "pkcs8.der"), pkcs1 = fixture(bits, "pkcs1.der"), spki = fixture(bits, "pub.der");
    auto [priv, pub] = parseOneAssimetricKey(asn1::blob(pkcs8));
    ASSERT_TRUE(priv);
    EXPECT_FALSE(pub);
    EXPECT_EQ(priv->getKeyType(), keyRsa);
    EXPECT_EQ(dynamic_cast<RsaPrivateKey&>(*priv).n.bits(), bits);
    EXPECT_EQ(dynamic_cast<RsaPrivateKey&>(*priv).modulusLength(), bits / 8);
    EXPECT_EQ(priv->encodeToDerEncoded(), pkcs1);
    EXPECT_EQ(encodePkcs8PrivateKey(*priv), pkcs8);
    auto publicKey = parsePkcs8PublicKey(asn1::blob(spki));
    ASSERT_TRUE(publicKey);
    EXPECT_EQ(encodePkcs8PublicKey(*publicKey), spki);
    EXPECT_TRUE(publicKey->equals(*priv));
    EXPECT_TRUE(priv->equals(*publicKey));
  }
}

// Keys we encrypt are read back with the password, under a fresh salt and IV every time. OpenSSL
// opens them in tests/data/pki_tool.json (keys written by the tessel program's genkey and pkcs12).
TEST(Pkcs8, EncryptionRoundTripsWithFreshSaltAndIv) {
  auto [key, pub] = parseOneAssimetricKey(asn1::blob(fixture(2048, "pkcs8.der")));
  ASSERT_TRUE(key);
  const Bytes a = encodePkcs8EncryptedPrivateKey(*key, "pässword", 2048);
  EXPECT_NE(a, encodePkcs8EncryptedPrivateKey(*key, "pässword", 2048));
  auto back = parsePkcs8EncryptedPrivateKey(asn1::blob(a), "pässword");
  ASSERT_TRUE(back);
  EXPECT_EQ(back->encodeToDerEncoded(), key->encodeToDerEncoded());
  EXPECT_FALSE(parsePkcs8EncryptedPrivateKey(asn1::blob(a), "passwörd"));
}

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("pki_der.json");  // written by gen_pki_der.py
  return all.at(table);
}

TEST(Pkcs8, OneAsymmetricKeyShapes) {
  RsaPublicKey pubKey;
  ASSERT_TRUE(pubKey.parseFromDerEncoded(asn1::blob(test::pemBody(fixture(1024, "pkcs1pub.pem"))), {}));
  for (const auto& r : cases("keyShapes")) {
    auto [priv, pubOut] = parseOneAssimetricKey(asn1::blob(fromHex(r[0].get<std::string>())));
    EXPECT_EQ(priv != nullptr, r[1].get<bool>()) << r[0];
    EXPECT_EQ(pubOut != nullptr, r[2].get<bool>()) << r[0];
    EXPECT_TRUE(!pubOut || pubOut->equals(pubKey));
  }
  for (const auto& r : cases("spki"))
    EXPECT_EQ(parsePkcs8PublicKey(asn1::blob(fromHex(r[0].get<std::string>()))) != nullptr, r[1].get<bool>()) << r[0];
}

// pbes2Alg is the PBES2 AlgorithmIdentifier with hex parameters.
AlgorithmIdentifier pbes2Alg(const nlohmann::json& params) {
  return AlgorithmIdentifier{fromHex("2a864886f70d01050d"), fromHex(params.get<std::string>())};
}

TEST(Pkcs8, Pbes2ParameterRules) {
  const Bytes secret = test::bytesOf("the key material");
  for (const auto& r : cases("pbes2")) {
    SCOPED_TRACE(r.dump());
    const AlgorithmIdentifier alg = pbes2Alg(r[0]);
    Bytes sealed, opened;
    bool ok = false;
    EXPECT_EQ(test::said([&] { ok = pbes2_crypt(alg, "pw", asn1::blob(secret), sealed, true); }), r[2]);
    ASSERT_EQ(ok, r[1].get<bool>());
    if (!ok) continue;
    ASSERT_TRUE(pbes2_crypt(alg, "pw", asn1::blob(sealed), opened, false));
    EXPECT_EQ(opened, secret);
    EXPECT_FALSE(pbes2_crypt(alg, "pw", asn1::blob(sealed.data(), sealed.size() - 1), opened, false));
  }
}

TEST(Pkcs8, PaddingRules) {
  // Raw CBC under the PBKDF2 key, so the last plaintext byte can be anything.
  const AlgorithmIdentifier alg = pbes2Alg(cases("pbes2")[0][0]);  // AES-128-CBC, HMAC-SHA1
  SHA1 sha;
  Bytes key = pbkdf2(sha, "pw", fromHex("0102030405060708").data(), 8, 10, 16);
  auto sealRaw = [&](Bytes last) {
    Bytes data(16 + last.size(), 0xEE);
    std::copy(last.begin(), last.end(), data.begin() + 16);
    Bytes iv(16, 7), out(data.size());
    AES128 aes(key.data());
    CBC_encrypt(aes, iv.data(), data.data(), static_cast<unsigned>(data.size()), out.data());
    return out;
  };
  const std::pair<Bytes, bool> rows[] = {{Bytes(16, 16), true},
                                         {Bytes(16, 0), false},
                                         {Bytes(16, 17), false},
                                         {fromHex("eeeeeeeeeeeeeeeeeeeeeeeeee030303"), true},
                                         {fromHex("eeeeeeeeeeeeeeeeeeeeeeeeee030203"), false}};
  for (const auto& [last, ok] : rows) {
    Bytes opened;
    EXPECT_EQ(pbes2_crypt(alg, "pw", asn1::blob(sealRaw(last)), opened, false), ok) << toHex(last);
  }
}

TEST(Pkcs8, UnsupportedScheme) {
  // { { pbeWithSHA1AndDES-CBC (PKCS#5 v1), NULL }, 16 zero bytes }
  const Bytes der = fromHex("3021300d06092a864886f70d01050a0500041000000000000000000000000000000000");
  EXPECT_EQ(test::said([&] { EXPECT_FALSE(parsePkcs8EncryptedPrivateKey(asn1::blob(der), "pw")); }),
            "PKCS8: unsupported PBE: <1.2.840.113549.1.5.10>\n");
}

}  // namespace
}  // namespace tessel
