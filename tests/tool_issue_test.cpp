// The tessel program's genkey, req and ca commands, run as an administrator would: the small PKI
// of the README, judged by OpenSSL, and the refusals of bad invocations.
#include <gtest/gtest.h>

#include "issuing_support.h"

namespace tessel::test {
namespace {

class ToolIssue : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(TESSEL_TOOL_PATH).empty()) GTEST_SKIP() << "built without the example program";
  }
  // tessel runs the program in the scratch folder.
  CliResult tessel(const std::string& args) {
    return runCli("cd " + dir.path("") + " && " + TESSEL_TOOL_PATH + " " + args);
  }
  CliResult openssl(const std::string& args) { return runCli("cd " + dir.path("") + " && openssl " + args); }
  Scratch dir;
};

TEST_F(ToolIssue, TheReadmePkiValidatesInOpenSsl) {
  const char* steps[] = {
      "genkey ec --curve P-384 --out root.key --password rootpw",
      "ca root --key root.key --password rootpw --subject /C=LV/O=Example/CN=Root --days 3650 --path-len 1 --out "
      "root.pem",
      "genkey rsa --bits 2048 --out ca.key",
      "req --key ca.key --subject /O=Example/CN=CA --out ca.csr",
      "ca issue --ca root.pem --ca-key root.key --password rootpw --req ca.csr --ca-cert --path-len 0 --out ca.pem",
      "req --newkey ed25519 --keyout host.key --subject /CN=host.example --san DNS:host.example,IP:192.0.2.7 "
      "--key-usage digitalSignature,serverAuth --out host.csr",
      "ca issue --ca ca.pem --ca-key ca.key --req host.csr --pss --crl-url http://pki.example/ca.crl --out host.pem",
      "ca crl --ca ca.pem --ca-key ca.key --revoke 0A1B2C3D:1 --revoke 7F --number 12 --out ca.crl",
  };
  for (const char* step : steps) {
    const CliResult r = tessel(step);
    ASSERT_EQ(r.status, 0) << step << "\n" << r.output;
  }
  CliResult r = openssl(
      "verify -x509_strict -verify_hostname host.example -verify_ip 192.0.2.7 -CAfile root.pem "
      "-untrusted ca.pem host.pem");
  EXPECT_EQ(r.status, 0) << r.output;
  r = openssl("crl -in ca.crl -CAfile ca.pem -noout -text");
  EXPECT_NE(r.output.find("verify OK"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("Serial Number: 0A1B2C3D"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("X509v3 CRL Number: \n                12"), std::string::npos) << r.output;
  // The root's key is encrypted and OpenSSL opens it with the password; the others are plain.
  EXPECT_EQ(openssl("pkey -in root.key -passin pass:rootpw -noout").status, 0);
  EXPECT_NE(openssl("pkey -in root.key -passin pass:wrong -noout").status, 0);
  EXPECT_EQ(openssl("pkey -in host.key -noout").status, 0);
  r = openssl("x509 -in ca.pem -noout -ext basicConstraints,keyUsage");
  EXPECT_NE(r.output.find("critical\n    CA:TRUE, pathlen:0"), std::string::npos) << r.output;
  EXPECT_EQ(tessel("ca issue --ca ca.pem --ca-key root.key --password rootpw --req host.csr").status, 2);
  EXPECT_EQ(tessel("ca root --key root.key --password nope --subject /CN=x").status, 1);
  EXPECT_EQ(tessel("ca crl --ca ca.pem --ca-key ca.key --number -1").status, 2);
  EXPECT_EQ(tessel("ca crl --ca ca.pem --ca-key ca.key --revoke 80").status, 2);  // serials are positive
}

TEST_F(ToolIssue, BadArgumentsGiveOneLineAndStatusTwo) {
  ASSERT_EQ(tessel("genkey ed25519 --out k.pem").status, 0);
  const char* bad[] = {
      "genkey",
      "genkey dsa",
      "genkey rsa --bits 1024",
      "genkey rsa --bits 8192",
      "genkey ec --curve P-999",
      "genkey ed25519 --bits 2048",
      "genkey rsa --bits",
      "req --key k.pem",
      "req --key k.pem --subject CN=x",
      "req --key k.pem --subject /CN=x --san DNS",
      "req --key k.pem --subject /CN=x --key-usage everything",
      "req --key k.pem --subject /CN=x --digest sha256",
      "req --newkey rsa:1000 --keyout x.key --subject /CN=x",
      "req --key k.pem --newkey ec --subject /CN=x",
      "ca",
      "ca mint",
      "ca root --subject /CN=x",
      "ca issue --ca k.pem --ca-key k.pem --req r.csr",
      "ca crl --ca missing.pem",
      "ca root --key k.pem --subject /CN=x --days many",
  };
  for (const char* args : bad) {
    const CliResult r = tessel(args);
    EXPECT_EQ(r.status, 2) << args << "\n" << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << args << "\n" << r.output;
  }
  for (const char* cmd : {"genkey", "req", "ca"}) {
    const CliResult r = tessel(std::string(cmd) + " --help");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output.rfind(std::string("usage: tessel ") + cmd, 0), 0u) << r.output;
  }
}

}  // namespace
}  // namespace tessel::test
