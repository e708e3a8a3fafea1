// CertificateMemoryStore: loading from PEM text and directories, and the issuer and CRL lookups.
// The certificate-manager load lives in cert_store_cerm.cpp.
#include "tessel/cert_store.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

#include "core/diag.h"
#include "ol/file.h"
#include "tessel/oids.h"
#include "tessel/pem.h"
#include "tessel/x509_path.h"

namespace tessel {

namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

// keyIdsAgree is true when either identifier is absent or both are the same bytes.
bool keyIdsAgree(const std::vector<unsigned char>& a, asn1::blob b) {
  return a.empty() || b.empty() || asn1::blob(a) == b;
}

bool issues(const X509Certificate& cert, const DistinguishedName& issuer, asn1::blob authorityKeyId) {
  return keyIdsAgree(cert.subjectKeyId, authorityKeyId) && cert.subject == issuer;
}

bool covers(const X509Crl& crl, const X509Certificate& cert) {
  return keyIdsAgree(crl.authorityKeyId, cert.authorityKeyId) && crl.issuer == cert.issuer;
}

// scanIssuer and scanCrl are the lookups by walking the lists, for when the indexed candidate
// fails the full rule (a bucket hash collision, or an entry edited in place after indexing).
std::shared_ptr<X509Certificate> scanIssuer(const std::vector<std::shared_ptr<X509Certificate>>& certs,
                                            const DistinguishedName& issuer, asn1::blob authorityKeyId) {
  for (const auto& cert : certs)
    if (cert && issues(*cert, issuer, authorityKeyId)) return cert;
  return nullptr;
}

std::shared_ptr<X509Crl> scanCrl(const std::vector<std::shared_ptr<X509Crl>>& crls, const X509Certificate& cert) {
  // Several lists of one issuer can be loaded (two folders, a re-issue): the newest wins.
  std::shared_ptr<X509Crl> best;
  for (const auto& crl : crls) {
    if (!crl || !covers(*crl, cert)) continue;
    if (!best || best->thisUpdate < crl->thisUpdate) best = crl;
  }
  return best;
}

// Fnv is the 64-bit FNV-1a hash. Bucket hashes only narrow a lookup down to one candidate,
// which is then checked against the full rule, so a collision (even a crafted one) costs a walk
// over the lists, never a wrong answer.
struct Fnv {
  std::uint64_t h = 0xcbf29ce484222325u;
  void add(unsigned char b) { h = (h ^ b) * 0x100000001b3u; }
};

// nameHash hashes what two names share exactly when they are equal (operator==): each of the
// seven attributes up to its first NUL byte (where strcasecmp stops), folded by the same
// tolower as strcasecmp, and ended by a NUL.
std::uint64_t nameHash(const DistinguishedName& n) {
  Fnv f;
  for (const std::string* attr : {&n.C, &n.S, &n.L, &n.O, &n.OU, &n.CN, &n.SerialNumber}) {
    for (char c : *attr) {
      if (c == '\0') break;
      f.add(static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(c))));
    }
    f.add(0);
  }
  return f.h;
}

// A bucket is a name and a tag: 'A' holds every entry of the name, 'K' followed by the key
// identifier the entries that carry that one, 'E' the entries that carry none.
std::uint64_t anyKeyIdBucket(std::uint64_t name) {
  Fnv f{name};
  f.add('A');
  return f.h;
}
std::uint64_t keyIdBucket(std::uint64_t name, asn1::blob keyId) {
  Fnv f{name};
  f.add(keyId.empty() ? 'E' : 'K');
  for (unsigned char b : keyId) f.add(b);
  return f.h;
}

// Seen records how much of a list was indexed, and its first and last entries then, which tell
// when the list was replaced rather than appended to.
struct Seen {
  std::size_t count = 0;
  const void* first = nullptr;
  const void* last = nullptr;

  template <class T>
  bool stillValid(const std::vector<std::shared_ptr<T>>& v) const {
    return v.size() >= count && (count == 0 || (v.front().get() == first && v[count - 1].get() == last));
  }
  template <class T>
  void record(const std::vector<std::shared_ptr<T>>& v) {
    count = v.size();
    first = v.empty() ? nullptr : v.front().get();
    last = v.empty() ? nullptr : v.back().get();
  }
};

}  // namespace

