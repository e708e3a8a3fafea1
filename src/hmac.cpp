#include "tessel/hmac.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

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

namespace {

// pbkdf2Block computes one PBKDF2 block T_i into `t`. Generic over any Hash through HMAC.
void pbkdf2Block(HMAC& mac, unsigned hLen, const unsigned char* salt, unsigned saltLen, unsigned block,
                 unsigned iterations, unsigned char* t) {
  const unsigned char counter[4] = {static_cast<unsigned char>(block >> 24), static_cast<unsigned char>(block >> 16),
                                    static_cast<unsigned char>(block >> 8), static_cast<unsigned char>(block)};
  unsigned char u[128];
  mac.update(salt, saltLen);
  mac.update(counter, 4);
  mac.digest(u);
  std::memcpy(t, u, hLen);
  for (unsigned i = 1; i < iterations; ++i) {
    mac.update(u, hLen);
    mac.digest(u);
    for (unsigned k = 0; k < hLen; ++k) t[k] ^= u[k];
  }
  secureZero(u, sizeof u);
}

// pbkdf2BlockPadded is the same computation for a copyable software digest: the states after
// the two key pads are kept and copied for every round, which halves the compressions of the
// generic path. Password-protected keys are opened with thousands of rounds, so it matters.
template <class H>
void pbkdf2BlockPadded(const unsigned char* key, unsigned keyLen, const unsigned char* salt, unsigned saltLen,
                       unsigned block, unsigned iterations, unsigned char* t) {
  H inner, outer;
  unsigned char pad[128];
  const unsigned b = inner.blockLength(), hLen = inner.digestLength();
  for (unsigned i = 0; i < b; ++i) pad[i] = static_cast<unsigned char>((i < keyLen ? key[i] : 0) ^ 0x36);
  inner.update(pad, b);
  for (unsigned i = 0; i < b; ++i) pad[i] = static_cast<unsigned char>((i < keyLen ? key[i] : 0) ^ 0x5c);
  outer.update(pad, b);
  const unsigned char counter[4] = {static_cast<unsigned char>(block >> 24), static_cast<unsigned char>(block >> 16),
                                    static_cast<unsigned char>(block >> 8), static_cast<unsigned char>(block)};
  unsigned char u[128];
  H h = inner;
  h.update(salt, saltLen).update(counter, 4);
  for (unsigned i = 0; i < iterations; ++i) {
    if (i > 0) {
      h = inner;
      h.update(u, hLen);
    }
    h.digest(u);
    h = outer;
    h.update(u, hLen);
    h.digest(u);
    if (i == 0) std::memcpy(t, u, hLen);
    else for (unsigned k = 0; k < hLen; ++k) t[k] ^= u[k];
  }
  secureZero(pad, sizeof pad);
  secureZero(u, sizeof u);
}

template <class H>
bool tryPadded(Hash& h, const unsigned char* key, unsigned keyLen, const unsigned char* salt, unsigned saltLen,
               unsigned block, unsigned iterations, unsigned char* t) {
  if (typeid(h) != typeid(H)) return false;
  pbkdf2BlockPadded<H>(key, keyLen, salt, saltLen, block, iterations, t);
  return true;
}

}  // namespace

std::vector<unsigned char> pbkdf2(Hash& h, std::string_view password, const unsigned char* salt, unsigned saltLen,
                                  unsigned iterations, unsigned length) {
  const unsigned hLen = h.digestLength();
  std::vector<unsigned char> out(length);
  HMAC mac(&h, password.data(), static_cast<unsigned>(password.size()));
  // The key as HMAC uses it (hashed when longer than a block), for the padded-state path.
  unsigned char key[128];
  unsigned keyLen = static_cast<unsigned>(password.size());
  if (keyLen > h.blockLength()) {
    h.update(password.data(), keyLen);
    h.digest(key);
    keyLen = hLen;
  } else if (keyLen) {
    std::memcpy(key, password.data(), keyLen);
  }
  unsigned char t[128];
  for (unsigned block = 1, done = 0; done < length; ++block) {
    const bool padded = tryPadded<SHA1>(h, key, keyLen, salt, saltLen, block, iterations, t) ||
                        tryPadded<SHA256>(h, key, keyLen, salt, saltLen, block, iterations, t) ||
                        tryPadded<SHA384>(h, key, keyLen, salt, saltLen, block, iterations, t) ||
                        tryPadded<SHA512>(h, key, keyLen, salt, saltLen, block, iterations, t) ||
                        tryPadded<MD5>(h, key, keyLen, salt, saltLen, block, iterations, t);
    if (!padded) pbkdf2Block(mac, hLen, salt, saltLen, block, iterations, t);
    const unsigned take = std::min(hLen, length - done);
    std::memcpy(out.data() + done, t, take);
    done += take;
  }
  secureZero(key, sizeof key);
  secureZero(t, sizeof t);
  return out;
}

}  // namespace tessel
