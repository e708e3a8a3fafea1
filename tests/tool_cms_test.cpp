// The tessel program's cms command: what it signs OpenSSL verifies, what OpenSSL signs it
// verifies, and changed content or a wrong trust anchor exit with status 1 and the reason; its
// envelopes open in OpenSSL and OpenSSL's in it, and a wrong password writes nothing.
#include <gtest/gtest.h>

#include "issuing_support.h"

namespace tessel::test {
namespace {

class ToolCms : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(TESSEL_TOOL_PATH).empty()) GTEST_SKIP() << "built without the example program";
    for (const char* name : {"rsa2048", "ec256"}) {
      const std::string key = fixturePath(std::string("keys/") + name + ".pkcs8.pem");
      ASSERT_EQ(run("cp " + key + " " + name + ".key && openssl req -x509 -new -key " + name +
                    ".key -subj /CN=" + name + " -days 2 -out " + name + ".pem")
                    .status,
                0);
    }
    dir.file("data.txt", "the content\n");
    dir.file("other.txt", "the content!\n");
    ASSERT_EQ(run("cat rsa2048.pem ec256.pem > both.pem").status, 0);
  }
  CliResult run(const std::string& command) { return runCli("cd " + dir.path("") + " && " + command); }
  CliResult tessel(const std::string& args) { return run(std::string(TESSEL_TOOL_PATH) + " cms " + args); }
  Scratch dir;
};

TEST_F(ToolCms, SignedByTesselVerifiedByOpenSsl) {
  const std::string both = "--key rsa2048.key --cert rsa2048.pem --key ec256.key --cert ec256.pem ";
  const struct {
    std::string tesselOptions;
    const char* opensslOptions;
  } cases[] = {
      {both + "--out m.der", "-inform DER -in m.der"},
      {"--key rsa2048.key --cert rsa2048.pem --detached --pss --digest sha384 --pem --out m.pem",
       "-inform PEM -in m.pem -content data.txt"},
      {both + "--key-id --no-attributes --out m.der", "-inform DER -in m.der"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tesselOptions);
    CliResult r = tessel("sign --in data.txt " + c.tesselOptions);
    ASSERT_EQ(r.status, 0) << r.output;
    r = run(std::string("openssl cms -verify -binary -CAfile both.pem -out out.txt ") + c.opensslOptions);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(run("cmp out.txt data.txt").status, 0);
  }
}

TEST_F(ToolCms, SignedByOpenSslVerifiedByTessel) {
  ASSERT_EQ(run("openssl cms -sign -binary -outform DER -in data.txt -signer rsa2048.pem -inkey rsa2048.key "
                "-signer ec256.pem -inkey ec256.key -out d.der")
                .status,
            0);
  CliResult r = tessel("verify --in d.der --content data.txt --CAfile both.pem");
  EXPECT_EQ(r.status, 0) << r.output;
  // OpenSSL writes the signers in DER order, the P-256 one first here.
  EXPECT_NE(r.output.find("signer 0: CN=ec256\nsigner 1: CN=rsa2048\n"), std::string::npos) << r.output;
  r = tessel("verify --in d.der --content other.txt");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("tessel: verification failed: signer 0: message digest differs from the content's digest\n"),
            std::string::npos);
  r = tessel("verify --in d.der --content data.txt --CAfile ec256.pem");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("signer 1: signer certificate path: no certificate of the chain is held by the store"),
            std::string::npos)
      << r.output;
  EXPECT_EQ(tessel("verify --in data.txt").status, 1);  // not a signed message
}

TEST_F(ToolCms, HelpAndUsage) {
  EXPECT_EQ(tessel("--help").status, 0);
  EXPECT_EQ(tessel("sign --help").status, 0);
  EXPECT_EQ(tessel("frobnicate").status, 2);
  EXPECT_EQ(tessel("sign --in data.txt --key rsa2048.key").status, 2);  // no --cert for the key
  EXPECT_EQ(tessel("sign --in data.txt --key ec256.key --cert ec256.pem --pss").status, 2);
  EXPECT_EQ(tessel("verify").status, 2);
}

TEST_F(ToolCms, EncryptedByTesselDecryptedByOpenSsl) {
  const struct {
    const char* tesselOptions;
    const char* opensslOptions;
  } cases[] = {
      {"--recip rsa2048.pem --recip ec256.pem", "-inkey ec256.key -recip ec256.pem"},
      {"--recip rsa2048.pem --oaep --cipher aes-128-gcm", "-inkey rsa2048.key -recip rsa2048.pem"},
      {"--password pw --cipher aes-128-cbc", "-pwri_password pw"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tesselOptions);
    CliResult r = tessel(std::string("encrypt --in data.txt --out m.der ") + c.tesselOptions);
    ASSERT_EQ(r.status, 0) << r.output;
    r = run(std::string("openssl cms -decrypt -binary -inform DER -in m.der -out out.txt ") + c.opensslOptions);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(run("cmp out.txt data.txt").status, 0);
  }
}

TEST_F(ToolCms, EncryptedByOpenSslDecryptedByTessel) {
  ASSERT_EQ(run("openssl cms -encrypt -binary -outform DER -aes-256-gcm -in data.txt -out e.der ec256.pem").status, 0);
  CliResult r = tessel("decrypt --in e.der --key ec256.key --cert ec256.pem --out out.txt");
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(run("cmp out.txt data.txt").status, 0);
  ASSERT_EQ(run("openssl cms -encrypt -binary -outform PEM -aes128 -pwri_password pw -in data.txt -out p.pem").status,
            0);
  r = tessel("decrypt --in p.pem --password pw --out out2.txt");
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(run("cmp out2.txt data.txt").status, 0);
  r = tessel("decrypt --in p.pem --password wrong --out out3.txt");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("decryption failed"), std::string::npos) << r.output;
  EXPECT_NE(run("test -e out3.txt").status, 0);
  EXPECT_EQ(tessel("decrypt --in p.pem --key ec256.key").status, 2);
  EXPECT_EQ(tessel("encrypt --in data.txt --cipher des").status, 2);
  EXPECT_EQ(tessel("encrypt --in data.txt").status, 2);
}

}  // namespace
}  // namespace tessel::test