// Index maps bucket hashes to list positions so that lookups need not walk the lists: a
// certificate bucket to its first certificate (the one a walk finds first), a CRL bucket to its
// newest CRL (the first of equally new ones, as a walk keeps). A lookup takes the best of the
// buckets the rule allows; if that candidate meets the rule it is the walk's answer too, since
// every entry the walk could pick lies in one of those buckets, behind its bucket's head.
struct CertificateMemoryStore::Index {
  Seen certsSeen, crlsSeen;
  std::unordered_map<std::uint64_t, std::size_t> firstCert;
  std::unordered_map<std::uint64_t, std::size_t> newestCrl;
  // crlVerdicts keeps whether a CRL's signature verified under a key (its SubjectPublicKeyInfo),
  // so that repeated lookups cost no signature checks.
  std::map<std::pair<const X509Crl*, std::string>, bool> crlVerdicts;
};

CertificateMemoryStore::IndexSlot::IndexSlot() = default;
CertificateMemoryStore::IndexSlot::~IndexSlot() = default;
CertificateMemoryStore::IndexSlot& CertificateMemoryStore::IndexSlot::operator=(const IndexSlot&) {
  std::lock_guard<std::mutex> lock(mutex);
  index.reset();
  return *this;
}

CertificateMemoryStore::Index& CertificateMemoryStore::refreshedIndex() const {
  std::unique_ptr<Index>& ix = slot_.index;
  if (!ix || !ix->certsSeen.stillValid(certificates) || !ix->crlsSeen.stillValid(crls)) ix = std::make_unique<Index>();
  // Two buckets per entry at most; sizing the maps once spares the rehashing of a big load.
  ix->firstCert.reserve(2 * certificates.size());
  ix->newestCrl.reserve(2 * crls.size());
  for (std::size_t i = ix->certsSeen.count; i < certificates.size(); ++i) {
    if (!certificates[i]) continue;
    const X509Certificate& cert = *certificates[i];
    const std::uint64_t key = nameHash(cert.subject);
    ix->firstCert.try_emplace(anyKeyIdBucket(key), i);
    ix->firstCert.try_emplace(keyIdBucket(key, cert.subjectKeyId), i);
  }
  ix->certsSeen.record(certificates);
  auto offerCrl = [&](std::uint64_t bucket, std::size_t i) {
    auto [it, fresh] = ix->newestCrl.try_emplace(bucket, i);
    if (!fresh && crls[it->second]->thisUpdate < crls[i]->thisUpdate) it->second = i;
  };
  for (std::size_t i = ix->crlsSeen.count; i < crls.size(); ++i) {
    if (!crls[i]) continue;
    const std::uint64_t key = nameHash(crls[i]->issuer);
    offerCrl(anyKeyIdBucket(key), i);
    offerCrl(keyIdBucket(key, crls[i]->authorityKeyId), i);
  }
  ix->crlsSeen.record(crls);
  return *ix;
}

bool CertificateMemoryStore::loadFromStr(std::string_view text) {
  auto chain = readCertChain(text);
  if (chain.empty()) return false;
  certificates.insert(certificates.end(), chain.begin(), chain.end());
  return true;
}

bool CertificateMemoryStore::loadFromDir(std::string_view dir, bool withCrls) {
  const std::string base(dir);
  DIR* d = opendir(base.c_str());
  if (d == nullptr) {
    const int err = errno;  // taken before the line is built, which may allocate
    diag() << "[ERR] opendir: " << std::strerror(err);
    return false;
  }
  // Entries are tried in the order the system lists them; "." and ".." simply fail to read.
  // CA folders are often links into a shared collection, so links are followed.
  while (const dirent* entry = readdir(d)) {
    std::string text;
    if (ol::readRegularFile(text, base + "/" + entry->d_name, maxFileSize, true) != nullptr) continue;
    if (auto cert = readCertFromStr(text)) {
      certificates.push_back(std::move(cert));
    } else if (withCrls) {
      if (auto crl = readCrl(text)) crls.push_back(std::move(crl));
    }
  }
  closedir(d);
  return true;
}

