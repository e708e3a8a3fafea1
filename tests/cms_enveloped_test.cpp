// Encrypted CMS messages: X25519 recipients against libcrypto, several recipients against
// OpenSSL's command line both ways, and wrong keys, wrong passwords and damaged messages that
// fail without handing out content. Each recipient kind alone, both ways, is in
// tests/data/pki_tool.json (group cms_enveloped).
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/pem.h>

#include <map>

#include "issuing_support.h"
#include "tessel/cms_enveloped.h"
#include "tessel/keygen.h"
#include "tessel/pem.h"

namespace tessel::test {
namespace {

using asn1::blob;

const std::string kContent = "tessel enveloped content\r\nspanning more than one AES block\n";
const std::string kPassword = "correct horse";

// Party is a recipient: a fixture key and a certificate for it from
// tests/data/make_cms_enveloped_parties.sh (X25519's issued by the P-256 party, as it cannot sign).
struct Party {
  std::shared_ptr<PrivateKey> key;
  std::shared_ptr<X509Certificate> cert;
  std::string keyPath, certPath;
};

class CmsEnvelopedTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new Scratch;
    const CliResult r = runCli("cd " + dir_->path("") + " && bash " + fixturePath("make_cms_enveloped_parties.sh"));
    EXPECT_EQ(r.status, 0) << r.output;
    for (const char* name : {"rsa2048", "ec256", "ec384", "x25519"}) {
      Party& p = (*parties_)[name];
      p.key = fixtureKey(name);
      p.keyPath = fixturePath(std::string("keys/") + name + ".pkcs8.pem");
      p.certPath = dir_->path(std::string(name) + ".crt");
      p.cert = readCertFromFile(p.certPath);
      EXPECT_TRUE(p.cert) << name;
    }
  }
  static void TearDownTestSuite() {
    parties_->clear();
    delete dir_;
  }

  static const Party& party(const std::string& name) { return (*parties_)[name]; }

  static CmsRecipient recipient(const std::string& name, bool oaep = false) {
    CmsRecipient r;
    if (name == "password") {
      r.password = kPassword;
      return r;
    }
    r.certificate = party(name).cert;
    r.rsaParams.oaep = oaep;
    if (oaep) r.rsaParams.hash = hashSha256;
    return r;
  }

  // sealed envelopes kContent for `recipients` and writes it to a file; its path.
  static std::string sealed(const std::vector<CmsRecipient>& recipients, CmsContentCipher cipher,
                            PKCS7EnvelopedData* out = nullptr) {
    PKCS7EnvelopedData env;
    EXPECT_TRUE(env.encrypt(blob(kContent), recipients, cipher));
    const Bytes der = env.encode();
    if (out) {
      EXPECT_TRUE(out->parse(blob(der)));
    }
    return dir_->file("sealed.der", std::string(der.begin(), der.end()));
  }

  static CmsDecryptResult tesselOpens(const PKCS7EnvelopedData& env, const std::string& name) {
    if (name == "password") return env.decrypt(kPassword);
    return env.decrypt(*party(name).key, *party(name).cert);
  }

  static std::string text(const CmsDecryptResult& r) { return std::string(r.content.begin(), r.content.end()); }

  static inline Scratch* dir_ = nullptr;
  static inline std::map<std::string, Party>* parties_ = new std::map<std::string, Party>;
};

