// The tessel program's pkcs12 command: what it exports OpenSSL reads, what OpenSSL exports it
// describes and takes apart, and a wrong password exits with status 1 and the reason.
#include <gtest/gtest.h>

#include "issuing_support.h"

namespace tessel::test {
namespace {

class ToolPkcs12 : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(TESSEL_TOOL_PATH).empty()) GTEST_SKIP() << "built without the example program";
    ASSERT_EQ(run("cp " + fixturePath("keys/ec256.pkcs8.pem") +
                  " ec.key && openssl req -x509 -new -key ec.key -subj /CN=leaf -days 2 -out leaf.pem && "
                  "openssl req -x509 -new -key ec.key -subj /CN=ca -days 2 -out ca.pem")
                  .status,
              0);
  }
  // The host's command line needs its own legacy provider, not the 32-bit run's OPENSSL_MODULES.
  CliResult run(const std::string& command) {
    return runCli("cd " + dir.path("") + " && unset OPENSSL_MODULES && " + command);
  }
  CliResult tessel(const std::string& args) { return run(std::string(TESSEL_TOOL_PATH) + " pkcs12 " + args); }
  Scratch dir;
};

TEST_F(ToolPkcs12, ExportedReadByOpenSsl) {
  const struct {
    const char* tesselOptions;
    const char* opensslOptions;
  } cases[] = {{"", ""}, {"--legacy --iter 1000", "-legacy"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tesselOptions);
    CliResult r =
        tessel(std::string("--export --key ec.key --cert leaf.pem --chain ca.pem --name leaf --password pw ") +
               c.tesselOptions + " --out t.p12");
    ASSERT_EQ(r.status, 0) << r.output;
    r = run(std::string("openssl pkcs12 -in t.p12 -nodes -passin pass:pw ") + c.opensslOptions + " -out all.pem");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(run("grep -c 'friendlyName: leaf' all.pem").output, "2\n");  // key and certificate
    EXPECT_EQ(
        run("openssl pkey -in ec.key -pubout > want.pub && openssl pkey -in all.pem -pubout | cmp - want.pub").status,
        0);
  }
}

TEST_F(ToolPkcs12, OpenSslFileDescribedAndTakenApart) {
  ASSERT_EQ(
      run("openssl pkcs12 -export -inkey ec.key -in leaf.pem -certfile ca.pem -passout pass:pw -out o.p12").status, 0);
  CliResult r = tessel("--info --in o.p12 --password pw");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("MAC: HMAC-SHA256, 2048 iterations\n"
                          "content 0: encrypted-data, PBES2, PBKDF2-hmacWithSHA256, AES-256-CBC, 2048 iterations\n"),
            std::string::npos)
      << r.output;
  r = tessel("--extract --in o.p12 --password pw --out-password out --out x.pem");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(run("openssl pkey -in ec.key -pubout > want.pub && openssl pkey -in x.pem -passin pass:out -pubout | cmp - "
                "want.pub")
                .status,
            0);
  EXPECT_EQ(run("openssl crl2pkcs7 -nocrl -certfile x.pem | openssl pkcs7 -print_certs | grep -c subject=").output,
            "2\n");
  EXPECT_EQ(run("openssl x509 -in x.pem | cmp - leaf.pem").status, 0);  // the key's certificate first
  r = tessel("--info --in o.p12 --password wrong");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("o.p12: MAC verification failed: wrong password or altered file"), std::string::npos)
      << r.output;
  EXPECT_EQ(tessel("--info").status, 2);
  EXPECT_EQ(tessel("--info --extract --in o.p12").status, 2);
  EXPECT_EQ(tessel("--export --key ec.key").status, 2);
  EXPECT_EQ(tessel("--help").status, 0);
}

}  // namespace
}  // namespace tessel::test
