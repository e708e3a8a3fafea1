// tessel cms: signing content into a CMS SignedData and checking one; encrypting content into
// a CMS EnvelopedData or AuthEnvelopedData and decrypting one.
//
//   tessel cms sign --in FILE (--key FILE --cert FILE)... [--password PW] [--chain FILE]
//                   [--detached] [--no-attributes] [--key-id] [SIGNING] [--pem] [--out FILE]
//   tessel cms verify --in FILE [--content FILE] [--CAfile FILE] [--out FILE]
//   tessel cms encrypt --in FILE (--recip CERT)... [--password PW] [--cipher C] [--oaep] [--out FILE]
//   tessel cms decrypt --in FILE (--key FILE --cert FILE | --password PW) [--out FILE]
// SIGNING is [--digest sha1|sha256|sha384|sha512] [--pss], for every signer. Messages are
// written as DER, or PEM ("CMS") with --pem; both are read.
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "ol/file.h"
#include "tessel/tessel.h"

namespace {

using namespace tessel;
using namespace tessel::cli;
using Bytes = std::vector<unsigned char>;

const Usage kSignUsage{
    "usage: tessel cms sign --in FILE --key FILE --cert FILE [--key FILE --cert FILE]... [--password PW]\n"
    "                       [--chain FILE] [--detached] [--no-attributes] [--key-id]\n"
    "                       [--digest sha256] [--pss] [--pem] [--out FILE]\n"
    "  Signs the bytes of FILE as they are. Each --key goes with the --cert after it; --chain adds\n"
    "  certificates for the verifier. --detached leaves the content out, --no-attributes signs the\n"
    "  content itself, --key-id names signers by subject key identifier. Ed25519 keys take no\n"
    "  --digest. Writes DER (PEM with --pem) to --out or standard output.\n",
    {"detached", "no-attributes", "key-id", "pss", "pem"}};

const Usage kVerifyUsage{
    "usage: tessel cms verify --in FILE [--content FILE] [--CAfile FILE] [--out FILE]\n"
    "  Checks every signer of a DER or PEM signed message; --content gives detached content,\n"
    "  --CAfile (PEM certificates) makes each signer's certificate path validate against them.\n"
    "  Prints the signers; --out receives the content. Exit status 0 verified, 1 not, 2 bad usage.\n",
    {}};

const Usage kEncryptUsage{
    "usage: tessel cms encrypt --in FILE --recip CERT [--recip CERT]... [--password PW]\n"
    "                          [--cipher aes-128-cbc|aes-256-cbc|aes-128-gcm|aes-256-gcm] [--oaep] [--out FILE]\n"
    "  Encrypts the bytes of FILE for every --recip certificate (RSA: key transport, PKCS#1 v1.5 or\n"
    "  with --oaep RSAES-OAEP; EC and X25519: key agreement) and for --password. The GCM ciphers\n"
    "  make an authenticated message. Default cipher aes-256-cbc. Writes DER to --out or standard output.\n",
    {"oaep"}};

const Usage kDecryptUsage{
    "usage: tessel cms decrypt --in FILE (--key FILE --cert FILE | --password PW) [--out FILE]\n"
    "  Decrypts a DER or PEM encrypted message as the recipient whose certificate and key are\n"
    "  given, or with the password. Exit status 0 decrypted, 1 not, 2 bad usage.\n",
    {}};

std::vector<std::string> all(const Options& o, const std::string& name) {
  std::vector<std::string> out;
  for (auto [it, end] = o.values.equal_range(name); it != end; ++it) out.push_back(it->second);
  return out;
}

// readMessage reads a signed message as DER or as the first PEM block of the file.
bool readMessage(const std::string& path, Bytes* der) {
  std::string text;
  if (!readText(path, &text)) return false;
  std::string_view in = text, label, body;
  if (text.find("-----BEGIN ") != std::string::npos && parsePem(in, &label, &body)) return pemDecode(body, der);
  der->assign(text.begin(), text.end());
  return true;
}

int signCommand(const Options& o) {
  const std::vector<std::string> keys = all(o, "key"), certs = all(o, "cert");
  if (!o.has("in") || keys.empty() || keys.size() != certs.size())
    return fail("cms sign needs --in and a --cert for every --key");
  std::string content;
  if (!readText(o.get("in"), &content)) return 1;
  std::vector<std::shared_ptr<PrivateKey>> held;
  std::vector<CmsSigner> signers;
  std::vector<std::shared_ptr<X509Certificate>> chain;
  if (o.has("chain")) {
    std::string text;
    if (!readText(o.get("chain"), &text)) return 1;
    chain = readCertChain(text);
    if (chain.empty()) return failed(o.get("chain") + ": no certificates");
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    auto key = loadKey(keys[i], o.get("password"));
    if (!key) return 1;
    std::shared_ptr<X509Certificate> cert = readCertFromFile(certs[i]);
    if (!cert) return failed(certs[i] + ": not a certificate");
    const auto params = signingParams(o, *key);
    if (!params) return fail("key " + keys[i] + " cannot sign with that --digest/--pss");
    CmsSigner s;
    s.key = key.get();
    s.certificate = cert;
    s.chain = chain;
    s.params = *params;
    s.bySubjectKeyId = o.flag("key-id");
    signers.push_back(std::move(s));
    held.push_back(std::move(key));
  }
  CmsSignOptions options;
  options.detached = o.flag("detached");
  options.signedAttributes = !o.flag("no-attributes");
  PKCS7SignedData message;
  if (!message.sign(asn1::blob(std::string_view(content)), signers, options))
    return failed("signing failed (a certificate without a subject key id for --key-id?)");
  const Bytes der = message.encode();
  const std::string out = o.flag("pem") ? encodePemType("CMS", der) : std::string(der.begin(), der.end());
  return writeOut(o.get("out"), out) ? 0 : 1;
}

int verifyCommand(const Options& o) {
  if (!o.has("in")) return fail("cms verify needs --in");
  Bytes der;
  if (!readMessage(o.get("in"), &der)) return 1;
  PKCS7SignedData message;
  if (!message.parse(asn1::blob(der), 0)) return failed(o.get("in") + ": not a signed message");
  std::string detached;
  CmsVerifyOptions options;
  if (o.has("content")) {
    if (!readText(o.get("content"), &detached)) return 1;
    options.detachedContent = asn1::blob(std::string_view(detached));
  }
  CertificateMemoryStore store;
  if (o.has("CAfile")) {
    std::string text;
    if (!readText(o.get("CAfile"), &text)) return 1;
    if (!store.loadFromStr(text)) return failed(o.get("CAfile") + ": no certificates");
    options.store = &store;
    options.validatePath = true;
  }
  const CmsVerifyResult result = message.verify(options);
  if (!result) return failed("verification failed: " + result.reason);
  for (std::size_t i = 0; i < result.signerCertificates.size(); ++i)
    std::cout << "signer " << i << ": " << result.signerCertificates[i]->subject.str() << "\n";
  if (o.has("out")) {
    const asn1::blob data = message.detached ? options.detachedContent : asn1::blob(message.content);
    if (!writeOut(o.get("out"), std::string(data.begin(), data.end()))) return 1;
  }
  return 0;
}

int encryptCommand(const Options& o) {
  const std::vector<std::string> recips = all(o, "recip");
  if (!o.has("in") || (recips.empty() && !o.has("password")))
    return fail("cms encrypt needs --in and at least one --recip or --password");
  static const std::pair<const char*, CmsContentCipher> kCiphers[] = {{"aes-128-cbc", CmsContentCipher::aes128Cbc},
                                                                      {"aes-256-cbc", CmsContentCipher::aes256Cbc},
                                                                      {"aes-128-gcm", CmsContentCipher::aes128Gcm},
                                                                      {"aes-256-gcm", CmsContentCipher::aes256Gcm}};
  const std::string name = o.get("cipher", "aes-256-cbc");
  const CmsContentCipher* cipher = nullptr;
  for (const auto& [text, value] : kCiphers)
    if (name == text) cipher = &value;
  if (!cipher) return fail("unknown --cipher " + name);
  std::string content;
  if (!readText(o.get("in"), &content)) return 1;
  std::vector<CmsRecipient> recipients;
  for (const std::string& path : recips) {
    CmsRecipient r;
    r.certificate = readCertFromFile(path);
    if (!r.certificate) return failed(path + ": not a certificate");
    r.rsaParams.oaep = o.flag("oaep");
    if (r.rsaParams.oaep) r.rsaParams.hash = hashSha256;
    recipients.push_back(std::move(r));
  }
  if (o.has("password")) {
    CmsRecipient r;
    r.password = o.get("password");
    recipients.push_back(std::move(r));
  }
  PKCS7EnvelopedData message;
  if (!message.encrypt(asn1::blob(std::string_view(content)), recipients, *cipher))
    return failed("encryption failed (a certificate whose key cannot receive a key?)");
  const Bytes der = message.encode();
  return writeOut(o.get("out"), std::string(der.begin(), der.end())) ? 0 : 1;
}

int decryptCommand(const Options& o) {
  const bool byKey = o.has("key") && o.has("cert");
  if (!o.has("in") || byKey == o.has("password") || o.has("key") != o.has("cert"))
    return fail("cms decrypt needs --in and either --key with --cert or --password");
  Bytes der;
  if (!readMessage(o.get("in"), &der)) return 1;
  PKCS7EnvelopedData message;
  if (!message.parse(asn1::blob(der))) return failed(o.get("in") + ": not an encrypted message");
  CmsDecryptResult result;
  if (byKey) {
    auto key = loadKey(o.get("key"), "");
    if (!key) return 1;
    std::unique_ptr<X509Certificate> cert = readCertFromFile(o.get("cert"));
    if (!cert) return failed(o.get("cert") + ": not a certificate");
    result = message.decrypt(*key, *cert);
  } else {
    result = message.decrypt(o.get("password"));
  }
  if (!result) return failed("decryption failed: " + result.reason);
  const bool written = writeOut(o.get("out"), std::string(result.content.begin(), result.content.end()), true);
  secureWipe(result.content.data(), result.content.size());
  return written ? 0 : 1;
}

}  // namespace

int cmdCms(int argc, char** argv) {
  const std::string sub = argc > 2 ? argv[2] : "";
  const Usage* usage = sub == "sign"      ? &kSignUsage
                       : sub == "verify"  ? &kVerifyUsage
                       : sub == "encrypt" ? &kEncryptUsage
                       : sub == "decrypt" ? &kDecryptUsage
                                          : nullptr;
  if (!usage) {
    if (sub == "--help") {
      std::cout << kSignUsage.text << kVerifyUsage.text << kEncryptUsage.text << kDecryptUsage.text;
      return 0;
    }
    return fail("cms needs sign, verify, encrypt or decrypt (see tessel cms --help)");
  }
  Options o;
  if (!parseOptions(argc, argv, 3, *usage, &o)) return 2;
  if (helpAsked(o, *usage)) return 0;
  if (!o.positional.empty()) return fail("unexpected argument " + o.positional[0]);
  if (sub == "encrypt") return encryptCommand(o);
  if (sub == "decrypt") return decryptCommand(o);
  return sub == "sign" ? signCommand(o) : verifyCommand(o);
}
