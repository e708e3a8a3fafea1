// CertificateMemoryStore: loading from PEM text and directories, and the issuer and CRL lookups.
// The certificate-manager load lives in cert_store_cerm.cpp.
#include "tessel/cert_store.h"

#include <dirent.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

#include "tessel/pem.h"

namespace tessel {

namespace {

// keyIdsAgree is true when either identifier is absent or both are the same bytes.
bool keyIdsAgree(const std::vector<unsigned char>& a, asn1::blob b) {
  return a.empty() || b.empty() || asn1::blob(a) == b;
}

}  // namespace

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
    std::cout << "[ERR] opendir: " << std::strerror(errno) << "\n";
    return false;
  }
  // Entries are tried in the order the system lists them; "." and ".." simply fail to read.
  while (const dirent* entry = readdir(d)) {
    const std::string path = base + "/" + entry->d_name;
    if (auto cert = readCertFromFile(path)) {
      certificates.push_back(std::move(cert));
    } else if (withCrls) {
      if (auto crl = readCrlFromFile(path)) crls.push_back(std::move(crl));
    }
  }
  closedir(d);
  return true;
}

std::shared_ptr<X509Certificate> CertificateMemoryStore::findIssuer(const DistinguishedName& issuer,
                                                                    const asn1::blob& authorityKeyId) const {
  // The key identifier is the cheaper comparison, so it goes first.
  for (const auto& cert : certificates) {
    if (keyIdsAgree(cert->subjectKeyId, authorityKeyId) && cert->subject == issuer) return cert;
  }
  return nullptr;
}

std::shared_ptr<X509Crl> CertificateMemoryStore::findCrl(const X509Certificate& cert) const {
  // Several lists of one issuer can be loaded (two folders, a re-issue): the newest wins.
  std::shared_ptr<X509Crl> best;
  for (const auto& crl : crls) {
    if (!keyIdsAgree(crl->authorityKeyId, cert.authorityKeyId) || !(crl->issuer == cert.issuer)) continue;
    if (!best || best->thisUpdate < crl->thisUpdate) best = crl;
  }
  return best;
}

}  // namespace tessel
