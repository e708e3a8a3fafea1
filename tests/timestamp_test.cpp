// RFC 3161 time-stamps: the edge cases of the request and response readers, then OpenSSL's ts
// command as the outside judge of what tessel reads, grants and checks.
#include <gtest/gtest.h>

#include <initializer_list>

#include "cms/tsp.h"
#include "issuing_support.h"
#include "tessel/oids.h"
#include "tessel/pem.h"
#include "tessel/timestamp.h"

namespace tessel::test {
namespace {

// tlv writes one DER element by hand, apart from the library's encoder.
Bytes tlv(unsigned char tag, const Bytes& content) {
  const std::size_t n = content.size();
  Bytes out = n < 0x80 ? Bytes{tag, static_cast<unsigned char>(n)}
                       : Bytes{tag, 0x82, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes seq(std::initializer_list<Bytes> parts) { return tlv(0x30, cat(parts)); }
Bytes h(const char* hex) { return fromHex(hex); }

const Bytes kVersion1 = h("020101");
const Bytes kImprint = seq({h("300d06096086480165030402010500"), h("040401020304")});  // SHA-256, 01020304
const Bytes kPolicy = h("06032a0304");                                                 // 1.2.3.4
const Bytes kZeroNonce = h("0203008001");                                              // leading 00 kept
const Bytes kTrue = h("0101ff"), kFalse = h("010100");

struct RequestCase {
  const char* name;
  Bytes der;
  bool parses;
  const char* dump;  // what dump prints when it parses
};

const RequestCase kRequests[] = {
    {"no certReq", seq({kVersion1, kImprint}), false, ""},
    {"certReq FALSE", seq({kVersion1, kImprint, kFalse}), true,
     "version: 1\ndigest-algo: SHA256\ndigest: 01:02:03:04\ncert-req: 0\n"},
    {"policy and a nonce with a leading zero", seq({kVersion1, kImprint, kPolicy, kZeroNonce, kTrue}), true,
     "version: 1\ndigest-algo: SHA256\ndigest: 01:02:03:04\nreq-policy: 1.2.3.4\nnonce: 00:80:01\ncert-req: 1\n"},
    {"extensions", seq({kVersion1, kImprint, kTrue, h("a0053003060100")}), false, ""},
    {"certReq 01 is no DER BOOLEAN", seq({kVersion1, kImprint, h("010101")}), false, ""},
    {"nonce before policy", seq({kVersion1, kImprint, kZeroNonce, kPolicy, kTrue}), false, ""},
    {"digest identifier without NULL",
     seq({kVersion1, seq({h("300b0609608648016503040201"), h("040401020304")}), kTrue}), false, ""},
    {"version missing", seq({kImprint, kTrue}), false, ""},
};

TEST(TimeStampRequest, EdgeCasesParseSaveAndDump) {
  for (const RequestCase& c : kRequests) {
    SCOPED_TRACE(c.name);
    TimeStampRequest req;
    EXPECT_EQ(req.parse(asn1::blob(c.der)), c.parses);
    if (!c.parses) continue;
    DerEncoder out;
    req.save(out);
    EXPECT_EQ(toHex(out.data), toHex(c.der));  // certReq FALSE and the zero-led nonce come back
    EXPECT_EQ(said([&] { req.dump(); }), c.dump);
  }
}

struct ResponseCase {
  const char* name;
  Bytes der;
  bool parses;
};

const ResponseCase kResponses[] = {
    {"refused without token", seq({seq({h("020102")})}), true},
    {"refused with text and failure bits", seq({seq({h("020102"), seq({h("0c0178")}), h("03020780")})}), true},
    {"granted without token", seq({seq({h("020100")})}), false},
    {"refused with a token", seq({seq({h("020102")}), seq({h("06092a864886f70d010702")})}), false},
    {"granted with a token that does not parse", seq({seq({h("020100")}), seq({h("0500")})}), false},
    {"status is no SEQUENCE", seq({h("020100")}), false},
};

TEST(TimeStampResponse, EdgeCasesParseAndDump) {
  for (const ResponseCase& c : kResponses) {
    SCOPED_TRACE(c.name);
    TimeStampResponse resp;
    EXPECT_EQ(resp.parse(asn1::blob(c.der)), c.parses);
    if (c.parses) {
      EXPECT_EQ(said([&] { resp.dump(); }), "status: 2\n");
    }
  }
}

// The authority, the checks and the readers against OpenSSL's ts command. One scratch folder
// with a root, two time-stamping certificates (RSA and P-256) and one without the purpose.
class TimeStampOracle : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new Scratch;
    dir_->file("data", "the document being stamped\n");
    dir_->file("other", "another document\n");
    dir_->file("rsa.key", fixtureText("keys/rsa2048.pkcs8.pem"));
    dir_->file("ec.key", fixtureText("keys/ec256.pkcs8.pem"));
    const char* steps[] = {
        "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -subj /CN=TS-Root -days 30 "
        "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign -out ca.pem",
        "req -x509 -new -key rsa.key -CA ca.pem -CAkey ca.key -subj /CN=TSA-RSA -days 30 "
        "-addext extendedKeyUsage=critical,timeStamping -out rsa.pem",
        "req -x509 -new -key ec.key -CA ca.pem -CAkey ca.key -subj /CN=TSA-EC -days 30 "
        "-addext extendedKeyUsage=critical,timeStamping -out ec.pem",
        // The purpose named but not critical: RFC 3161 and OpenSSL want it critical.
        "req -x509 -new -key ec.key -CA ca.pem -CAkey ca.key -subj /CN=Not-a-TSA -days 30 "
        "-addext extendedKeyUsage=timeStamping -out plain.pem",
    };
    for (const char* step : steps) {
      const CliResult r = openssl(step);
      ASSERT_EQ(r.status, 0) << step << "\n" << r.output;
    }
    dir_->file("untrusted.pem", text("rsa.pem") + text("ec.pem") + text("plain.pem"));
    dir_->file("serial", "01\n");
    dir_->file("tsa.cnf",
               "[ tsa ]\ndefault_tsa = tsa1\n[ tsa1 ]\nserial = ./serial\ncrypto_device = builtin\n"
               "signer_cert = ./rsa.pem\nsigner_key = ./rsa.key\nsigner_digest = sha256\n"
               "default_policy = 1.2.3.4.1\nother_policies = 1.2.3.4.5\ndigests = sha256, sha384, sha512\n"
               "accuracy = secs:1, millisecs:500, microsecs:100\nordering = yes\ntsa_name = yes\n"
               "ess_cert_id_alg = sha256\n");
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  void SetUp() override {
    if (!dir_ || !std::filesystem::exists(dir_->path("plain.pem"))) GTEST_SKIP() << "no OpenSSL command line";
  }

  static CliResult openssl(const std::string& args) { return runCli("cd " + dir_->path("") + " && openssl " + args); }
  static std::string path(const std::string& name) { return dir_->path(name); }
  static void write(const std::string& name, const Bytes& der) {
    dir_->file(name, std::string(der.begin(), der.end()));
  }
  static Bytes read(const std::string& name) { return readFileBytes(path(name)); }
  static std::string text(const std::string& name) {
    const Bytes b = read(name);
    return std::string(b.begin(), b.end());
  }
  static std::shared_ptr<X509Certificate> cert(const std::string& name) { return readCertFromStr(text(name)); }
  static std::shared_ptr<PrivateKey> key(const std::string& name) { return readPrivateKey(text(name), ""); }

  // query has OpenSSL write a request (always asking for the certificate) and reads it back.
  static TimeStampRequest query(const std::string& args, const std::string& out = "q.tsq") {
    const CliResult r = openssl("ts -query -data data -cert " + args + " -out " + out);
    EXPECT_EQ(r.status, 0) << r.output;
    TimeStampRequest req;
    EXPECT_TRUE(req.parse(asn1::blob(read(out))));
    return req;
  }
  static void save(const TimeStampRequest& req, const std::string& name) {
    DerEncoder e;
    req.save(e);
    write(name, e.data);
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

  // opensslAccepts runs OpenSSL's check of response file `resp` against request file `req`.
  static CliResult opensslVerify(const std::string& req, const std::string& resp) {
    return openssl("ts -verify -queryfile " + req + " -in " + resp + " -CAfile ca.pem -untrusted untrusted.pem");
  }

  static Scratch* dir_;
};

Scratch* TimeStampOracle::dir_ = nullptr;

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

TEST_F(TimeStampOracle, OpensslRequestsReadAndWriteBackByteForByte) {
  const struct {
    const char* args;
    const char* digest;
    HashID hash;
    const char* policy;
  } kQueries[] = {
      {"", "sha256", hashSha256, ""},
      {"-no_nonce", "sha256", hashSha256, ""},
      {"-sha384 -tspolicy 1.2.3.4.5", "sha384", hashSha384, "1.2.3.4.5"},
      {"-sha512 -no_nonce -tspolicy 1.3.6.1.4.1.4146.2.3", "sha512", hashSha512, "1.3.6.1.4.1.4146.2.3"},
  };
  for (const auto& q : kQueries) {
    SCOPED_TRACE(q.args);
    const TimeStampRequest req = query(q.args);
    DerEncoder e;
    req.save(e);
    EXPECT_EQ(toHex(e.data), toHex(read("q.tsq")));
    const std::string digest = openssl(std::string("dgst -r -") + q.digest + " data").output;
    EXPECT_EQ(toHex(req.digest), digest.substr(0, digest.find(' ')));
    EXPECT_EQ(req.hash, q.hash);
    EXPECT_TRUE(req.certReq);
    EXPECT_EQ(req.policy.empty() ? "" : asn1::oidStr(asn1::blob(req.policy)), q.policy);
    const std::string nonce = opensslField(openssl("ts -query -in q.tsq -text").output, "Nonce: ");
    EXPECT_EQ(toHex(req.nonce), nonce == "unspecified" ? "" : toHex(hexValue(nonce)));
  }
  // Without -cert OpenSSL leaves certReq out, and such requests are refused.
  ASSERT_EQ(openssl("ts -query -data data -out nocert.tsq").status, 0);
  TimeStampRequest req;
  EXPECT_FALSE(req.parse(asn1::blob(read("nocert.tsq"))));
}

TEST_F(TimeStampOracle, OpensslRepliesParseDumpAndVerify) {
  for (const char* signer : {"rsa", "ec"}) {
    SCOPED_TRACE(signer);
    const TimeStampRequest req = query("-tspolicy 1.2.3.4.5");
    const std::string name = signer;
    CliResult r = openssl("ts -reply -config tsa.cnf -signer " + name + ".pem -inkey " + name +
                          ".key -queryfile q.tsq -out r.tsr");
    ASSERT_EQ(r.status, 0) << r.output;
    TimeStampResponse resp;
    ASSERT_TRUE(resp.parse(asn1::blob(read("r.tsr"))));
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
    EXPECT_EQ(opensslField(text, "Accuracy: "), "0x01 seconds, 0x01F4 millis, 0x64 micros");
    EXPECT_EQ(check.info.accuracySeconds, 1);
    EXPECT_EQ(check.info.accuracyMillis, 500);
    EXPECT_EQ(check.info.accuracyMicros, 100);
    EXPECT_TRUE(check.info.ordering);
    EXPECT_FALSE(check.info.tsaName.empty());
    // OpenSSL writes whole seconds here, so the TSTInfo is written back byte for byte.
    EXPECT_EQ(toHex(check.info.encode()), toHex(resp.token->content));
    std::ostringstream dump;
    check.info.dump(dump);
    EXPECT_NE(dump.str().find("accuracy: 1s 500ms 100us\nordering: yes\n"), std::string::npos) << dump.str();
  }
}

TEST_F(TimeStampOracle, TesselTokensPassOpensslVerify) {
  for (const char* signer : {"rsa", "ec"}) {
    for (bool certReq : {true, false}) {
      SCOPED_TRACE(std::string(signer) + (certReq ? " with" : " without") + " the certificate");
      TimeStampRequest req = query("");
      req.certReq = certReq;
      const Tsa t = tsa(signer);
      const Bytes der = t.authority.grant(req, TimePoint::now(), asn1::blob(serial()));
      ASSERT_FALSE(der.empty());
      write("t.tsr", der);
      const CliResult r = opensslVerify("q.tsq", "t.tsr");
      EXPECT_NE(r.output.find("Verification: OK"), std::string::npos) << r.output;
      // The certificate travels only when asked for.
      ASSERT_EQ(openssl("ts -reply -in t.tsr -token_out -out t.tok").status, 0);
      const std::string certs = openssl("pkcs7 -inform DER -in t.tok -print_certs -noout").output;
      EXPECT_EQ(certs.find("subject=") != std::string::npos, certReq) << certs;
      TimeStampResponse resp;
      ASSERT_TRUE(resp.parse(asn1::blob(der)));
      if (certReq) {
        EXPECT_EQ(verifyTimeStamp(resp, req).code, tsValid);
      }
    }
  }
}

// respond wraps a token in a granted TimeStampResp.
Bytes respond(const PKCS7SignedData& token) { return seq({seq({h("020100")}), token.encode()}); }

TEST_F(TimeStampOracle, EachFailureHasItsCodeAndOpensslAgrees) {
  TimeStampRequest req = query("-tspolicy 1.2.3.4.5");
  const Tsa ec = tsa("ec"), rsa = tsa("rsa");
  const Bytes good = ec.authority.grant(req, TimePoint::now(), asn1::blob(serial()));
  TimeStampResponse granted;
  ASSERT_TRUE(granted.parse(asn1::blob(good)));
  const Bytes tstInfo = granted.token->content;
  const auto plainCert = cert("plain.pem");
  // token signs `content` with the EC key as `certificate`, naming `named` in the ESS attribute.
  auto token = [&](const Bytes& content, std::shared_ptr<X509Certificate> certificate, const X509Certificate* named,
                   const asn1::Oid& type) {
    CmsSigner s;
    s.key = ec.key.get();
    s.certificate = std::move(certificate);
    if (named) s.extraSignedAttributes.push_back(tsp::signingCertificateV2(*named));
    CmsSignOptions o;
    o.contentType = type.content().vec();
    PKCS7SignedData t;
    EXPECT_TRUE(t.sign(asn1::blob(content), {s}, o));
    return respond(t);
  };
  TimeStampResponse tampered;
  ASSERT_TRUE(tampered.parse(asn1::blob(good)));
  tampered.token->signerInfos[0].signature.back() ^= 1;
  TimeStampRequest otherNonce = req, otherImprint = req, otherPolicy = req, sha1 = req;
  otherNonce.nonce.back() ^= 1;
  otherImprint.digest[0] ^= 1;
  otherPolicy.policy = h("2a030406");
  sha1.hash = hashSha1;
  sha1.digest.resize(20);
  TimeStampRequest noCert = req;
  noCert.certReq = false;
  const auto& oid = asn1::oid::idCtTstInfo;
  const struct {
    const char* name;
    Bytes response;
    const TimeStampRequest& against;
    unsigned code;
    bool opensslFails;  // OpenSSL, given every certificate, sees the fault too
  } kCases[] = {
      {"valid", good, req, tsValid, false},
      {"refused", ec.authority.grant(sha1, TimePoint::now(), asn1::blob(serial())), sha1, tsRefused, true},
      {"content is no TSTInfo",
       token(tstInfo, ec.authority.certificate, ec.authority.certificate.get(), asn1::oid::idData), req, tsNoToken,
       true},
      {"TSTInfo does not parse", token(h("3000"), ec.authority.certificate, ec.authority.certificate.get(), oid), req,
       tsBadTstInfo, true},
      {"imprint", good, otherImprint, tsImprintMismatch, true},
      {"nonce", good, otherNonce, tsNonceMismatch, true},
      {"policy", good, otherPolicy, tsPolicyMismatch, true},
      {"tampered signature", respond(*tampered.token), req, tsBadSignature, true},
      {"no certificate for the signer", ec.authority.grant(noCert, TimePoint::now(), asn1::blob(serial())), req,
       tsBadSigner, false},
      {"certificate without the purpose", token(tstInfo, plainCert, plainCert.get(), oid), req, tsNotTsaCertificate,
       true},
      {"ESS names another certificate", token(tstInfo, ec.authority.certificate, rsa.authority.certificate.get(), oid),
       req, tsSigningCertMismatch, true},
      {"no ESS attribute", token(tstInfo, ec.authority.certificate, nullptr, oid), req, tsSigningCertMismatch, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TimeStampResponse resp;
    ASSERT_TRUE(resp.parse(asn1::blob(c.response)));
    const TimeStampCheck check = verifyTimeStamp(resp, c.against);
    EXPECT_EQ(check.code, c.code) << check.reason;
    EXPECT_EQ(check.reason.empty(), c.code == tsValid);
    EXPECT_EQ(check.reason.find('\n'), std::string::npos);
    save(c.against, "against.tsq");
    write("case.tsr", c.response);
    const CliResult r = opensslVerify("against.tsq", "case.tsr");
    EXPECT_EQ(r.output.find("Verification: OK") == std::string::npos, c.opensslFails) << r.output;
  }
}

TEST_F(TimeStampOracle, RefusalsCarryTheFailureBitOpensslNames) {
  const TimeStampRequest req = query("");
  TimeStampRequest sha1 = req, shortDigest = req, policy = req, version2 = req;
  sha1.hash = hashSha1;
  sha1.digest.resize(20);
  shortDigest.digest.pop_back();
  policy.policy = h("2a030409");
  version2.version = 2;
  const struct {
    const TimeStampRequest& request;
    const char* opensslText;
  } kRefusals[] = {
      {sha1, "unrecognized or unsupported algorithm identifier"},
      {shortDigest, "the data submitted has the wrong format"},
      {policy, "the requested TSA policy is not supported by the TSA"},
      {version2, "transaction not permitted or supported"},
  };
  const Tsa t = tsa("rsa");
  for (const auto& c : kRefusals) {
    SCOPED_TRACE(c.opensslText);
    const Bytes der = t.authority.grant(c.request, TimePoint::now(), asn1::blob(serial()));
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
  ASSERT_FALSE(good.authority.grant(req, TimePoint::now(), asn1::blob(serial())).empty());
  Tsa noKey = tsa("ec"), wrongKey = tsa("ec"), notTsa = tsa("ec"), noPolicy = tsa("ec");
  noKey.authority.key = nullptr;
  wrongKey.key = key("rsa.key");
  wrongKey.authority.key = wrongKey.key.get();
  notTsa.authority.certificate = cert("plain.pem");
  noPolicy.authority.policy.clear();
  for (const Tsa* t : {&noKey, &wrongKey, &notTsa, &noPolicy})
    EXPECT_TRUE(t->authority.grant(req, TimePoint::now(), asn1::blob(serial())).empty());
  const TimePoint later = TimePoint::fromSeconds(good.authority.certificate->notAfter.seconds() + 1);
  EXPECT_TRUE(good.authority.grant(req, later, asn1::blob(serial())).empty());
  for (const char* bad : {"", "00", "80", "0001", "0102030405060708090a0b0c0d0e0f101112131415"})
    EXPECT_TRUE(good.authority.grant(req, TimePoint::now(), asn1::blob(h(bad))).empty()) << bad;
  for (const char* fine : {"01", "0080", "7f02030405060708090a0b0c0d0e0f1011121314"})
    EXPECT_FALSE(good.authority.grant(req, TimePoint::now(), asn1::blob(h(fine))).empty()) << fine;
}

TEST_F(TimeStampOracle, TstInfoRefusesExtensionsAndWritesBack) {
  TimeStampRequest req = query("");
  const Bytes der = tsa("ec").authority.grant(req, TimePoint::now(), asn1::blob(serial()));
  TimeStampResponse resp;
  ASSERT_TRUE(resp.parse(asn1::blob(der)));
  TSTInfo info;
  ASSERT_TRUE(info.parse(asn1::blob(resp.token->content)));
  EXPECT_EQ(toHex(info.encode()), toHex(resp.token->content));
  EXPECT_EQ(toHex(info.nonce), toHex(req.nonce));
  asn1::parser body(asn1::blob(resp.token->content));
  const Bytes inner = asn1::blob(body.content).vec();
  EXPECT_TRUE(info.parse(asn1::blob(tlv(0x30, inner))));
  EXPECT_FALSE(info.parse(asn1::blob(tlv(0x30, cat({inner, h("a1053003060100")})))));  // extensions
  EXPECT_FALSE(info.parse(asn1::blob(tlv(0x30, cat({inner, h("0500")})))));
}

}  // namespace
}  // namespace tessel::test
