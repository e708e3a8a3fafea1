// The algorithm factory: digests, HMACs, ciphers and AEADs by number.
//
// Every result is owned by the caller; an unknown id or a key length that does not fit gives an
// empty pointer. The host may allow kernel offload (AF_ALG) by setting ol::kernelCrypto before
// it asks for objects; without it every object is computed in software.
#pragma once

#include "tessel/export.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tessel/cipher.h"
#include "tessel/hash.h"

namespace ol {
// kernelCrypto allows the factory to hand work to Linux kernel drivers. Default false; read on
// every factory call.
extern TESSEL_API bool kernelCrypto;
// experimentalKernelCrypto is defined for the host's use; the library never reads it.
extern TESSEL_API bool experimentalKernelCrypto;
}  // namespace ol

namespace tessel {

// createHash returns the digest for a HashID: 1 MD5+SHA-1, 2 MD4, 3 MD5, 4 SHA-1, 5 SHA-256,
// 6 SHA-384, 7 SHA-512.
TESSEL_API std::unique_ptr<Hash> createHash(unsigned id);

// createHMAC returns an HMAC over createHash(id), keyed with `key`, that owns its digest.
TESSEL_API std::unique_ptr<Hash> createHMAC(unsigned id, std::span<const unsigned char> key);

// CipherID numbers the factory's ciphers (key lengths in bytes). The values are stable: hosts
// pass them as plain unsigned integers, which createCipher and createAead still accept.
enum CipherID : unsigned {
  cipherNullCbc = 1,  // CBC over the one-byte null cipher (any key, ignored)
  cipherDesCbc = 2,   // 8
  cipherDes3Cbc = 3,  // 24
  cipherAesCbc = 4,   // 16/24/32
  cipherAesCtr = 5,   // 16/24/32
  cipherAesCfb = 6,   // CFB-128, 16 only
  cipherAesGcm = 7,   // 16/32, 16-byte tags in software
};

// createCipher returns the cipher for a CipherID and key length (see CipherID); null for an
// unknown id or a key length the cipher does not take. `tagLength` only matters for kernel GCM;
// software GCM always uses 16-byte tags.
TESSEL_API std::unique_ptr<Cipher> createCipher(unsigned id, std::span<const unsigned char> key, unsigned tagLength);

// createAead returns an authenticated cipher from a CipherID and a HashID. In software only
// cipherDes3Cbc and cipherAesCbc are offered, as encrypt-then-MAC with HMAC(hashId, macKey)
// (cbc.h); other cipher ids give an empty pointer.
TESSEL_API std::unique_ptr<Cipher> createAead(unsigned cipherId, unsigned hashId,
                                              std::span<const unsigned char> cipherKey,
                                              std::span<const unsigned char> macKey);

namespace detail {
// createSoftwareHash builds the software digest for a HashID (the factory's choice when no
// kernel driver applies); null for unknown ids.
std::unique_ptr<Hash> createSoftwareHash(unsigned id);

// cryptoInfo is the text of "/proc/crypto" (under the platform root, ol/file.h) as read once
// when the library was loaded; empty if it could not be read.
const std::string& cryptoInfo();

// reloadCryptoInfoForTesting reads "/proc/crypto" again. A test hook only: the library itself
// never re-reads the file.
void reloadCryptoInfoForTesting();

// afAlgAvailable says whether an AF_ALG socket can be opened; tested once, on first call.
bool afAlgAvailable();

// prioCrypto picks from a kernel-driver preference list the first non-empty name that occurs
// in cryptoInfo() (searched as plain text), else the last entry. An empty list aborts.
std::string prioCrypto(const std::vector<std::string>& vars);

// hashDriverName and cipherDriverName are the kernel drivers the factory binds when offload
// applies (ol::kernelCrypto set and AF_ALG present): from the preference lists for SHA-1,
// SHA-256 and SHA-512 and for AES-CBC, AES-CTR and AES-GCM by key length; "" for everything
// that is always computed in software.
std::string hashDriverName(unsigned id);
std::string cipherDriverName(unsigned id, std::size_t keyLen);
}  // namespace detail

}  // namespace tessel
