#include "tessel/pem.h"

#include <cstdio>

#include "core/diag.h"
#include "ol/base64.h"
#include "ol/file.h"
#include "tessel/block.h"
#include "tessel/cipher.h"
#include "tessel/hash.h"
#include "tessel/pkcs8.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kEnd = "-----END ";

struct LegacyCipher {
  const char* name;
  unsigned keyLen;
  unsigned maxPad;  // AES-192/256 accept pads up to their key length, as the old reader did
  std::unique_ptr<BlockCipher> (*make)(const unsigned char* key);
};

template <class C>
std::unique_ptr<BlockCipher> makeCipher(const unsigned char* key) {
  return std::make_unique<C>(key);
}

const LegacyCipher kLegacyCiphers[] = {
    {"DES-EDE3-CBC", 24, 8, makeCipher<DES3>},
    {"AES-128-CBC", 16, 16, makeCipher<AES128>},
    {"AES-192-CBC", 24, 24, makeCipher<AES192>},
    {"AES-256-CBC", 32, 32, makeCipher<AES256>},
};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool fromHex(std::string_view hex, Bytes& out) {
  if (hex.size() % 2) return false;
  out.clear();
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int hi = hexDigit(hex[i]), lo = hexDigit(hex[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out.push_back(static_cast<unsigned char>(hi * 16 + lo));
  }
  return true;
}

// bytesToKey is OpenSSL's EVP_BytesToKey with MD5 and one round.
Bytes bytesToKey(const std::string& password, const Bytes& salt, unsigned keyLen) {
  Bytes key, d;
  for (unsigned i = 0; 16 * i < keyLen; ++i) {
    MD5 md5;
    if (!d.empty()) md5.update(d.data(), static_cast<unsigned>(d.size()));
    md5.update(reinterpret_cast<const unsigned char*>(password.data()), static_cast<unsigned>(password.size()));
    md5.update(salt.data(), static_cast<unsigned>(salt.size()));
    d = md5.digest();
    key.insert(key.end(), d.begin(), d.end());
  }
  key.resize(keyLen);
  return key;
}

// decodeBlock finds the first block; false when there is none. `der` holds the decoded body,
// or is empty when the body does not decode.
bool nextBlock(std::string_view& in, std::string_view* label, Bytes* der) {
  std::string_view body;
  if (!parsePem(in, label, &body)) return false;
  if (!pemDecode(body, der)) der->clear();
  return true;
}

template <class T>
std::unique_ptr<T> readSigned(std::string_view in, std::string_view wanted) {
  if (in.empty()) return nullptr;
  std::string_view rest = in, label, body;
  Bytes der;
  asn1::blob input(in);
  if (parsePem(rest, &label, &body)) {
    if (label != wanted || !pemDecode(body, &der)) return nullptr;
    input = asn1::blob(der);
  }
  auto obj = std::make_unique<T>();
  if (!obj->parse(input.data(), static_cast<unsigned>(input.size()))) return nullptr;
  return obj;
}

std::shared_ptr<PrivateKey> keyFromPkcs1(std::string_view label, const Bytes& der) {
  auto key = makePrivateKey(label == "RSA PRIVATE KEY" ? keyRsa : keyEc);
  if (!key || !key->parseFromDerEncoded(asn1::blob(der), {})) return nullptr;
  return key;
}

}  // namespace

bool nextLine(std::string_view& in, std::string_view* line) {
  if (in.empty()) return false;
  const std::size_t lf = in.find('\n');
  std::string_view l = in.substr(0, lf);
  in.remove_prefix(lf == std::string_view::npos ? in.size() : lf + 1);
  if (lf != std::string_view::npos && !l.empty() && l.back() == '\r') l.remove_suffix(1);
  *line = l;
  return true;
}

bool parsePem(std::string_view& in, std::string_view* label, std::string_view* body) {
  std::string_view line;
  do {
    if (!nextLine(in, &line)) return false;
  } while (!line.starts_with(kBegin));
  line.remove_prefix(kBegin.size());
  const std::size_t dashes = line.find("-----");
  if (dashes == std::string_view::npos) return false;
  *label = line.substr(0, dashes);
  const std::size_t end = in.find(kEnd);
  if (end == std::string_view::npos) return false;
  *body = in.substr(0, end);
  in.remove_prefix(end);
  return nextLine(in, &line);
}

