// HKDF (RFC 5869) over HMAC.
#include "tessel/hkdf.h"

#include <algorithm>

#include "core/secret.h"
#include "tessel/hmac.h"

namespace tessel {

std::vector<unsigned char> HKPDF_Expand(Hash& h, const unsigned char* info, unsigned infoLen,
                                        const unsigned char* prk, unsigned prkLen, unsigned length) {
  const unsigned blockLen = h.digestLength();
  const unsigned blocks = static_cast<unsigned>((std::uint64_t{blockLen} + length - 1) / blockLen);
  std::vector<unsigned char> out(static_cast<std::size_t>(blocks) * blockLen);
  if (blocks > 0) {
    HMAC mac(&h, prk, prkLen);
    for (unsigned i = 0; i < blocks; ++i) {
      if (i > 0) mac.update(out.data() + (i - 1) * std::size_t{blockLen}, blockLen);
      mac.update(info, infoLen);
      const unsigned char counter = static_cast<unsigned char>(i + 1);  // wraps after 255 blocks
      mac.update(&counter, 1);
      mac.digest(out.data() + i * std::size_t{blockLen});
    }
  }
  out.resize(length);
  return out;
}

std::vector<unsigned char> HKPDF(Hash& h, const std::vector<unsigned char>& salt,
                                 const std::vector<unsigned char>& info,
                                 const std::vector<unsigned char>& ikm, unsigned length) {
  unsigned char prk[128];
  const unsigned prkLen = h.digestLength();
  {
    HMAC extract(&h, salt.data(), static_cast<unsigned>(salt.size()));
    extract.update(ikm.data(), static_cast<unsigned>(ikm.size()));
    extract.digest(prk);
  }
  auto out = HKPDF_Expand(h, info.data(), static_cast<unsigned>(info.size()), prk, prkLen, length);
  ct::wipe(prk, sizeof prk);
  return out;
}

}  // namespace tessel
