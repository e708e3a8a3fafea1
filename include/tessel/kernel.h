// Kernel offload: digests, bulk ciphers and AEAD ciphers computed by the Linux kernel's crypto
// API through AF_ALG sockets, so that its hardware drivers (AES-NI, AVX digests) do the work.
//
// KernelAlg owns one transform socket (bound to a driver) and the operation socket accepted from
// it. KernelHash, KernelCipher and KernelAead put the Hash and Cipher interfaces on top. Only the
// factory (factory.h) creates them, after it has chosen a driver name. Every failure prints one
// line to standard output and gives false, -1 or no output; a failed kernel object never falls
// back to software.
#pragma once

#include "tessel/export.h"

#include <sys/uio.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tessel/assert.h"
#include "tessel/cipher.h"
#include "tessel/hash.h"

namespace tessel {

// KernelAlg wraps one pair of AF_ALG sockets. Both are closed by the destructor.
class TESSEL_API KernelAlg {
 public:
  KernelAlg() = default;
  KernelAlg(const KernelAlg&) = delete;
  KernelAlg& operator=(const KernelAlg&) = delete;
  virtual ~KernelAlg();

  // kernelOpen binds a new transform socket to driver `name` of AF_ALG type `type` ("hash",
  // "skcipher", "aead"). It returns false, after printing why, if the socket cannot be made or
  // bound (it is then closed again), and also (silently) when the object is already open.
  bool kernelOpen(std::string_view type, std::string_view name);

  // kernelSetKey sets `key` on the transform. A non-empty `key2` makes the two-key blob of the
  // authenc drivers, `key` first. False (printed) on failure.
  bool kernelSetKey(std::span<const unsigned char> key, std::span<const unsigned char> key2);

  // kernelSetTag sets the AEAD tag length; 0 means no tag and makes no system call.
  bool kernelSetTag(unsigned size);

  // setSockmem forces the operation socket's send and receive buffers to `bytes` (this needs
  // CAP_NET_ADMIN) and takes half of the resulting send buffer as the largest message.
  bool setSockmem(int bytes);

  // kernelSend sends one message on the operation socket with the operation, a pending IV and,
  // for AEADs, the associated-data length as control messages. False (printed) on failure.
  bool kernelSend(iovec* iov, unsigned count, bool encrypt, unsigned flags);

  // kernelRecv receives exactly `len` bytes into `buf`; anything else is a (printed) failure.
  bool kernelRecv(unsigned char* buf, unsigned len);

  // kernelRecvmsg receives into two buffers; any non-negative count is success.
  bool kernelRecvmsg(iovec* iov);

  // algorithmName is the driver name the transform was bound to ("" before kernelOpen).
  const std::string& algorithmName() const { return name_; }

  // sockmemSize is the largest number of bytes sent in one message.
  unsigned sockmemSize() const { return sockmem; }

  // setIV keeps `size` IV bytes (at most 64, more aborts) to go with the next message only; 0
  // bytes send no IV.
  void setIV(const unsigned char* data, unsigned size) {
    TESSEL_ASSERT(size <= sizeof(iv));
    for (unsigned i = 0; i < size; ++i) iv[i] = data[i];
    ivPending_ = size;
  }

  // closeSockets closes both sockets; later operations fail.
  void closeSockets();

 protected:
  // operationSocket accepts the operation socket on first use; -1 (printed if accept failed)
  // when there is none.
  int operationSocket();

  // encrypt and decrypt are the chunked transfer shared by KernelCipher and KernelAead for a
  // mode of block length `block`. The associated data goes with the first chunk only and must
  // fit in one message.
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned asize, unsigned char* out,
               unsigned block) {
    if (len % block) return notPadded(len);
    TESSEL_ASSERT(sockmem > asize);
    transfer(in, len, aad, asize, out, true);
  }
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned asize, unsigned char* out,
                   unsigned block) {
    const unsigned payload = len - tagLength_;
    if (payload % block) {
      notPadded(len);
      return decryptFailed;
    }
    TESSEL_ASSERT(sockmem > asize);
    return transfer(in, len, aad, asize, out, false) ? payload : decryptFailed;
  }

  // tagLength is the AEAD tag size set by kernelSetTag.
  unsigned tagLength() const { return tagLength_; }

 private:
  static void notPadded(unsigned len);
  // readSockmem takes half the send buffer of socket `fd` as the message limit.
  bool readSockmem(int fd);
  bool transfer(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned asize, unsigned char* out,
                bool encrypt);

  int transform_ = -1;
  int operation_ = -1;
  unsigned sockmem = 0;  // (named as the assertion texts say)
  std::string name_;
  unsigned char iv[64] = {};
  unsigned ivPending_ = 0;
  unsigned assocLength_ = 0;
  unsigned tagLength_ = 0;
};

// KernelHash is a digest computed by a kernel "hash" driver. After a failed send or receive its
// digests are all zeros.
class TESSEL_API KernelHash : public KernelAlg, public Hash {
 public:
  explicit KernelHash(unsigned id) : id_(id) {}
  using Hash::digest;
  using Hash::update;
  Hash& update(const void* data, unsigned len) override;
  // blockLength is 64 for MD5, SHA-1 and SHA-256, 128 for SHA-384 and SHA-512, else 0.
  unsigned blockLength() const override;
  // digestLength is 16, 20, 32, 48 or 64 for HashID 3 to 7, else 0.
  unsigned digestLength() const override;
  static unsigned digestLengthOf(unsigned id);
  void digest(unsigned char* out) override;
  // failed says whether a send or receive has failed on this object.
  bool failed() const { return error_; }

 private:
  unsigned id_;
  bool error_ = false;
};

// KernelCipher is a bulk cipher computed by a kernel "skcipher" driver (CBC or CTR over AES). It
// takes whole blocks only, CTR included, and keeps chaining across calls on its operation socket.
class TESSEL_API KernelCipher : public KernelAlg, public Cipher {
 public:
  explicit KernelCipher(unsigned blockLength = 16) : block_(blockLength) {}
  unsigned blockLength() const override { return block_; }
  void setIV(const unsigned char* data, unsigned size) override { KernelAlg::setIV(data, size); }
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override {
    KernelAlg::encrypt(in, len, aad, aadLen, out, block_);
  }
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override {
    return KernelAlg::decrypt(in, len, aad, aadLen, out, block_);
  }
  unsigned ciphertextLength(unsigned len) const override { return len / block_ * block_; }

 private:
  unsigned block_;
};

// KernelAead is an AEAD computed by a kernel "aead" driver (GCM, or authenc: CBC with HMAC). A
// message and its associated data go in one request, so together they may not exceed sockmem().
class TESSEL_API KernelAead : public KernelAlg, public Cipher {
 public:
  explicit KernelAead(unsigned blockLength) : block_(blockLength) {}
  unsigned blockLength() const override { return block_; }
  void setIV(const unsigned char* data, unsigned size) override { KernelAlg::setIV(data, size); }
  // encrypt writes ciphertext and tag, or nothing (printed) when the message is too long.
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override {
    if (tooMuchData(len, aadLen)) return;
    KernelAlg::encrypt(in, len, aad, aadLen, out, block_);
  }
  // decrypt returns the plaintext length, or all ones for a short, too long or forged message.
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override {
    if (len < tagLength() || tooMuchData(len, aadLen)) return decryptFailed;
    return KernelAlg::decrypt(in, len, aad, aadLen, out, block_);
  }
  unsigned ciphertextLength(unsigned len) const override { return len + tagLength(); }

 private:
  bool tooMuchData(unsigned len, unsigned aadLen);

  unsigned block_;
};

}  // namespace tessel
