// tessel genkey, req and ca: making keys, requests, certificates and CRLs.
//
//   tessel genkey TYPE [--bits N] [--curve P-256] [--out FILE] [--password PW]
//   tessel req (--key FILE [--password PW] | --newkey TYPE[:SIZE] --keyout FILE [--password PW])
//              --subject DN [--san LIST] [--key-usage LIST] [SIGNING] [--out FILE]
//   tessel ca root --key FILE [--password PW] --subject DN [--days N] [--path-len N] [SIGNING] [--out FILE]
//   tessel ca issue --ca CERT --ca-key FILE [--password PW] --req FILE [--days N] [--ca-cert [--path-len N]]
//                   [--san LIST] [--key-usage LIST] [--crl-url URL] [SIGNING] [--out FILE]
//   tessel ca crl --ca CERT --ca-key FILE [--password PW] [--revoke SERIAL[:REASON]]... [--days N]
//                 [--number N] [SIGNING] [--out FILE]
// SIGNING is [--digest sha1|sha256|sha384|sha512] [--pss]; bad arguments give one line on
// standard error and exit status 2, failures of the work itself exit status 1.
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "ol/file.h"
#include "tessel/tessel.h"

namespace {

using namespace tessel;
using namespace tessel::cli;
using Bytes = std::vector<unsigned char>;

// Keys.

struct KeySpec {
  KeyType type;
  unsigned size;  // RSA bits or curve number
};

std::optional<KeySpec> keySpec(const std::string& type, const std::string& size) {
  if (type == "rsa") {
    const auto bits = number(size.empty() ? "2048" : size, 4096);
    return bits && *bits >= 2048 && *bits % 2 == 0 ? std::optional<KeySpec>({keyRsa, *bits}) : std::nullopt;
  }
  if (type == "ec") {
    static const std::pair<const char*, Curve> kCurves[] = {{"P-256", Curve::p256},
                                                            {"P-384", Curve::p384},
                                                            {"P-521", Curve::p521},
                                                            {"P-224", Curve::p224},
                                                            {"P-192", Curve::p192}};
    for (const auto& [name, curve] : kCurves)
      if (size.empty() ? curve == Curve::p256 : size == name) return KeySpec{keyEc, static_cast<unsigned>(curve)};
    return std::nullopt;
  }
  if (!size.empty()) return std::nullopt;
  if (type == "ed25519") return KeySpec{keyEd25519, 0};
  if (type == "x25519") return KeySpec{keyX25519, 0};
  if (type == "mlkem768") return KeySpec{keyMlkem768, 0};
  return std::nullopt;
}

// Private keys written with a password are encrypted with PBES2: PBKDF2-HMAC-SHA-256 at a
// count that costs a guesser real work, and AES-256-CBC.
constexpr unsigned kKeyIterations = 200000;

std::string privateKeyPem(const PrivateKey& key, const std::string& password) {
  if (password.empty()) return encodePemPkcs8PrivateKey(key);
  return encodePemType("ENCRYPTED PRIVATE KEY", encodePkcs8EncryptedPrivateKey(key, password, kKeyIterations));
}

// Names and extensions.

// parseDn reads "/C=LV/O=Example/CN=host" (the openssl -subj form).
bool parseDn(const std::string& text, DistinguishedName* dn) {
  if (text.empty() || text[0] != '/') return false;
  std::size_t pos = 1;
  while (pos <= text.size()) {
    const std::size_t end = std::min(text.find('/', pos), text.size());
    const std::string part = text.substr(pos, end - pos);
    const std::size_t eq = part.find('=');
    if (eq == std::string::npos || eq + 1 == part.size()) return false;
    const std::string attr = part.substr(0, eq), value = part.substr(eq + 1);
    std::string* field = attr == "C"                   ? &dn->C
                         : attr == "ST" || attr == "S" ? &dn->S
                         : attr == "L"                 ? &dn->L
                         : attr == "O"                 ? &dn->O
                         : attr == "OU"                ? &dn->OU
                         : attr == "CN"                ? &dn->CN
                         : attr == "serialNumber"      ? &dn->SerialNumber
                                                       : nullptr;
    if (!field) return false;
    *field = value;
    pos = end + 1;
  }
  return true;
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> out;
  std::size_t pos = 0;
  while (pos <= text.size()) {
    const std::size_t end = std::min(text.find(',', pos), text.size());
    if (end > pos) out.push_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return out;
}

// parseNames reads "DNS:a.example,IP:192.0.2.1,email:x@example,URI:https://..." .
bool parseNames(const std::string& text, std::vector<GeneralName>* out) {
  for (const std::string& item : split(text)) {
    const std::size_t colon = item.find(':');
    if (colon == std::string::npos) return false;
    const std::string kind = item.substr(0, colon), value = item.substr(colon + 1);
    GeneralName n;
    if (kind == "IP") {
      ol::IPAddr6 ip;
      if (!ip.parse(value)) return false;
      n.setIp(ip);
    } else {
      n.type = kind == "DNS"     ? GeneralName::dNSName
               : kind == "email" ? GeneralName::rfc822Name
               : kind == "URI"   ? GeneralName::uniformResourceIdentifier
                                 : GeneralName::none;
      if (n.type == GeneralName::none || value.empty()) return false;
      n.data.assign(value.begin(), value.end());
    }
    out->push_back(std::move(n));
  }
  return !out->empty();
}

// parseUsages reads key usages and extended key usages by their OpenSSL names.
bool parseUsages(const std::string& text, std::uint32_t* flags) {
  static const std::pair<const char*, std::uint32_t> kNames[] = {
      {"digitalSignature", kuDigitalSignature},
      {"nonRepudiation", kuContentCommitment},
      {"keyEncipherment", kuKeyEncipherment},
      {"dataEncipherment", kuDataEncipherment},
      {"keyAgreement", kuKeyAgreement},
      {"keyCertSign", kuKeyCertSign},
      {"cRLSign", kuCrlSign},
      {"encipherOnly", kuEncipherOnly},
      {"decipherOnly", kuDecipherOnly},
      {"serverAuth", ekuTlsServer},
      {"clientAuth", ekuTlsClient},
      {"codeSigning", ekuCodeSigning},
      {"emailProtection", ekuEmailProtection},
      {"timeStamping", ekuTimeStamping},
      {"OCSPSigning", ekuOcspSigning},
  };
  for (const std::string& item : split(text)) {
    std::uint32_t bit = 0;
    for (const auto& [name, value] : kNames)
      if (item == name) bit = value;
    if (bit == 0) return false;
    *flags |= bit;
  }
  return *flags != 0;
}

TimePoint daysFrom(TimePoint start, unsigned days) {
  return TimePoint::fromSeconds(start.seconds() + static_cast<std::int64_t>(days) * 86400);
}

// Commands.

const Usage kGenkeyUsage{
    "usage: tessel genkey TYPE [--bits N] [--curve NAME] [--out FILE] [--password PW]\n"
    "  TYPE: rsa (--bits 2048..4096, default 2048), ec (--curve P-256, P-384, P-521, P-224 or P-192;\n"
    "  default P-256), ed25519, x25519 or mlkem768. Writes a PKCS#8 PEM key, encrypted when a password\n"
    "  is given, to FILE (created 0600) or standard output.\n",
    {}};

}  // namespace

int cmdGenkey(int argc, char** argv) {
  Options o;
  if (!parseOptions(argc, argv, 2, kGenkeyUsage, &o)) return 2;
  if (helpAsked(o, kGenkeyUsage)) return 0;
  if (o.positional.size() != 1) return fail("genkey needs one key type (see tessel genkey --help)");
  const std::string& type = o.positional[0];
  const auto choice = keySpec(type, type == "rsa" ? o.get("bits") : type == "ec" ? o.get("curve") : "");
  if (!choice || (type != "rsa" && o.has("bits")) || (type != "ec" && o.has("curve")))
    return fail("unsupported key type or size: " + type);
  const auto key = generatePrivateKey(choice->type, choice->size);
  if (!key) return failed("key generation failed");
  return writeOut(o.get("out"), privateKeyPem(*key, o.get("password")), true) ? 0 : 1;
}

namespace {

const Usage kReqUsage{
    "usage: tessel req (--key FILE | --newkey TYPE[:SIZE] --keyout FILE) [--password PW] --subject DN\n"
    "                  [--san LIST] [--key-usage LIST] [--digest sha256] [--pss] [--out FILE]\n"
    "  Writes a PKCS#10 request signed by the key. DN is /C=LV/O=Example/CN=host; LIST for --san is\n"
    "  DNS:name,IP:addr,email:addr,URI:uri, for --key-usage OpenSSL's names (digitalSignature,\n"
    "  keyEncipherment, serverAuth, clientAuth, ...). --newkey makes the key too (rsa:3072, ec:P-384,\n"
    "  ed25519) and writes it to --keyout, encrypted when a password is given.\n",
    {"pss"}};

}  // namespace

int cmdReq(int argc, char** argv) {
  Options o;
  if (!parseOptions(argc, argv, 2, kReqUsage, &o)) return 2;
  if (helpAsked(o, kReqUsage)) return 0;
  X509Req req;
  if (!o.positional.empty() || o.has("key") == o.has("newkey")) return fail("req needs either --key or --newkey");
  if (!parseDn(o.get("subject"), &req.subject)) return fail("bad or missing --subject: " + o.get("subject"));
  if (o.has("san") && !parseNames(o.get("san"), &req.subjectAltNames)) return fail("bad --san: " + o.get("san"));
  if (o.has("key-usage") && !parseUsages(o.get("key-usage"), &req.keyUsage))
    return fail("bad --key-usage: " + o.get("key-usage"));
  std::shared_ptr<PrivateKey> key;
  if (o.has("newkey")) {
    const std::string wanted = o.get("newkey");
    const std::size_t colon = wanted.find(':');
    const auto parsed = keySpec(wanted.substr(0, colon), colon == std::string::npos ? "" : wanted.substr(colon + 1));
    if (!parsed || !o.has("keyout")) return fail("--newkey needs a key type and --keyout FILE");
    key = generatePrivateKey(parsed->type, parsed->size);
    if (!key) return failed("key generation failed");
    if (!writeOut(o.get("keyout"), privateKeyPem(*key, o.get("password")), true)) return 1;
  } else if (!(key = loadKey(o.get("key"), o.get("password")))) {
    return 1;
  }
  const auto params = signingParams(o, *key);
  if (!params) return fail("this key cannot sign with that --digest/--pss");
  if (!req.sign(*key, *params)) return failed("the key cannot sign requests");
  return writeOut(o.get("out"), encodePemType("CERTIFICATE REQUEST", req.serialize())) ? 0 : 1;
}

namespace {

const Usage kCaUsage{
    "usage: tessel ca root --key FILE [--password PW] --subject DN [--days N] [--path-len N] [SIGNING] [--out F]\n"
    "       tessel ca issue --ca CERT --ca-key FILE [--password PW] --req FILE [--days N] [--ca-cert\n"
    "                       [--path-len N]] [--san LIST] [--key-usage LIST] [--crl-url URL] [SIGNING] [--out F]\n"
    "       tessel ca crl --ca CERT --ca-key FILE [--password PW] [--revoke SERIAL[:REASON]]... [--days N]\n"
    "                     [--number N] [SIGNING] [--out F]\n"
    "  root makes a self-signed CA certificate; issue makes a certificate from a request, taking its\n"
    "  subject, names and usages unless --san/--key-usage replace them; crl lists revoked serials (hex)\n"
    "  with an optional reason code 0..10. --days defaults to 3650 for root, 365 for issue, 7 for crl.\n"
    "  SIGNING is [--digest sha1|sha256|sha384|sha512] [--pss]. Validity starts now.\n",
    {"pss", "ca-cert"}};

struct Authority {
  std::unique_ptr<X509Certificate> cert;
  std::shared_ptr<PrivateKey> key;
};

// loadAuthority reads --ca and --ca-key; the exit status on failure, 0 on success.
int loadAuthority(const Options& o, Authority* ca) {
  std::string text;
  if (!o.has("ca") || !o.has("ca-key")) return fail("needs --ca CERT and --ca-key FILE");
  if (!readText(o.get("ca"), &text)) return 1;
  if (!(ca->cert = readCertFromStr(text))) return fail(o.get("ca") + ": not a certificate");
  if (!(ca->key = loadKey(o.get("ca-key"), o.get("password")))) return 1;
  if (encodeSubjectPublicKeyInfo(*ca->key) != ca->cert->publicKeyInfo) return fail("--ca-key is not the key of --ca");
  return 0;
}

int finishCertificate(const Options& o, X509Certificate& cert, const PrivateKey& signer, unsigned defaultDays) {
  const auto days = number(o.get("days", std::to_string(defaultDays)), 100000);
  if (!days) return fail("bad --days: " + o.get("days"));
  cert.notBefore = TimePoint::fromSeconds(TimePoint::now().seconds());
  cert.notAfter = daysFrom(cert.notBefore, *days);
  if (cert.isCa == 1 && o.has("path-len")) {
    const auto pathLen = number(o.get("path-len"), 1000);
    if (!pathLen) return fail("bad --path-len: " + o.get("path-len"));
    cert.pathLen = static_cast<int>(*pathLen);
  }
  const auto params = signingParams(o, signer);
  if (!params) return fail("this key cannot sign with that --digest/--pss");
  if (!cert.sign(signer, *params)) return failed("signing failed");
  return writeOut(o.get("out"), encodePemCertificate(cert)) ? 0 : 1;
}

int caRoot(const Options& o) {
  if (!o.has("key")) return fail("ca root needs --key FILE");
  const auto key = loadKey(o.get("key"), o.get("password"));
  if (!key) return 1;
  X509Certificate cert;
  if (!parseDn(o.get("subject"), &cert.subject)) return fail("bad or missing --subject: " + o.get("subject"));
  cert.issuer = cert.subject;
  if (!cert.setSubjectPublicKey(*key)) return failed("the key has no public part");
  cert.isCa = 1;
  cert.keyUsage = kuKeyCertSign | kuCrlSign | kuDigitalSignature;
  return finishCertificate(o, cert, *key, 3650);
}

int caIssue(const Options& o) {
  Authority ca;
  if (const int status = loadAuthority(o, &ca)) return status;
  std::string text;
  if (!o.has("req")) return fail("ca issue needs --req FILE");
  if (!readText(o.get("req"), &text)) return 1;
  const auto req = readReq(text);
  const auto requester = req ? parsePkcs8PublicKey(asn1::blob(req->publicKeyInfo)) : nullptr;
  if (!requester || !req->verify(*requester)) return fail(o.get("req") + ": not a request with a valid signature");
  X509Certificate cert;
  cert.issuer = ca.cert->subject;
  cert.subject = req->subject;
  cert.publicKeyInfo = req->publicKeyInfo;
  cert.subjectAltNames = req->subjectAltNames;
  cert.keyUsage = req->keyUsage;
  cert.authorityKeyId = ca.cert->subjectKeyId;
  if (o.has("san") && (cert.subjectAltNames.clear(), !parseNames(o.get("san"), &cert.subjectAltNames)))
    return fail("bad --san: " + o.get("san"));
  if (o.has("key-usage") && (cert.keyUsage = 0, !parseUsages(o.get("key-usage"), &cert.keyUsage)))
    return fail("bad --key-usage: " + o.get("key-usage"));
  if (o.has("crl-url") && !parseNames("URI:" + o.get("crl-url"), &cert.crlDistributionPoints))
    return fail("bad --crl-url");
  if (o.flag("ca-cert")) {
    cert.isCa = 1;
    if (cert.keyUsage == 0) cert.keyUsage = kuKeyCertSign | kuCrlSign;
  }
  return finishCertificate(o, cert, *ca.key, 365);
}

// parseRevocation reads "0A1B2C" or "0A1B2C:1" (hex serial, CRLReason code).
bool parseRevocation(const std::string& text, X509Crl::RevokedCert* out) {
  const std::size_t colon = text.find(':');
  const std::string hex = text.substr(0, colon);
  if (hex.empty() || hex.size() % 2 != 0 || hex.size() > 40) return false;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    char* end = nullptr;
    const std::string pair = hex.substr(i, 2);
    out->serial.push_back(static_cast<unsigned char>(std::strtoul(pair.c_str(), &end, 16)));
    if (*end != '\0' || !std::isxdigit(static_cast<unsigned char>(pair[0]))) return false;
  }
  if (out->serial[0] & 0x80) return false;  // serials are positive
  if (colon != std::string::npos) {
    const auto reason = number(text.substr(colon + 1), 10);
    if (!reason) return false;
    out->reason = static_cast<std::uint8_t>(*reason);
  }
  return true;
}

int caCrl(const Options& o) {
  Authority ca;
  if (const int status = loadAuthority(o, &ca)) return status;
  X509Crl crl;
  crl.issuer = ca.cert->subject;
  crl.authorityKeyId = ca.cert->subjectKeyId;
  crl.thisUpdate = TimePoint::fromSeconds(TimePoint::now().seconds());
  const auto days = number(o.get("days", "7"), 100000);
  if (!days) return fail("bad --days: " + o.get("days"));
  crl.nextUpdate = daysFrom(crl.thisUpdate, *days);
  for (auto [it, end] = o.values.equal_range("revoke"); it != end; ++it) {
    X509Crl::RevokedCert rc;
    rc.revocationDate = crl.thisUpdate;
    if (!parseRevocation(it->second, &rc)) return fail("bad --revoke: " + it->second);
    crl.revoked.push_back(std::move(rc));
  }
  if (o.has("number")) {
    const auto n = number(o.get("number"), 0xFFFFFFFFu);
    if (!n) return fail("bad --number: " + o.get("number"));
    crl.crlNumber = asn1::toDerInt(*n);
  }
  const auto params = signingParams(o, *ca.key);
  if (!params) return fail("this key cannot sign with that --digest/--pss");
  if (!crl.sign(*ca.key, *params)) return failed("signing failed");
  return writeOut(o.get("out"), encodePemCrl(crl)) ? 0 : 1;
}

}  // namespace

int cmdCa(int argc, char** argv) {
  const std::string_view job = argc > 2 ? argv[2] : "";
  if (job == "--help") {
    std::cout << kCaUsage.text;
    return 0;
  }
  Options o;
  if (!parseOptions(argc, argv, 3, kCaUsage, &o)) return 2;
  if (helpAsked(o, kCaUsage)) return 0;
  if (!o.positional.empty()) return fail("unexpected argument: " + o.positional[0]);
  if (job == "root") return caRoot(o);
  if (job == "issue") return caIssue(o);
  if (job == "crl") return caCrl(o);
  return fail("ca needs root, issue or crl (see tessel ca --help)");
}
