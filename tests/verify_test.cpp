// verifyChain over the scenario table below (certificates from tests/data/verify/make_verify.sh):
// each rule with a passing and a failing case, and `openssl verify` reaching the same verdict on
// the same files wherever OpenSSL's policy is ours. Then the search's bounds on a hostile pool.
#include "tessel/verify.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "support.h"
#include "tessel/pem.h"

namespace tessel {
namespace {

using Chain = std::vector<std::shared_ptr<X509Certificate>>;
using Names = std::vector<std::string>;

const std::string kDir = std::string(TESSEL_SOURCE_DIR) + "/tests/data/verify/";
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

struct Row {
  const char* name;
  std::string leaf;
  Names intermediates, anchors;
  VerifyCode code;
  std::size_t index = 0;  // of the failing certificate
  Names chain = {};       // the chain wanted when it matters (leaf first, anchor last)
  VerifyPurpose purpose = VerifyPurpose::any;
  std::string dns = "", ip = "", email = "";
  bool cnFallback = false, leafMayBeCa = true;
  unsigned maxDepth = 8;
  Names crls = {};                // checked when not empty
  const char* openssl = nullptr;  // extra `openssl verify` options when OpenSSL's policy agrees
};

const Names kRoot = {"root"}, kIca = {"ica"};
using V = VerifyCode;
using P = VerifyPurpose;

const Row kRows[] = {
    // Path building.
    {.name = "plain chain",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .chain = {"leaf", "ica", "root"},
     .openssl = ""},
    {.name = "no intermediate",
     .leaf = "leaf",
     .intermediates = {},
     .anchors = kRoot,
     .code = V::noPath,
     .openssl = ""},
    {.name = "cross-signed, old root trusted",
     .leaf = "leaf2",
     .intermediates = {"ica2", "xroot2"},
     .anchors = kRoot,
     .code = V::ok,
     .chain = {"leaf2", "ica2", "xroot2", "root"},
     .openssl = ""},
    {.name = "cross-signed, new root trusted",
     .leaf = "leaf2",
     .intermediates = {"xroot2", "ica2"},
     .anchors = {"root2"},
     .code = V::ok,
     .chain = {"leaf2", "ica2", "root2"},
     .openssl = ""},
    {.name = "expired cross-certificate of a trusted root",
     .leaf = "leaf2",
     .intermediates = {"xroot2-expired", "ica2"},
     .anchors = {"root", "root2"},
     .code = V::ok,
     .chain = {"leaf2", "ica2", "root2"},
     .openssl = ""},
    {.name = "expired cross-certificate only",
     .leaf = "leaf2",
     .intermediates = {"xroot2-expired", "ica2"},
     .anchors = kRoot,
     .code = V::expired,
     .index = 2,
     .openssl = ""},
    {.name = "expired intermediate beside a valid one",
     .leaf = "leaf",
     .intermediates = {"ica-exp", "ica"},
     .anchors = kRoot,
     .code = V::ok,
     .chain = {"leaf", "ica", "root"},
     .openssl = ""},
    {.name = "right candidate last",
     .leaf = "leaf",
     .intermediates = {"ica-other", "ica-exp", "ica"},
     .anchors = kRoot,
     .code = V::ok,
     .chain = {"leaf", "ica", "root"}},
    {.name = "expired intermediate alone",
     .leaf = "leaf",
     .intermediates = {"ica-exp"},
     .anchors = kRoot,
     .code = V::expired,
     .index = 1,
     .openssl = ""},
    {.name = "loop",
     .leaf = "leaf-loop",
     .intermediates = {"loop-a", "loop-b"},
     .anchors = kRoot,
     .code = V::noPath,
     .index = 2,
     .openssl = ""},
    {.name = "leaf is an anchor",
     .leaf = "root",
     .intermediates = {},
     .anchors = kRoot,
     .code = V::ok,
     .chain = {"root"}},
    // Per certificate.
    {.name = "expired leaf",
     .leaf = "leaf-expired",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::expired,
     .openssl = ""},
    {.name = "SHA-1 signature",
     .leaf = "leaf-sha1",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::weakAlgorithm,
     .openssl = ""},
    {.name = "RSA-1024 issuer",
     .leaf = "leaf-weak",
     .intermediates = {"ica-rsa1024"},
     .anchors = kRoot,
     .code = V::weakAlgorithm,
     .index = 1,
     .openssl = ""},
    {.name = "issuer with cA FALSE",
     .leaf = "leaf-cafalse",
     .intermediates = {"cafalse"},
     .anchors = kRoot,
     .code = V::notCa,
     .index = 1,
     .openssl = ""},
    {.name = "pathlen 0 over a CA",
     .leaf = "leaf-pl",
     .intermediates = {"sub", "pl0"},
     .anchors = kRoot,
     .code = V::pathLenExceeded,
     .index = 2,
     .openssl = ""},
    {.name = "pathlen 0 over its own rollover",
     .leaf = "leaf-roll",
     .intermediates = {"pl0-roll", "pl0"},
     .anchors = kRoot,
     .code = V::ok,
     .chain = {"leaf-roll", "pl0-roll", "pl0", "root"},
     .openssl = ""},
    {.name = "issuer without keyCertSign",
     .leaf = "leaf-nokcs",
     .intermediates = {"nokcs"},
     .anchors = kRoot,
     .code = V::noCertSign,
     .index = 1,
     .openssl = ""},
    {.name = "critical AIA",
     .leaf = "leaf-aia-crit",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::unknownCritical,
     .openssl = ""},
    {.name = "within depth",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .maxDepth = 1,
     .openssl = "-verify_depth 1"},
    {.name = "too deep",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::tooDeep,
     .index = 1,
     .maxDepth = 0,
     .openssl = "-verify_depth 0"},
    {.name = "CA as leaf allowed", .leaf = "ica", .intermediates = {}, .anchors = kRoot, .code = V::ok},
    {.name = "CA as leaf refused",
     .leaf = "ica",
     .intermediates = {},
     .anchors = kRoot,
     .code = V::leafIsCa,
     .leafMayBeCa = false},
    // Names.
    {.name = "DNS SAN",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .dns = "WWW.example.com.",
     .openssl = "-verify_hostname www.example.com"},
    {.name = "CN ignored beside SANs",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .dns = "cn.example.com",
     .cnFallback = true,
     .openssl = "-verify_hostname cn.example.com"},
    {.name = "wildcard label",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .dns = "a.w.example.com",
     .openssl = "-verify_hostname a.w.example.com"},
    {.name = "wildcard covers one label only",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .dns = "x.a.w.example.com",
     .openssl = "-verify_hostname x.a.w.example.com"},
    {.name = "wildcard needs a label",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .dns = "w.example.com",
     .openssl = "-verify_hostname w.example.com"},
    {.name = "partial wildcard is literal",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .dns = "foo.example.com"},
    {.name = "no SAN, no fallback",
     .leaf = "leaf-nosan",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .dns = "legacy.example.com"},
    {.name = "no SAN, CN fallback",
     .leaf = "leaf-nosan",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .dns = "legacy.example.com",
     .cnFallback = true,
     .openssl = "-verify_hostname legacy.example.com"},
    {.name = "IPv4 SAN",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .ip = "192.0.2.7",
     .openssl = "-verify_ip 192.0.2.7"},
    {.name = "IPv6 SAN",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .ip = "2001:db8::7",
     .openssl = "-verify_ip 2001:db8::7"},
    {.name = "other IP",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .ip = "192.0.2.8",
     .openssl = "-verify_ip 192.0.2.8"},
    {.name = "e-mail SAN",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .purpose = P::emailProtection,
     .email = "user@EXAMPLE.com",
     .openssl = "-verify_email user@EXAMPLE.com"},
    {.name = "other e-mail",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::nameMismatch,
     .purpose = P::clientAuth,
     .email = "USER@example.com",
     .openssl = "-verify_email USER@example.com"},
    // Purposes.
    {.name = "server leaf",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .purpose = P::serverAuth,
     .openssl = "-purpose sslserver"},
    {.name = "client leaf as server",
     .leaf = "leaf-client",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::badPurpose,
     .purpose = P::serverAuth,
     .openssl = "-purpose sslserver"},
    {.name = "client leaf as client",
     .leaf = "leaf-client",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .purpose = P::clientAuth,
     .openssl = "-purpose sslclient"},
    {.name = "server leaf as code signer",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::badPurpose,
     .purpose = P::codeSigning},
    {.name = "anyExtendedKeyUsage",
     .leaf = "leaf-anyeku",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .purpose = P::timeStamping},
    {.name = "no EKU",
     .leaf = "leaf-noeku",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .purpose = P::serverAuth,
     .openssl = "-purpose sslserver"},
    {.name = "key usage cRLSign only",
     .leaf = "leaf-crlku",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::badKeyUsage,
     .purpose = P::serverAuth,
     .openssl = "-purpose sslserver"},
    {.name = "server CA over a server leaf",
     .leaf = "leaf-srvca-server",
     .intermediates = {"srvca"},
     .anchors = kRoot,
     .code = V::ok,
     .purpose = P::serverAuth,
     .openssl = "-purpose sslserver"},
    {.name = "server CA over a client leaf",
     .leaf = "leaf-srvca-client",
     .intermediates = {"srvca"},
     .anchors = kRoot,
     .code = V::badPurpose,
     .index = 1,
     .purpose = P::clientAuth,
     .openssl = "-purpose sslclient"},
    // Revocation.
    {.name = "current lists",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .crls = {"ica-new", "root"},
     .openssl = "-crl_check_all"},
    {.name = "revoked",
     .leaf = "leaf-rev",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::revoked,
     .crls = {"ica-new", "root"},
     .openssl = "-crl_check_all"},
    {.name = "revoked, forged newer list",
     .leaf = "leaf-rev",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::revoked,
     .crls = {"forged", "ica-new", "root"},
     .openssl = "-crl_check_all"},
    {.name = "no list for the intermediate",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::revocationUnknown,
     .index = 1,
     .crls = {"ica-new"},
     .openssl = "-crl_check_all"},
    {.name = "stale list",
     .leaf = "leaf",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::revocationUnknown,
     .crls = {"ica-stale", "root"},
     .openssl = "-crl_check_all"},
    {.name = "authorised CRL signer",
     .leaf = "leaf-rev",
     .intermediates = kIca,
     .anchors = {"root", "crlsigner"},
     .code = V::revoked,
     .crls = {"ica-old", "delegated", "root"}},
    {.name = "CRL signer unknown",
     .leaf = "leaf-rev",
     .intermediates = kIca,
     .anchors = kRoot,
     .code = V::ok,
     .crls = {"ica-old", "delegated", "root"}},
    // Name constraints.
    {.name = "within every subtree",
     .leaf = "leaf-nc-ok",
     .intermediates = {"nc"},
     .anchors = kRoot,
     .code = V::ok,
     .openssl = ""},
    {.name = "excluded DNS",
     .leaf = "leaf-nc-excl",
     .intermediates = {"nc"},
     .anchors = kRoot,
     .code = V::nameConstraint,
     .openssl = ""},
    {.name = "wildcard into excluded DNS",
     .leaf = "leaf-nc-wild",
     .intermediates = {"nc"},
     .anchors = kRoot,
     .code = V::nameConstraint,
     .openssl = ""},
    {.name = "DNS outside permitted",
     .leaf = "leaf-nc-dns",
     .intermediates = {"nc"},
     .anchors = kRoot,
     .code = V::nameConstraint,
     .openssl = ""},
    {.name = "IP outside permitted",
     .leaf = "leaf-nc-ip",
     .intermediates = {"nc"},
     .anchors = kRoot,
     .code = V::nameConstraint,
     .openssl = ""},
    {.name = "e-mail outside permitted",
     .leaf = "leaf-nc-mail",
     .intermediates = {"nc"},
     .anchors = kRoot,
     .code = V::nameConstraint,
     .openssl = ""},
};

std::string pemFiles(const Names& names, const char* suffix) {
  std::string out = "<(cat";
  for (const auto& n : names) out += " " + n + suffix;
  return out + ")";
}

// opensslAccepts runs `openssl verify` on the row's files; the exit status says its verdict.
int opensslAccepts(const Row& r) {
  std::string cmd = "openssl verify -attime " + std::to_string(kAt) + " -auth_level 2 -CAfile " +
                    pemFiles(r.anchors, ".pem") + " " + r.openssl;
  if (!r.intermediates.empty()) cmd += " -untrusted " + pemFiles(r.intermediates, ".pem");
  if (!r.crls.empty()) cmd += " -CRLfile " + pemFiles(r.crls, ".crl");
  cmd += " " + r.leaf + ".pem";
  const std::string shell = "cd " + kDir + " && unset OPENSSL_MODULES && bash -c '" + cmd + "' >/dev/null 2>&1";
  const int status = std::system(shell.c_str());
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(VerifyChain, ScenarioTable) {
  const bool haveOpenssl = std::system("openssl version >/dev/null 2>&1") == 0;
  int crossChecked = 0;
  for (const Row& r : kRows) {
    SCOPED_TRACE(r.name);
    const CertificateMemoryStore anchors = storeOf(r.anchors, r.crls);
    VerifyOptions o;
    o.time = TimePoint::fromSeconds(kAt);
    o.purpose = r.purpose;
    o.dnsName = r.dns;
    ASSERT_TRUE(r.ip.empty() || o.ip.parse(r.ip));
    o.email = r.email;
    o.cnFallback = r.cnFallback;
    o.leafMayBeCa = r.leafMayBeCa;
    o.maxDepth = r.maxDepth;
    o.checkRevocation = !r.crls.empty();
    const VerifyResult res = verifyChain(*cert(r.leaf), certs(r.intermediates), anchors, o);
    EXPECT_EQ(res.code, r.code) << res.text;
    EXPECT_STREQ(res.text, verifyCodeText(r.code));
    if (!res.ok()) {
      EXPECT_EQ(res.index, r.index);
    }
    if (!r.chain.empty()) {
      ASSERT_EQ(res.chain.size(), r.chain.size());
      for (size_t i = 0; i < r.chain.size(); ++i)
        EXPECT_EQ(res.chain[i]->tbs, cert(r.chain[i])->tbs) << "chain[" << i << "] should be " << r.chain[i];
    }
    if (res.ok()) {
      EXPECT_EQ(res.chain.front()->tbs, cert(r.leaf)->tbs);
      EXPECT_TRUE(anchors.findCertificate([&](const X509Certificate& c) { return c.tbs == res.chain.back()->tbs; }));
    }
    if (haveOpenssl && r.openssl) {
      EXPECT_EQ(opensslAccepts(r), r.code == V::ok) << "openssl verify disagrees";
      ++crossChecked;
    }
  }
  EXPECT_TRUE(!haveOpenssl || crossChecked > 30) << crossChecked;
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
// leaf and of the pool's root, and none verifies. The search stays within its budgets.
TEST(VerifyChain, HostilePoolStaysWithinTheBounds) {
  Chain pool;
  test::said([&] { pool = readCertChainFromFile(kDir + "pool.pem"); });  // names each block
  ASSERT_EQ(pool.size(), 300u);
  pool.push_back(cert("pool-root"));  // the one issuer that verifies, last
  const CertificateMemoryStore anchors = storeOf(kRoot, {});
  struct Bound {
    unsigned checks, candidates;
    V code;
  };
  for (const Bound b : {Bound{100, 32, V::badSignature}, Bound{100, 1000, V::searchLimit},
                        Bound{10, 1000, V::searchLimit}, Bound{2000, 1000, V::badSignature}}) {
    VerifyOptions o;
    o.time = TimePoint::fromSeconds(kAt);
    o.maxSignatureChecks = b.checks;
    o.maxCandidates = b.candidates;
    const VerifyResult res = verifyChain(*cert("leaf-pool"), pool, anchors, o);
    EXPECT_EQ(res.code, b.code) << b.checks << "/" << b.candidates << ": " << res.text;
    EXPECT_LE(res.signatureChecks, std::min(b.checks, 2 * b.candidates));
  }
}

}  // namespace
}  // namespace tessel
