// PKCS#12 files: reading a PFX (MAC first, then the contents and their bags), printing it, and
// pairing its key with its certificate.
#include "tessel/pkcs12.h"

#include "cms/cms_internal.h"
#include "cms/pkcs12_internal.h"
#include "core/secret.h"
#include "keys/pbe.h"
#include "tessel/oids.h"
#include "tessel/pkcs8.h"

namespace tessel {

using asn1::blob;
using Bytes = std::vector<unsigned char>;
namespace oid = asn1::oid;

namespace {

// Plaintext wipes the decrypted bytes it holds when it goes, whichever way the read ends.
struct Plaintext {
  Bytes bytes;
  ~Plaintext() { ct::wipe(bytes.data(), bytes.size()); }
};

const char* keyTypeName(KeyType type) {
  switch (type) {
    case keyRsa: return "RSA";
    case keyEc: return "EC";
    case keyEd25519: return "Ed25519";
    case keyX25519: return "X25519";
    case keyMlkem768: return "ML-KEM-768";
  }
  return "unknown";
}

}  // namespace

// Reader walks one file: it holds the password that turned out right and counts the
// decryptions, each a key derivation of up to maxIterations rounds.
struct PKCS12PFX::Reader {
  PKCS12PFX& pfx;
  const PKCS12ReadOptions& options;
  PbePassword password;
  std::optional<PbePassword> alternative;  // tried once while nothing has settled the password
  unsigned decryptions = 0;

  bool fail(const std::string& why) {
    pfx.error = why;
    return false;
  }

  // decrypt runs the PBE `algorithm` (a whole element) over `data`.
  bool decrypt(blob algorithm, blob data, Bytes& out) {
    AlgorithmIdentifier alg;
    asn1::parser p(algorithm);
    if (!tessel::parse(alg, p.content)) return fail("malformed encryption algorithm");
    if (!pbe::findPkcs12Scheme(blob(alg.oid)) && !oid::pbes2.is(blob(alg.oid)))
      return fail("unsupported encryption: " + describePbeAlgorithm(algorithm));
    if (pbe::iterationCount(alg) > options.maxIterations)
      return fail("too many iterations: " + describePbeAlgorithm(algorithm));
    if (++decryptions > kMaxEncrypted) return fail("too many encrypted items");
    if (pbeDecrypt(algorithm, password, data, out, options.maxIterations)) {
      alternative.reset();
      return true;
    }
    if (alternative && pbeDecrypt(algorithm, *alternative, data, out, options.maxIterations)) {
      password = *alternative;
      alternative.reset();
      return true;
    }
    return fail("cannot decrypt: wrong password (" + describePbeAlgorithm(algorithm) + ")");
  }

  bool readAttributes(asn1::parser& bag, PKCS12Bag& out) {
    blob set;
    switch (bag.readOptional(asn1::tagSet, &set)) {
      case asn1::Presence::malformed: return false;
      case asn1::Presence::absent: return true;
      case asn1::Presence::present: break;
    }
    if (!cms::parseAttributes(set, &out.attributes)) return false;
    for (const PKCS7Attribute& a : out.attributes) {
      if (a.values.size() != 1) continue;
      asn1::parser v{blob(a.values[0])};
      blob content;
      std::string name;
      if (oid::friendlyName.is(blob(a.type)) && v.isAt(asn1::tagBmpString, &content) &&
          pkcs12::bmpToUtf8(content, &name))
        out.friendlyName = name;
      if (oid::localKeyId.is(blob(a.type)) && v.isAt(asn1::tagOctetString, &content)) out.localKeyId = content.vec();
    }
    return true;
  }

  // readTyped reads SEQUENCE { type OID, [0] EXPLICIT OCTET STRING }, the value of certificate
  // and CRL bags.
  static bool readTyped(blob value, blob* type, blob* octets) {
    asn1::parser p, wrapper;
    return asn1::readOnly(value, asn1::tagSequence, &p) && p.read(asn1::tagOid, type) &&
           p.read(asn1::explicitTag(0), &wrapper) && wrapper.read(asn1::tagOctetString, octets) && wrapper.atEnd() &&
           p.atEnd();
  }

  bool readKey(blob der, PKCS12Bag& bag) {
    bag.key = parseOneAssimetricKey(der).first;
    bag.kind = PKCS12Bag::Kind::key;
    return bag.key ? true : fail("a key bag holds no key we can read");
  }

