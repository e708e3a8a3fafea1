// CTR-128 mode functions.
#include "modes.h"
#include "tessel/assert.h"
#include "tessel/cipher.h"

namespace tessel {

void CTR128_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  TESSEL_ASSERT(cipher.blockLength() == 16);
  unsigned char keystream[16];
  // The keystream goes through a separate block, so running in place is harmless here.
  for (; len >= 16; len -= 16, in += 16, out += 16) {
    cipher.encrypt(iv, keystream);
    detail::incrementCounter32(iv);
    detail::xorBytes(out, in, keystream, 16);
  }
  if (len) {
    cipher.encrypt(iv, keystream);
    detail::incrementCounter32(iv);  // the rest of this keystream block is discarded
    detail::xorBytes(out, in, keystream, len);
  }
}

void CTR128_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  CTR128_encrypt(cipher, iv, in, len, out);
}

}  // namespace tessel
