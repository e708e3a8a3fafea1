// RFC 3161 time-stamps: the edge cases of the request and response readers, then OpenSSL's ts
// command as the outside judge of what tessel reads, grants (with RSA and P-256 keys) and checks.
#include <gtest/gtest.h>

#include "cms/tsp.h"
#include "issuing_support.h"
#include "ol/file.h"
#include "tessel/oids.h"
#include "tessel/pem.h"
#include "tessel/timestamp.h"

namespace tessel::test {
namespace {

Bytes h(const char* hex) { return fromHex(hex); }

// The readers' edge cases (tests/data/pki_timestamp.json, written by gen_pki_timestamp.py): a
// request that is read writes back to its own bytes and dumps as listed.
TEST(TimeStamp, RequestAndResponseEdgeCases) {
  const nlohmann::json cases = dataFile("pki_timestamp.json");
  for (const auto& c : cases["requests"]) {
    SCOPED_TRACE(c["name"].get<std::string>());
    const Bytes der = hexField(c, "der");
    TimeStampRequest req;
    EXPECT_EQ(req.parse(asn1::blob(der)), c.contains("dump"));
    if (!c.contains("dump")) continue;
    DerEncoder out;
    req.save(out);
    EXPECT_EQ(toHex(out.data), toHex(der));  // certReq FALSE and the zero-led nonce come back
    EXPECT_EQ(said([&] { req.dump(); }), c["dump"]);
  }
  for (const auto& c : cases["responses"]) {
    SCOPED_TRACE(c["name"].get<std::string>());
    TimeStampResponse resp;
    EXPECT_EQ(resp.parse(asn1::blob(hexField(c, "der"))), c["parses"].get<bool>());
    if (c["parses"]) {
      EXPECT_EQ(said([&] { resp.dump(); }), "status: 2\n");
    }
  }
}

// The authority, the checks and the readers against OpenSSL's ts command. One scratch folder
// (tests/data/make_timestamp_oracle.sh) with a root, two time-stamping certificates (RSA and
// P-256) and one without the purpose.
class TimeStampOracle : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new Scratch;
    const CliResult r = runCli("cd " + dir_->path("") + " && bash " + fixturePath("make_timestamp_oracle.sh"));
    ASSERT_EQ(r.status, 0) << r.output;
  }
  static void TearDownTestSuite() { delete dir_; }
  void SetUp() override {
    if (!dir_ || !std::filesystem::exists(dir_->path("plain.pem"))) GTEST_SKIP() << "no OpenSSL command line";
  }

  static CliResult openssl(const std::string& args) { return runCli("cd " + dir_->path("") + " && openssl " + args); }
  static void write(const std::string& name, const Bytes& der) {
    dir_->file(name, std::string(der.begin(), der.end()));
  }
  static std::string text(const std::string& name) { return ol::readFile(dir_->path(name)); }
  static std::shared_ptr<X509Certificate> cert(const std::string& name) { return readCertFromStr(text(name)); }
  static std::shared_ptr<PrivateKey> key(const std::string& name) { return readPrivateKey(text(name), ""); }

  // query has OpenSSL write a request (always asking for the certificate) and reads it back.
  static TimeStampRequest query(const std::string& args, const std::string& out = "q.tsq") {
    const CliResult r = openssl("ts -query -data data -cert " + args + " -out " + out);
    EXPECT_EQ(r.status, 0) << r.output;
    TimeStampRequest req;
    EXPECT_TRUE(req.parse(asn1::blob(readFileBytes(dir_->path(out)))));
    return req;
  }

  struct Tsa {
    std::shared_ptr<PrivateKey> key;
    TimeStampAuthority authority;
  };
  // tsa is the authority of key `name` (rsa or ec) with policy 1.2.3.4.1, also serving 1.2.3.4.5.
  static Tsa tsa(const std::string& name) {
    Tsa t;
    t.key = key(name + ".key");
    t.authority.key = t.key.get();
    t.authority.certificate = cert(name + ".pem");
    t.authority.policy = h("2a030401");
    t.authority.acceptedPolicies = {h("2a030405")};
    return t;
  }
  static Bytes serial() { return h("0102030405"); }
  // grant has `t` answer `req` now with serial().
  static Bytes grant(const Tsa& t, const TimeStampRequest& req) {
    return t.authority.grant(req, TimePoint::now(), asn1::blob(serial()));
  }

  static inline Scratch* dir_ = nullptr;
};

// opensslField returns the rest of the line of `text` that starts with `label`.
std::string opensslField(const std::string& text, const std::string& label) {
  const std::size_t at = text.find("\n" + label);
  if (at == std::string::npos) return "";
  const std::size_t from = at + 1 + label.size();
  return text.substr(from, text.find('\n', from) - from);
}

// hexValue turns OpenSSL's "0x8E17..." into bytes, with the leading zero DER wants for a set
// top bit.
Bytes hexValue(std::string text) {
  text = text.substr(text.find("0x") + 2);
  if (text.size() % 2) text = "0" + text;
  Bytes b = fromHex(text);
  if (!b.empty() && (b[0] & 0x80)) b.insert(b.begin(), 0);
  return b;
}

