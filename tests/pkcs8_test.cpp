#include "tessel/pkcs8.h"

#include "ol/file.h"
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

// Keys we encrypt are read back by us and by the openssl tool with the password.
TEST(Pkcs8, OurEncryptionOpensWithOpenSsl) {
  auto [key, pub] = parseOneAssimetricKey(asn1::blob(fixture(2048, "pkcs8.der")));
  ASSERT_TRUE(key);
  Bytes a = encodePkcs8EncryptedPrivateKey(*key, "pässword", 2048);
  Bytes b = encodePkcs8EncryptedPrivateKey(*key, "pässword", 2048);
  ASSERT_FALSE(a.empty());
  EXPECT_NE(a, b);  // fresh salt and IV every time
  auto back = parsePkcs8EncryptedPrivateKey(asn1::blob(a), "pässword");
  ASSERT_TRUE(back);
  EXPECT_EQ(back->encodeToDerEncoded(), key->encodeToDerEncoded());
  if (std::system("openssl version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no openssl tool";
  test::TempRoot dir;  // only for its folder
  dir.write("/enc.der", a);
  const std::string cmd = "openssl pkey -inform DER -in " + dir.path("/enc.der") +
                          " -passin pass:pässword -outform DER -out " + dir.path("/plain.der") + " 2>&1";
  EXPECT_EQ(std::system(cmd.c_str()), 0);
  EXPECT_EQ(test::bytesOf(ol::readFile(dir.path("/plain.der"))), fixture(2048, "pkcs1.der"));  // pkey writes PKCS#1
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
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.sequence([&](DerEncoder& alg) {
      alg.addOid(asn1::blob(fromHex("2a864886f70d01050a")));  // pbeWithSHA1AndDES-CBC (PKCS#5 v1)
      alg.addNull();
    });
    s.addOctetString(asn1::blob(Bytes(16)));
  });
  EXPECT_EQ(test::said([&] { EXPECT_FALSE(parsePkcs8EncryptedPrivateKey(asn1::blob(e.data), "pw")); }),
            "PKCS8: unsupported PBE: <1.2.840.113549.1.5.10>\n");
}

}  // namespace
}  // namespace tessel
