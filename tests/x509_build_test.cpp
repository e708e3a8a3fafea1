// Issuing: certificates, CRLs and requests that tessel builds are accepted by OpenSSL (its
// command line validates the chains, its libcrypto reads the extensions back), OpenSSL's
// requests are issued by a tessel CA, and random field sets survive build, parse and rebuild.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include "issuing_support.h"
#include "tessel/cert_store.h"
#include "tessel/crl.h"
#include "tessel/pem.h"
#include "tessel/req.h"
#include "tessel/x509_path.h"

namespace tessel::test {
namespace {

const TimePoint kNow = TimePoint::fromSeconds(1'900'000'000);  // 2030-03-17
constexpr std::int64_t kDay = 86400;

struct Scheme {
  const char* key;
  SignatureParams params;
};

// Every key type and padding; rotating through it puts each in every position of a chain.
const Scheme kSchemes[] = {
    {"rsa2048", {hashSha256}}, {"rsa2048", {hashSha256, true}},
    {"rsa3072", {hashSha384}}, {"rsa3072", {hashSha384, true}},
    {"rsa4096", {hashSha512}}, {"rsa4096", {hashSha256, true}},
    {"ec256", {hashSha256}},   {"ec384", {hashSha384}},
    {"ec521", {hashSha512}},   {"ed25519", {}},
};

GeneralName name(std::uint8_t type, const std::string& text) {
  GeneralName n;
  n.type = type;
  n.data.assign(text.begin(), text.end());
  return n;
}

GeneralName ipName(std::initializer_list<std::uint8_t> bytes) {
  GeneralName n;
  n.type = GeneralName::iPAddress;
  n.data.assign(bytes.begin(), bytes.end());
  return n;
}

struct Issued {
  X509Certificate cert;
  std::shared_ptr<PrivateKey> key;
  SignatureParams params;  // how this key signs what it issues
};

// issue makes a certificate for `cn` with the key of `subject`, signed by `issuer` (or by
// itself when null): CAs get basic constraints and certificate signing, leaves a server profile.
Issued issue(const std::string& cn, const Scheme& subject, const Issued* issuer, int pathLen) {
  Issued out{X509Certificate(), fixtureKey(subject.key), subject.params};
  X509Certificate& c = out.cert;
  c.subject.C = "LV";
  c.subject.O = "tessel tests";
  c.subject.CN = cn;
  c.issuer = issuer ? issuer->cert.subject : c.subject;
  c.notBefore = TimePoint::fromSeconds(kNow.seconds() - kDay);
  // The root outlives 2049, so its notAfter is a GeneralizedTime.
  c.notAfter = TimePoint::fromSeconds(kNow.seconds() + (issuer ? 365 : 9000) * kDay);
  EXPECT_TRUE(c.setSubjectPublicKey(*out.key));
  if (pathLen >= 0) {
    c.isCa = 1;
    c.pathLen = pathLen;
    c.keyUsage = kuKeyCertSign | kuCrlSign;
  } else {
    c.keyUsage = kuDigitalSignature | ekuTlsServer | ekuTlsClient;
    c.subjectAltNames = {name(GeneralName::dNSName, "host.example"), ipName({192, 0, 2, 7})};
    c.crlDistributionPoints = {name(GeneralName::uniformResourceIdentifier, "http://crl.example/ca.crl")};
  }
  if (issuer) c.authorityKeyId = issuer->cert.subjectKeyId;
  EXPECT_TRUE(c.sign(issuer ? *issuer->key : *out.key, issuer ? issuer->params : subject.params));
  return out;
}

TEST(Issue, ChainsOfEveryKeyTypeValidateInOpenSslAndTessel) {
  constexpr std::size_t n = std::size(kSchemes);
  Scratch dir;
  for (std::size_t i = 0; i < n; ++i) {
    const Scheme &rootScheme = kSchemes[i], &caScheme = kSchemes[(i + 1) % n], &leafScheme = kSchemes[(i + 2) % n];
    SCOPED_TRACE(std::string(rootScheme.key) + " > " + caScheme.key + " > " + leafScheme.key);
    Issued root = issue("Root", rootScheme, nullptr, 1);
    Issued ca = issue("Issuing CA", caScheme, &root, 0);
    Issued leaf = issue("host.example", leafScheme, &ca, -1);
    const std::string rootPem = encodePemCertificate(root.cert);
    const CliResult r = runCli("openssl verify -x509_strict -attime " + std::to_string(kNow.seconds()) +
                               " -verify_hostname host.example -CAfile " + dir.file("root.pem", rootPem) +
                               " -untrusted " + dir.file("ca.pem", encodePemCertificate(ca.cert)) + " " +
                               dir.file("leaf.pem", encodePemCertificate(leaf.cert)));
    EXPECT_EQ(r.status, 0) << r.output;
    // tessel reads back what it wrote and checks each signature with the issuer's key.
    std::vector<std::shared_ptr<X509Certificate>> chain;
    for (const X509Certificate* c : {&leaf.cert, &ca.cert, &root.cert}) {
      chain.push_back(std::make_shared<X509Certificate>());
      const Bytes der = c->serialize();
      ASSERT_TRUE(chain.back()->parse(der.data(), static_cast<unsigned>(der.size())));
    }
    for (std::size_t j = 0; j < 3; ++j)
      EXPECT_TRUE(chain[j]->verify(*chain[std::min<std::size_t>(j + 1, 2)]->parsePublicKey()));
    EXPECT_TRUE(chain[2]->selfSigned);
    // The historical validator reads PKCS#1 v1.5, ECDSA and Ed25519 identifiers only.
    if (rootScheme.params.pss || caScheme.params.pss) continue;
    CertificateMemoryStore store;
    ASSERT_TRUE(store.loadFromStr(rootPem));
    std::string error;
    EXPECT_EQ(x509ValidatePath(chain, store, kNow, "host.example", ol::IPAddr6(), "", false, &error), 0u) << error;
  }
}

TEST(Issue, CrlsAndRequestsOpenSslAccepts) {
  Scratch dir;
  for (const Scheme& s : kSchemes) {
    SCOPED_TRACE(std::string(s.key) + (s.params.pss ? " pss" : ""));
    const Issued ca = issue("CRL issuer", s, nullptr, 0);
    X509Crl crl;
    crl.issuer = ca.cert.subject;
    crl.thisUpdate = kNow;
    crl.nextUpdate = TimePoint::fromSeconds(kNow.seconds() + 7 * kDay);
    crl.revoked = {{{0x01, 0x02}, kNow, 1}, {{0x7F, 0xFF, 0x00}, TimePoint::fromSeconds(kNow.seconds() - kDay), 255}};
    ASSERT_TRUE(crl.sign(*ca.key, s.params));
    CliResult r = runCli("openssl crl -noout -text -in " + dir.file("crl.pem", encodePemCrl(crl)) + " -CAfile " +
                         dir.file("ca.pem", encodePemCertificate(ca.cert)));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("verify OK"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Key Compromise"), std::string::npos) << r.output;

    X509Req req;
    req.subject.CN = "requester";
    req.subjectAltNames = {name(GeneralName::dNSName, "requester.example"),
                           name(GeneralName::rfc822Name, "a@b.example")};
    req.keyUsage = kuDigitalSignature | kuKeyAgreement | ekuTlsClient;
    ASSERT_TRUE(req.sign(*ca.key, s.params));
    r = runCli("openssl req -noout -verify -text -in " +
               dir.file("req.pem", encodePemType("CERTIFICATE REQUEST", req.serialize())));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("DNS:requester.example, email:a@b.example"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Digital Signature, Key Agreement"), std::string::npos) << r.output;
  }
}

// bytesOf an ASN1_STRING, for comparing what OpenSSL parsed with what was asked for.
Bytes asn1Bytes(const ASN1_STRING* s) {
  return s ? Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s)) : Bytes();
}

TEST(Issue, ExtensionsReadBackByOpenSsl) {
  Issued root = issue("Root", kSchemes[6], nullptr, 3);
  root.cert.permittedName = name(GeneralName::dNSName, ".example");
  root.cert.excludedName = name(GeneralName::dNSName, "bad.example");
  ASSERT_TRUE(root.cert.sign(*root.key, hashSha256));
  Issued leaf = issue("leaf", kSchemes[7], &root, -1);
  leaf.cert.subjectAltNames.push_back(name(GeneralName::rfc822Name, "ops@host.example"));
  leaf.cert.subjectAltNames.push_back(name(GeneralName::uniformResourceIdentifier, "https://host.example/"));
  leaf.cert.keyUsage |= kuKeyEncipherment | kuDecipherOnly | ekuCodeSigning | ekuTimeStamping | ekuOcspSigning;
  ASSERT_TRUE(leaf.cert.sign(*root.key, hashSha256));

  auto load = [](const X509Certificate& c) {
    const Bytes der = c.serialize();
    const unsigned char* p = der.data();
    return std::unique_ptr<X509, decltype(&X509_free)>(d2i_X509(nullptr, &p, static_cast<long>(der.size())), X509_free);
  };
  auto r = load(root.cert), l = load(leaf.cert);
  ASSERT_TRUE(r && l);
  EXPECT_TRUE(X509_get_extension_flags(r.get()) & EXFLAG_CA);
  EXPECT_EQ(X509_get_pathlen(r.get()), 3);
  EXPECT_EQ(X509_get_key_usage(r.get()), static_cast<std::uint32_t>(KU_KEY_CERT_SIGN | KU_CRL_SIGN));
  EXPECT_EQ(X509_get_key_usage(l.get()),
            static_cast<std::uint32_t>(KU_DIGITAL_SIGNATURE | KU_KEY_ENCIPHERMENT | KU_DECIPHER_ONLY));
  EXPECT_EQ(
      X509_get_extended_key_usage(l.get()),
      static_cast<std::uint32_t>(XKU_SSL_SERVER | XKU_SSL_CLIENT | XKU_CODE_SIGN | XKU_TIMESTAMP | XKU_OCSP_SIGN));
  EXPECT_EQ(asn1Bytes(X509_get0_subject_key_id(r.get())), root.cert.subjectKeyId);
  EXPECT_EQ(asn1Bytes(X509_get0_authority_key_id(r.get())), root.cert.subjectKeyId);
  EXPECT_EQ(asn1Bytes(X509_get0_authority_key_id(l.get())), root.cert.subjectKeyId);
  // The subject key id is SHA-1 over the key bits unless the host chose another digest.
  EXPECT_EQ(leaf.cert.subjectKeyId.size(), 20u);

  auto* sans = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(l.get(), NID_subject_alt_name, nullptr, nullptr));
  ASSERT_EQ(sk_GENERAL_NAME_num(sans), 4);
  const int types[] = {GEN_DNS, GEN_IPADD, GEN_EMAIL, GEN_URI};
  for (int i = 0; i < 4; ++i) {
    int type = 0;
    const auto* value = static_cast<ASN1_STRING*>(GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(sans, i), &type));
    EXPECT_EQ(type, types[i]);
    EXPECT_EQ(asn1Bytes(value), leaf.cert.subjectAltNames[i].data);
  }
  GENERAL_NAMES_free(sans);
  auto* points =
      static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(l.get(), NID_crl_distribution_points, nullptr, nullptr));
  ASSERT_EQ(sk_DIST_POINT_num(points), 1);
  const GENERAL_NAMES* full = sk_DIST_POINT_value(points, 0)->distpoint->name.fullname;
  EXPECT_EQ(asn1Bytes(sk_GENERAL_NAME_value(full, 0)->d.uniformResourceIdentifier),
            leaf.cert.crlDistributionPoints[0].data);
  CRL_DIST_POINTS_free(points);
  auto* nc = static_cast<NAME_CONSTRAINTS*>(X509_get_ext_d2i(r.get(), NID_name_constraints, nullptr, nullptr));
  ASSERT_TRUE(nc);
  EXPECT_EQ(asn1Bytes(sk_GENERAL_SUBTREE_value(nc->permittedSubtrees, 0)->base->d.dNSName), bytesOf(".example"));
  EXPECT_EQ(asn1Bytes(sk_GENERAL_SUBTREE_value(nc->excludedSubtrees, 0)->base->d.dNSName), bytesOf("bad.example"));
  NAME_CONSTRAINTS_free(nc);
  // Critical where RFC 5280 asks: basic constraints on a CA, key usage, name constraints.
  for (int nid : {NID_basic_constraints, NID_key_usage, NID_name_constraints})
    EXPECT_EQ(X509_EXTENSION_get_critical(X509_get_ext(r.get(), X509_get_ext_by_NID(r.get(), nid, -1))), 1) << nid;
}

