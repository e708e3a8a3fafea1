// Message digests: the Hash interface, the shared Merkle-Damgard buffering of HashImpl and the
// software digests MD4, MD5, SHA-1, SHA-256, SHA-384, SHA-512 and the MD5+SHA-1 pair.
//
// Every digest object is reusable: after digest() it starts a fresh message with the next
// update(). The chaining state is loaded lazily, on the first update() or digest() of a
// message, so constructing a digest costs nothing.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tessel {

// HashID numbers the digests. The values are stable: they are stored in keys and passed over
// the factory interface as plain unsigned integers.
enum HashID : unsigned {
  hashNone = 0,
  hashMd5Sha1 = 1,  // MD5 followed by SHA-1, 36 bytes
  hashMd4 = 2,
  hashMd5 = 3,
  hashSha1 = 4,
  hashSha256 = 5,
  hashSha384 = 6,
  hashSha512 = 7,
};

// getHashName returns "MD5", "SHA1", "SHA256", "SHA384" or "SHA512" for the digests that can
// appear in certificates and signatures, and "unknown" for every other id, MD4 and the
// MD5+SHA-1 pair included.
TESSEL_API std::string getHashName(unsigned id);

// Hash is the interface of every digest and MAC (software, HMAC, GHASH, kernel-backed).
class TESSEL_API Hash {
 public:
  // lengthFieldSize is the width in bytes of the length field the padding appends.
  virtual unsigned lengthFieldSize() const { return 8; }
  virtual ~Hash() = default;
  // update absorbs `len` bytes of `data` (which may be null when len is 0) and returns *this.
  virtual Hash& update(const void* data, unsigned len) = 0;
  // blockLength is the input block size in bytes.
  virtual unsigned blockLength() const = 0;
  // digestLength is the output size in bytes.
  virtual unsigned digestLength() const = 0;
  // digest finishes the message, writes digestLength() bytes to `out` and makes the object
  // ready for a fresh message.
  virtual void digest(unsigned char* out) = 0;
  // digestSecretLength finishes the message with the first `len` bytes of `data`, where `len` is
  // secret and lies in [minLen, maxLen], in a time that depends on minLen and maxLen only (all
  // maxLen bytes are read), writes the digest to `out` and returns true. Digests that cannot
  // (the default) return false having absorbed nothing. MAC-then-pad records need it: their
  // MAC covers a length that is only known once the secret padding has been read.
  virtual bool digestSecretLength(const unsigned char* /*data*/, unsigned /*minLen*/, unsigned /*maxLen*/,
                                  unsigned /*len*/, unsigned char* /*out*/) {
    return false;
  }

  // digest finishes the message and returns the digestLength() output bytes.
  std::vector<unsigned char> digest();
  // update absorbs a byte range; ranges beyond 4 GiB are fed in pieces.
  Hash& update(std::span<const unsigned char> data);
};

// HashImpl is the buffering base of the software digests: the byte counter, the block buffer
// and the padding. Each digest adds its initial state, its compression function and its
// output encoding.
class TESSEL_API HashImpl : public Hash {
 public:
  using Hash::digest;
  using Hash::update;
  Hash& update(const void* data, unsigned len) override;
  // digestSecretLength hashes the secret-length tail block by block up to the longest case,
  // masking the data, the 0x80 byte and the length field into place, and keeps the state of the
  // block that really ends the message.
  bool digestSecretLength(const unsigned char* data, unsigned minLen, unsigned maxLen, unsigned len,
                          unsigned char* out) override;

 protected:
  // encodeState writes the chaining state as digest() does, digestLength() bytes, and returns
  // true. The default returns false: a digest derived with only init and transform has no such
  // encoding, and digestSecretLength then declines.
  virtual bool encodeState(unsigned char* /*out*/) const { return false; }
  // lengthIsLittleEndian tells whether the bit count is stored little-endian (MD4, MD5).
  virtual bool lengthIsLittleEndian() const { return false; }
  // init loads the initial chaining state of the algorithm.
  virtual void init() = 0;
  // transform compresses the one full block held in the buffer. A digest derived from HashImpl
  // needs only init and transform.
  virtual void transform() = 0;
  // compressBlocks compresses `count` consecutive full blocks starting at `blocks`; update()
  // hands whole blocks of the caller's data to it. The default copies each block into the buffer
  // and calls transform, so every byte still goes through transform; the library's own digests
  // override it to compress straight from the caller's data.
  virtual void compressBlocks(const unsigned char* blocks, std::size_t count);
  // finish appends the padding and the bit length (little-endian words for MD4/MD5,
  // big-endian for the SHA family), compresses the last block(s) and resets the counter so
  // the next update() starts a new message.
  void finish(bool littleEndian);

