// PKCS#12 files: wrong passwords, altered MACs and cut files give false and no bag; OpenSSL reads
// the triple-DES form tessel writes; the iteration bound. The files OpenSSL writes in every form
// and the ones the tessel program writes (PBMAC1 too) are read in tests/data/pki_tool.json.
#include <optional>

#include "issuing_support.h"
#include "tessel/pem.h"
#include "tessel/pkcs12.h"

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
    ASSERT_EQ(run("openssl req -x509 -new -key ec256.key -subj /CN=ca -days 2 -out ca.pem").status, 0);
  }
  static void TearDownTestSuite() { delete dir_; }
  // The 32-bit run points OPENSSL_MODULES at the i386 providers for its libcrypto oracle; the
  // command line is the host's own and needs its own legacy provider for RC2 files.
  static CliResult run(const std::string& command) {
    return runCli("cd " + dir_->path("") + " && unset OPENSSL_MODULES && " + command);
  }
  static Bytes file(const std::string& name) { return readFileBytes(dir_->path(name)); }
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

// OpenSSL reads what tessel writes with triple DES for the certificates as well as the key, and
// refuses it under a wrong password; the key it takes out has the fixture's public key. The
// other forms, written by the tessel program, are judged by OpenSSL in tests/data/pki_tool.json.
TEST_F(Pkcs12, OpenSslReadsTripleDesCertificates) {
  PKCS12WriteOptions o;
  o.legacy = o.legacyCertificatesTripleDes = true;
  o.iterations = 1000;
  o.macIterations = 2000;
  const Bytes der = encodePkcs12(*fixtureKey("ed25519"), *cert("ed25519"), {cert("ca")}, "pw", o);
  dir_->file("t.p12", std::string(der.begin(), der.end()));
  const std::string read = "openssl pkcs12 -legacy -in t.p12 -nodes -passin ";
  CliResult r = run(read + "pass:pw -info");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("pbeWithSHA1And3-KeyTripleDES-CBC, Iteration 1000"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("subject=CN = ca"), std::string::npos);
  r = run(read +
          "pass:pw -nocerts | openssl pkey -pubout > got.pub && openssl pkey -in ed25519.key -pubout | "
          "cmp - got.pub");
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_NE(run(read + "pass:wrong").output.find("Mac verify error"), std::string::npos);
}

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