// opensslX25519Open opens a one-recipient X25519 AES-256-CBC message step by step with
// libcrypto: X25519, the X9.63 KDF over ECC-CMS-SharedInfo { id-aes256-wrap, [2] 256 bits }
// with SHA-256, AES key unwrap, AES-256-CBC.
std::string opensslX25519Open(const PKCS7EnvelopedData& env, const std::string& keyPath) {
  const CmsRecipientInfo& ri = env.recipientInfos.at(0);
  if (ri.recipientKeys.size() != 1 || ri.originatorKey.size() != 32) return "bad shape";
  BIO* bio = BIO_new_file(keyPath.c_str(), "r");
  EVP_PKEY* priv = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  EVP_PKEY* peer = EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, ri.originatorKey.data(), 32);
  EVP_PKEY_CTX* derive = EVP_PKEY_CTX_new(priv, nullptr);
  Bytes z(32), kek(32), cek(40), plain(env.encryptedContent.size() + 16);
  std::size_t zLength = z.size();
  const bool agreed = EVP_PKEY_derive_init(derive) == 1 && EVP_PKEY_derive_set_peer(derive, peer) == 1 &&
                      EVP_PKEY_derive(derive, z.data(), &zLength) == 1;
  EVP_PKEY_CTX_free(derive);
  EVP_PKEY_free(peer);
  EVP_PKEY_free(priv);
  if (!agreed) return "no agreement";
  Bytes sharedInfo = fromHex("3015300b060960864801650304012da206040400000100");
  EVP_KDF* kdf = EVP_KDF_fetch(nullptr, "X963KDF", nullptr);
  EVP_KDF_CTX* kctx = EVP_KDF_CTX_new(kdf);
  char digest[] = "SHA256";
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, z.data(), z.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, sharedInfo.data(), sharedInfo.size()),
      OSSL_PARAM_construct_end()};
  const bool derived = EVP_KDF_derive(kctx, kek.data(), kek.size(), params) == 1;
  EVP_KDF_CTX_free(kctx);
  EVP_KDF_free(kdf);
  if (!derived) return "no kdf";
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  EVP_CIPHER_CTX_set_flags(c, EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  const Bytes& wrapped = ri.recipientKeys[0].encryptedKey;
  const Bytes iv(env.contentEncryptionAlgorithm.end() - 16, env.contentEncryptionAlgorithm.end());
  int cekLength = 0, n = 0, last = 0;
  const bool opened =
      EVP_DecryptInit_ex(c, EVP_aes_256_wrap(), nullptr, kek.data(), nullptr) == 1 &&
      EVP_DecryptUpdate(c, cek.data(), &cekLength, wrapped.data(), static_cast<int>(wrapped.size())) == 1 &&
      cekLength == 32 && EVP_DecryptInit_ex(c, EVP_aes_256_cbc(), nullptr, cek.data(), iv.data()) == 1 &&
      EVP_DecryptUpdate(c, plain.data(), &n, env.encryptedContent.data(),
                        static_cast<int>(env.encryptedContent.size())) == 1 &&
      EVP_DecryptFinal_ex(c, plain.data() + n, &last) == 1;
  EVP_CIPHER_CTX_free(c);
  return opened ? std::string(plain.begin(), plain.begin() + n + last) : "not opened";
}

// X25519 has no OpenSSL 3.0 CMS support to check against: libcrypto opens the AES-256-CBC
// message step by step, tessel opens each, and OpenSSL's parser reads the structure.
TEST_F(CmsEnvelopedTest, X25519) {
  for (CmsContentCipher cipher :
       {CmsContentCipher::aes128Cbc, CmsContentCipher::aes256Cbc, CmsContentCipher::aes256Gcm}) {
    PKCS7EnvelopedData env;
    const std::string msg = sealed({recipient("x25519")}, cipher, &env);
    EXPECT_EQ(runCli("openssl cms -cmsout -print -inform DER -in " + msg).status, 0);
    EXPECT_EQ(text(tesselOpens(env, "x25519")), kContent);
    EXPECT_FALSE(env.decrypt(*party("ec256").key, *party("x25519").cert));
    if (cipher == CmsContentCipher::aes256Cbc) {
      EXPECT_EQ(opensslX25519Open(env, party("x25519").keyPath), kContent);
    }
  }
}

// A recipient may be named by its subject key identifier instead of issuer and serial: OpenSSL
// opens what tessel writes so, and what OpenSSL writes so tessel opens and writes back byte for
// byte. Several recipients of every kind, both ways, are in tests/data/pki_tool.json.
TEST_F(CmsEnvelopedTest, RecipientsNamedByKeyId) {
  CmsRecipient byKeyId = recipient("ec256");
  byKeyId.bySubjectKeyId = true;
  PKCS7EnvelopedData env;
  const std::string msg = sealed({recipient("rsa2048"), byKeyId}, CmsContentCipher::aes256Cbc, &env);
  for (const char* name : {"rsa2048", "ec256"})
    EXPECT_EQ(runCli("openssl cms -decrypt -binary -inform DER -in " + msg + " -inkey " + party(name).keyPath +
                     " -recip " + party(name).certPath)
                  .output,
              kContent)
        << name;
  const CliResult r =
      runCli("openssl cms -encrypt -binary -outform DER -aes-256-gcm -keyid -in " + dir_->file("plain.txt", kContent) +
             " -out " + dir_->path("o.der") + " " + party("rsa2048").certPath + " " + party("ec256").certPath);
  ASSERT_EQ(r.status, 0) << r.output;
  const Bytes der = readFileBytes(dir_->path("o.der"));
  ASSERT_TRUE(env.parse(blob(der)));
  EXPECT_EQ(env.encode(), der);
  for (const char* name : {"rsa2048", "ec256"}) EXPECT_EQ(text(tesselOpens(env, name)), kContent) << name;
  EXPECT_NE(dumpOf(env).find("recipients: 2"), std::string::npos) << dumpOf(env);
}

