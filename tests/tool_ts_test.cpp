// The tessel program's ts commands: requests, replies and checks round-trip through tessel and
// OpenSSL's ts command, and bad invocations are refused on one line.
#include <gtest/gtest.h>

#include <algorithm>

#include "issuing_support.h"

namespace tessel::test {
namespace {

class ToolTs : public testing::Test {
 protected:
  void SetUp() override {
    if (std::string(TESSEL_TOOL_PATH).empty()) GTEST_SKIP() << "built without the example program";
    dir.file("data", "stamp me\n");
    dir.file("tsa.key", fixtureText("keys/ec256.pkcs8.pem"));
    for (const char* step :
         {"req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -subj /CN=Root -days 9 "
          "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign -out ca.pem",
          "req -x509 -new -key tsa.key -CA ca.pem -CAkey ca.key -subj /CN=TSA -days 9 "
          "-addext extendedKeyUsage=critical,timeStamping -out tsa.pem"}) {
      const CliResult r = openssl(step);
      ASSERT_EQ(r.status, 0) << step << "\n" << r.output;
    }
  }
  CliResult tessel(const std::string& args) {
    return runCli("cd " + dir.path("") + " && " + TESSEL_TOOL_PATH + " " + args);
  }
  CliResult openssl(const std::string& args) { return runCli("cd " + dir.path("") + " && openssl " + args); }
  bool opensslAccepts(const std::string& query, const std::string& response) {
    return openssl("ts -verify -queryfile " + query + " -in " + response + " -CAfile ca.pem -untrusted tsa.pem")
               .output.find("Verification: OK") != std::string::npos;
  }
  Scratch dir;
};

constexpr const char* kReply = "ts reply --key tsa.key --cert tsa.pem --policy 1.2.3.4.1";

TEST_F(ToolTs, RoundTripsThroughTesselAndOpenssl) {
  ASSERT_EQ(tessel("ts query --data data --policy 1.2.3.4.1 --out q.tsq").status, 0);
  ASSERT_EQ(tessel(std::string(kReply) + " --query q.tsq --serial 0A0B --out r.tsr").status, 0);
  EXPECT_TRUE(opensslAccepts("q.tsq", "r.tsr"));
  CliResult r = tessel("ts verify --query q.tsq --in r.tsr --CAfile ca.pem");
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("code 0: "), std::string::npos) << r.output;
  // OpenSSL's request answered by tessel, and tessel's answered by OpenSSL.
  ASSERT_EQ(openssl("ts -query -data data -cert -out oq.tsq").status, 0);
  ASSERT_EQ(tessel(std::string(kReply) + " --query oq.tsq --out or.tsr").status, 0);
  EXPECT_TRUE(opensslAccepts("oq.tsq", "or.tsr"));
  dir.file("tsa.cnf",
           "[ tsa ]\ndefault_tsa = t\n[ t ]\nserial = ./serial\nsigner_cert = ./tsa.pem\nsigner_key = ./tsa.key\n"
           "signer_digest = sha256\ndefault_policy = 1.2.3.4.1\ndigests = sha256\ness_cert_id_alg = sha256\n");
  dir.file("serial", "01\n");
  ASSERT_EQ(openssl("ts -reply -config tsa.cnf -queryfile q.tsq -out o.tsr").status, 0);
  EXPECT_EQ(tessel("ts verify --query q.tsq --in o.tsr --CAfile ca.pem").status, 0);
  // A response checked against another request, and a refusal.
  ASSERT_EQ(tessel("ts query --data tsa.pem --no-nonce --out other.tsq").status, 0);
  r = tessel("ts verify --query other.tsq --in r.tsr");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("code 4: "), std::string::npos) << r.output;
  ASSERT_EQ(tessel("ts query --data data --policy 1.2.9 --no-cert --out p.tsq").status, 0);
  EXPECT_EQ(tessel(std::string(kReply) + " --query p.tsq --out p.tsr").status, 1);
  EXPECT_NE(openssl("ts -reply -in p.tsr -text").output.find("Status: Rejected."), std::string::npos);
}

TEST_F(ToolTs, BadArgumentsGiveOneLineAndStatusTwo) {
  ASSERT_EQ(tessel("ts query --data data --out q.tsq").status, 0);
  const std::string reply = kReply;
  const std::string bad[] = {
      "ts",
      "ts stamp",
      "ts query",
      "ts query --data data --digest 00",
      "ts query --digest abcd",
      "ts query --data data --hash md5",
      "ts query --data data --policy 1.x",
      "ts query --data data --out",
      "ts reply --query q.tsq --key tsa.key --cert tsa.pem",
      reply + " --query data",
      "ts reply --query q.tsq --key tsa.key --cert data --policy 1.2.3.4.1",
      reply + " --query q.tsq --serial 0g",
      "ts reply --query q.tsq --key tsa.key --cert tsa.pem --policy 3.1",
      "ts verify --query q.tsq",
      "ts verify --query q.tsq --in q.tsq",
  };
  for (const std::string& args : bad) {
    const CliResult r = tessel(args);
    EXPECT_EQ(r.status, 2) << args << "\n" << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << args << "\n" << r.output;
  }
  for (const char* job : {"--help", "query --help", "reply --help", "verify --help"}) {
    const CliResult r = tessel(std::string("ts ") + job);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output.rfind("usage: tessel ts", 0), 0u) << r.output;
  }
}

}  // namespace
}  // namespace tessel::test