std::shared_ptr<X509Certificate> CertificateMemoryStore::findIssuer(const DistinguishedName& issuer,
                                                                    const asn1::blob& authorityKeyId) const {
  const std::uint64_t key = nameHash(issuer);
  std::shared_ptr<X509Certificate> found;
  {
    std::lock_guard<std::mutex> lock(slot_.mutex);
    const Index& ix = refreshedIndex();
    std::size_t first = kNone;
    auto consider = [&](std::uint64_t bucket) {
      if (auto it = ix.firstCert.find(bucket); it != ix.firstCert.end()) first = std::min(first, it->second);
    };
    if (authorityKeyId.empty()) {
      consider(anyKeyIdBucket(key));
    } else {
      consider(keyIdBucket(key, authorityKeyId));
      consider(keyIdBucket(key, asn1::blob()));
    }
    if (first == kNone) return nullptr;
    found = certificates[first];
  }
  if (found && issues(*found, issuer, authorityKeyId)) return found;
  return scanIssuer(certificates, issuer, authorityKeyId);
}

std::vector<std::shared_ptr<X509Certificate>> CertificateMemoryStore::findIssuers(const DistinguishedName& issuer,
                                                                                  const asn1::blob& authorityKeyId,
                                                                                  std::size_t limit) const {
  std::vector<std::shared_ptr<X509Certificate>> out;
  for (const auto& cert : certificates) {
    if (out.size() >= limit) break;
    if (cert && issues(*cert, issuer, authorityKeyId)) out.push_back(cert);
  }
  return out;
}

std::shared_ptr<X509Certificate> CertificateMemoryStore::findCertificate(
    const std::function<bool(const X509Certificate&)>& match) const {
  for (const std::shared_ptr<X509Certificate>& c : certificates)
    if (c && match(*c)) return c;
  return nullptr;
}

std::shared_ptr<X509Crl> CertificateMemoryStore::findCrlUnverified(const X509Certificate& cert) const {
  const std::uint64_t key = nameHash(cert.issuer);
  std::shared_ptr<X509Crl> found;
  {
    std::lock_guard<std::mutex> lock(slot_.mutex);
    const Index& ix = refreshedIndex();
    std::size_t best = kNone;
    auto consider = [&](std::uint64_t bucket) {
      auto it = ix.newestCrl.find(bucket);
      if (it == ix.newestCrl.end()) return;
      const std::size_t at = it->second;
      if (best == kNone || crls[best]->thisUpdate < crls[at]->thisUpdate ||
          (at < best && !(crls[at]->thisUpdate < crls[best]->thisUpdate)))
        best = at;
    };
    if (cert.authorityKeyId.empty()) {
      consider(anyKeyIdBucket(key));
    } else {
      consider(keyIdBucket(key, cert.authorityKeyId));
      consider(keyIdBucket(key, asn1::blob()));
    }
    if (best == kNone) return nullptr;
    found = crls[best];
  }
  if (found && covers(*found, cert)) return found;
  return scanCrl(crls, cert);
}

