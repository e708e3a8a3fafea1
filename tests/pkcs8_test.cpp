#include "tessel/pkcs8.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

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

TEST(Pkcs8, EncryptedFixturesFromOpenSsl) {
  Bytes expected = fixture(2048, "pkcs1.der");
  const char* files[] = {
      "enc-aes-128-cbc-hmacWithSHA1.pem",   "enc-aes-128-cbc-hmacWithSHA256.pem", "enc-aes-192-cbc-hmacWithSHA1.pem",
      "enc-aes-192-cbc-hmacWithSHA256.pem", "enc-aes-256-cbc-hmacWithSHA1.pem",   "enc-aes-256-cbc-hmacWithSHA256.pem",
      "enc-des3-hmacWithSHA1.pem",          "enc-des3-hmacWithSHA256.pem",        "enc-v1-3des.pem"};
  for (const char* f : files) {
    SCOPED_TRACE(f);
    Bytes der = test::pemBody(fixture(2048, f));
    auto key = parsePkcs8EncryptedPrivateKey(asn1::blob(der), kPassword);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->encodeToDerEncoded(), expected);
    EXPECT_FALSE(parsePkcs8EncryptedPrivateKey(asn1::blob(der), "wrong password"));
  }
  auto key = parsePkcs8EncryptedPrivateKey(asn1::blob(fixture(2048, "enc-aes-256-cbc.der")), kPassword);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->encodeToDerEncoded(), expected);
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
  auto dir = std::filesystem::temp_directory_path() / ("tessel-pkcs8-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "enc.der", std::ios::binary)
      .write(reinterpret_cast<const char*>(a.data()), static_cast<std::streamsize>(a.size()));
  std::string cmd = "openssl pkey -inform DER -in " + (dir / "enc.der").string() +
                    " -passin pass:pässword -outform DER -out " + (dir / "plain.der").string() + " 2>&1";
  EXPECT_EQ(std::system(cmd.c_str()), 0);
  std::string plain;
  ol::readFile(plain, (dir / "plain.der").string());
  EXPECT_EQ(toHex(Bytes(plain.begin(), plain.end())), toHex(fixture(2048, "pkcs1.der")));  // pkey writes PKCS#1
  std::filesystem::remove_all(dir);
}

// wrapKey builds PrivateKeyInfo/OneAsymmetricKey variants around a real key body.
Bytes wrapKey(unsigned version, const std::string& algOidHex, const Bytes& body, const std::string& trailing) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addInt(2, version);
    s.sequence([&](DerEncoder& alg) {
      alg.addOid(asn1::blob(fromHex(algOidHex)));
      alg.addNull();
    });
    s.addOctetString(asn1::blob(body));
    s.addBytes(asn1::blob(fromHex(trailing)));
  });
  return e.data;
}

TEST(Pkcs8, OneAsymmetricKeyShapes) {
  Bytes body = fixture(1024, "pkcs1.der");
  RsaPublicKey pubKey;
  ASSERT_TRUE(pubKey.parseFromDerEncoded(asn1::blob(test::pemBody(fixture(1024, "pkcs1pub.pem"))), {}));
  DerEncoder pubElement;
  pubElement.addPrimitive(0x81, asn1::blob(pubKey.encodeToDerEncoded()));
  const std::string rsa = "2a864886f70d010101", unknown = "2a0304", attrs = "a0023000";
  const std::string pub = toHex(pubElement.data);
  struct Row {
    unsigned version;
    std::string oid, trailing;
    bool ok, hasPublic;
  };
  const Row rows[] = {{0, rsa, "", true, false},      {1, rsa, "", true, false},
                      {2, rsa, "", false, false},     {0, unknown, "", true, false} /* reads as RSA */,
                      {0, rsa, attrs, true, false},   {1, rsa, attrs + pub, true, true},
                      {1, rsa, pub, true, true},      {0, rsa, pub, false, false} /* [1] needs version 1 */,
                      {0, rsa, "0500", false, false}, {1, rsa, "8100", false, false}};
  for (const Row& r : rows) {
    auto [priv, pubOut] = parseOneAssimetricKey(asn1::blob(wrapKey(r.version, r.oid, body, r.trailing)));
    EXPECT_EQ(priv != nullptr, r.ok) << r.version << " " << r.oid << " " << r.trailing;
    EXPECT_EQ(pubOut != nullptr, r.hasPublic) << r.trailing;
    if (pubOut) {
      EXPECT_TRUE(pubOut->equals(pubKey));
    }
  }
  // A SubjectPublicKeyInfo with an unknown algorithm OID reads as RSA too; trailing data does not.
  DerEncoder spki;
  spki.sequence([&](DerEncoder& s) {
    s.sequence([&](DerEncoder& alg) { alg.addOid(asn1::blob(fromHex(unknown))); });
    s.addBitString(asn1::blob(pubKey.encodeToDerEncoded()));
  });
  EXPECT_TRUE(parsePkcs8PublicKey(asn1::blob(spki.data)));
  spki.data.push_back(0);
  EXPECT_FALSE(parsePkcs8PublicKey(asn1::blob(spki.data)));
}

