// CTR-128 mode functions.
#include <algorithm>

#include "cipher/modes.h"
#include "tessel/assert.h"
#include "tessel/cipher.h"

namespace tessel {

void CTR128_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  TESSEL_ASSERT(cipher.blockLength() == 16);
  unsigned char keystream[detail::kCtrBatch * 16];
  // The keystream goes through a separate buffer, so running in place is harmless here. A
  // partial last block takes a whole counter value; the rest of its keystream is dropped.
  while (len) {
    const unsigned blocks = std::min(detail::kCtrBatch, (len + 15) / 16), n = std::min(len, 16 * blocks);
    detail::ctrKeystream(cipher, iv, keystream, blocks);
    detail::xorBytes(out, in, keystream, n);
    in += n;
    out += n;
    len -= n;
  }
}

void CTR128_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  CTR128_encrypt(cipher, iv, in, len, out);
}

}  // namespace tessel
