// verifyChain and the CRL checks over the scenario tables of tests/data/verify/scenarios.json
// (certificates from tests/data/verify/make_verify.sh): each rule with a passing and a failing case,
// and `openssl verify` reaching the same verdict on the same files wherever OpenSSL's policy is ours.
// Then the search's bounds on a hostile pool.
#include "tessel/verify.h"

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/pem.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

using Chain = std::vector<std::shared_ptr<X509Certificate>>;
using Names = std::vector<std::string>;

const std::string kDir = std::string(TESSEL_SOURCE_DIR) + "/tests/data/verify/";

const nlohmann::json& table() {
  static const nlohmann::json t = test::dataFile("verify/scenarios.json");
  return t;
}
constexpr std::int64_t kAt = 1749988800;  // 2025-06-15

std::shared_ptr<X509Certificate> cert(const std::string& name) {
  static std::map<std::string, std::shared_ptr<X509Certificate>> cache;
  auto& c = cache[name];
  if (!c) test::said([&] { c = readCertFromFile(kDir + name + ".pem"); });  // several subtrees are named
  EXPECT_TRUE(c) << name;
  return c;
}

Chain certs(const Names& names) {
  Chain out;
  for (const auto& n : names) out.push_back(cert(n));
  return out;
}

CertificateMemoryStore storeOf(const Names& anchors, const Names& crls) {
  CertificateMemoryStore store;
  store.certificates = certs(anchors);
  for (const auto& n : crls) {
    store.crls.push_back(readCrlFromFile(kDir + n + ".crl"));
    EXPECT_TRUE(store.crls.back()) << n;
  }
  return store;
}

using nlohmann::json;
const Names kRoot = {"root"}, kIca = {"ica"};
using V = VerifyCode;

// named turns a JSON row's name of a code or purpose into the enumerator of that name; `names`
// lists them in the enumeration's order.
template <typename E>
E named(const json& j, const char* names) {
  std::istringstream in(names);
  std::string name;
  for (unsigned i = 0; in >> name; ++i)
    if (j == name) return static_cast<E>(i);
  ADD_FAILURE() << "unknown name " << j;
  return E{};
}
const char* const kCodes =
    "ok noTime noPath searchLimit notYetValid expired badSignature weakAlgorithm notCa noCertSign pathLenExceeded "
    "unknownCritical tooDeep leafIsCa nameMismatch badPurpose badKeyUsage revoked revocationUnknown nameConstraint";

Names names(const json& row, const char* field) { return row.value(field, Names{}); }

std::string pemFiles(const Names& names, const char* suffix) {
  std::string out = "<(cat";
  for (const auto& n : names) out += " " + n + suffix;
  return out + ")";
}