namespace {

// signedBy reads the signature as stored certificates and CRLs have always been read and, when
// that refuses it (RSASSA-PSS, which it does not know), to the letter of its scheme.
bool signedBy(const X509Base& object, const X509Certificate& signer) {
  PathRes ignored;
  if (verifySignature(&object, asn1::blob(signer.publicKeyInfo), &ignored)) return true;
  const std::shared_ptr<PublicKey> key = signer.parsePublicKey();
  return ignored.code == pathBadAlgorithm && key && object.verify(*key);
}

bool hasKeyUsage(const X509Certificate& cert) {
  bool critical = false;
  asn1::blob value;
  return cert.findExtension(asn1::oid::keyUsage.content(), &critical, &value);
}

bool mayUse(const X509Certificate& cert, std::uint32_t bit) { return !hasKeyUsage(cert) || (cert.keyUsage & bit); }

// CrlSigners are the keys whose CRLs speak for one certificate: its issuers (of its issuer's
// name and key id, with a key its signature verifies under) allowed to sign CRLs, and the CRL
// signers one of those issuers certified.
struct CrlSigners {
  std::vector<std::shared_ptr<X509Certificate>> held;  // keeps store entries alive
  std::vector<const X509Certificate*> keys;
};

CrlSigners crlSignersOf(const std::vector<std::shared_ptr<X509Certificate>>& certs, const X509Certificate& cert,
                        const X509Certificate* offered) {
  CrlSigners out;
  std::vector<const X509Certificate*> named, issuers;
  for (const auto& c : certs) {
    if (!c || !(c->subject == cert.issuer)) continue;
    out.held.push_back(c);
    named.push_back(c.get());
  }
  if (offered) named.push_back(offered);
  for (const X509Certificate* c : named)
    if (keyIdsAgree(c->subjectKeyId, asn1::blob(cert.authorityKeyId)) && signedBy(cert, *c)) issuers.push_back(c);
  for (const X509Certificate* i : issuers)
    if (mayUse(*i, kuCrlSign)) out.keys.push_back(i);
  if (issuers.empty()) return out;
  for (const X509Certificate* s : named) {
    if (std::find(issuers.begin(), issuers.end(), s) != issuers.end() || !hasKeyUsage(*s) || !(s->keyUsage & kuCrlSign))
      continue;
    for (const X509Certificate* i : issuers) {
      if (keyIdsAgree(i->subjectKeyId, asn1::blob(s->authorityKeyId)) && signedBy(*s, *i)) {
        out.keys.push_back(s);
        break;
      }
    }
  }
  return out;
}

}  // namespace

bool CertificateMemoryStore::crlVerifies(const std::shared_ptr<X509Crl>& crl, const X509Certificate& signer) const {
  if (!keyIdsAgree(crl->authorityKeyId, asn1::blob(signer.subjectKeyId))) return false;
  std::pair<const X509Crl*, std::string> key(crl.get(),
                                             std::string(signer.publicKeyInfo.begin(), signer.publicKeyInfo.end()));
  {
    std::lock_guard<std::mutex> lock(slot_.mutex);
    const Index& ix = refreshedIndex();
    if (auto it = ix.crlVerdicts.find(key); it != ix.crlVerdicts.end()) return it->second;
  }
  // Checked outside the lock: two threads may both check one pair, and agree.
  const bool good = signedBy(*crl, signer);
  std::lock_guard<std::mutex> lock(slot_.mutex);
  refreshedIndex().crlVerdicts.emplace(std::move(key), good);
  return good;
}

std::shared_ptr<X509Crl> CertificateMemoryStore::findCrl(const X509Certificate& cert) const {
  return findCrlFor(cert, nullptr);
}

std::shared_ptr<X509Crl> CertificateMemoryStore::findCrlFor(const X509Certificate& cert,
                                                            const X509Certificate* issuer) const {
  // The newest list of the issuer's name, whatever its key id, is the answer whenever it passes.
  std::shared_ptr<X509Crl> newest;
  {
    std::lock_guard<std::mutex> lock(slot_.mutex);
    const Index& ix = refreshedIndex();
    auto it = ix.newestCrl.find(anyKeyIdBucket(nameHash(cert.issuer)));
    if (it == ix.newestCrl.end()) return nullptr;
    newest = crls[it->second];
  }
  const CrlSigners signers = crlSignersOf(certificates, cert, issuer);
  if (signers.keys.empty()) return nullptr;
  auto authentic = [&](const std::shared_ptr<X509Crl>& crl) {
    for (const X509Certificate* s : signers.keys)
      if (crlVerifies(crl, *s)) return true;
    return false;
  };
  if (newest && newest->issuer == cert.issuer && authentic(newest)) return newest;
  std::vector<std::shared_ptr<X509Crl>> named;
  for (const auto& crl : crls)
    if (crl && crl->issuer == cert.issuer) named.push_back(crl);
  std::stable_sort(named.begin(), named.end(),
                   [](const auto& a, const auto& b) { return b->thisUpdate < a->thisUpdate; });
  for (const auto& crl : named)
    if (authentic(crl)) return crl;
  return nullptr;
}

}  // namespace tessel