TEST_F(TimeStampOracle, OpensslRepliesParseDumpAndVerify) {
  for (const std::string name : {"rsa", "ec"}) {
    SCOPED_TRACE(name);
    const TimeStampRequest req = query("-tspolicy 1.2.3.4.5");
    CliResult r = openssl("ts -reply -config tsa.cnf -signer " + name + ".pem -inkey " + name +
                          ".key -queryfile q.tsq -out r.tsr");
    ASSERT_EQ(r.status, 0) << r.output;
    TimeStampResponse resp;
    ASSERT_TRUE(resp.parse(asn1::blob(readFileBytes(dir_->path("r.tsr")))));
    EXPECT_EQ(said([&] { resp.dump(); }).rfind("status: 0\n", 0), 0u);
    const TimeStampCheck check = verifyTimeStamp(resp, req);
    EXPECT_EQ(check.code, tsValid) << check.reason;
    ASSERT_TRUE(check.signer);
    EXPECT_EQ(check.signer->subject.CN, name == "rsa" ? "TSA-RSA" : "TSA-EC");
    // The TSTInfo as OpenSSL prints it.
    const std::string text = openssl("ts -reply -in r.tsr -text").output;
    EXPECT_EQ(toHex(check.info.nonce), toHex(hexValue(opensslField(text, "Nonce: "))));
    EXPECT_EQ(toHex(check.info.serial), toHex(hexValue(opensslField(text, "Serial number: "))));
    EXPECT_EQ(asn1::oidStr(asn1::blob(check.info.policy)), "1.2.3.4.5");
    EXPECT_FALSE(check.info.tsaName.empty());
    // OpenSSL writes whole seconds here, so the TSTInfo is written back byte for byte.
    EXPECT_EQ(toHex(check.info.encode()), toHex(resp.token->content));
    EXPECT_NE(dumpOf(check.info).find("accuracy: 1s 500ms 100us\nordering: yes\n"), std::string::npos)
        << dumpOf(check.info);
  }
}

// wrap writes SEQUENCE { first, second }.
Bytes wrap(const Bytes& first, const Bytes& second) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addBytes(asn1::blob(first));
    s.addBytes(asn1::blob(second));
  });
  return e.data;
}

// respond wraps a token in a granted TimeStampResp.
Bytes respond(const PKCS7SignedData& token) { return wrap(h("3003020100"), token.encode()); }

// changed returns a copy of `req` with `change` applied.
template <class Change>
TimeStampRequest changed(TimeStampRequest req, Change change) {
  change(req);
  return req;
}

// asSha1 makes a request name SHA-1, which the authority refuses.
void asSha1(TimeStampRequest& r) {
  r.hash = hashSha1;
  r.digest.resize(20);
}

