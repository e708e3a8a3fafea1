// Raw block ciphers behind the BlockCipher interface (AES-128/192/256, DES, triple DES, RC2 and
// the one-byte null cipher) and the RC4 stream cipher.
//
// Block ciphers are keyed once, in the constructor, and are immutable afterwards: one object
// may encrypt and decrypt any number of blocks. Mode objects own them (cipher.h).
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace tessel {

// BlockCipher is the interface of a one-block cipher. `in` and `out` may be the same buffer.
class TESSEL_API BlockCipher {
 public:
  virtual ~BlockCipher() = default;
  // blockLength is the block size in bytes.
  virtual unsigned blockLength() const = 0;
  virtual void encrypt(const unsigned char* in, unsigned char* out) const = 0;
  virtual void decrypt(const unsigned char* in, unsigned char* out) const = 0;
  // encryptBlocks encrypts `count` consecutive blocks; ciphers that can overlap the work on
  // several blocks override it. Appended after the one-block slots, which keep their order.
  virtual void encryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const {
    const unsigned b = blockLength();
    for (std::size_t i = 0; i < count; ++i) encrypt(in + i * b, out + i * b);
  }
  // decryptBlocks decrypts `count` consecutive blocks, as encryptBlocks encrypts them.
  virtual void decryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const {
    const unsigned b = blockLength();
    for (std::size_t i = 0; i < count; ++i) decrypt(in + i * b, out + i * b);
  }
};

// AESBase holds the round keys of AES (FIPS 197). The portable rounds are bitsliced: the state
// of several blocks is spread over eight words, word j holding bit j of every byte, and the
// S-box is a circuit of logic gates, so no memory index or branch depends on the key or the
// data. Two blocks (32-bit processors) or four (64-bit) are processed at the cost of one;
// encryptBlocks and decryptBlocks fill those slots. On x86 processors with the AES
// instructions the same rounds run through those instead (cpu.h says which path is in use).
class TESSEL_API AESBase : public BlockCipher {
 public:
  // SliceWord is the word of the bitsliced state: 16 bits for each block processed together.
  using SliceWord = std::conditional_t<(sizeof(void*) >= 8), std::uint64_t, std::uint32_t>;

  unsigned blockLength() const override { return 16; }
  void encryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const override;
  void decryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const override;

 protected:
  // expandKey fills the round keys from `nk` key words (4, 6 or 8).
  void expandKey(const unsigned char* key, unsigned nk);
  void encryptRounds(const unsigned char* in, unsigned char* out, unsigned rounds) const;
  void decryptRounds(const unsigned char* in, unsigned char* out, unsigned rounds) const;

  unsigned rounds_ = 0;
  SliceWord slicedKeys_[15][8];  // (rounds + 1) round keys, bitsliced and repeated for every block
  // The same round keys in the byte order of the AES instructions, for encryption and (passed
  // through InvMixColumns) for decryption; filled only when the processor has them.
  unsigned char hwKeys_[2][15][16];
};

// AES128 takes a 16-byte key (10 rounds).
class TESSEL_API AES128 : public AESBase {
 public:
  explicit AES128(const unsigned char* key) { expandKey(key, 4); }
  void encrypt(const unsigned char* in, unsigned char* out) const override { encryptRounds(in, out, 10); }
  void decrypt(const unsigned char* in, unsigned char* out) const override { decryptRounds(in, out, 10); }
};

// AES192 takes a 24-byte key (12 rounds).
class TESSEL_API AES192 : public AESBase {
 public:
  explicit AES192(const unsigned char* key) { expandKey(key, 6); }
  void encrypt(const unsigned char* in, unsigned char* out) const override { encryptRounds(in, out, 12); }
  void decrypt(const unsigned char* in, unsigned char* out) const override { decryptRounds(in, out, 12); }
};

// AES256 takes a 32-byte key (14 rounds).
class TESSEL_API AES256 : public AESBase {
 public:
  explicit AES256(const unsigned char* key) { expandKey(key, 8); }
  void encrypt(const unsigned char* in, unsigned char* out) const override { encryptRounds(in, out, 14); }
  void decrypt(const unsigned char* in, unsigned char* out) const override { decryptRounds(in, out, 14); }
};

// DES (FIPS 46-3) with an 8-byte key; the parity bits are ignored. Single DES is broken and is
// kept for MS-CHAPv2 and legacy formats only.
class TESSEL_API DES : public BlockCipher {
 public:
  explicit DES(const unsigned char* key);
  unsigned blockLength() const override { return 8; }
  void encrypt(const unsigned char* in, unsigned char* out) const override;
  void decrypt(const unsigned char* in, unsigned char* out) const override;

 private:
  void crypt(const unsigned char* in, unsigned char* out, bool decrypting) const;

  unsigned char subkeys_[16][8];  // per round, the eight 6-bit S-box key chunks
};

// DES3 is triple DES, EDE with three independent keys taken from a 24-byte key: K1 = bytes 0-7,
// K2 = 8-15, K3 = 16-23. K1 = K2 = K3 gives single DES; that is not checked.
class TESSEL_API DES3 : public BlockCipher {
 public:
  explicit DES3(const unsigned char* key) : k1_(key), k2_(key + 8), k3_(key + 16) {}
  unsigned blockLength() const override { return 8; }
  void encrypt(const unsigned char* in, unsigned char* out) const override;
  void decrypt(const unsigned char* in, unsigned char* out) const override;

 private:
  DES k1_, k2_, k3_;
};

// RC2 (RFC 2268) with a 1- to 128-byte key and an effective key length of 1 to 1024 bits (other
// values abort). Weak and slow: it is here only to read PKCS#12 files in the old public formats
// (pbeWithSHAAnd40BitRC2-CBC, pbeWithSHAAnd128BitRC2-CBC) and to write them for old appliances.
// Not for new data.
class TESSEL_API RC2 : public BlockCipher {
 public:
  RC2(const unsigned char* key, unsigned keyLen, unsigned effectiveBits);
  ~RC2() override;
  RC2(const RC2&) = delete;
  RC2& operator=(const RC2&) = delete;
  unsigned blockLength() const override { return 8; }
  void encrypt(const unsigned char* in, unsigned char* out) const override;
  void decrypt(const unsigned char* in, unsigned char* out) const override;

 private:
  // keyWord is k_[index % 64], read without a secret-dependent memory index.
  std::uint16_t keyWord(unsigned index) const;

  std::uint16_t k_[64];  // the expanded key
};

// NullBlockCipher is the identity on one-byte blocks (factory cipher id 1). It takes no key.
class TESSEL_API NullBlockCipher : public BlockCipher {
 public:
  NullBlockCipher() = default;
  explicit NullBlockCipher(const unsigned char* /*key*/) {}
  unsigned blockLength() const override { return 1; }
  void encrypt(const unsigned char* in, unsigned char* out) const override { *out = *in; }
  void decrypt(const unsigned char* in, unsigned char* out) const override { *out = *in; }
};

// RC4 stream cipher. Broken; kept for MPPE and PKCS#12. Not a BlockCipher: it is stateful, the
// keystream position advancing with gen(), encrypt() and skip(); setKey() restarts it.
class TESSEL_API RC4 {
 public:
  // setKey runs the key schedule over `len` (1..256) key bytes.
  void setKey(const unsigned char* key, unsigned len);
  // gen returns the next keystream byte.
  unsigned char gen() { return step(s_, i_, j_); }
  // encrypt XORs `len` keystream bytes into `in`, writing `out` (encryption and decryption are
  // the same; `in` and `out` may coincide).
  void encrypt(const unsigned char* in, unsigned char* out, unsigned len);
  // skip discards `n` keystream bytes.
  void skip(unsigned n);

 private:
  // step is one round of the generator on the given state.
  static unsigned char step(unsigned char* s, unsigned& i, unsigned& j) {
    const unsigned char a = s[i];
    j = (j + a) & 0xff;
    const unsigned char b = s[j];
    s[i] = b;
    s[j] = a;
    i = (i + 1) & 0xff;
    return s[(a + b) & 0xff];
  }

  unsigned char s_[256];
  unsigned i_ = 1;  // the stream index starts at 1: gen() uses it before it advances
  unsigned j_ = 0;
};

namespace detail {
// makeAES builds AES128, AES192 or AES256 for a 16-, 24- or 32-byte key; null for other lengths.
std::unique_ptr<BlockCipher> makeAES(const unsigned char* key, std::size_t keyLen);
}  // namespace detail

}  // namespace tessel
