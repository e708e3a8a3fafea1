// CRLs count only when their signature verifies under the certificate's issuer (one that may sign
// CRLs) or under a CRL signer that issuer certified: a forged newer list, a list of an issuer whose
// keyUsage lacks cRLSign and a list of a same-named stranger never decide revocation. Fixtures:
// tests/data/verify/make_verify.sh.
#include <string>
#include <thread>
#include <vector>

#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/pem.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

const std::string kDir = std::string(TESSEL_SOURCE_DIR) + "/tests/data/verify/";
const TimePoint kAt = TimePoint::fromSeconds(1749988800);  // 2025-06-15

std::shared_ptr<X509Certificate> cert(const std::string& name) {
  std::shared_ptr<X509Certificate> c = readCertFromFile(kDir + name + ".pem");
  EXPECT_TRUE(c) << name;
  return c;
}

CertificateMemoryStore storeOf(const std::vector<std::string>& certs, const std::vector<std::string>& crls) {
  CertificateMemoryStore store;
  for (const auto& name : certs) store.certificates.push_back(cert(name));
  for (const auto& name : crls) {
    store.crls.push_back(readCrlFromFile(kDir + name + ".crl"));
    EXPECT_TRUE(store.crls.back()) << name;
  }
  return store;
}

struct Case {
  const char* name;
  std::vector<std::string> store, crls;
  std::string leaf, issuer;  // the chain is leaf, issuer, root
  const char* wantCrl;       // the list findCrl must pick for the leaf; "" for none
  unsigned wantCode;         // x509ValidatePath with CRL checks on
};

const Case kCases[] = {
    {"good list", {"root", "ica"}, {"ica-new"}, "leaf-rev", "ica", "ica-new", pathRevoked},
    {"forged newer list does not un-revoke",
     {"root", "ica"},
     {"ica-new", "forged"},
     "leaf-rev",
     "ica",
     "ica-new",
     pathRevoked},
    {"forged list first", {"root", "ica"}, {"forged", "ica-new"}, "leaf-rev", "ica", "ica-new", pathRevoked},
    {"forged list alone", {"root", "ica"}, {"forged"}, "leaf-rev", "ica", "", pathValid},
    {"issuer only in the chain", {"root"}, {"forged", "ica-new"}, "leaf-rev", "ica", "ica-new", pathRevoked},
    {"newer good list wins", {"root", "ica"}, {"ica-new", "ica-old"}, "leaf-rev", "ica", "ica-new", pathRevoked},
    {"newer good list wins, loaded last",
     {"root", "ica"},
     {"ica-old", "ica-new"},
     "leaf-rev",
     "ica",
     "ica-new",
     pathRevoked},
    {"older list alone", {"root", "ica"}, {"ica-old"}, "leaf-rev", "ica", "ica-old", pathValid},
    {"issuer without cRLSign", {"root", "ica-nocrl"}, {"nocrl"}, "leaf-nocrl", "ica-nocrl", "", pathValid},
    {"authorised CRL signer",
     {"root", "ica", "crlsigner"},
     {"ica-old", "delegated"},
     "leaf-rev",
     "ica",
     "delegated",
     pathRevoked},
    {"CRL signer not held", {"root", "ica"}, {"ica-old", "delegated"}, "leaf-rev", "ica", "ica-old", pathValid},
    {"same-named signer the issuer never certified",
     {"root", "ica", "rogue-signer"},
     {"ica-old", "rogue"},
     "leaf-rev",
     "ica",
     "ica-old",
     pathValid},
};

TEST(CrlAuth, OnlyListsSignedForTheIssuerCount) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const CertificateMemoryStore store = storeOf(c.store, c.crls);
    const auto leaf = cert(c.leaf);
    const auto issuer = cert(c.issuer);
    const std::vector<std::shared_ptr<X509Certificate>> chain{leaf, issuer, cert("root")};
    std::shared_ptr<X509Crl> want;
    for (size_t i = 0; i < c.crls.size(); ++i)
      if (c.crls[i] == c.wantCrl) want = store.crls[i];
    EXPECT_EQ(std::string(c.wantCrl).empty(), want == nullptr);
    // The store finds the issuer itself only when it holds it; the chain's copy is offered too.
    const bool held = std::find(c.store.begin(), c.store.end(), c.issuer) != c.store.end();
    if (held) {
      EXPECT_EQ(store.findCrl(*leaf), want);
    }
    EXPECT_EQ(store.findCrlFor(*leaf, issuer.get()), want);
    std::string error;
    std::string out = test::said([&] {
      EXPECT_EQ(x509ValidatePath(chain, storeOf(c.store, c.crls), kAt, "", ol::IPAddr6(), "", true, &error), c.wantCode)
          << error;
    });
    EXPECT_EQ(out, "");
  }
}

// A peer's copy of a held anchor over another key must not vouch for a list: only the store's
// copy counts for certificates the anchor issued.
TEST(CrlAuth, ForgedAnchorInTheChainIsNotOffered) {
  const CertificateMemoryStore store = storeOf({"root", "ica"}, {"ica-new", "forged"});
  const auto leaf = cert("leaf-rev");
  EXPECT_EQ(store.findCrlFor(*leaf, cert("forger").get()), store.crls[0]);
  std::string error;
  EXPECT_EQ(x509ValidatePath({leaf, cert("forger")}, store, kAt, "", ol::IPAddr6(), "", true, &error), pathRevoked);
}

// Lookups from several threads at once see the same lists as one alone.
TEST(CrlAuth, SharedStoreAnswersAlikeFromThreads) {
  const CertificateMemoryStore store = storeOf({"root", "ica", "crlsigner"}, {"forged", "ica-old", "delegated"});
  const auto leaf = cert("leaf-rev");
  std::vector<std::shared_ptr<X509Crl>> seen(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < seen.size(); ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) seen[t] = store.findCrl(*leaf);
    });
  for (auto& t : threads) t.join();
  for (const auto& s : seen) EXPECT_EQ(s, store.crls[2]);
}

}  // namespace
}  // namespace tessel