TEST_F(TimeStampOracle, EachFailureHasItsCodeAndOpensslAgrees) {
  TimeStampRequest req = query("-tspolicy 1.2.3.4.5");
  const Tsa ec = tsa("ec"), rsa = tsa("rsa");
  const Bytes good = grant(ec, req);
  TimeStampResponse granted;
  ASSERT_TRUE(granted.parse(asn1::blob(good)));
  const Bytes tstInfo = granted.token->content;
  const Bytes tstFields = asn1::parser(asn1::blob(tstInfo)).content.vec();
  const auto plainCert = cert("plain.pem");
  // token signs `content` with the EC key as `certificate`, naming `named` in the ESS attribute.
  auto token = [&](const Bytes& content, const asn1::Oid& type = asn1::oid::idCtTstInfo,
                   std::shared_ptr<X509Certificate> certificate = nullptr, const X509Certificate* named = nullptr) {
    CmsSigner s;
    s.key = ec.key.get();
    s.certificate = certificate ? certificate : ec.authority.certificate;
    if (named || !certificate)
      s.extraSignedAttributes.push_back(tsp::signingCertificateV2(named ? *named : *s.certificate));
    CmsSignOptions o;
    o.contentType = type.content().vec();
    PKCS7SignedData t;
    EXPECT_TRUE(t.sign(asn1::blob(content), {s}, o));
    return respond(t);
  };
  TimeStampResponse tampered;
  ASSERT_TRUE(tampered.parse(asn1::blob(good)));
  tampered.token->signerInfos[0].signature.back() ^= 1;
  const TimeStampRequest sha1 = changed(req, asSha1);
  const auto& oid = asn1::oid::idCtTstInfo;
  const struct {
    const char* name;
    Bytes response;
    TimeStampRequest against;
    unsigned code;
    bool opensslFails;  // OpenSSL, given every certificate, sees the fault too
  } kCases[] = {
      {"valid", good, req, tsValid, false},
      {"valid, RSA", grant(rsa, req), req, tsValid, false},
      {"refused", grant(ec, sha1), sha1, tsRefused, true},
      {"content is no TSTInfo", token(tstInfo, asn1::oid::idData), req, tsNoToken, true},
      {"TSTInfo does not parse", token(h("3000")), req, tsBadTstInfo, true},
      {"TSTInfo with extensions", token(wrap(tstFields, h("a1053003060100"))), req, tsBadTstInfo, true},
      {"TSTInfo with an element after its last", token(wrap(tstFields, h("0500"))), req, tsBadTstInfo, true},
      {"imprint", good, changed(req, [](auto& r) { r.digest[0] ^= 1; }), tsImprintMismatch, true},
      {"nonce", good, changed(req, [](auto& r) { r.nonce.back() ^= 1; }), tsNonceMismatch, true},
      {"policy", good, changed(req, [](auto& r) { r.policy = h("2a030406"); }), tsPolicyMismatch, true},
      {"tampered signature", respond(*tampered.token), req, tsBadSignature, true},
      {"no certificate for the signer", grant(ec, changed(req, [](auto& r) { r.certReq = false; })), req, tsBadSigner,
       false},
      {"certificate without the purpose", token(tstInfo, oid, plainCert, plainCert.get()), req, tsNotTsaCertificate,
       true},
      {"ESS names another certificate", token(tstInfo, oid, ec.authority.certificate, rsa.authority.certificate.get()),
       req, tsSigningCertMismatch, true},
      {"no ESS attribute", token(tstInfo, oid, ec.authority.certificate), req, tsSigningCertMismatch, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TimeStampResponse resp;
    ASSERT_TRUE(resp.parse(asn1::blob(c.response)));
    const TimeStampCheck check = verifyTimeStamp(resp, c.against);
    EXPECT_EQ(check.code, c.code) << check.reason;
    EXPECT_EQ(check.reason.empty(), c.code == tsValid);
    EXPECT_EQ(check.reason.find('\n'), std::string::npos);
    DerEncoder against;
    c.against.save(against);
    write("against.tsq", against.data);
    write("case.tsr", c.response);
    const CliResult r =
        openssl("ts -verify -queryfile against.tsq -in case.tsr -CAfile ca.pem -untrusted untrusted.pem");
    EXPECT_EQ(r.output.find("Verification: OK") == std::string::npos, c.opensslFails) << r.output;
  }
}

TEST_F(TimeStampOracle, RefusalsCarryTheFailureBitOpensslNames) {
  const TimeStampRequest req = query("");
  const struct {
    TimeStampRequest request;
    const char* opensslText;
  } kRefusals[] = {
      {changed(req, asSha1), "unrecognized or unsupported algorithm identifier"},
      {changed(req, [](auto& r) { r.digest.pop_back(); }), "the data submitted has the wrong format"},
      {changed(req, [](auto& r) { r.policy = h("2a030409"); }), "the requested TSA policy is not supported by the TSA"},
      {changed(req, [](auto& r) { r.version = 2; }), "transaction not permitted or supported"},
  };
  const Tsa t = tsa("rsa");
  for (const auto& c : kRefusals) {
    SCOPED_TRACE(c.opensslText);
    const Bytes der = grant(t, c.request);
    TimeStampResponse resp;
    ASSERT_TRUE(resp.parse(asn1::blob(der)));
    EXPECT_EQ(resp.status, 2u);
    EXPECT_FALSE(resp.token);
    write("refused.tsr", der);
    const std::string text = openssl("ts -reply -in refused.tsr -text").output;
    EXPECT_EQ(opensslField(text, "Status: "), "Rejected.") << text;
    EXPECT_EQ(opensslField(text, "Failure info: "), c.opensslText) << text;
  }
}

TEST_F(TimeStampOracle, UnusableAuthoritiesGrantNothing) {
  const TimeStampRequest req = query("");
  const Tsa good = tsa("ec");
  ASSERT_FALSE(grant(good, req).empty());
  Tsa noKey = tsa("ec"), wrongKey = tsa("ec"), notTsa = tsa("ec"), noPolicy = tsa("ec");
  noKey.authority.key = nullptr;
  wrongKey.key = key("rsa.key");
  wrongKey.authority.key = wrongKey.key.get();
  notTsa.authority.certificate = cert("plain.pem");
  noPolicy.authority.policy.clear();
  for (const Tsa* t : {&noKey, &wrongKey, &notTsa, &noPolicy}) EXPECT_TRUE(grant(*t, req).empty());
  const TimePoint later = TimePoint::fromSeconds(good.authority.certificate->notAfter.seconds() + 1);
  EXPECT_TRUE(good.authority.grant(req, later, asn1::blob(serial())).empty());
  for (const char* bad : {"", "00", "80", "0001", "0102030405060708090a0b0c0d0e0f101112131415"})
    EXPECT_TRUE(good.authority.grant(req, TimePoint::now(), asn1::blob(h(bad))).empty()) << bad;
  for (const char* fine : {"01", "0080", "7f02030405060708090a0b0c0d0e0f1011121314"})
    EXPECT_FALSE(good.authority.grant(req, TimePoint::now(), asn1::blob(h(fine))).empty()) << fine;
}

}  // namespace
}  // namespace tessel::test