  bool readBag(blob der, unsigned depth, blob encryption) {
    asn1::parser p, wrapper;
    blob type, value;
    if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &type) ||
        !p.read(asn1::explicitTag(0), &wrapper))
      return fail("malformed bag");
    value = wrapper.takeElement();
    if (value.empty() || !wrapper.atEnd()) return fail("malformed bag");
    if (oid::safeContentsBag.is(type)) {
      if (depth + 1 > kMaxDepth) return fail("safe contents nested too deeply");
      return readSafeContents(value, depth + 1, encryption);
    }
    PKCS12Bag bag;
    bag.bagType = type.vec();
    bag.depth = depth;
    bag.encryption = encryption.vec();
    if (!readAttributes(p, bag) || !p.atEnd()) return fail("malformed bag attributes");
    blob typeOid, octets;
    if (oid::keyBag.is(type)) {
      if (!readKey(value, bag)) return false;
    } else if (oid::pkcs8ShroudedKeyBag.is(type)) {
      asn1::parser epki;
      blob algorithm, ciphertext;
      if (!asn1::readOnly(value, asn1::tagSequence, &epki) || !epki.readElement(asn1::tagSequence, &algorithm) ||
          !epki.read(asn1::tagOctetString, &ciphertext) || !epki.atEnd())
        return fail("malformed shrouded key bag");
      Plaintext plain;
      if (!decrypt(algorithm, ciphertext, plain.bytes) || !readKey(blob(plain.bytes), bag)) return false;
      bag.encryption = algorithm.vec();
    } else if (oid::certBag.is(type) || oid::crlBag.is(type)) {
      if (!readTyped(value, &typeOid, &octets)) return fail("malformed certificate or CRL bag");
      bag.value = octets.vec();
      if (oid::x509CertificateType.is(typeOid)) {
        bag.certificate = std::make_shared<X509Certificate>();
        if (!bag.certificate->parse(octets.start, static_cast<unsigned>(octets.size())))
          return fail("a certificate bag holds no certificate we can read");
        bag.kind = PKCS12Bag::Kind::certificate;
      } else if (oid::x509CrlType.is(typeOid)) {
        bag.crl = std::make_shared<X509Crl>();
        if (!bag.crl->parse(octets.start, static_cast<unsigned>(octets.size())))
          return fail("a CRL bag holds no CRL we can read");
        bag.kind = PKCS12Bag::Kind::crl;
      }
    } else {
      bag.value = value.vec();  // secret bags and unknown types are kept as found
    }
    pfx.bags.push_back(std::move(bag));
    return true;
  }

  bool readSafeContents(blob der, unsigned depth, blob encryption) {
    asn1::parser p;
    if (!asn1::readOnly(der, asn1::tagSequence, &p)) return fail("malformed safe contents");
    while (!p.atEnd()) {
      blob bag;
      if (!p.readElement(asn1::tagSequence, &bag)) return fail("malformed safe contents");
      if (!readBag(bag, depth, encryption)) return false;
    }
    return true;
  }

  bool readContentInfo(blob der) {
    asn1::parser info, wrapper;
    blob type, octets;
    if (!asn1::readOnly(der, asn1::tagSequence, &info) || !info.read(asn1::tagOid, &type))
      return fail("malformed content");
    if (oid::idData.is(type)) {
      if (!info.read(asn1::explicitTag(0), &wrapper) || !info.atEnd() || !wrapper.read(asn1::tagOctetString, &octets) ||
          !wrapper.atEnd())
        return fail("malformed data content");
      pfx.contentEncryption.emplace_back();
      return readSafeContents(octets, 0, blob());
    }
    if (!oid::idEncryptedData.is(type)) return fail("unsupported content type " + asn1::oidStr(type));
    PKCS7EncryptedData encrypted;
    if (!encrypted.parse(der) || !oid::idData.is(blob(encrypted.contentType)) || encrypted.encryptedContent.empty())
      return fail("malformed encrypted-data content");
    pfx.contentEncryption.push_back(encrypted.algorithm);
    Plaintext plain;
    if (!decrypt(blob(encrypted.algorithm), blob(encrypted.encryptedContent), plain.bytes)) return false;
    return readSafeContents(blob(plain.bytes), 0, blob(encrypted.algorithm));
  }

  // verify checks the MAC with the password, then with the other of empty and absent.
  bool verify(blob macData, blob authSafe) {
    pkcs12::MacData mac;
    if (!pkcs12::parseMacData(macData, &mac, &pfx.mac)) return fail("malformed or unsupported MAC");
    if (pfx.mac.iterations > options.maxIterations) return fail("too many MAC iterations");
    std::vector<PbePassword> tries{password};
    if (alternative) tries.push_back(*alternative);
    for (const PbePassword& p : tries)
      if (pkcs12::verifyMac(mac, pfx.mac, p, authSafe, options.maxIterations)) {
        password = p;
        alternative.reset();
        return true;
      }
    return fail("MAC verification failed: wrong password or altered file");
  }

  bool read(blob der) {
    asn1::parser pfxSeq, authSafe, wrapper, contents;
    blob version, type, octets, macData;
    if (!asn1::readOnly(der, asn1::tagSequence, &pfxSeq) || !pfxSeq.isAt(asn1::tagInteger, &version))
      return fail("not a PKCS#12 file");
    if (version.size() != 1 || version[0] != 3) return fail("unsupported PKCS#12 version");
    pfxSeq.next();
    if (!pfxSeq.read(asn1::tagSequence, &authSafe) || !authSafe.read(asn1::tagOid, &type))
      return fail("malformed PKCS#12 file");
    if (!oid::idData.is(type)) return fail("unsupported authenticated safe (public-key integrity)");
    if (!authSafe.read(asn1::explicitTag(0), &wrapper) || !authSafe.atEnd() ||
        !wrapper.read(asn1::tagOctetString, &octets) || !wrapper.atEnd())
      return fail("malformed PKCS#12 file");
    const bool hasMac = pfxSeq.readElement(asn1::tagSequence, &macData);
    if (!pfxSeq.atEnd()) return fail("malformed PKCS#12 file");
    if (hasMac && !verify(macData, octets)) return false;
    if (!asn1::readOnly(octets, asn1::tagSequence, &contents)) return fail("malformed authenticated safe");
    while (!contents.atEnd()) {
      blob info;
      if (!contents.readElement(asn1::tagSequence, &info)) return fail("malformed authenticated safe");
      if (!readContentInfo(info)) return false;
    }
    return true;
  }
};

