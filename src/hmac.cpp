#include "tessel/hmac.h"

#include <cstring>

#include "tessel/assert.h"

namespace tessel {

namespace {
// secureZero clears memory in a way the compiler may not drop as a dead store.
void secureZero(void* p, std::size_t n) {
  volatile unsigned char* v = static_cast<volatile unsigned char*>(p);
  while (n--) *v++ = 0;
}
}  // namespace

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

HMAC::~HMAC() { secureZero(key_, keyLen_); }

void HMAC::absorbPad(unsigned char fill) {
  unsigned char pad[128];
  const unsigned block = blockLength();
  std::memset(pad, fill, block);
  for (unsigned i = 0; i < keyLen_; ++i) pad[i] ^= key_[i];
  hash_->update(pad, block);
  secureZero(pad, block);
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
  secureZero(prk, sizeof prk);
  return out;
}

}  // namespace tessel
