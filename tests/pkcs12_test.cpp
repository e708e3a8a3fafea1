// PKCS#12 files against OpenSSL's pkcs12 command both ways: what OpenSSL writes (default,
// -legacy, -nomac, several certificates, names, empty passwords, RSA, P-256 and Ed25519 keys) is
// read back to the fixture key and certificates; what tessel writes OpenSSL reads; wrong
// passwords, altered MACs and cut files give false and no bag.
#include <optional>

#include "issuing_support.h"
#include "tessel/oids.h"
#include "tessel/pem.h"
#include "tessel/pkcs12.h"
#if TESSEL_HAVE_OPENSSL
#include <openssl/evp.h>
#include <openssl/hmac.h>
#endif

namespace tessel::test {
namespace {

class Pkcs12 : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new Scratch;
    for (const char* name : {"rsa2048", "ec256", "ed25519"})
      ASSERT_EQ(run(std::string("cp ") + fixturePath(std::string("keys/") + name + ".pkcs8.pem") + " " + name +
                    ".key && openssl req -x509 -new -key " + name + ".key -subj /CN=" + name + " -days 2 -out " + name +
                    ".pem")
                    .status,
                0);
    ASSERT_EQ(run("openssl req -x509 -new -key ec256.key -subj /CN=ca -days 2 -out ca.pem && "
                  "cat ca.pem rsa2048.pem > two.pem")
                  .status,
              0);
  }
  static void TearDownTestSuite() { delete dir_; }
  // The 32-bit run points OPENSSL_MODULES at the i386 providers for its libcrypto oracle; the
  // command line is the host's own and needs its own legacy provider for RC2 files.
  static CliResult run(const std::string& command) {
    return runCli("cd " + dir_->path("") + " && unset OPENSSL_MODULES && " + command);
  }
  static Bytes file(const std::string& name) { return readFileBytes(dir_->path(name)); }
  static Bytes certDer(const std::string& name) { return pemBody(file(name + ".pem")); }
  static std::shared_ptr<X509Certificate> cert(const std::string& name) {
    return readCertFromFile(dir_->path(name + ".pem"));
  }
  // opensslFile makes a file with `openssl pkcs12 -export` and the options given.
  static Bytes opensslFile(const std::string& key, const std::string& options) {
    const CliResult r =
        run("openssl pkcs12 -export -inkey " + key + ".key -in " + key + ".pem " + options + " -out o.p12");
    EXPECT_EQ(r.status, 0) << r.output;
    return file("o.p12");
  }
  static inline Scratch* dir_ = nullptr;
};

// Every OpenSSL file gives back the fixture key, its certificate (found by localKeyId) and the
// others, with the names and the MAC OpenSSL wrote.
TEST_F(Pkcs12, ReadsWhatOpenSslWrites) {
  const struct {
    const char* key;
    std::string options;
    PbePassword password;
    HashID macHash;  // hashNone: no MAC
    const char* name;
    std::size_t others;
  } cases[] = {
      {"rsa2048", "-passout pass:pw", "pw", hashSha256, "", 0},
      {"rsa2048", "-legacy -passout pass:pw", "pw", hashSha1, "", 0},
      {"rsa2048", "-legacy -keypbe PBE-SHA1-RC2-128 -certpbe PBE-SHA1-2DES -passout pass:pw", "pw", hashSha1, "", 0},
      {"ec256", "-nomac -passout pass:pw", "pw", hashNone, "", 0},
      {"ec256", "-certfile two.pem -name alice -macalg sha384 -passout pass:pw", "pw", hashSha384, "alice", 2},
      {"ed25519", "-macalg sha512 -passout pass:p\xc3\xa4ss", "p\xc3\xa4ss", hashSha512, "", 0},
      {"ed25519", "-passout pass:", "", hashSha256, "", 0},
      {"ed25519", "-passout pass:", std::nullopt, hashSha256, "", 0},  // absent tried after empty
      {"rsa2048", "-legacy -passout pass:", std::nullopt, hashSha1, "", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + c.options);
    const Bytes der = opensslFile(c.key, c.options);
    PKCS12PFX pfx;
    ASSERT_TRUE(pfx.parse(asn1::blob(der), c.password)) << pfx.error;
    EXPECT_EQ(pfx.mac.present, c.macHash != hashNone);
    EXPECT_EQ(pfx.mac.hash, c.macHash);
    const PKCS12KeyAndCertificate found = pfx.keyAndCertificate();
    ASSERT_TRUE(found.key && found.certificate);
    EXPECT_TRUE(found.key->equals(*fixtureKey(c.key)));
    EXPECT_EQ(found.certificate->serialize(), certDer(c.key));
    EXPECT_EQ(found.others.size(), c.others);
    for (const PKCS12Bag& b : pfx.bags) {
      if (b.kind == PKCS12Bag::Kind::key) {
        EXPECT_EQ(b.friendlyName, c.name);
      }
    }
  }
}

