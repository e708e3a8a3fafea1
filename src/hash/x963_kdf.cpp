// The ANSI X9.63 key derivation function.
#include "tessel/x963_kdf.h"

#include <cstdint>

#include "core/secret.h"

namespace tessel {

std::vector<unsigned char> x963Kdf(Hash& h, asn1::blob z, asn1::blob sharedInfo, std::size_t length) {
  const std::size_t blocks = (length + h.digestLength() - 1) / h.digestLength();
  if (length == 0 || blocks >= 0xFFFFFFFFu) return {};
  std::vector<unsigned char> out;
  out.reserve(blocks * h.digestLength());
  for (std::uint32_t counter = 1; out.size() < length; ++counter) {
    const unsigned char c[4] = {static_cast<unsigned char>(counter >> 24), static_cast<unsigned char>(counter >> 16),
                                static_cast<unsigned char>(counter >> 8), static_cast<unsigned char>(counter)};
    h.update(z.span());
    h.update(c, 4);
    h.update(sharedInfo.span());
    std::vector<unsigned char> block = h.digest();
    out.insert(out.end(), block.begin(), block.end());
    ct::wipe(block.data(), block.size());
  }
  ct::wipe(out.data() + length, out.size() - length);
  out.resize(length);
  return out;
}

}  // namespace tessel
