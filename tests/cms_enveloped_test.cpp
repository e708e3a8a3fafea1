// Encrypted CMS messages against OpenSSL's command line, both ways: `openssl cms -decrypt`
// opens what tessel envelopes, tessel opens what `openssl cms -encrypt` makes, and wrong keys,
// wrong passwords and damaged messages fail without handing out content.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/pem.h>

#include <map>
#include <sstream>

#include "issuing_support.h"
#include "tessel/cms_enveloped.h"
#include "tessel/keygen.h"
#include "tessel/pem.h"

namespace tessel::test {
namespace {

using asn1::blob;

const std::string kContent = "tessel enveloped content\r\nspanning more than one AES block\n";
const std::string kPassword = "correct horse";

// Party is a recipient: a fixture key and a certificate for it. X25519 keys cannot sign, so
// their certificate is issued by a P-256 CA over the X25519 public key.
struct Party {
  std::shared_ptr<PrivateKey> key;
  std::shared_ptr<X509Certificate> cert;
  std::string keyPath, certPath;
};

class CmsEnvelopedTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new Scratch;
    for (const char* name : {"rsa2048", "ec256", "ec384", "ec521", "x25519"}) (*parties_)[name] = makeParty(name);
  }
  static void TearDownTestSuite() {
    parties_->clear();
    delete dir_;
  }