// A wrong password, a changed MAC or ciphertext byte and a cut file: false, a reason, no bag.
TEST_F(Pkcs12, RefusesWrongPasswordsAndDamage) {
  const Bytes good = opensslFile("rsa2048", "-passout pass:pw"),
              legacy = opensslFile("rsa2048", "-legacy -passout pass:pw"),
              nomac = opensslFile("ec256", "-nomac -passout pass:pw");
  auto flipped = [](Bytes b, std::size_t at) {
    b[at] ^= 1;
    return b;
  };
  // MacData ends with the MAC, then 04 08 salt and 02 02 08 00 (2048 iterations).
  const std::size_t macLast = good.size() - 15;
  const struct {
    const char* what;
    Bytes der;
    PbePassword password;
    const char* reason;
  } cases[] = {
      {"wrong password", good, "pW", "MAC verification failed"},
      {"absent password", good, std::nullopt, "MAC verification failed"},
      {"legacy, wrong password", legacy, "", "MAC verification failed"},
      {"MAC byte", flipped(good, macLast), "pw", "MAC verification failed"},
      {"legacy MAC byte", flipped(legacy, legacy.size() - 15), "pw", "MAC verification failed"},
      {"content byte", flipped(good, good.size() / 2), "pw", "MAC verification failed"},
      {"no MAC, wrong password", nomac, "pW", "cannot decrypt"},
      // The key's ciphertext ends before its attributes, a 39-byte SET holding the localKeyId.
      {"no MAC, key ciphertext byte", flipped(nomac, nomac.size() - 40), "pw", "cannot decrypt"},
      {"cut", Bytes(good.begin(), good.begin() + static_cast<long>(good.size() / 2)), "pw", "not a PKCS#12 file"},
      {"cut before the MAC", Bytes(good.begin(), good.end() - 20), "pw", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    PKCS12PFX pfx;
    EXPECT_FALSE(pfx.parse(asn1::blob(c.der), c.password));
    EXPECT_TRUE(pfx.bags.empty());
    EXPECT_NE(pfx.error.find(c.reason), std::string::npos) << pfx.error;
  }
}

// OpenSSL reads what tessel writes, in the default and the legacy form, and refuses it under a
// wrong password; the key it takes out has the fixture's public key.
TEST_F(Pkcs12, OpenSslReadsWhatTesselWrites) {
  auto options = [](bool legacy, bool tripleDesCertificates, unsigned iterations, std::string name) {
    PKCS12WriteOptions o;
    o.legacy = legacy;
    o.legacyCertificatesTripleDes = tripleDesCertificates;
    o.iterations = iterations;
    o.macIterations = 2 * iterations;
    o.friendlyName = std::move(name);
    return o;
  };
  const struct {
    const char* key;
    PKCS12WriteOptions options;
    PbePassword password;
    const char* passin;
    const char* opensslOptions;
    const char* expect;
  } cases[] = {
      {"rsa2048", options(false, false, 2048, ""), "pw", "pass:pw", "",
       "PBES2, PBKDF2, AES-256-CBC, Iteration 2048, PRF hmacWithSHA256"},
      {"ec256", options(true, false, 2048, ""), "pw", "pass:pw", "-legacy", "pbeWithSHA1And40BitRC2-CBC"},
      {"ed25519", options(true, true, 1000, ""), "pw", "pass:pw", "-legacy",
       "pbeWithSHA1And3-KeyTripleDES-CBC, Iteration 1000"},
      {"ec256",
       options(false, false, 2048,
               "b\xc3\xb6"
               "b"),
       "", "pass:", "",
       "friendlyName: b\xf6"
       "b"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key + std::string(" ") + c.opensslOptions);
    const Bytes der = encodePkcs12(*fixtureKey(c.key), *cert(c.key), {cert("ca")}, c.password, c.options);
    ASSERT_FALSE(der.empty());
    dir_->file("t.p12", std::string(der.begin(), der.end()));
    const std::string read = std::string("openssl pkcs12 ") + c.opensslOptions + " -in t.p12 -nodes -passin ";
    CliResult r = run(read + c.passin + " -info");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find(c.expect), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("subject=CN = ca"), std::string::npos);
    r = run(read + c.passin + " -nocerts | openssl pkey -pubout > got.pub && openssl pkey -in " + c.key +
            ".key -pubout | cmp - got.pub");
    EXPECT_EQ(r.status, 0) << r.output;
    r = run(read + "pass:wrong");
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("Mac verify error"), std::string::npos) << r.output;
  }
}

