// Verifies hostile certificate pools: the input is a flag byte, a byte whose bits put parts into
// the anchor store rather than among the intermediates, then up to eight parts, each a two-byte
// big-endian length and DER. The first part is the leaf; with flag 1 the last part is a CRL.
// Whatever the pool, verifyChain must answer a known code within its signature-check budget,
// and a passing chain must run from the leaf to an anchor.
#include <cstdint>

#include "quiet_stdout.h"
#include "tessel/verify.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::uint8_t flags = data[0], anchorBits = data[1];
  std::vector<tessel::asn1::blob> parts;
  for (std::size_t at = 2; at + 2 <= size && parts.size() < 8;) {
    const std::size_t len = std::size_t{data[at]} << 8 | data[at + 1];
    at += 2;
    if (len > size - at) break;
    parts.emplace_back(data + at, len);
    at += len;
  }
  if (parts.empty()) return 0;
  const bool withCrl = (flags & 1) && parts.size() > 1;
  tessel::X509Certificate leaf;
  if (!leaf.parse(parts[0].start, static_cast<unsigned>(parts[0].size()))) return 0;
  tessel::CertificateMemoryStore anchors;
  std::vector<std::shared_ptr<tessel::X509Certificate>> intermediates;
  for (std::size_t i = 1; i < parts.size() - (withCrl ? 1 : 0); ++i) {
    auto cert = std::make_shared<tessel::X509Certificate>();
    if (!cert->parse(parts[i].start, static_cast<unsigned>(parts[i].size()))) continue;
    ((anchorBits >> i) & 1 ? anchors.certificates : intermediates).push_back(cert);
  }
  if (withCrl) {
    auto crl = std::make_shared<tessel::X509Crl>();
    if (crl->parse(parts.back().start, static_cast<unsigned>(parts.back().size()))) anchors.crls.push_back(crl);
  }
  tessel::VerifyOptions options;
  options.time = tessel::TimePoint::fromSeconds(1749988800);
  options.purpose = static_cast<tessel::VerifyPurpose>((flags >> 1) % 6);
  options.checkRevocation = flags & 16;
  options.cnFallback = flags & 32;
  if (flags & 64) options.dnsName = "www.example.com";
  options.maxSignatureChecks = 20;
  options.maxDepth = 4;
  const tessel::VerifyResult r = tessel::verifyChain(leaf, intermediates, anchors, options);
  if (r.code > tessel::VerifyCode::nameConstraint || r.signatureChecks > options.maxSignatureChecks) __builtin_trap();
  if (r.ok() && (r.chain.empty() || r.chain.front()->tbs != leaf.tbs)) __builtin_trap();
  return 0;
}
