// Extensions of the certificates tessel builds as OpenSSL's command line reads them back. Chains
// of every key type, built by the tessel program, are validated in tests/data/pki_tool.json
// (group chains), random field sets round-trip in x509_build_property_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "issuing_support.h"
#include "tessel/pem.h"

namespace tessel::test {
namespace {

GeneralName name(std::uint8_t type, const std::string& text) {
  GeneralName n;
  n.type = type;
  n.data.assign(text.begin(), text.end());
  return n;
}

// What `openssl x509 -text` prints of a root, criticality included, is what was asked for. A leaf's
// extensions are read by OpenSSL in tests/data/pki_tool.json (group chains).
TEST(Issue, ExtensionsReadBackByOpenSsl) {
  const auto key = fixtureKey("ec256");
  X509Certificate root;
  root.subject.CN = "Root";
  root.issuer = root.subject;
  root.notBefore = TimePoint::now();
  root.notAfter = TimePoint::fromSeconds(root.notBefore.seconds() + 86400);
  root.isCa = 1;
  root.pathLen = 3;
  root.keyUsage = kuKeyCertSign | kuCrlSign;
  root.permittedName = name(GeneralName::dNSName, ".example");
  root.excludedName = name(GeneralName::dNSName, "bad.example");
  ASSERT_TRUE(root.setSubjectPublicKey(*key) && root.sign(*key, hashSha256));
  // The subject key id is SHA-1 over the key bits unless the host chose another digest.
  ASSERT_EQ(root.subjectKeyId.size(), 20u);
  std::string keyId = asn1::str(asn1::blob(root.subjectKeyId));  // as OpenSSL prints it, in capitals
  std::transform(keyId.begin(), keyId.end(), keyId.begin(), [](unsigned char c) { return std::toupper(c); });
  const std::string line = "\n                ";
  Scratch dir;
  const CliResult r = runCli("openssl x509 -noout -text -in " + dir.file("c.pem", encodePemCertificate(root)));
  for (const std::string& want :
       {"X509v3 Subject Key Identifier: " + line + keyId, "X509v3 Authority Key Identifier: " + line + keyId,
        "X509v3 Basic Constraints: critical" + line + "CA:TRUE, pathlen:3",
        "X509v3 Key Usage: critical" + line + "Certificate Sign, CRL Sign",
        "X509v3 Name Constraints: critical" + line + "Permitted:" + line + "  DNS:.example" + line +
            "Excluded:" + line + "  DNS:bad.example"})
    EXPECT_NE(r.output.find(want), std::string::npos) << want << "\n" << r.output;
}

}  // namespace
}  // namespace tessel::test