#if TESSEL_HAVE_OPENSSL
// A MAC by PBMAC1 (PBKDF2-HMAC-SHA-256 keying HMAC-SHA-256, as RFC 9579 has it), computed with
// libcrypto over an OpenSSL-made file, verifies; a wrong password does not.
TEST_F(Pkcs12, ReadsPbmac1) {
  const Bytes der = opensslFile("ec256", "-passout pass:pw");
  asn1::parser pfx{asn1::blob(der)}, authSafe, wrapper;
  asn1::blob whole, octets;
  ASSERT_TRUE(pfx.enter() && pfx.read(asn1::tagInteger) && pfx.readElement(asn1::tagSequence, &whole));
  ASSERT_TRUE(asn1::readOnly(whole, asn1::tagSequence, &authSafe) && authSafe.read(asn1::tagOid) &&
              authSafe.read(asn1::explicitTag(0), &wrapper) && wrapper.read(asn1::tagOctetString, &octets));
  const Bytes salt(16, 0x5a);
  unsigned char key[32], mac[32];
  unsigned macLen = 0;
  ASSERT_EQ(PKCS5_PBKDF2_HMAC("pw", 2, salt.data(), 16, 1000, EVP_sha256(), 32, key), 1);
  ASSERT_TRUE(HMAC(EVP_sha256(), key, 32, octets.start, octets.size(), mac, &macLen));
  DerEncoder e;
  e.sequence([&](DerEncoder& p) {
    p.addInt(asn1::tagInteger, 3);
    p.addBytes(whole);
    p.sequence([&](DerEncoder& macData) {
      macData.sequence([&](DerEncoder& digestInfo) {
        digestInfo.sequence([&](DerEncoder& alg) {
          alg.addOid(asn1::oid::pbmac1.content());
          alg.sequence([&](DerEncoder& params) {
            params.sequence([&](DerEncoder& kdf) {
              kdf.addOid(asn1::oid::pbkdf2.content());
              kdf.sequence([&](DerEncoder& kp) {
                kp.addOctetString(asn1::blob(salt));
                kp.addInt(asn1::tagInteger, 1000);
                kp.addInt(asn1::tagInteger, 32);
                kp.sequence([&](DerEncoder& prf) { prf.addOid(asn1::oid::hmacWithSha256.content()); });
              });
            });
            params.sequence([&](DerEncoder& scheme) { scheme.addOid(asn1::oid::hmacWithSha256.content()); });
          });
        });
        digestInfo.addOctetString(asn1::blob(mac, macLen));
      });
      macData.addOctetString(asn1::blob(salt.data(), 8));  // not used by PBMAC1
      macData.addInt(asn1::tagInteger, 1);
    });
  });
  PKCS12PFX read;
  ASSERT_TRUE(read.parse(asn1::blob(e.data), "pw")) << read.error;
  EXPECT_TRUE(read.mac.pbmac1);
  EXPECT_EQ(read.mac.iterations, 1000u);
  EXPECT_TRUE(read.keyAndCertificate().key->equals(*fixtureKey("ec256")));
  EXPECT_FALSE(read.parse(asn1::blob(e.data), "px"));
}
#endif

// A file asking for more iterations than the reader allows is refused before any derivation.
TEST_F(Pkcs12, BoundsIterations) {
  const Bytes der = opensslFile("ec256", "-iter 5000 -passout pass:pw");
  PKCS12PFX pfx;
  EXPECT_FALSE(pfx.parse(asn1::blob(der), "pw", {.maxIterations = 4096}));
  EXPECT_NE(pfx.error.find("too many"), std::string::npos) << pfx.error;
  EXPECT_TRUE(pfx.parse(asn1::blob(der), "pw", {.maxIterations = 5000})) << pfx.error;
}

}  // namespace
}  // namespace tessel::test