  std::uint64_t counter_ = 0;  // bytes absorbed since init(); 0 means not yet initialised
  alignas(8) unsigned char buffer_[128];
};

// MD4 (RFC 1320). Kept for MS-CHAPv2 password hashes; not for new designs.
class TESSEL_API MD4 : public HashImpl {
 public:
  using HashImpl::digest;
  unsigned blockLength() const override { return 64; }
  unsigned digestLength() const override { return 16; }
  void digest(unsigned char* out) override;

 protected:
  void init() override;
  void transform() override { compressBlocks(buffer_, 1); }
  void compressBlocks(const unsigned char* blocks, std::size_t count) override;
  bool encodeState(unsigned char* out) const override;
  bool lengthIsLittleEndian() const override { return true; }

 private:
  std::uint32_t state_[4];
};

// MD5 (RFC 1321). Kept for legacy formats (PEM key derivation, TLS 1.0 signatures).
class TESSEL_API MD5 : public HashImpl {
 public:
  using HashImpl::digest;
  unsigned blockLength() const override { return 64; }
  unsigned digestLength() const override { return 16; }
  void digest(unsigned char* out) override;

 protected:
  void init() override;
  void transform() override { compressBlocks(buffer_, 1); }
  void compressBlocks(const unsigned char* blocks, std::size_t count) override;
  bool encodeState(unsigned char* out) const override;
  bool lengthIsLittleEndian() const override { return true; }

 private:
  std::uint32_t state_[4];
};

// SHA1 (FIPS 180-4).
class TESSEL_API SHA1 : public HashImpl {
 public:
  using HashImpl::digest;
  unsigned blockLength() const override { return 64; }
  unsigned digestLength() const override { return 20; }
  void digest(unsigned char* out) override;

 protected:
  void init() override;
  void transform() override { compressBlocks(buffer_, 1); }
  void compressBlocks(const unsigned char* blocks, std::size_t count) override;
  bool encodeState(unsigned char* out) const override;

 private:
  std::uint32_t state_[5];
};

// SHA256 (FIPS 180-4).
class TESSEL_API SHA256 : public HashImpl {
 public:
  using HashImpl::digest;
  unsigned blockLength() const override { return 64; }
  unsigned digestLength() const override { return 32; }
  void digest(unsigned char* out) override;

 protected:
  void init() override;
  void transform() override { compressBlocks(buffer_, 1); }
  void compressBlocks(const unsigned char* blocks, std::size_t count) override;
  bool encodeState(unsigned char* out) const override;

 private:
  std::uint32_t state_[8];
};

// SHA512 (FIPS 180-4). Its 128-bit length field carries the bit count in the low 64 bits.
class TESSEL_API SHA512 : public HashImpl {
 public:
  using HashImpl::digest;
  unsigned lengthFieldSize() const override { return 16; }
  unsigned blockLength() const override { return 128; }
  unsigned digestLength() const override { return 64; }
  // digest writes digestLength() / 8 state words, which is how SHA384 truncates.
  void digest(unsigned char* out) override;

 protected:
  void init() override;
  void transform() override { compressBlocks(buffer_, 1); }
  void compressBlocks(const unsigned char* blocks, std::size_t count) override;
  bool encodeState(unsigned char* out) const override;

  std::uint64_t state_[8];
};

// SHA384 is SHA512 with other initial values and a 48-byte output.
class TESSEL_API SHA384 : public SHA512 {
 public:
  using SHA512::digest;
  unsigned digestLength() const override { return 48; }

 protected:
  void init() override;
};

// MD5SHA1 is the 36-byte concatenation MD5(m) || SHA-1(m) used by TLS 1.0/1.1 RSA signatures.
class TESSEL_API MD5SHA1 : public Hash {
 public:
  using Hash::digest;
  using Hash::update;
  Hash& update(const void* data, unsigned len) override;
  unsigned blockLength() const override { return 64; }
  unsigned digestLength() const override { return 36; }
  void digest(unsigned char* out) override;

 private:
  MD5 md5_;
  SHA1 sha1_;
};

}  // namespace tessel
