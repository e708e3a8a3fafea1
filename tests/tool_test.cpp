// The example program, run as a host would run it.
#include <cstdio>
#include <fstream>
#include <string>

#include "ol/file.h"
#include "ol/store.h"
#include "support.h"
#include "tessel/pem.h"

namespace {

using tessel::test::fixturePath;
using tessel::test::fixtureText;

// run executes a shell command and returns its standard output and exit status.
std::pair<std::string, int> run(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return {"", -1};
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int status = pclose(p);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

class Tool : public testing::Test {
 protected:
  void SetUp() override {
    if (tool.empty()) GTEST_SKIP() << "built without the example program";
  }
  const std::string tool = TESSEL_TOOL_PATH;
};

TEST_F(Tool, DigestPrintsSha256sumLines) {
  const std::string abc = std::string(TESSEL_SOURCE_DIR) + "/examples/abc.txt";
  // FIPS 180-2 appendix B.1: SHA-256("abc"); RFC 1321 appendix A.5: MD5("abc").
  EXPECT_EQ(run(tool + " digest sha256 " + abc + " 2>/dev/null"),
            std::make_pair("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  " + abc + "\n", 0));
  EXPECT_EQ(run("printf abc | " + tool + " digest md5 -").first, "900150983cd24fb0d6963f7d28e17f72  -\n");
  EXPECT_EQ(run(tool + " digest sha256 /nonexistent/file 2>/dev/null").second, 1);
  EXPECT_EQ(run(tool + " digest sha3 " + abc + " 2>/dev/null").second, 2);
  EXPECT_EQ(run(tool + " 2>/dev/null").second, 2);
}

TEST_F(Tool, DumpPrintsCertificatesCrlsRequestsAndKeys) {
  const std::string leaf = fixtureText("certs/leaf.dump"), ca = fixtureText("certs/ca.dump");
  const std::string unknownExt = "unknown ext id=1.2.3.4.5, critical: 0\n";
  auto dump = [&](const std::string& file) { return run(tool + " dump " + fixturePath(file)); };
  EXPECT_EQ(dump("certs/leaf.pem"), std::make_pair("LABEL: CERTIFICATE\n" + unknownExt + leaf, 0));
  EXPECT_EQ(dump("certs/leaf.der"), std::make_pair(unknownExt + leaf, 0));
  EXPECT_EQ(dump("certs/chain.pem").first,
            "LABEL: CERTIFICATE\n" + unknownExt + "LABEL: PRIVATE KEY\nLABEL: CERTIFICATE\n" + leaf + ca);
  EXPECT_EQ(dump("certs/crl.der").first, fixtureText("certs/crl.dump"));
  EXPECT_EQ(dump("certs/req.pem").first,
            "unknown attribute 2a:86:48:86:f7:0d:01:09:02\n" + fixtureText("certs/req.dump"));
  // Keys: the legacy encrypted one needs its password.
  std::string password = fixtureText("keys/PASSWORD");
  password.erase(password.find_last_not_of('\n') + 1);
  auto [key, keyStatus] = dump("keys/rsa2048.legacy-aes256.pem --password " + password);
  EXPECT_EQ(keyStatus, 0);
  EXPECT_TRUE(key.starts_with("[RSA-PRIVATE]\nmodulus: ")) << key;
  EXPECT_EQ(dump("keys/rsa2048.legacy-aes256.pem 2>/dev/null").second, 1);
  EXPECT_TRUE(dump("keys/rsa1024.pub.pem").first.starts_with("[RSA-PUBLIC]\n"));
  EXPECT_EQ(run(tool + " dump /nonexistent 2>/dev/null").second, 1);
  EXPECT_EQ(run(tool + " dump 2>/dev/null").second, 2);
}


TEST_F(Tool, VerifyValidatesTheExampleChainAndRejectsTheBrokenOne) {
  const std::string root = "/usr/share/ca-certificates/mozilla/ISRG_Root_X1.crt";
  if (!std::ifstream(root)) GTEST_SKIP() << "ca-certificates is not installed";
  const std::string examples = std::string(TESSEL_SOURCE_DIR) + "/examples/";
  const std::string args = " --ca " + root + " --host certauth.cryptomix.com --time 2023-04-01";
  auto [good, goodStatus] = run(tool + " verify " + examples + "site-chain.pem" + args);
  EXPECT_EQ(goodStatus, 0);
  EXPECT_TRUE(good.ends_with("\ncode 0: chain valid\n")) << good;
  auto [bad, badStatus] = run(tool + " verify " + examples + "broken-chain.pem" + args);
  EXPECT_EQ(badStatus, 1);
  EXPECT_TRUE(bad.ends_with("\ncode 9: cert signature is invalid for: \"CN=certauth.cryptomix.com\"\n")) << bad;
  auto [late, lateStatus] = run(tool + " verify " + examples + "site-chain.pem --ca " + root + " --time 1686017244");
  EXPECT_EQ(lateStatus, 1);
  EXPECT_TRUE(late.ends_with("\ncode 5: cert not valid (after: Tue Jun  6 02:07:23 2023 < now: Tue Jun  6 02:07:24 "
                             "2023) - \"CN=certauth.cryptomix.com\"\n")) << late;
  auto [noStore, noStoreStatus] = run(tool + " verify " + examples + "site-chain.pem --time 2023-04-01");
  EXPECT_EQ(noStoreStatus, 1);
  EXPECT_TRUE(noStore.ends_with("\ncode 6: no certificate of the chain is held by the store\n")) << noStore;
  EXPECT_EQ(run(tool + " verify " + examples + "site-chain.pem --time yesterday 2>/dev/null").second, 2);

  // The same anchor from a certificate-manager store instead of a file.
  {
    tessel::test::TempRoot cerm;
    auto anchor = tessel::readCertFromStr(ol::readFile(root));
    ASSERT_TRUE(anchor);
    ol::message entry;
    entry.set(ol::bool_id{0x0C}, true);
    entry.set(ol::u32_id{0x2D}, 0x4u);
    entry.set(ol::raw_id{0x0B}, anchor->serialize());
    ASSERT_TRUE(ol::Store("cerm").put(7, entry));
    ol::message settings;
    settings.set(ol::u32_id{7}, 0u);  // no built-in anchors
    ASSERT_TRUE(ol::Store("cert/settings").put(0, settings));
    const std::string cermArgs = " --cerm " + cerm.path("") + " --host certauth.cryptomix.com --time 2023-04-01";
    auto [fromCerm, cermStatus] = run(tool + " verify " + examples + "site-chain.pem" + cermArgs + " --mask 4");
    EXPECT_EQ(cermStatus, 0) << fromCerm;
    auto [otherUse, otherStatus] = run(tool + " verify " + examples + "site-chain.pem" + cermArgs + " --mask 2");
    EXPECT_EQ(otherStatus, 1);
    EXPECT_TRUE(otherUse.ends_with("\ncode 6: no certificate of the chain is held by the store\n")) << otherUse;
  }
  EXPECT_EQ(run(tool + " verify 2>/dev/null").second, 2);
}

}  // namespace