// pbes2Alg builds the PBES2 AlgorithmIdentifier for hand-made parameter sets.
AlgorithmIdentifier pbes2Alg(const std::string& prf, const std::string& cipherOid, const Bytes& iv,
                             unsigned iterations = 10) {
  DerEncoder e;
  e.sequence([&](DerEncoder& p) {
    p.sequence([&](DerEncoder& kdf) {
      kdf.addOid(asn1::blob(fromHex("2a864886f70d01050c")));
      kdf.sequence([&](DerEncoder& kp) {
        kp.addOctetString(asn1::blob(fromHex("0102030405060708")));
        kp.addInt(2, iterations);
        if (!prf.empty()) kp.sequence([&](DerEncoder& a) { a.addOid(asn1::blob(fromHex(prf))); });
      });
    });
    p.sequence([&](DerEncoder& enc) {
      enc.addOid(asn1::blob(fromHex(cipherOid)));
      enc.addOctetString(asn1::blob(iv));
    });
  });
  return AlgorithmIdentifier{fromHex("2a864886f70d01050d"), e.data};
}

TEST(Pkcs8, Pbes2ParameterRules) {
  const std::string des3 = "2a864886f70d0307", aes128 = "608648016503040102", sha256 = "2a864886f70d0209";
  struct Row {
    std::string prf, cipher;
    std::size_t ivLen;
    bool ok;
    const char* printed;
    unsigned iterations = 10;
  };
  const Row rows[] = {
      {"", aes128, 16, true, ""},
      {sha256, des3, 8, true, ""},
      {sha256, des3, 16, false, ""},
      {sha256, aes128, 8, false, ""},
      {"2a864886f70d020a", aes128, 16, false, "unsupported PBES2 KDF: <1.2.840.113549.2.10>\n"},
      {sha256, "608648016503040106", 16, false, "PBES2: unimplemented cipher: <2.16.840.1.101.3.4.1.6>\n"},
      {sha256, aes128, 16, false, "PKCS8: unsupported iteration count: <0>\n", 0},
      {sha256, aes128, 16, false, "PKCS8: unsupported iteration count: <16777217>\n", 16777217}};
  const Bytes secret = test::bytesOf("the key material");
  for (const Row& r : rows) {
    AlgorithmIdentifier alg = pbes2Alg(r.prf, r.cipher, Bytes(r.ivLen, 7), r.iterations);
    Bytes sealed, opened;
    bool ok = false;
    EXPECT_EQ(test::said([&] { ok = pbes2_crypt(alg, "pw", asn1::blob(secret), sealed, true); }), r.printed)
        << r.cipher;
    ASSERT_EQ(ok, r.ok) << r.prf << " " << r.cipher << " iv " << r.ivLen;
    if (!ok) continue;
    ASSERT_TRUE(pbes2_crypt(alg, "pw", asn1::blob(sealed), opened, false));
    EXPECT_EQ(opened, secret);
    EXPECT_FALSE(pbes2_crypt(alg, "pw", asn1::blob(sealed.data(), sealed.size() - 1), opened, false));
  }
}

TEST(Pkcs8, PaddingRules) {
  // Raw CBC under the PBKDF2 key, so the last plaintext byte can be anything.
  AlgorithmIdentifier alg = pbes2Alg("", "608648016503040102", Bytes(16, 7));
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
