// Signed CMS messages: Ed25519 signatures judged piecewise by OpenSSL's tools, tampering that
// fails with the right reason, nesting and refusals. The OpenSSL interplay of the other keys,
// both ways, is in tests/data/pki_tool.json (groups cms and cms_signed).
#include <gtest/gtest.h>

#include <regex>

#include "issuing_support.h"
#include "tessel/cms.h"
#include "tessel/oids.h"
#include "tessel/pem.h"

namespace tessel::test {
namespace {

const std::string kContent = "tessel signed content\r\nwith a second line\n";

// Party is a signer with a self-signed certificate OpenSSL made for its key.
struct Party {
  std::shared_ptr<PrivateKey> key;
  std::shared_ptr<X509Certificate> cert;
  std::string keyPath, certPath;
};

Party makeParty(const Scratch& dir, const std::string& keyName, const std::string& cn) {
  Party p;
  p.key = fixtureKey(keyName);
  p.keyPath = fixturePath("keys/" + keyName + ".pkcs8.pem");
  p.certPath = dir.path(cn + ".pem");
  CliResult r = runCli("openssl req -x509 -new -key " + p.keyPath + " -subj /CN=" + cn + " -days 2 -out " + p.certPath);
  EXPECT_EQ(r.status, 0) << r.output;
  p.cert = readCertFromFile(p.certPath);
  return p;
}

std::string writeBytes(const Scratch& dir, const std::string& name, const Bytes& bytes) {
  return dir.file(name, std::string(bytes.begin(), bytes.end()));
}

CmsSigner signerOf(const Party& p, const SignatureParams& params) {
  CmsSigner s;
  s.key = p.key.get();
  s.certificate = p.cert;
  s.params = params;
  return s;
}

// expectOpenSslAcceptsEd25519 checks a one-signer Ed25519 message piecewise with OpenSSL's tools,
// since OpenSSL 3.0's CMS code signs and verifies no Ed25519 (it insists on a separate digest):
// asn1parse finds the signed attributes and the signature, pkeyutl verifies the one over the
// other retagged as SET OF, and dgst gives the SHA-512 the messageDigest attribute must hold.
void expectOpenSslAcceptsEd25519(const Scratch& dir, const std::string& msg, const Party& p,
                                 const std::string& dataPath) {
  const Bytes der = readFileBytes(msg);
  const std::string listing = runCli("openssl asn1parse -inform DER -in " + msg).output;
  static const std::regex kLine(
      R"((\d+):d=(\d+) +hl=(\d+) l= *(\d+) (cons|prim): (cont \[ 0 \]|OCTET STRING) *(\[HEX DUMP\]:([0-9A-F]*))?)");
  Bytes attrs, signature;
  std::string digestHex;
  for (std::sregex_iterator it(listing.begin(), listing.end(), kLine), end; it != end; ++it) {
    const std::smatch& m = *it;
    const std::size_t offset = std::stoul(m[1]), depth = std::stoul(m[2]);
    const std::size_t size = std::stoul(m[3]) + std::stoul(m[4]);
    if (depth == 5 && m[5] == "cons" && m[6] != "OCTET STRING" && offset + size <= der.size())
      attrs.assign(der.begin() + offset, der.begin() + offset + size);
    if (depth == 5 && m[6] == "OCTET STRING") signature = fromHex(m[8].str());
    if (depth == 8 && m[6] == "OCTET STRING") digestHex = m[8];
  }
  ASSERT_FALSE(attrs.empty()) << listing;
  attrs[0] = 0x31;  // signed as SET OF
  writeBytes(dir, "attrs.bin", attrs);
  writeBytes(dir, "sig.bin", signature);
  ASSERT_EQ(runCli("openssl pkey -in " + p.keyPath + " -pubout -out " + dir.path("pub.pem")).status, 0);
  CliResult r = runCli("openssl pkeyutl -verify -pubin -inkey " + dir.path("pub.pem") + " -rawin -in " +
                       dir.path("attrs.bin") + " -sigfile " + dir.path("sig.bin"));
  EXPECT_EQ(r.status, 0) << r.output;
  std::string digest = runCli("openssl dgst -sha512 -r " + dataPath).output.substr(0, 128);
  for (char& c : digestHex) c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(digest, digestHex);
}

// The other keys are signed with by the tessel program and judged by OpenSSL in
// tests/data/pki_tool.json (group cms_signed).
TEST(Cms, OpenSslAcceptsEd25519Signatures) {
  Scratch dir;
  const std::string data = dir.file("data.txt", kContent);
  Party party = makeParty(dir, "ed25519", "signer-ed25519");
  for (bool detached : {false, true}) {
    for (bool byKeyId : {false, true}) {
      SCOPED_TRACE(std::string(detached ? "detached" : "attached") + (byKeyId ? " key-id" : " issuer-serial"));
      PKCS7SignedData sd;
      CmsSigner s = signerOf(party, {});
      s.bySubjectKeyId = byKeyId;
      CmsSignOptions options;
      options.detached = detached;
      ASSERT_TRUE(sd.sign(asn1::blob(std::string_view(kContent)), {s}, options));
      expectOpenSslAcceptsEd25519(dir, writeBytes(dir, "msg.der", sd.encode()), party, data);
    }
  }
}

// Tampering: each change to a signed message fails with its own reason.
TEST(Cms, TamperingFailsWithTheRightReason) {
  Scratch dir;
  Party party = makeParty(dir, "ec256", "signer"), other = makeParty(dir, "ec384", "signer");
  Party rsa = makeParty(dir, "rsa2048", "signer");
  PKCS7SignedData good;
  ASSERT_TRUE(good.sign(asn1::blob(std::string_view(kContent)), {signerOf(party, {hashSha256})}));
  const Bytes der = good.encode();

  struct Case {
    const char* name;
    std::function<void(PKCS7SignedData&)> tamper;
    unsigned code;
  } cases[] = {
      {"untouched", [](PKCS7SignedData&) {}, cmsValid},
      {"content byte", [](PKCS7SignedData& m) { m.content[3] ^= 1; }, cmsDigestMismatch},
      {"signing time digit",
       [](PKCS7SignedData& m) {
         Bytes& a = m.signerInfos[0].signedAttrs;
         const std::string text(a.begin(), a.end());
         a[text.find('Z') - 1] ^= 1;  // the signing time's last second digit
       },
       cmsBadSignature},
      {"signature byte", [](PKCS7SignedData& m) { m.signerInfos[0].signature[10] ^= 1; }, cmsBadSignature},
      {"content type", [](PKCS7SignedData& m) { m.contentType = asn1::oid::idCtTstInfo.content().vec(); },
       cmsContentTypeMismatch},
      {"another key, same name and serial",
       [&](PKCS7SignedData& m) {
         m.certificateDer = {other.cert->serialize()};
         m.certificates = {other.cert};
         m.certificates[0]->serial = party.cert->serial;
       },
       cmsBadSignature},
      {"key of another type",
       [&](PKCS7SignedData& m) {
         m.certificates = {std::make_shared<X509Certificate>(*rsa.cert)};
         m.certificates[0]->serial = party.cert->serial;
       },
       cmsUnsupportedAlgorithm},
      {"certificate left out", [](PKCS7SignedData& m) { m.certificates.clear(); }, cmsSignerNotFound},
      {"no signers", [](PKCS7SignedData& m) { m.signerInfos.clear(); }, cmsNoSigners},
      {"detached without content", [](PKCS7SignedData& m) { m.detached = true; }, cmsNoContent},
      {"digest attribute dropped",
       [](PKCS7SignedData& m) {
         auto& attrs = m.signerInfos[0].signedAttributes;
         std::erase_if(attrs,
                       [](const PKCS7Attribute& a) { return asn1::oid::messageDigestAttr.is(asn1::blob(a.type)); });
       },
       cmsMissingAttribute},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PKCS7SignedData m;
    ASSERT_TRUE(m.parse(asn1::blob(der), 0));
    c.tamper(m);
    CmsVerifyResult r = m.verify();
    EXPECT_EQ(r.code, c.code) << r.reason;
    EXPECT_EQ(r.reason.empty(), c.code == cmsValid);
  }
}

// Signed messages may be signed again as a whole; parsing stops at a bounded depth.
TEST(Cms, NestingIsBounded) {
  Scratch dir;
  Party party = makeParty(dir, "ec256", "signer");
  Bytes der = Bytes(kContent.begin(), kContent.end());
  for (unsigned level = 0; level <= PKCS7SignedData::kMaxDepth + 1; ++level) {
    PKCS7SignedData sd;
    CmsSignOptions options;
    if (level > 0) options.contentType = asn1::oid::idSignedData.content().vec();
    ASSERT_TRUE(sd.sign(asn1::blob(der), {signerOf(party, {hashSha256})}, options));
    der = sd.encode();
    PKCS7SignedData back;
    EXPECT_EQ(back.parse(asn1::blob(der), 0), level <= PKCS7SignedData::kMaxDepth) << level;
    EXPECT_TRUE(level > PKCS7SignedData::kMaxDepth || back.encode() == der);  // written back byte for byte
  }
  // The outermost message's own signature is still checked when its content is too deep.
  const std::string msg = writeBytes(dir, "msg.der", der);
  EXPECT_EQ(runCli("openssl cms -verify -binary -inform DER -in " + msg + " -noverify -out /dev/null").status, 0);
}

TEST(Cms, SigningRefusesWhatItCannotWrite) {
  Scratch dir;
  Party party = makeParty(dir, "ec256", "signer");
  PKCS7SignedData sd;
  const asn1::blob content{std::string_view(kContent)};
  EXPECT_FALSE(sd.sign(content, {}));
  CmsSigner noKey = signerOf(party, {hashSha256});
  noKey.key = nullptr;
  EXPECT_FALSE(sd.sign(content, {noKey}));
  EXPECT_FALSE(sd.sign(content, {signerOf(party, {hashSha256, true})}));  // PSS with an EC key
  EXPECT_FALSE(sd.sign(content, {signerOf(party, {hashMd5})}));
  CmsSignOptions bare;
  bare.signedAttributes = false;
  bare.contentType = asn1::oid::idCtTstInfo.content().vec();  // another type must be bound by attributes
  EXPECT_FALSE(sd.sign(content, {signerOf(party, {hashSha256})}, bare));
  EXPECT_TRUE(sd.signerInfos.empty());
}

}  // namespace
}  // namespace tessel::test
