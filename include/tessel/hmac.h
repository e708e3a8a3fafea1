// HMAC (RFC 2104) over any Hash, and the HKDF key derivation (RFC 5869) built on it.
#pragma once

#include <string_view>
#include <vector>

#include "tessel/hash.h"

namespace tessel {

// HMAC is a keyed MAC over a borrowed digest, itself usable wherever a Hash is taken. The inner
// digest is not owned and must outlive the HMAC; nobody else may use it while a message is in
// progress. One object MACs any number of messages under its key; the key copy is wiped on
// destruction.
class HMAC : public Hash {
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

 private:
  void start();
  void absorbPad(unsigned char fill);

  Hash* hash_;
  bool started_ = false;
  unsigned char key_[128];
  unsigned keyLen_;
};

// HKPDF_Expand derives `length` bytes from the pseudo-random key `prk` and `info` with HMAC
// over `h` (RFC 5869 section 2.3). The block counter is a single byte and is not checked:
// more than 255 blocks wrap it to 0, a behaviour kept for compatibility with derived keys
// already in use. `h` must be at a message boundary.
std::vector<unsigned char> HKPDF_Expand(Hash& h, const unsigned char* info, unsigned infoLen,
                                        const unsigned char* prk, unsigned prkLen, unsigned length);

// HKPDF extracts a pseudo-random key from `ikm` under `salt` and expands it with `info` to
// `length` bytes (RFC 5869). Note the argument order: salt, info, then the keying material. An
// empty salt acts as the RFC's default salt of zero bytes.
std::vector<unsigned char> HKPDF(Hash& h, const std::vector<unsigned char>& salt,
                                 const std::vector<unsigned char>& info,
                                 const std::vector<unsigned char>& ikm, unsigned length);

// pbkdf2 derives `length` bytes from `password` and `salt` with `iterations` rounds of HMAC over
// `h` (PBKDF2, RFC 8018 section 5.2). `h` must be at a message boundary; it is left at one.
std::vector<unsigned char> pbkdf2(Hash& h, std::string_view password, const unsigned char* salt, unsigned saltLen,
                                  unsigned iterations, unsigned length);

}  // namespace tessel