TEST(Issue, OpenSslRequestsAreIssuedByATesselCa) {
  Scratch dir;
  const Issued ca = issue("Issuing CA", kSchemes[6], nullptr, 0);
  const std::string caPem = dir.file("ca.pem", encodePemCertificate(ca.cert));
  for (const char* key : {"rsa2048", "rsa4096", "ec256", "ec384", "ec521", "ed25519"}) {
    SCOPED_TRACE(key);
    const CliResult made =
        runCli("openssl req -new -key " + fixturePath(std::string("keys/") + key + ".pkcs8.pem") +
               " -subj '/O=peer/CN=" + key + ".example' -addext subjectAltName=DNS:" + key +
               ".example -addext keyUsage=critical,digitalSignature -outform DER -out " + dir.path("req.der"));
    ASSERT_EQ(made.status, 0) << made.output;
    const Bytes der = readFileBytes(dir.path("req.der"));
    X509Req req;
    ASSERT_TRUE(req.parse(der.data(), static_cast<unsigned>(der.size())));
    const auto requester = parsePkcs8PublicKey(asn1::blob(req.publicKeyInfo));
    ASSERT_TRUE(requester && req.verify(*requester));
    X509Certificate cert;
    cert.issuer = ca.cert.subject;
    cert.subject = req.subject;
    cert.subjectAltNames = req.subjectAltNames;
    cert.keyUsage = req.keyUsage;
    cert.publicKeyInfo = req.publicKeyInfo;
    cert.notBefore = kNow;
    cert.notAfter = TimePoint::fromSeconds(kNow.seconds() + kDay);
    cert.authorityKeyId = ca.cert.subjectKeyId;
    ASSERT_TRUE(cert.sign(*ca.key, hashSha256));
    const CliResult r =
        runCli("openssl verify -x509_strict -attime " + std::to_string(kNow.seconds()) + " -verify_hostname " + key +
               ".example -CAfile " + caPem + " " + dir.file("cert.pem", encodePemCertificate(cert)));
    EXPECT_EQ(r.status, 0) << r.output;
  }
}

}  // namespace
}  // namespace tessel::test
