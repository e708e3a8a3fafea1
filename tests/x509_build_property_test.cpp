// Random certificates, CRLs and requests for every key type: what is built and signed parses
// back to the same fields and verifies, and rebuilding the parsed fields gives the same bytes.
#include <gtest/gtest.h>

#include "issuing_support.h"
#include "tessel/crl.h"
#include "tessel/req.h"
#include "tessel/x509_path.h"

namespace tessel::test {
namespace {

struct Signer {
  const char* key;
  SignatureParams params;
};

const Signer kSigners[] = {{"rsa2048", {hashSha256}}, {"rsa2048", {hashSha384, true}}, {"ec256", {hashSha256}},
                           {"ec384", {hashSha512}},   {"ec521", {hashSha1}},           {"ed25519", {}}};

std::string randomLabel(TestRng& rng) {
  std::string s;
  for (std::size_t n = 1 + rng.below(12); n > 0; --n) s += static_cast<char>('a' + rng.below(26));
  return s;
}

DistinguishedName randomName(TestRng& rng) {
  DistinguishedName dn;
  for (std::string* field : {&dn.C, &dn.S, &dn.L, &dn.O, &dn.OU, &dn.CN, &dn.SerialNumber})
    if (rng.below(2)) *field = field == &dn.C ? "LV" : randomLabel(rng);
  return dn;
}

// randomNames gives up to three names of the four kinds certificates carry.
std::vector<GeneralName> randomNames(TestRng& rng) {
  std::vector<GeneralName> names(rng.below(4));
  for (GeneralName& n : names) {
    constexpr std::uint8_t kTypes[] = {GeneralName::iPAddress, GeneralName::rfc822Name,
                                       GeneralName::uniformResourceIdentifier, GeneralName::dNSName};
    n.type = kTypes[rng.below(4)];
    n.data =
        n.type == GeneralName::iPAddress ? rng.bytes(rng.below(2) ? 4 : 16) : bytesOf(randomLabel(rng) + ".example");
  }
  return names;
}

// randomSerial is a positive INTEGER's minimal content of 1 to 20 bytes.
Bytes randomSerial(TestRng& rng) {
  Bytes s = rng.bytes(1 + rng.below(20));
  s[0] = static_cast<unsigned char>(1 + (s[0] & 0x7E));
  return s;
}

// Times from 1950 to 2200, crossing the UTCTime/GeneralizedTime switch of 2050.
TimePoint randomTime(TestRng& rng) { return TimePoint::fromSeconds(-631152000 + std::int64_t(rng.next()) * 2); }

// reparsed parses what `object` serializes into a fresh object of its type.
template <class T>
T reparsed(const T& object) {
  T out;
  const Bytes der = object.serialize();
  EXPECT_TRUE(out.parse(der.data(), static_cast<unsigned>(der.size())));
  return out;
}

// rebuildsIdentically signs a copy of a parsed object again and compares the bodies.
template <class T>
void expectRebuildsIdentically(const T& parsed, const PrivateKey& key, const SignatureParams& params) {
  T copy = parsed;
  ASSERT_TRUE(copy.sign(key, params));
  EXPECT_EQ(toHex(copy.tbs), toHex(parsed.tbs));
}

TEST(IssueProperty, RandomCertificatesRoundTrip) {
  TestRng rng(13);
  for (const Signer& s : kSigners) {
    SCOPED_TRACE(std::string(s.key) + (s.params.pss ? " pss" : ""));
    const auto key = fixtureKey(s.key);
    const auto subjectKey = fixtureKey(kSigners[rng.below(std::size(kSigners))].key);
    for (int round = 0; round < rounds(12); ++round) {
      X509Certificate c;
      c.subject = randomName(rng);
      c.issuer = rng.below(3) ? randomName(rng) : c.subject;
      c.subjectAltNames = randomNames(rng);
      c.serial = randomSerial(rng);
      c.notBefore = randomTime(rng);
      c.notAfter = randomTime(rng);
      c.keyUsage = rng.next() & 0x7F80FF;
      c.crlDistributionPoints = randomNames(rng);
      c.isCa = static_cast<std::uint32_t>(rng.below(3));
      c.pathLen = c.isCa == 1 && rng.below(2) ? static_cast<int>(rng.below(300)) : -1;
      if (rng.below(3) == 0) c.permittedName = GeneralName{bytesOf(randomLabel(rng)), GeneralName::dNSName};
      if (rng.below(3) == 0) c.excludedName = GeneralName{bytesOf("." + randomLabel(rng)), GeneralName::dNSName};
      ASSERT_TRUE(c.setSubjectPublicKey(rng.below(2) ? *key : *subjectKey));
      ASSERT_TRUE(c.sign(*key, s.params));

      // The dump shows every field but the path length, the key usage bits by name.
      const X509Certificate p = reparsed(c);
      EXPECT_EQ(dumpOf(p), dumpOf(c));
      EXPECT_EQ(p.keyUsage, c.keyUsage);
      EXPECT_EQ(p.pathLen, c.pathLen);
      EXPECT_TRUE(p.verify(*key->publicPart()));
      if (!s.params.pss) {
        PathRes res;
        EXPECT_TRUE(verifySignature(&p, asn1::blob(encodeSubjectPublicKeyInfo(*key)), &res));
      }
      expectRebuildsIdentically(p, *key, s.params);
    }
  }
}

TEST(IssueProperty, RandomCrlsAndRequestsRoundTrip) {
  TestRng rng(14);
  for (const Signer& s : kSigners) {
    SCOPED_TRACE(std::string(s.key) + (s.params.pss ? " pss" : ""));
    const auto key = fixtureKey(s.key);
    X509Req foreign;  // a request is signed by its own key: another in publicKeyInfo is refused
    ASSERT_TRUE(foreign.setSubjectPublicKey(*fixtureKey(s.key == std::string("ec256") ? "ec384" : "ec256")));
    EXPECT_FALSE(foreign.sign(*key, s.params));
    EXPECT_TRUE(foreign.signature.empty() && foreign.sigAlg.empty());
    for (int round = 0; round < rounds(8); ++round) {
      X509Crl crl;
      crl.issuer = randomName(rng);
      crl.thisUpdate = randomTime(rng);
      if (rng.below(2)) crl.nextUpdate = randomTime(rng);
      if (rng.below(2)) crl.crlNumber = randomSerial(rng);
      crl.revoked.resize(rng.below(5));
      for (auto& rc : crl.revoked) {
        rc.serial = randomSerial(rng);
        rc.revocationDate = randomTime(rng);
        rc.reason = rng.below(2) ? static_cast<std::uint8_t>(rng.below(11)) : 255;
      }
      ASSERT_TRUE(crl.sign(*key, s.params));
      const X509Crl p = reparsed(crl);
      EXPECT_EQ(dumpOf(p), dumpOf(crl));
      EXPECT_TRUE(p.verify(*key->publicPart()));
      expectRebuildsIdentically(p, *key, s.params);

      X509Req req;
      req.subject = randomName(rng);
      req.subjectAltNames = randomNames(rng);
      req.keyUsage = rng.next() & 0x7F00FF;  // decipherOnly aside: requests read KeyUsage big-endian
      if (rng.below(2)) req.challengePassword = randomLabel(rng);
      ASSERT_TRUE(req.sign(*key, s.params));
      const X509Req r = reparsed(req);
      EXPECT_EQ(dumpOf(r), dumpOf(req));
      EXPECT_EQ(r.publicKeyInfo, encodeSubjectPublicKeyInfo(*key));
      EXPECT_EQ(r.keyUsage, req.keyUsage);
      EXPECT_TRUE(r.verify(*key->publicPart()));
      expectRebuildsIdentically(r, *key, s.params);
    }
  }
}

}  // namespace
}  // namespace tessel::test