  static Party makeParty(const std::string& name) {
    Party p;
    p.key = fixtureKey(name);
    p.keyPath = fixturePath("keys/" + name + ".pkcs8.pem");
    p.certPath = dir_->path(name + ".crt");
    const std::string ca = fixturePath("keys/ec256.pkcs8.pem");
    const std::string cmd =
        name == "x25519"
            ? "openssl req -new -key " + ca + " -subj /CN=" + name + " | openssl x509 -req -CA " +
                  (*parties_)["ec256"].certPath + " -CAkey " + ca + " -force_pubkey " +
                  fixturePath("keys/x25519.pub.pem") + " -days 2 -out " + p.certPath
            : "openssl req -x509 -new -key " + p.keyPath + " -subj /CN=" + name + " -days 2 -out " + p.certPath;
    CliResult r = runCli(cmd);
    EXPECT_EQ(r.status, 0) << r.output;
    p.cert = readCertFromFile(p.certPath);
    EXPECT_TRUE(p.cert) << name;
    return p;
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

  // opensslOpens decrypts `msg` with OpenSSL as recipient `name` and returns the content.
  static std::string opensslOpens(const std::string& msg, const std::string& name) {
    const std::string who = name == "password" ? "-pwri_password '" + kPassword + "'"
                                               : "-inkey " + party(name).keyPath + " -recip " + party(name).certPath;
    CliResult r =
        runCli("openssl cms -decrypt -binary -inform DER -in " + msg + " " + who + " -out " + dir_->path("opened.txt"));
    EXPECT_EQ(r.status, 0) << r.output;
    const Bytes b = readFileBytes(dir_->path("opened.txt"));
    return std::string(b.begin(), b.end());
  }

  // opensslSealed has OpenSSL envelope kContent with `options` and returns the parsed message.
  static PKCS7EnvelopedData opensslSealed(const std::string& options) {
    const std::string in = dir_->file("plain.txt", kContent), out = dir_->path("openssl.der");
    CliResult r = runCli("openssl cms -encrypt -binary -outform DER -in " + in + " -out " + out + " " + options);
    EXPECT_EQ(r.status, 0) << r.output;
    PKCS7EnvelopedData env;
    const Bytes der = readFileBytes(out);
    EXPECT_TRUE(env.parse(blob(der))) << options;
    EXPECT_EQ(env.encode(), der) << "encode must give back the bytes read";
    return env;
  }

  static CmsDecryptResult tesselOpens(const PKCS7EnvelopedData& env, const std::string& name) {
    if (name == "password") return env.decrypt(kPassword);
    return env.decrypt(*party(name).key, *party(name).cert);
  }

  static std::string text(const CmsDecryptResult& r) { return std::string(r.content.begin(), r.content.end()); }

  static inline Scratch* dir_ = nullptr;
  static inline std::map<std::string, Party>* parties_ = new std::map<std::string, Party>;
};

struct Sealing {
  const char* recipient;
  bool oaep;
  CmsContentCipher cipher;
};

TEST_F(CmsEnvelopedTest, OpenSslOpensWhatTesselSeals) {
  const Sealing cases[] = {
      {"rsa2048", false, CmsContentCipher::aes128Cbc},  {"rsa2048", true, CmsContentCipher::aes256Cbc},
      {"rsa2048", false, CmsContentCipher::aes128Gcm},  {"rsa2048", true, CmsContentCipher::aes256Gcm},
      {"ec256", false, CmsContentCipher::aes128Cbc},    {"ec256", false, CmsContentCipher::aes256Gcm},
      {"ec384", false, CmsContentCipher::aes256Cbc},    {"ec521", false, CmsContentCipher::aes128Gcm},
      {"password", false, CmsContentCipher::aes128Cbc}, {"password", false, CmsContentCipher::aes256Cbc},
      {"password", false, CmsContentCipher::aes256Gcm},
  };
  for (const Sealing& c : cases) {
    SCOPED_TRACE(std::string(c.recipient) + (c.oaep ? " oaep " : " ") + std::to_string(static_cast<int>(c.cipher)));
    PKCS7EnvelopedData env;
    const std::string msg = sealed({recipient(c.recipient, c.oaep)}, c.cipher, &env);
    EXPECT_EQ(opensslOpens(msg, c.recipient), kContent);
    EXPECT_EQ(text(tesselOpens(env, c.recipient)), kContent);
  }
}

TEST_F(CmsEnvelopedTest, TesselOpensWhatOpenSslSeals) {
  const struct {
    const char* recipient;
    const char* options;  // -keyopt applies to the -recip before it
  } cases[] = {
      {"rsa2048", "-aes128"},
      {"rsa2048", "-aes256 -keyopt rsa_padding_mode:oaep"},
      {"rsa2048", "-aes-256-gcm -keyid"},
      {"ec256", "-aes128"},
      {"ec256", "-aes-256-gcm -keyid"},
      {"ec384", "-aes256"},
      {"ec521", "-aes-128-gcm"},
      {"password", "-aes128 -pwri_password 'correct horse'"},
      {"password", "-aes256 -pwri_password 'correct horse'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.recipient) + " " + c.options);
    std::string options = c.options;
    if (std::string(c.recipient) != "password") {
      const std::size_t keyopt = options.find(" -keyopt");
      options.insert(keyopt == std::string::npos ? options.size() : keyopt, " -recip " + party(c.recipient).certPath);
    }
    PKCS7EnvelopedData env = opensslSealed(options);
    CmsDecryptResult r = tesselOpens(env, c.recipient);
    EXPECT_TRUE(r) << r.reason;
    EXPECT_EQ(text(r), kContent);
  }
}

// X25519 has no OpenSSL 3.0 CMS support to check against, so it is checked both ways through
// tessel, and the message's structure through OpenSSL's parser.
TEST_F(CmsEnvelopedTest, X25519RoundTrip) {
  for (CmsContentCipher cipher : {CmsContentCipher::aes128Cbc, CmsContentCipher::aes256Gcm}) {
    PKCS7EnvelopedData env;
    const std::string msg = sealed({recipient("x25519")}, cipher, &env);
    EXPECT_EQ(runCli("openssl cms -cmsout -print -inform DER -in " + msg).status, 0);
    EXPECT_EQ(text(tesselOpens(env, "x25519")), kContent);
    EXPECT_FALSE(env.decrypt(*party("ec256").key, *party("x25519").cert));
  }
}

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

TEST_F(CmsEnvelopedTest, X25519AgainstLibcrypto) {
  PKCS7EnvelopedData env;
  sealed({recipient("x25519")}, CmsContentCipher::aes256Cbc, &env);
  EXPECT_EQ(opensslX25519Open(env, party("x25519").keyPath), kContent);
}

TEST_F(CmsEnvelopedTest, SeveralRecipients) {
  const std::vector<std::string> names = {"rsa2048", "ec256", "ec384", "password"};
  std::vector<CmsRecipient> recipients;
  for (const std::string& n : names) recipients.push_back(recipient(n));
  recipients[1].bySubjectKeyId = true;
  PKCS7EnvelopedData env;
  const std::string msg = sealed(recipients, CmsContentCipher::aes256Cbc, &env);
  for (const std::string& n : names) {
    EXPECT_EQ(opensslOpens(msg, n), kContent) << n;
    EXPECT_EQ(text(tesselOpens(env, n)), kContent) << n;
  }
  PKCS7EnvelopedData theirs = opensslSealed("-aes128 " + party("rsa2048").certPath + " " + party("ec256").certPath);
  EXPECT_EQ(text(tesselOpens(theirs, "rsa2048")), kContent);
  EXPECT_EQ(text(tesselOpens(theirs, "ec256")), kContent);
  std::ostringstream dump;
  theirs.dump(dump);
  EXPECT_NE(dump.str().find("recipients: 2"), std::string::npos) << dump.str();
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

  PKCS7EnvelopedData flipped;
  ASSERT_TRUE(flipped.parse(blob(gcm.encode())));
  flipped.encryptedContent[3] ^= 1;
  expectRefused(flipped.decrypt(*party("rsa2048").key, *party("rsa2048").cert), "flipped GCM byte");
  ASSERT_TRUE(flipped.parse(blob(gcm.encode())));
  flipped.mac[0] ^= 0x80;
  expectRefused(flipped.decrypt(*party("rsa2048").key, *party("rsa2048").cert), "flipped tag");
  ASSERT_TRUE(flipped.parse(blob(gcm.encode())));
  flipped.encryptedContent.pop_back();
  expectRefused(flipped.decrypt(*party("rsa2048").key, *party("rsa2048").cert), "truncated GCM content");

  // CBC content has no integrity check: a flip that breaks the padding is what is refused. The
  // byte before the last block turns the pad byte to 0 or to 17, both invalid.
  const unsigned char pad = static_cast<unsigned char>(16 - kContent.size() % 16);
  for (unsigned char to : {0, 17}) {
    ASSERT_TRUE(flipped.parse(blob(pwd.encode())));
    flipped.encryptedContent[flipped.encryptedContent.size() - 17] ^= static_cast<unsigned char>(pad ^ to);
    expectRefused(flipped.decrypt(kPassword), "broken padding");
  }

  const Bytes der = cbc.encode();
  for (std::size_t cut : {der.size() - 1, der.size() / 2, std::size_t{1}})
    EXPECT_FALSE(flipped.parse(blob(Bytes(der.begin(), der.begin() + static_cast<long>(cut))))) << cut;
}

}  // namespace
}  // namespace tessel::test
