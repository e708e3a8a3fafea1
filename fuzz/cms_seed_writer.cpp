// Writes the CMS fuzz seeds that only tessel makes (OpenSSL 3.0 signs neither with Ed25519 nor
// nested signed-data this way). Built and run by fuzz/make_cms_seeds.sh:
//   cms_seed_writer KEYS_DIR CERTS_DIR OUT_DIR
// KEYS_DIR holds <name>.pkcs8.pem, CERTS_DIR the matching <name>.pem certificates and ca.pem,
// their issuer.
#include <cstdio>
#include <string>
#include <vector>

#include "tessel/cms.h"
#include "tessel/oids.h"
#include "tessel/pem.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Party {
  std::shared_ptr<tessel::PrivateKey> key;
  std::shared_ptr<tessel::X509Certificate> cert;
};

Party party(const std::string& keys, const std::string& certs, const std::string& name) {
  Party p;
  p.key = tessel::readPrivateKeyFromFile(keys + "/" + name + ".pkcs8.pem", "");
  p.cert = tessel::readCertFromFile(certs + "/" + name + ".pem");
  return p;
}

tessel::CmsSigner signer(const Party& p, tessel::SignatureParams params) {
  tessel::CmsSigner s;
  s.key = p.key.get();
  s.certificate = p.cert;
  s.params = params;
  return s;
}

// sign returns the encoded message, or nothing when signing failed.
Bytes sign(const Bytes& content, const std::vector<tessel::CmsSigner>& signers, tessel::CmsSignOptions options) {
  options.signingTime = tessel::TimePoint::fromSeconds(1700000000);  // the same seeds from every run
  tessel::PKCS7SignedData sd;
  return sd.sign(tessel::asn1::blob(content), signers, options) ? sd.encode() : Bytes{};
}

// bareSignedData is the SignedData inside a ContentInfo: the form RFC 5652 nests.
Bytes bareSignedData(const Bytes& contentInfo) {
  tessel::asn1::parser info(tessel::asn1::blob{contentInfo}), wrapper, body;
  tessel::asn1::blob oid;
  if (!info.read(tessel::asn1::tagSequence, &wrapper) || !wrapper.read(tessel::asn1::tagOid, &oid) ||
      !wrapper.read(tessel::asn1::explicitTag(0), &body))
    return {};
  tessel::asn1::blob whole = body.takeElement();
  return whole.vec();
}

bool write(const std::string& dir, const std::string& name, const Bytes& der) {
  if (der.empty()) return false;
  FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(der.data(), 1, der.size(), f) == der.size();
  return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s KEYS_DIR CERTS_DIR OUT_DIR\n", argv[0]);
    return 2;
  }
  const std::string keys = argv[1], certs = argv[2], out = argv[3];
  const Party ed = party(keys, certs, "ed25519"), ec = party(keys, certs, "ec256"), rsa = party(keys, certs, "rsa2048");
  if (!ed.key || !ed.cert || !ec.key || !ec.cert || !rsa.key || !rsa.cert) {
    std::fprintf(stderr, "cms_seed_writer: a key or certificate did not load\n");
    return 1;
  }
  const std::string text = "tessel fuzz seed content\n";
  const Bytes content(text.begin(), text.end());
  tessel::CmsSignOptions plain, nestedOptions, noTime;
  nestedOptions.contentType = tessel::asn1::oid::idSignedData.content().vec();
  noTime.withSigningTime = false;

  // The CA rides along with the Ed25519 signer, so that its path validates from the message.
  tessel::CmsSigner edWithCa = signer(ed, {});
  if (auto ca = tessel::readCertFromFile(certs + "/ca.pem")) edWithCa.chain.push_back(std::move(ca));
  bool ok = write(out, "tessel-ed25519", sign(content, {edWithCa}, plain));
  tessel::CmsSigner edById = signer(ed, {});
  edById.bySubjectKeyId = true;
  ok &= write(out, "tessel-ed25519-keyid-notime", sign(content, {edById}, noTime));
  ok &= write(out, "tessel-rsa-pss", sign(content, {signer(rsa, {tessel::hashSha384, true})}, plain));
  // Nested: the inner message whole (its ContentInfo, as some writers do) and bare (RFC 5652).
  const Bytes inner = sign(content, {signer(ec, {tessel::hashSha256})}, plain);
  ok &= write(out, "tessel-nested-contentinfo", sign(inner, {signer(ed, {})}, nestedOptions));
  ok &=
      write(out, "tessel-nested-bare", sign(bareSignedData(inner), {signer(ec, {tessel::hashSha256})}, nestedOptions));
  Bytes deep = inner;
  for (int level = 0; level < 3; ++level) deep = sign(deep, {signer(ec, {tessel::hashSha256})}, nestedOptions);
  ok &= write(out, "tessel-nested-deep", deep);
  if (!ok) {
    std::fprintf(stderr, "cms_seed_writer: a seed could not be signed or written\n");
    return 1;
  }
  return 0;
}