// opensslAccepts runs `openssl verify` on the row's files; the exit status says its verdict.
int opensslAccepts(const json& r) {
  std::string cmd = "openssl verify -attime " + std::to_string(kAt) + " -auth_level 2 -CAfile " +
                    pemFiles(names(r, "anchors"), ".pem") + " " + r["openssl"].get<std::string>();
  if (!names(r, "intermediates").empty()) cmd += " -untrusted " + pemFiles(names(r, "intermediates"), ".pem");
  if (!names(r, "crls").empty()) cmd += " -CRLfile " + pemFiles(names(r, "crls"), ".crl");
  cmd += " " + r["leaf"].get<std::string>() + ".pem";
  const std::string shell = "cd " + kDir + " && unset OPENSSL_MODULES && bash -c '" + cmd + "' >/dev/null 2>&1";
  const int status = std::system(shell.c_str());
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Each row of tests/data/verify/scenarios.json "chains": a leaf, its offered intermediates, the anchors
// (and CRLs when revocation is checked), the options, the verdict, the failing index and, when it
// matters, the chain found. Rows with an "openssl" field hold the extra `openssl verify` options under
// which OpenSSL reaches the same verdict.
TEST(VerifyChain, ScenarioTable) {
  const bool haveOpenssl = std::system("openssl version >/dev/null 2>&1") == 0;
  int crossChecked = 0;
  for (const json& r : table()["chains"]) {
    SCOPED_TRACE(r["name"].get<std::string>());
    const V code = named<V>(r["code"], kCodes);
    const Names chain = names(r, "chain");
    const auto leaf = cert(r["leaf"]);
    const CertificateMemoryStore anchors = storeOf(names(r, "anchors"), names(r, "crls"));
    VerifyOptions o;
    o.time = TimePoint::fromSeconds(kAt);
    o.purpose = named<VerifyPurpose>(r.value("purpose", "any"),
                                     "any serverAuth clientAuth codeSigning emailProtection timeStamping");
    o.dnsName = r.value("dns", "");
    ASSERT_TRUE(!r.contains("ip") || o.ip.parse(r["ip"].get<std::string>()));
    o.email = r.value("email", "");
    o.cnFallback = r.value("cnFallback", false);
    o.leafMayBeCa = r.value("leafMayBeCa", true);
    o.maxDepth = r.value("maxDepth", 8u);
    o.checkRevocation = !names(r, "crls").empty();
    const VerifyResult res = verifyChain(*leaf, certs(names(r, "intermediates")), anchors, o);
    EXPECT_EQ(res.code, code) << res.text;
    EXPECT_STREQ(res.text, verifyCodeText(code));
    if (!res.ok()) {
      EXPECT_EQ(res.index, r.value("index", 0u));
    }
    if (!chain.empty()) {
      ASSERT_EQ(res.chain.size(), chain.size());
      for (size_t i = 0; i < chain.size(); ++i)
        EXPECT_EQ(res.chain[i]->tbs, cert(chain[i])->tbs) << "chain[" << i << "] should be " << chain[i];
    }
    if (res.ok()) {
      EXPECT_EQ(res.chain.front()->tbs, leaf->tbs);
      EXPECT_TRUE(anchors.findCertificate([&](const X509Certificate& c) { return c.tbs == res.chain.back()->tbs; }));
    }
    if (haveOpenssl && r.contains("openssl")) {
      EXPECT_EQ(opensslAccepts(r), code == V::ok) << "openssl verify disagrees";
      ++crossChecked;
    }
  }
  EXPECT_TRUE(!haveOpenssl || crossChecked > 30) << crossChecked;
}

// CRLs count only when their signature verifies under the certificate's issuer (one that may sign
// CRLs) or under a CRL signer that issuer certified: a forged newer list, a list of an issuer whose
// keyUsage lacks cRLSign and a list of a same-named stranger never decide revocation. Each row of
// "crls" names the list findCrl must pick for the leaf ("" for none) and x509ValidatePath's verdict.
TEST(CrlAuth, OnlyListsSignedForTheIssuerCount) {
  for (const json& c : table()["crls"]) {
    SCOPED_TRACE(c["name"].get<std::string>());
    const Names held = names(c, "store"), crls = names(c, "crls");
    const CertificateMemoryStore store = storeOf(held, crls);
    const auto leaf = cert(c["leaf"]), issuer = cert(c["issuer"]);
    std::shared_ptr<X509Crl> want;
    for (size_t i = 0; i < crls.size(); ++i)
      if (crls[i] == c["wantCrl"]) want = store.crls[i];
    EXPECT_EQ(c["wantCrl"] == "", want == nullptr);
    // The store finds the issuer itself only when it holds it; the chain's copy is offered too.
    if (std::find(held.begin(), held.end(), c["issuer"]) != held.end()) {
      EXPECT_EQ(store.findCrl(*leaf), want);
    }
    EXPECT_EQ(store.findCrlFor(*leaf, issuer.get()), want);
    std::string error;
    const unsigned code = c["want"] == "revoked" ? pathRevoked : pathValid;
    EXPECT_EQ(test::said([&] {
                EXPECT_EQ(x509ValidatePath({leaf, issuer, cert("root")}, storeOf(held, crls),
                                           TimePoint::fromSeconds(kAt), "", ol::IPAddr6(), "", true, &error),
                          code)
                    << error;
              }),
              "");
  }
}

// A peer's copy of a held anchor over another key must not vouch for a list: only the store's
// copy counts for certificates the anchor issued.
TEST(CrlAuth, ForgedAnchorInTheChainIsNotOffered) {
  const CertificateMemoryStore store = storeOf({"root", "ica"}, {"ica-new", "forged"});
  const auto leaf = cert("leaf-rev");
  EXPECT_EQ(store.findCrlFor(*leaf, cert("forger").get()), store.crls[0]);
  std::string error;
  EXPECT_EQ(
      x509ValidatePath({leaf, cert("forger")}, store, TimePoint::fromSeconds(kAt), "", ol::IPAddr6(), "", true, &error),
      pathRevoked);
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

TEST(VerifyChain, NeedsATimeAndAGoodSignature) {
  const CertificateMemoryStore anchors = storeOf(kRoot, {});
  VerifyOptions o;
  EXPECT_EQ(verifyChain(*cert("leaf"), certs(kIca), anchors, o).code, V::noTime);
  o.time = TimePoint::fromSeconds(kAt);
  X509Certificate forged = *cert("leaf");
  forged.signature.back() ^= 1;
  const VerifyResult res = verifyChain(forged, certs(kIca), anchors, o);
  EXPECT_EQ(res.code, V::badSignature);
  EXPECT_TRUE(res.chain.empty());
}

// A pool of 300 same-named CAs over keys of their own: every one is a candidate issuer of the
// leaf and of the pool's root, and none verifies. The search stays within each budget of "pool".
TEST(VerifyChain, HostilePoolStaysWithinTheBounds) {
  Chain pool;
  test::said([&] { pool = readCertChainFromFile(kDir + "pool.pem"); });  // names each block
  ASSERT_EQ(pool.size(), 300u);
  pool.push_back(cert("pool-root"));  // the one issuer that verifies, last
  const CertificateMemoryStore anchors = storeOf(kRoot, {});
  for (const json& b : table()["pool"]) {
    VerifyOptions o;
    o.time = TimePoint::fromSeconds(kAt);
    o.maxSignatureChecks = b["maxSignatureChecks"];
    o.maxCandidates = b["maxCandidates"];
    const VerifyResult res = verifyChain(*cert("leaf-pool"), pool, anchors, o);
    EXPECT_EQ(res.code, named<V>(b["code"], kCodes)) << b.dump() << ": " << res.text;
    EXPECT_LE(res.signatureChecks, std::min(o.maxSignatureChecks, 2 * o.maxCandidates));
  }
}

}  // namespace
}  // namespace tessel
