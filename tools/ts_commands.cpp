// tessel ts: RFC 3161 time-stamps from the command line.
//
//   tessel ts query (--data FILE | --digest HEX) [--hash sha256|sha384|sha512] [--policy OID]
//                   [--no-nonce] [--no-cert] [--out FILE]
//   tessel ts reply --query FILE --key FILE [--password PW] --cert FILE [--chain FILE] --policy OID
//                   [--serial HEX] [--digest sha256] [--pss] [--out FILE]
//   tessel ts verify --query FILE --in FILE [--CAfile FILE]
// Requests and responses are DER. Bad arguments give one line on standard error and exit
// status 2; a refused request (reply) or a response that does not check out (verify) exits 1.
#include <cctype>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "tessel/tessel.h"
#include "tessel/timestamp.h"

namespace {

using namespace tessel;
using namespace tessel::cli;
using Bytes = std::vector<unsigned char>;

constexpr unsigned kNonceBytes = 8, kSerialBytes = 16;

// parseHex reads an even number of hex digits; false for anything else or for nothing.
bool parseHex(const std::string& text, Bytes* out) {
  auto nibble = [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10;
  };
  if (text.empty() || text.size() % 2) return false;
  for (char c : text)
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  for (std::size_t i = 0; i < text.size(); i += 2)
    out->push_back(static_cast<unsigned char>(nibble(text[i]) << 4 | nibble(text[i + 1])));
  return true;
}

// parseOid reads dotted decimal ("1.2.3.4") into OID content bytes.
bool parseOid(const std::string& text, Bytes* out) {
  std::vector<unsigned long long> arcs;
  std::size_t pos = 0;
  while (pos <= text.size()) {
    const std::size_t end = std::min(text.find('.', pos), text.size());
    const std::string arc = text.substr(pos, end - pos);
    const auto value = number(arc, 0xFFFFFFFFu);
    if (!value) return false;
    arcs.push_back(*value);
    pos = end + 1;
  }
  if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] >= 40)) return false;
  arcs[1] += arcs[0] * 40;
  for (std::size_t i = 1; i < arcs.size(); ++i) {
    unsigned char groups[10];
    int n = 0;
    for (unsigned long long v = arcs[i]; n == 0 || v != 0; v >>= 7) groups[n++] = static_cast<unsigned char>(v & 0x7F);
    while (n-- > 0) out->push_back(static_cast<unsigned char>(groups[n] | (n ? 0x80 : 0)));
  }
  return true;
}

// randomInteger is `n` random bytes as a positive INTEGER content (top bit clear, not zero-led).
Bytes randomInteger(unsigned n) {
  Bytes b(n);
  getDefaultRng().generate(b.data(), n);
  b[0] = static_cast<unsigned char>((b[0] & 0x7F) | 0x40);
  return b;
}

bool readDer(const std::string& path, Bytes* out) {
  std::string text;
  if (!readText(path, &text)) return false;
  out->assign(text.begin(), text.end());
  return true;
}

std::string asText(const Bytes& der) { return std::string(der.begin(), der.end()); }

const Usage kTsUsage{
    "usage: tessel ts query (--data FILE | --digest HEX) [--hash sha256|sha384|sha512] [--policy OID]\n"
    "                       [--no-nonce] [--no-cert] [--out FILE]\n"
    "       tessel ts reply --query FILE --key FILE [--password PW] --cert FILE [--chain FILE] --policy OID\n"
    "                       [--serial HEX] [--digest sha256] [--pss] [--out FILE]\n"
    "       tessel ts verify --query FILE --in FILE [--CAfile FILE]\n"
    "  query writes an RFC 3161 request for the digest of FILE (or the given digest) with a random\n"
    "  nonce, asking for the authority's certificate. reply answers a request as a time-stamping\n"
    "  authority whose certificate has extendedKeyUsage timeStamping, critical; the serial is random\n"
    "  unless given. verify checks that a response answers its request, and with --CAfile that the\n"
    "  authority's certificate validates up to one of those certificates. Files are DER.\n",
    {"no-nonce", "no-cert", "pss"}};

