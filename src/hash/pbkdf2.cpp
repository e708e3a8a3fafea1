// PBKDF2 (RFC 8018) over HMAC.
#include "tessel/pbkdf2.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include "core/secret.h"
#include "tessel/hmac.h"

namespace tessel {

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
  ct::wipe(u, sizeof u);
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
  ct::wipe(pad, sizeof pad);
  ct::wipe(u, sizeof u);
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
  ct::wipe(key, sizeof key);
  ct::wipe(t, sizeof t);
  return out;
}

}  // namespace tessel
