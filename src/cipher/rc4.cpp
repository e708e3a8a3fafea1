// RC4 stream cipher.
#include "tessel/block.h"

namespace tessel {

void RC4::setKey(const unsigned char* key, unsigned len) {
  for (unsigned k = 0; k < 256; ++k) s_[k] = static_cast<unsigned char>(k);
  unsigned j = 0;
  for (unsigned i = 0; i < 256; ++i) {
    j = (j + s_[i] + key[i % len]) & 0xff;
    unsigned char t = s_[i];
    s_[i] = s_[j];
    s_[j] = t;
  }
  i_ = 1;
  j_ = 0;
}

void RC4::encrypt(const unsigned char* in, unsigned char* out, unsigned len) {
  // The indices stay in locals: stores through `out` could alias the members otherwise.
  unsigned i = i_, j = j_;
  for (unsigned k = 0; k < len; ++k) out[k] = in[k] ^ step(s_, i, j);
  i_ = i;
  j_ = j;
}

void RC4::skip(unsigned n) {
  while (n--) gen();
}

}  // namespace tessel
