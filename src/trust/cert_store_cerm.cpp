// Filling a CertificateMemoryStore from the host's certificate manager: its entries, the
// built-in CA directory as its settings allow, and the CRLs that apply.
#include <string>
#include <vector>

#include "core/diag.h"
#include "ol/file.h"
#include "ol/store.h"
#include "tessel/cert_store.h"
#include "tessel/pem.h"

namespace tessel {

std::array<std::string, 2> CertificateMemoryStore::cloudSuffixes;

namespace {

constexpr std::uint32_t kDefaultTrustMask = 0x362B90;
constexpr std::uint32_t kOldDefaultTrustMask = 0x22B90;  // written by older firmware
constexpr std::uint32_t kTrustMaskDefaultMarker = 0x7FFFFFFF;
constexpr std::uint32_t kAlwaysBuiltIn = 0x800000;  // uses that always trust the built-in CAs
constexpr std::uint32_t kCaCrlFlag = 0x40;

// Settings message (entry 0 of "cert/settings").
constexpr ol::u32_id kTrustMask{0x7};
constexpr ol::u32_id kOldTrustMask{0x5};
constexpr ol::bool_id kOldUseBuiltIn{0x4};
constexpr ol::u32_id kOldSwitchAlone{0xFE0012};
constexpr ol::u32_id kCrlInRam{0x3};

// Certificate manager entry.
constexpr ol::string_id kEntryName{0xFE0010};
constexpr ol::string_id kEntryHost{0x71};
constexpr ol::bool_id kEntryUsable{0x0C};
constexpr ol::u32_id kEntryUses{0x2D};
constexpr ol::raw_id kEntryDer{0x81};
constexpr ol::u32_id kEntryDerKind{0x87};
constexpr ol::raw_id kEntryDerFallback{0x0B};
constexpr ol::u32_id kEntryFlags{0x7B};
constexpr ol::raw_id kEntryCaCrlInfo{0x8F};
constexpr ol::string_array_id kEntryCaCrlUrls{0x20};

// CRL entry.
constexpr ol::u32_id kCrlUses{0x0C};

constexpr std::uint32_t kSkippedEntry = 0xFFFFFFFB;

bool isCloudHost(const std::string& host) {
  if (host.size() < 20) return false;
  std::string_view tail = std::string_view(host).substr(host.size() - 20);
  for (const std::string& suffix : CertificateMemoryStore::cloudSuffixes)
    if (tail == suffix) return true;
  return false;
}

// legacyTrustMask decides for settings from before the mask fields existed whose marker is
// unset, from the certificate manager's state word: a fresh manager keeps the built-in anchors,
// a long-used one drops them, and in between they stay only when every installed entry is
// the vendor cloud's Let's Encrypt certificate (installed automatically, not by the user).
std::uint32_t legacyTrustMask(const ol::Store& cerm) {
  std::uint32_t age = ~cerm.state();
  if (age <= 1) return kDefaultTrustMask;
  if (age > 4) return 0;
  // A damaged entry may be one the user installed: fail closed.
  for (std::uint32_t id : cerm.damaged())
    if (id != 0 && id != kSkippedEntry) return 0;
  bool cloud = false;
  for (std::uint32_t id : cerm.allocator()) {
    if (id == 0 || id == kSkippedEntry) continue;
    const ol::message& m = cerm.get(id);
    const std::string* name = m.get(kEntryName);
    if (!name || *name != "Lets encrypt") return 0;
    if (const std::string* host = m.get(kEntryHost); host && isCloudHost(*host)) cloud = true;
  }
  return cloud ? kDefaultTrustMask : 0;
}

// builtInTrustMask is the set of uses the built-in CA directory is trusted for.
std::uint32_t builtInTrustMask(const ol::message& settings, const ol::Store& cerm) {
  if (const std::uint32_t* b = settings.get(kTrustMask)) return *b == kTrustMaskDefaultMarker ? kDefaultTrustMask : *b;
  // The older field's default is upgraded to the new default; field 7's value is taken as is.
  if (const std::uint32_t* b = settings.get(kOldTrustMask)) return *b == kOldDefaultTrustMask ? kDefaultTrustMask : *b;
  if (settings.empty()) return kDefaultTrustMask;
  if (settings.get(kOldSwitchAlone, 0) != 0) return settings.get(kOldUseBuiltIn, true) ? kDefaultTrustMask : 0;
  return legacyTrustMask(cerm);
}

// entryDer returns the certificate bytes of a manager entry, or null when it has none usable.
const std::vector<unsigned char>* entryDer(const ol::message& m) {
  if (const auto* der = m.get(kEntryDer)) return m.get(kEntryDerKind, 0) == 2 ? nullptr : der;
  return m.get(kEntryDerFallback);
}

void appendCrlFile(std::vector<std::shared_ptr<X509Crl>>& crls, const std::string& path) {
  std::string text;
  if (ol::readRegularFile(text, path, CertificateMemoryStore::maxFileSize, true) != nullptr) return;
  if (std::unique_ptr<X509Crl> crl = readCrl(text)) crls.push_back(std::move(crl));
}

// builtInsDamaged is true when a store entry that decides whether the built-in CAs are trusted
// is damaged; it says so on standard output. Reading such an entry as absent would fall back to
// defaults that trust them although the administrator may have switched them off.
bool builtInsDamaged(const ol::Store& settings, const ol::Store& cerm) {
  bool damaged = false;
  if (settings.lookup(0) == ol::Presence::damaged) {
    diag() << "[ERR] cert settings damaged: built-in CAs off";
    damaged = true;
  }
  if (cerm.stateLookup() == ol::Presence::damaged) {
    diag() << "[ERR] cerm state damaged: built-in CAs off";
    damaged = true;
  }
  return damaged;
}

}  // namespace

bool CertificateMemoryStore::loadFromCerm(unsigned useMask, bool all) {
  ol::Store cerm("cerm");
  ol::Store settingsStore("cert/settings");
  const ol::message& settings = settingsStore.get(0);
  // Damage switches the built-in CAs off as the administrator can: the uses that always trust
  // them, and loading everything, still see them.
  const std::uint32_t trustMask = builtInsDamaged(settingsStore, cerm) ? 0 : builtInTrustMask(settings, cerm);

  if ((useMask & (trustMask | kAlwaysBuiltIn)) != 0 || all) loadFromDir(ol::rootPath("/orlin/etc/ca/"), false);

  std::vector<std::uint32_t> caCrlHolders;
  for (std::uint32_t id : cerm.allocator()) {
    if (id == 0) continue;
    const ol::message& m = cerm.get(id);
    if (!m.get(kEntryUsable, false)) continue;
    if ((useMask & m.get(kEntryUses, 0xFFFFFFFF)) == 0 && !all) continue;
    const std::vector<unsigned char>* der = entryDer(m);
    if (!der) continue;
    auto cert = std::make_shared<X509Certificate>();
    if (cert->parse(der->data(), static_cast<unsigned>(der->size()))) certificates.push_back(std::move(cert));
    if ((m.get(kEntryFlags, 0) & kCaCrlFlag) != 0 && m.has(kEntryCaCrlInfo) && m.has(kEntryCaCrlUrls))
      caCrlHolders.push_back(id);
  }
  if (all) return true;

  std::string crlDir = ol::rootPath(settings.get(kCrlInRam, 0) == 0 ? "/rw/cm/crl" : "/ram/crl");
  ol::Store crlStore("cert/crl");
  for (std::uint32_t id : crlStore.allocator())
    if ((useMask & crlStore.get(id).get(kCrlUses, 0xFFFFFFFF)) != 0)
      appendCrlFile(crls, crlDir + "/" + std::to_string(id));

  for (std::uint32_t id : caCrlHolders)
    appendCrlFile(crls, ol::rootPath("/rw/cm/ca_crl/" + std::to_string(id) + ".crl"));
  return true;
}

}  // namespace tessel