// Every failure is a false result with a reason and no content.
TEST_F(CmsEnvelopedTest, FailuresHandOutNothing) {
  auto expectRefused = [](const CmsDecryptResult& r, const char* what) {
    EXPECT_FALSE(r) << what;
    EXPECT_TRUE(r.content.empty()) << what;
    EXPECT_FALSE(r.reason.empty()) << what;
  };
  PKCS7EnvelopedData cbc, gcm, pwd, oaep;
  sealed({recipient("ec256")}, CmsContentCipher::aes128Cbc, &cbc);
  sealed({recipient("rsa2048")}, CmsContentCipher::aes256Gcm, &gcm);
  sealed({recipient("rsa2048", true)}, CmsContentCipher::aes128Cbc, &oaep);
  sealed({recipient("password")}, CmsContentCipher::aes128Cbc, &pwd);

  std::shared_ptr<PrivateKey> otherEc = generatePrivateKey(keyEc, static_cast<unsigned>(Curve::p256));
  std::shared_ptr<PrivateKey> otherRsa = fixtureKey("rsa3072");
  expectRefused(cbc.decrypt(*otherEc, *party("ec256").cert), "wrong EC key");
  expectRefused(gcm.decrypt(*otherRsa, *party("rsa2048").cert), "wrong RSA key, GCM");
  expectRefused(oaep.decrypt(*otherRsa, *party("rsa2048").cert), "wrong RSA key, OAEP");
  expectRefused(cbc.decrypt(*party("ec384").key, *party("ec384").cert), "certificate not a recipient");
  expectRefused(pwd.decrypt("wrong horse"), "wrong password");
  expectRefused(cbc.decrypt(kPassword), "no password recipient");

  // damaged reads `env` back and applies `change` to it.
  auto damaged = [](const PKCS7EnvelopedData& env, auto change) {
    PKCS7EnvelopedData d;
    EXPECT_TRUE(d.parse(blob(env.encode())));
    change(d);
    return d;
  };
  const PrivateKey& rsaKey = *party("rsa2048").key;
  const X509Certificate& rsaCert = *party("rsa2048").cert;
  expectRefused(damaged(gcm, [](auto& d) { d.encryptedContent[3] ^= 1; }).decrypt(rsaKey, rsaCert), "flipped GCM byte");
  expectRefused(damaged(gcm, [](auto& d) { d.mac[0] ^= 0x80; }).decrypt(rsaKey, rsaCert), "flipped tag");
  expectRefused(damaged(gcm, [](auto& d) { d.encryptedContent.pop_back(); }).decrypt(rsaKey, rsaCert),
                "truncated GCM content");
  // CBC content has no integrity check: a flip that breaks the padding is what is refused. The
  // byte before the last block turns the pad byte to 0 or to 17, both invalid.
  const unsigned char pad = static_cast<unsigned char>(16 - kContent.size() % 16);
  for (unsigned char to : {0, 17}) {
    auto flip = [&](auto& d) {
      d.encryptedContent[d.encryptedContent.size() - 17] ^= static_cast<unsigned char>(pad ^ to);
    };
    expectRefused(damaged(pwd, flip).decrypt(kPassword), "broken padding");
  }
  const Bytes der = cbc.encode();
  for (std::size_t cut : {der.size() - 1, der.size() / 2, std::size_t{1}})
    EXPECT_FALSE(PKCS7EnvelopedData().parse(blob(Bytes(der.begin(), der.begin() + static_cast<long>(cut))))) << cut;
}

}  // namespace
}  // namespace tessel::test
