// CertificateMemoryStore loads: PEM text and Debian's CA set. Folders with other files are read
// in store_torture_test.cpp, lookups checked in cert_store_index_test.cpp; a real site's chain is
// validated against a root of Debian's set in tests/data/pki_tool.json.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "ol/file.h"
#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/pem.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::fixtureText;
const char* const kMozillaRoots = "/usr/share/ca-certificates/mozilla";

TEST(CertStore, LoadFromStrAppendsTheWholeChainOrFails) {
  CertificateMemoryStore store;
  const std::string chain = fixtureText("certs/chain.pem");
  test::said([&] {
    EXPECT_FALSE(store.loadFromStr("no certificate here"));
    EXPECT_FALSE(store.loadFromStr(fixtureText("certs/crl.pem")));
    EXPECT_TRUE(store.certificates.empty());
    ASSERT_TRUE(store.loadFromStr(chain));
    ASSERT_TRUE(store.loadFromStr(chain));  // duplicates are kept
  });
  const auto certs = readCertChain(chain);
  ASSERT_EQ(store.certificates.size(), 2 * certs.size());
  for (size_t i = 0; i < store.certificates.size(); ++i)
    EXPECT_EQ(store.certificates[i]->serialize(), certs[i % certs.size()]->serialize());
}

// Every root of Debian's CA set loads, writes back to its exact bytes and verifies its own
// signature. Their unknown extensions (Microsoft CA version and template name, private key usage
// period, Netscape cert type, Entrust version ...) are non-critical and only reported.
TEST(CertStore, DebianCaSet) {
  if (!fs::is_directory(kMozillaRoots)) GTEST_SKIP() << "ca-certificates is not installed";
  std::set<Bytes> files;
  for (const auto& entry : fs::directory_iterator(kMozillaRoots))
    files.insert(test::pemBody(test::bytesOf(ol::readFile(entry.path().string()))));
  CertificateMemoryStore store;
  const std::string said = test::said([&] { ASSERT_TRUE(store.loadFromDir(kMozillaRoots, true)); });
  for (std::string_view rest = said, line; nextLine(rest, &line);)
    EXPECT_TRUE(line == "LABEL: CERTIFICATE" || line.starts_with("unknown ext id=") ||
                line.starts_with("unknown name attr: "))
        << line;
  EXPECT_EQ(said.find("critical: 1"), std::string::npos);
  EXPECT_GT(files.size(), 100u);
  EXPECT_EQ(store.certificates.size(), files.size());
  EXPECT_TRUE(store.crls.empty());
  for (const auto& root : store.certificates) {
    EXPECT_TRUE(files.count(root->serialize())) << root->subject.str();
    PathRes res;
    EXPECT_TRUE(verifySignature(root.get(), asn1::blob(root->publicKeyInfo), &res)) << root->subject.str();
    EXPECT_EQ(res.code, pathBadSignature);  // left in place on success
  }
}

}  // namespace
}  // namespace tessel