bool pemDecode(std::string_view body, std::vector<unsigned char>* out) {
  std::string text;
  text.reserve(body.size());
  std::string_view line;
  while (nextLine(body, &line)) text.append(line);
  out->resize(text.size() / 4 * 3);
  const int n = ol::base64Decode(text.data(), text.size(), out->data(), out->size());
  if (n < 0) return false;
  out->resize(static_cast<std::size_t>(n));
  return true;
}

bool pemDecrypt(std::string_view body, std::vector<unsigned char>* out, const std::string& password) {
  std::string_view procType, dekInfo, blank;
  if (!nextLine(body, &procType) || !nextLine(body, &dekInfo)) return false;
  char name[37] = {}, ivHex[37] = {};
  const std::string dek(dekInfo);
  if (std::sscanf(dek.c_str(), "DEK-Info: %36[^,],%36s", name, ivHex) != 2) return false;
  if (!nextLine(body, &blank)) return false;
  const LegacyCipher* scheme = nullptr;
  for (const LegacyCipher& c : kLegacyCiphers)
    if (std::string_view(name) == c.name) scheme = &c;
  if (!scheme) {
    diag() << "[ERR] unkown encrypted PEM type: " << name;
    return false;
  }
  Bytes data, iv;
  if (!pemDecode(body, &data) || !fromHex(ivHex, iv)) return false;
  const Bytes salt(iv.begin(), iv.begin() + std::min<std::size_t>(iv.size(), 8));
  Bytes key = bytesToKey(password, salt, scheme->keyLen);
  auto cipher = scheme->make(key.data());
  std::fill(key.begin(), key.end(), 0);
  const unsigned block = cipher->blockLength();
  if (iv.size() != block || data.empty() || data.size() % block) return false;
  out->assign(data.size(), 0);
  CBC_decrypt(*cipher, iv.data(), data.data(), static_cast<unsigned>(data.size()), out->data());
  const unsigned pad = out->back();
  if (pad == 0 || pad > scheme->maxPad || pad > out->size()) return false;
  for (std::size_t i = out->size() - pad; i < out->size(); ++i)
    if ((*out)[i] != pad) return false;
  out->resize(out->size() - pad);
  return true;
}

std::string encodePemType(const std::string& label, const std::vector<unsigned char>& der) {
  if (der.empty()) return {};
  std::string b64(ol::base64EncodedLength(der.size()), '\0');
  const int n = ol::base64Encode(der.data(), der.size(), b64.data(), b64.size());
  b64.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  std::string out = "-----BEGIN " + label + "-----\n";
  for (std::size_t i = 0; i < b64.size(); i += 64) out.append(b64, i, 64).push_back('\n');
  out += "-----END " + label + "-----\n";
  return out;
}

std::string encodePemCertificate(const X509Certificate& cert) { return encodePemType("CERTIFICATE", cert.serialize()); }
std::string encodePemCrl(const X509Crl& crl) { return encodePemType("X509 CRL", crl.serialize()); }
std::string encodePemPkcs8PrivateKey(const PrivateKey& key) {
  return encodePemType("PRIVATE KEY", encodePkcs8PrivateKey(key));
}
std::string encodePemPublicKey(const PublicKey& key) {
  return encodePemType("PUBLIC KEY", encodeSubjectPublicKeyInfo(key));
}

std::string encodePemPkcs8PublicKey(const PublicKey& key) {
  return encodePemType("PUBLIC KEY", encodePkcs8PublicKey(key));
}
std::string encodePemPkcs8EncryptedPrivateKey(const PrivateKey& key, const std::string& password) {
  return encodePemType("ENCRYPTED PRIVATE KEY", encodePkcs8EncryptedPrivateKey(key, password, 2048));
}

