// Certificate stores: the lookup interface path building and validation use, and the in-memory
// store filled from PEM text, a directory of files and the host's certificate manager.
#pragma once

#include "tessel/export.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tessel/blob.h"
#include "tessel/crl.h"
#include "tessel/names.h"
#include "tessel/x509.h"

namespace tessel {

// CertificateStore is where path building finds issuers and validation finds CRLs. A filled
// store is read-only and may be shared between threads.
class TESSEL_API CertificateStore {
 public:
  virtual ~CertificateStore() = default;
  // findIssuer returns a certificate whose subject equals `issuer` and, when both are present,
  // whose subject key identifier equals `authorityKeyId`; empty when the store has none.
  virtual std::shared_ptr<X509Certificate> findIssuer(const DistinguishedName& issuer,
                                                      const asn1::blob& authorityKeyId) const = 0;
  // findIssuers returns every certificate findIssuer could return, in the store's order (at
  // most `limit`). A store that cannot list its certificates keeps this default: findIssuer's.
  virtual std::vector<std::shared_ptr<X509Certificate>> findIssuers(const DistinguishedName& issuer,
                                                                    const asn1::blob& authorityKeyId,
                                                                    std::size_t limit) const {
    std::vector<std::shared_ptr<X509Certificate>> out;
    if (auto one = limit > 0 ? findIssuer(issuer, authorityKeyId) : nullptr) out.push_back(std::move(one));
    return out;
  }
  // findCrl returns a CRL issued by the issuer of `cert` (matched by name, and by key
  // identifier where the CRL and the certificate both carry one); empty when none is held.
  virtual std::shared_ptr<X509Crl> findCrl(const X509Certificate& cert) const = 0;
  // findCrlFor is findCrl with `issuer` (may be null; not kept) offered as one more candidate
  // signer: the certificate a caller has found, or will check, to have signed `cert`. A store
  // that does not check CRL signatures keeps this default, which ignores it.
  virtual std::shared_ptr<X509Crl> findCrlFor(const X509Certificate& cert, const X509Certificate* issuer) const {
    (void)issuer;
    return findCrl(cert);
  }
  // findCertificate returns the first certificate for which `match` is true (signed messages
  // name their signer by issuer and serial number, or by key id); empty when none is. A store
  // that cannot list its certificates keeps this default, which finds nothing.
  virtual std::shared_ptr<X509Certificate> findCertificate(
      const std::function<bool(const X509Certificate&)>& match) const {
    (void)match;
    return nullptr;
  }
};

// CertificateMemoryStore keeps certificates and CRLs in memory, in load order. Loads only
// append: duplicates are kept and nothing is ever replaced. The lookups index both lists by
// issuer name and key identifier on first use and take in later appends, whether made by a
// load or directly; entries must not be replaced or edited in place once looked up (a store
// whose lists shrink or start differently is indexed afresh).
class TESSEL_API CertificateMemoryStore : public CertificateStore {
 public:
  std::vector<std::shared_ptr<X509Certificate>> certificates;
  std::vector<std::shared_ptr<X509Crl>> crls;

  // maxFileSize bounds a CA or CRL file read from a folder: larger ones are skipped. It is far
  // above any CA bundle or CRL the appliance is given, and keeps a hostile file from filling
  // its memory.
  static constexpr std::size_t maxFileSize = std::size_t{32} << 20;

  // cloudSuffixes are the two domain suffixes (20 bytes each, starting with a dot) of the
  // vendor cloud service whose Let's Encrypt entries keep the built-in anchors switched on in
  // an old configuration. Host configuration: empty strings never match.
  static std::array<std::string, 2> cloudSuffixes;

  // loadFromStr appends every certificate of the PEM text `text` in order. True when at least
  // one was read; false, with nothing appended, otherwise.
  bool loadFromStr(std::string_view text);
  // loadFromDir tries every entry of the directory `dir` as a certificate file and, when
  // `withCrls` is set, as a CRL file when it is not a certificate. Only regular files of at most
  // maxFileSize bytes are read (links to them are followed); anything else is passed over. False
  // only when the directory cannot be opened ("[ERR] opendir: " and the system error are printed).
  bool loadFromDir(std::string_view dir, bool withCrls);
  // loadFromCerm loads the certificate manager's entries usable for any bit of `useMask` (or
  // all usable entries when `all` is set), the built-in CA directory when the configured trust
  // mask allows it, and the CRLs that apply (not in `all` mode). Always true.
  bool loadFromCerm(unsigned useMask, bool all);

  std::shared_ptr<X509Certificate> findIssuer(const DistinguishedName& issuer,
                                              const asn1::blob& authorityKeyId) const override;
  // findIssuers walks the certificates in load order.
  std::vector<std::shared_ptr<X509Certificate>> findIssuers(const DistinguishedName& issuer,
                                                            const asn1::blob& authorityKeyId,
                                                            std::size_t limit) const override;
  // findCrl returns the newest CRL covering `cert` whose signature verifies under an issuer of
  // `cert` the store holds (same name, agreeing key id, and `cert` verifies under its key) that
  // has no keyUsage or one with cRLSign, or under a CRL signer such an issuer certified (same
  // name, keyUsage cRLSign). Empty when no CRL passes. Verdicts are kept per CRL and key.
  std::shared_ptr<X509Crl> findCrl(const X509Certificate& cert) const override;
  // findCrlFor is findCrl with `issuer` (may be null) tried as an issuer beside the store's.
  std::shared_ptr<X509Crl> findCrlFor(const X509Certificate& cert, const X509Certificate* issuer) const override;
  // findCrlUnverified returns the newest CRL covering `cert` by name and key identifier alone,
  // its signature unchecked: a diagnostic view, never a ground for a revocation decision.
  std::shared_ptr<X509Crl> findCrlUnverified(const X509Certificate& cert) const;
  // findCertificate scans the certificates in load order.
  std::shared_ptr<X509Certificate> findCertificate(
      const std::function<bool(const X509Certificate&)>& match) const override;

 private:
  struct Index;
  // IndexSlot holds the lookup index, built on first use under its mutex so that a filled store
  // can be shared between threads. A copied or moved-to store starts without one.
  struct IndexSlot {
    IndexSlot();
    ~IndexSlot();
    IndexSlot(const IndexSlot&) : IndexSlot() {}
    IndexSlot& operator=(const IndexSlot&);
    std::unique_ptr<Index> index;
    std::mutex mutex;
  };
  // crlVerifies checks `crl` under `signer`'s key, through the verdicts kept in the index.
  bool crlVerifies(const std::shared_ptr<X509Crl>& crl, const X509Certificate& signer) const;
  // refreshedIndex brings the index up to date with the lists; the slot's mutex must be held.
  Index& refreshedIndex() const;
  mutable IndexSlot slot_;
};

}  // namespace tessel