int tsQuery(const Options& o) {
  static const std::pair<const char*, HashID> kHashes[] = {
      {"sha256", hashSha256}, {"sha384", hashSha384}, {"sha512", hashSha512}};
  TimeStampRequest req;
  const std::string hashName = o.get("hash", "sha256");
  for (const auto& [name, id] : kHashes)
    if (hashName == name) req.hash = id;
  if (req.hash == hashNone) return fail("bad --hash: " + hashName);
  if (o.has("data") == o.has("digest")) return fail("ts query needs either --data FILE or --digest HEX");
  if (o.has("digest")) {
    if (!parseHex(o.get("digest"), &req.digest) || req.digest.size() != getHashLength(req.hash))
      return fail("bad --digest (hex of the --hash digest's length): " + o.get("digest"));
  } else {
    std::string data;
    if (!readText(o.get("data"), &data)) return 1;
    req.digest = calcDigest(req.hash, asn1::blob(std::string_view(data)));
  }
  if (o.has("policy") && !parseOid(o.get("policy"), &req.policy)) return fail("bad --policy: " + o.get("policy"));
  if (!o.flag("no-nonce")) req.nonce = randomInteger(kNonceBytes);
  req.certReq = !o.flag("no-cert");
  DerEncoder e;
  req.save(e);
  return writeOut(o.get("out"), asText(e.data)) ? 0 : 1;
}

int tsReply(const Options& o) {
  if (!o.has("query") || !o.has("key") || !o.has("cert") || !o.has("policy"))
    return fail("ts reply needs --query, --key, --cert and --policy");
  TimeStampAuthority tsa;
  if (!parseOid(o.get("policy"), &tsa.policy)) return fail("bad --policy: " + o.get("policy"));
  Bytes serial;
  if (o.has("serial") && !parseHex(o.get("serial"), &serial)) return fail("bad --serial: " + o.get("serial"));
  if (serial.empty()) serial = randomInteger(kSerialBytes);
  Bytes der;
  std::string text;
  TimeStampRequest req;
  if (!readDer(o.get("query"), &der)) return 1;
  if (!req.parse(asn1::blob(der))) return fail(o.get("query") + ": not a time-stamp request");
  const auto key = loadKey(o.get("key"), o.get("password"));
  if (!key) return 1;
  if (!readText(o.get("cert"), &text)) return 1;
  if (!(tsa.certificate = readCertFromStr(text))) return fail(o.get("cert") + ": not a certificate");
  if (o.has("chain")) {
    if (!readText(o.get("chain"), &text)) return 1;
    if ((tsa.chain = readCertChain(text)).empty()) return fail(o.get("chain") + ": no certificates");
  }
  const auto params = signingParams(o, *key);
  if (!params) return fail("this key cannot sign with that --digest/--pss");
  tsa.key = key.get();
  tsa.params = *params;
  const Bytes response = tsa.grant(req, TimePoint::now(), asn1::blob(serial));
  if (response.empty())
    return failed(
        "cannot stamp: the key must match --cert, which must be valid now with extendedKeyUsage "
        "timeStamping (critical), and the serial positive and at most 20 bytes");
  if (!writeOut(o.get("out"), asText(response))) return 1;
  TimeStampResponse resp;
  if (resp.parse(asn1::blob(response)) && resp.status > 1) return failed("the request was refused");
  return 0;
}

int tsVerify(const Options& o) {
  if (!o.has("query") || !o.has("in")) return fail("ts verify needs --query and --in");
  Bytes queryDer, responseDer;
  if (!readDer(o.get("query"), &queryDer) || !readDer(o.get("in"), &responseDer)) return 1;
  TimeStampRequest req;
  TimeStampResponse resp;
  if (!req.parse(asn1::blob(queryDer))) return fail(o.get("query") + ": not a time-stamp request");
  if (!resp.parse(asn1::blob(responseDer))) return fail(o.get("in") + ": not a time-stamp response");
  CertificateMemoryStore store;
  CmsVerifyOptions options;
  if (o.has("CAfile")) {
    std::string text;
    if (!readText(o.get("CAfile"), &text)) return 1;
    if (!store.loadFromStr(text)) return fail(o.get("CAfile") + ": no certificates");
    options.store = &store;
    options.validatePath = true;
  }
  const TimeStampCheck check = verifyTimeStamp(resp, req, options);
  if (check) {
    std::cout << "code 0: time-stamp valid, " << check.info.genTimeText << " by " << check.signer->subject.str()
              << "\n";
    return 0;
  }
  std::cout << "code " << check.code << ": " << check.reason << "\n";
  return 1;
}

}  // namespace

int cmdTs(int argc, char** argv) {
  const std::string_view job = argc > 2 ? argv[2] : "";
  if (job == "--help") {
    std::cout << kTsUsage.text;
    return 0;
  }
  Options o;
  if (!parseOptions(argc, argv, 3, kTsUsage, &o)) return 2;
  if (helpAsked(o, kTsUsage)) return 0;
  if (!o.positional.empty()) return fail("unexpected argument: " + o.positional[0]);
  if (job == "query") return tsQuery(o);
  if (job == "reply") return tsReply(o);
  if (job == "verify") return tsVerify(o);
  return fail("ts needs query, reply or verify (see tessel ts --help)");
}
