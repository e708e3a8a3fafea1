// HMAC (RFC 2104) over any Hash. The key derivations built on it: tessel/hkdf.h, tessel/pbkdf2.h.
#pragma once

#include "tessel/export.h"

#include <string_view>
#include <vector>

#include "tessel/hash.h"

namespace tessel {

// HMAC is a keyed MAC over a borrowed digest, itself usable wherever a Hash is taken. The inner
// digest is not owned and must outlive the HMAC; nobody else may use it while a message is in
// progress. One object MACs any number of messages under its key; the key copy is wiped on
// destruction.
class TESSEL_API HMAC : public Hash {
 public:
  using Hash::digest;
  using Hash::update;
  // HMAC keys `h` with `keyLen` bytes of `key`. A key longer than the digest's block length is
  // replaced by its digest; a key of exactly the block length is used as it is. `h` must be at
  // a message boundary (fresh or just after digest()).
  HMAC(Hash* h, const void* key, unsigned keyLen);
  ~HMAC() override;
  HMAC(const HMAC&) = delete;
  HMAC& operator=(const HMAC&) = delete;

  Hash& update(const void* data, unsigned len) override;
  unsigned blockLength() const override { return hash_->blockLength(); }
  unsigned digestLength() const override { return hash_->digestLength(); }
  // digest writes the MAC of the message so far and starts a new message under the same key.
  void digest(unsigned char* out) override;
  // digestSecretLength is digest() over a secret-length tail (see Hash), available when the
  // inner digest offers it; the outer hash has a fixed length anyway.
  bool digestSecretLength(const unsigned char* data, unsigned minLen, unsigned maxLen, unsigned len,
                          unsigned char* out) override;

 private:
  void start();
  void absorbPad(unsigned char fill);

  Hash* hash_;
  bool started_ = false;
  unsigned char key_[128];
  unsigned keyLen_;
};

}  // namespace tessel

// Kept so that hosts including hmac.h for the key derivations still build.
#include "tessel/hkdf.h"
#include "tessel/pbkdf2.h"