bool PKCS12PFX::parse(blob der, const PbePassword& password, const PKCS12ReadOptions& options) {
  mac = PKCS12Mac{};
  contentEncryption.clear();
  bags.clear();
  error.clear();
  Reader reader{*this, options, password, std::nullopt};
  if (!password) reader.alternative = PbePassword("");
  else if (password->empty()) reader.alternative = PbePassword();
  if (reader.read(der)) return true;
  bags.clear();  // nothing of a file that failed is handed out
  return false;
}

void PKCS12PFX::dump(std::ostream& os) const {
  if (!mac.present) os << "MAC: none\n";
  else if (mac.pbmac1)
    os << "MAC: PBMAC1, PBKDF2-HMAC-" << getHashName(mac.kdfHash) << ", HMAC-" << getHashName(mac.hash) << ", "
       << mac.iterations << " iterations\n";
  else os << "MAC: HMAC-" << getHashName(mac.hash) << ", " << mac.iterations << " iterations\n";
  for (std::size_t i = 0; i < contentEncryption.size(); ++i) {
    const Bytes& alg = contentEncryption[i];
    os << "content " << i << ": " << (alg.empty() ? "data" : "encrypted-data, " + describePbeAlgorithm(blob(alg)))
       << "\n";
  }
  for (std::size_t i = 0; i < bags.size(); ++i) {
    const PKCS12Bag& b = bags[i];
    os << "bag " << i << ": ";
    switch (b.kind) {
      case PKCS12Bag::Kind::key:
        os << (oid::pkcs8ShroudedKeyBag.is(blob(b.bagType)) ? "shrouded key, " : "key, ")
           << keyTypeName(b.key->getKeyType()) << "\n";
        break;
      case PKCS12Bag::Kind::certificate:
        os << "certificate\n  subject: " << b.certificate->subject.str()
           << "\n  issuer: " << b.certificate->issuer.str() << "\n";
        break;
      case PKCS12Bag::Kind::crl: os << "CRL\n  issuer: " << b.crl->issuer.str() << "\n"; break;
      case PKCS12Bag::Kind::other: os << "other, type " << asn1::oidStr(blob(b.bagType)) << "\n"; break;
    }
    if (!b.friendlyName.empty()) os << "  friendlyName: " << b.friendlyName << "\n";
    if (!b.localKeyId.empty()) os << "  localKeyId: " << asn1::str(blob(b.localKeyId)) << "\n";
    if (oid::pkcs8ShroudedKeyBag.is(blob(b.bagType)))
      os << "  encryption: " << describePbeAlgorithm(blob(b.encryption)) << "\n";
    if (b.depth) os << "  nested: " << b.depth << "\n";
  }
}

PKCS12KeyAndCertificate PKCS12PFX::keyAndCertificate() const {
  PKCS12KeyAndCertificate out;
  const PKCS12Bag* keyBag = nullptr;
  for (const PKCS12Bag& b : bags)
    if (b.kind == PKCS12Bag::Kind::key && !keyBag) keyBag = &b;
  const PKCS12Bag* match = nullptr;
  if (keyBag) {
    out.key = keyBag->key;
    for (const PKCS12Bag& b : bags)
      if (!match && b.kind == PKCS12Bag::Kind::certificate && !keyBag->localKeyId.empty() &&
          b.localKeyId == keyBag->localKeyId)
        match = &b;
    const Bytes spki = encodeSubjectPublicKeyInfo(*keyBag->key);
    for (const PKCS12Bag& b : bags)
      if (!match && b.kind == PKCS12Bag::Kind::certificate && b.certificate->publicKeyInfo == spki) match = &b;
  }
  for (const PKCS12Bag& b : bags) {
    if (b.kind != PKCS12Bag::Kind::certificate) continue;
    if (&b == match) out.certificate = b.certificate;
    else out.others.push_back(b.certificate);
  }
  return out;
}

}  // namespace tessel
