// Validates hostile chains: the input is a flag byte, then certificates (and optionally a final
// CRL), each as a two-byte big-endian length and DER. The last certificate goes into the store as
// well, so hostile keys and signatures reach every signature check and the revocation lookup.
#include <cstdint>
#include <span>

#include "quiet_stdout.h"
#include "tessel/x509_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t flags = data[0];
  std::vector<tessel::asn1::blob> parts;
  for (std::size_t at = 1; at + 2 <= size && parts.size() < 5;) {
    const std::size_t len = std::size_t{data[at]} << 8 | data[at + 1];
    at += 2;
    if (len > size - at) break;
    parts.emplace_back(data + at, len);
    at += len;
  }
  const bool withCrl = (flags & 1) && parts.size() > 1;
  tessel::CertificateMemoryStore store;
  std::vector<std::shared_ptr<tessel::X509Certificate>> chain;
  for (std::size_t i = 0; i < parts.size() - (withCrl ? 1 : 0); ++i) {
    auto cert = std::make_shared<tessel::X509Certificate>();
    if (cert->parse(parts[i].start, static_cast<unsigned>(parts[i].size()))) chain.push_back(cert);
  }
  if (withCrl) {
    auto crl = std::make_shared<tessel::X509Crl>();
    if (crl->parse(parts.back().start, static_cast<unsigned>(parts.back().size()))) store.crls.push_back(crl);
  }
  if (!chain.empty()) store.certificates.push_back(chain.back());
  if (flags & 2) {
    std::vector<std::shared_ptr<tessel::X509Certificate>> leafOnly;
    if (!chain.empty()) leafOnly.push_back(chain.front());
    tessel::x509BuildPath(store, leafOnly, nullptr);
  }
  std::string error;
  const ol::IPAddr6 ip =
      (flags & 4) && size >= 5 ? ol::IPAddr6::fromBytes(std::span<const std::uint8_t>(data + 1, 4)) : ol::IPAddr6();
  const unsigned code = tessel::x509ValidatePath(chain, store, tessel::TimePoint::fromSeconds(1700000000),
                                                 (flags & 8) ? "www.example.com" : "", ip,
                                                 (flags & 16) ? "a@example.com" : "", flags & 32, &error);
  if (code > tessel::pathLenExceeded) __builtin_trap();
  return 0;
}