std::unique_ptr<X509Certificate> readCertFromStr(std::string_view in) {
  return readSigned<X509Certificate>(in, "CERTIFICATE");
}
std::unique_ptr<X509Certificate> readCertFromFile(std::string_view path) { return readCertFromStr(ol::readFile(path)); }
std::unique_ptr<X509Crl> readCrl(std::string_view in) { return readSigned<X509Crl>(in, "X509 CRL"); }
std::unique_ptr<X509Crl> readCrlFromFile(std::string_view path) { return readCrl(ol::readFile(path)); }
std::unique_ptr<X509Req> readReq(std::string_view in) { return readSigned<X509Req>(in, "CERTIFICATE REQUEST"); }
std::unique_ptr<X509Req> readReqFromFile(std::string_view path) { return readReq(ol::readFile(path)); }

std::vector<std::shared_ptr<X509Certificate>> readCertChain(std::string_view in) {
  std::vector<std::shared_ptr<X509Certificate>> chain;
  std::string_view label;
  Bytes der;
  while (!in.empty()) {
    std::string_view rest = in;
    if (!nextBlock(rest, &label, &der)) break;
    in = rest;
    diag() << "LABEL: " << label;
    if (label != "CERTIFICATE") continue;
    auto cert = std::make_shared<X509Certificate>();
    if (der.empty() || !cert->parse(der.data(), static_cast<unsigned>(der.size()))) return {};
    chain.push_back(std::move(cert));
  }
  if (chain.empty()) {
    auto cert = std::make_shared<X509Certificate>();
    if (!in.empty() && cert->parse(reinterpret_cast<const unsigned char*>(in.data()), static_cast<unsigned>(in.size())))
      chain.push_back(std::move(cert));
  }
  return chain;
}

std::vector<std::shared_ptr<X509Certificate>> readCertChainFromFile(std::string_view path) {
  return readCertChain(ol::readFile(path));
}

std::shared_ptr<PrivateKey> readPrivateKey(std::string_view in, const std::string& password) {
  while (!in.empty()) {
    std::string_view rest = in, label, body;
    if (!parsePem(rest, &label, &body)) {
      const asn1::blob der(in);
      if (auto key = parseOneAssimetricKey(der).first) return key;
      return parsePkcs8EncryptedPrivateKey(der, password);
    }
    in = rest;
    Bytes der;
    if (label == "PRIVATE KEY") {
      if (!pemDecode(body, &der)) return nullptr;
      return parseOneAssimetricKey(asn1::blob(der)).first;
    }
    if (label == "ENCRYPTED PRIVATE KEY") {
      if (!pemDecode(body, &der)) return nullptr;
      return parsePkcs8EncryptedPrivateKey(asn1::blob(der), password);
    }
    if (label == "RSA PRIVATE KEY" || label == "EC PRIVATE KEY") {
      const bool ok = body.starts_with("Proc-Type:") ? pemDecrypt(body, &der, password) : pemDecode(body, &der);
      return ok ? keyFromPkcs1(label, der) : nullptr;
    }
  }
  return nullptr;
}

std::shared_ptr<PrivateKey> readPrivateKeyFromFile(std::string_view path, const std::string& password) {
  return readPrivateKey(ol::readFile(path), password);
}

std::pair<std::shared_ptr<PrivateKey>, std::shared_ptr<PublicKey>> readOneAssimetricKey(std::string_view in) {
  std::string_view label;
  Bytes der;
  while (nextBlock(in, &label, &der))
    if (label == "PRIVATE KEY") return parseOneAssimetricKey(asn1::blob(der));
  return {};
}

std::shared_ptr<PublicKey> readPublicKey(std::string_view in) {
  std::string_view rest = in, label;
  Bytes der;
  if (!nextBlock(rest, &label, &der)) return parsePkcs8PublicKey(asn1::blob(in));
  if (label == "PUBLIC KEY") return parsePkcs8PublicKey(asn1::blob(der));
  if (label != "RSA PUBLIC KEY" && label != "EC PUBLIC KEY") return nullptr;
  auto key = makePublicKey(label == "RSA PUBLIC KEY" ? keyRsa : keyEc);
  if (!key || !key->parseFromDerEncoded(asn1::blob(der), {})) return nullptr;
  return key;
}

std::shared_ptr<PublicKey> readPublicKeyFromFile(std::string_view path) { return readPublicKey(ol::readFile(path)); }

}  // namespace tessel
