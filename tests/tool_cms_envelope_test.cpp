// The tessel program's cms encrypt and decrypt: what it encrypts OpenSSL decrypts, what OpenSSL
// encrypts it decrypts, a wrong password exits with status 1 and bad usage with 2.
#include <gtest/gtest.h>

#include "issuing_support.h"

namespace tessel::test {
namespace {

class ToolCmsEnvelope : public testing::Test {
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
    dir.file("data.txt", "the secret content\n");
  }
  CliResult run(const std::string& command) { return runCli("cd " + dir.path("") + " && " + command); }
  CliResult tessel(const std::string& args) { return run(std::string(TESSEL_TOOL_PATH) + " cms " + args); }
  Scratch dir;
};

TEST_F(ToolCmsEnvelope, EncryptedByTesselDecryptedByOpenSsl) {
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

TEST_F(ToolCmsEnvelope, EncryptedByOpenSslDecryptedByTessel) {
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
