// The certificate store's indexed lookups against a plain walk over its lists: thousands of
// certificates and CRLs whose names differ only in case, after a NUL byte or in non-ASCII
// bytes, with shared, absent and distinct key identifiers and equally new CRLs, so that every
// rule of which entry wins is exercised.
#include <memory>
#include <string>
#include <vector>

#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/crl.h"
#include "tessel/pem.h"

namespace {

using tessel::CertificateMemoryStore;
using tessel::DistinguishedName;
using tessel::X509Certificate;
using tessel::X509Crl;
using tessel::test::Bytes;
using tessel::test::TestRng;
namespace asn1 = tessel::asn1;

// The pools names and key identifiers are drawn from; "" in a name pool is an absent attribute.
const std::vector<std::string> kCommonNames = {
    "Root CA",  "ROOT ca",        "root ca",        std::string("Root CA\0tail", 12),
    "Root CA2", "R\xc3\xb6ot CA", "r\xc3\x96ot CA", ""};
const std::vector<std::string> kOrganisations = {"", "Example", "EXAMPLE", "Other"};
const std::vector<Bytes> kKeyIds = {{}, {1, 2, 3}, {1, 2, 4}, {9}, {1, 2, 3, 0}};

DistinguishedName nameFrom(TestRng& rng) {
  DistinguishedName n;
  n.CN = kCommonNames[rng.below(kCommonNames.size())];
  n.O = kOrganisations[rng.below(kOrganisations.size())];
  if (rng.below(8) == 0) n.SerialNumber = "7";
  return n;
}

bool keyIdsAgree(const Bytes& a, const Bytes& b) { return a.empty() || b.empty() || a == b; }

std::shared_ptr<X509Certificate> walkIssuer(const CertificateMemoryStore& s, const DistinguishedName& name,
                                            const Bytes& keyId) {
  for (const auto& cert : s.certificates)
    if (keyIdsAgree(cert->subjectKeyId, keyId) && cert->subject == name) return cert;
  return nullptr;
}

std::shared_ptr<X509Crl> walkCrl(const CertificateMemoryStore& s, const X509Certificate& cert) {
  std::shared_ptr<X509Crl> best;
  for (const auto& crl : s.crls)
    if (keyIdsAgree(crl->authorityKeyId, cert.authorityKeyId) && crl->issuer == cert.issuer &&
        (!best || best->thisUpdate < crl->thisUpdate))
      best = crl;
  return best;
}

// append adds copies of the fixture certificate and CRL under names, key identifiers and
// times drawn from the pools.
void append(CertificateMemoryStore& s, TestRng& rng, int certs, int crls) {
  static const auto cert = tessel::readCertFromStr(tessel::test::fixtureText("certs/ca.pem"));
  static const auto crl = tessel::readCrl(tessel::test::fixtureText("certs/crl.pem"));
  ASSERT_TRUE(cert && crl);
  for (int i = 0; i < certs; ++i) {
    s.certificates.push_back(std::make_shared<X509Certificate>(*cert));
    s.certificates.back()->subject = nameFrom(rng);
    s.certificates.back()->subjectKeyId = kKeyIds[rng.below(kKeyIds.size())];
  }
  for (int i = 0; i < crls; ++i) {
    auto l = std::make_shared<X509Crl>(*crl);
    l->issuer = nameFrom(rng);
    l->authorityKeyId = kKeyIds[rng.below(kKeyIds.size())];
    l->thisUpdate = tessel::TimePoint::fromSeconds(1700000000 + 86400 * static_cast<std::int64_t>(rng.below(4)));
    s.crls.push_back(std::move(l));
  }
}

// expectLikeWalk looks up every name of the pools (and some never stored) with every key
// identifier, and wants the very object the walk finds.
void expectLikeWalk(const CertificateMemoryStore& s, const char* when, bool filled = true) {
  TestRng names(99);
  int found = 0, checked = 0;
  for (int i = 0; i < 150; ++i) {
    X509Certificate probe;
    probe.issuer = nameFrom(names);
    if (i % 10 == 0) probe.issuer.L = "Nowhere";
    for (const Bytes& keyId : kKeyIds) {
      probe.authorityKeyId = keyId;
      auto want = walkIssuer(s, probe.issuer, keyId);
      EXPECT_EQ(s.findIssuer(probe.issuer, asn1::blob(keyId)), want) << when << ": " << probe.issuer.str();
      EXPECT_EQ(s.findCrlUnverified(probe), walkCrl(s, probe)) << when << ": " << probe.issuer.str();
      found += want != nullptr;
      ++checked;
    }
  }
  if (!filled) return;
  EXPECT_GT(found, checked / 4) << when << ": the pools must make many lookups find something";
  EXPECT_LT(found, checked) << when << ": and some find nothing";
}

TEST(CertStoreIndex, LookupsAgreeWithAWalk) {
  TestRng rng(1);
  CertificateMemoryStore s;
  expectLikeWalk(s, "empty", false);
  append(s, rng, 2000, 500);
  expectLikeWalk(s, "filled");
  append(s, rng, 500, 100);  // appended after the index was built
  expectLikeWalk(s, "appended");
  CertificateMemoryStore copy = s;
  expectLikeWalk(copy, "copied");
  // Lists replaced wholesale are indexed afresh.
  CertificateMemoryStore other;
  append(other, rng, 400, 80);
  s.certificates = other.certificates;
  s.crls = other.crls;
  expectLikeWalk(s, "replaced");
  s.certificates.resize(100);
  s.crls.clear();
  expectLikeWalk(s, "shrunk");
  EXPECT_EQ(copy.certificates.size(), 2500u) << "the copy kept its own lists";
}

}  // namespace
