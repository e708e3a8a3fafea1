#include "tessel/hmac.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include "core/secret.h"
#include "tessel/assert.h"

namespace tessel {

HMAC::HMAC(Hash* h, const void* key, unsigned keyLen) : hash_(h), keyLen_(keyLen) {
  TESSEL_ASSERT(h->blockLength() <= sizeof(key_) && h->digestLength() <= sizeof(key_));
  if (h->blockLength() >= keyLen) {
    if (keyLen) std::memcpy(key_, key, keyLen);
  } else {
    h->update(key, keyLen);
    h->digest(key_);
    keyLen_ = h->digestLength();
  }
}

HMAC::~HMAC() { ct::wipe(key_, keyLen_); }

void HMAC::absorbPad(unsigned char fill) {
  unsigned char pad[128];
  const unsigned block = blockLength();
  std::memset(pad, fill, block);
  for (unsigned i = 0; i < keyLen_; ++i) pad[i] ^= key_[i];
  hash_->update(pad, block);
  ct::wipe(pad, block);
}

void HMAC::start() {
  started_ = true;
  // The inner digest is not reset: it is at a message boundary whenever an HMAC message starts.
  absorbPad(0x36);
}

Hash& HMAC::update(const void* data, unsigned len) {
  if (!started_) start();
  hash_->update(data, len);
  return *this;
}

void HMAC::digest(unsigned char* out) {
  if (!started_) start();
  hash_->digest(out);  // the inner hash uses the caller's buffer as scratch
  absorbPad(0x5c);
  hash_->update(out, digestLength());
  hash_->digest(out);
  started_ = false;
}

bool HMAC::digestSecretLength(const unsigned char* data, unsigned minLen, unsigned maxLen, unsigned len,
                              unsigned char* out) {
  if (!started_) start();
  unsigned char inner[128];
  if (!hash_->digestSecretLength(data, minLen, maxLen, len, inner)) return false;
  absorbPad(0x5c);
  hash_->update(inner, digestLength());
  hash_->digest(out);
  started_ = false;
  ct::wipe(inner, sizeof inner);
  return true;
}

}  // namespace tessel
