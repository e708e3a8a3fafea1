// The algorithm factory. Each create function first asks for a kernel driver and, when there
// is none, builds the software object.
//
// Kernel offload (AF_ALG) is not built into the library yet. The driver choice below therefore
// answers "none" for every request, also when the host has set ol::kernelCrypto, and every
// object is software. The kernel offload work adds, in this file: the "/proc/crypto" text read
// once at load, the once-tested AF_ALG availability (kernelAvailable), and the kernel branches
// marked "kernel offload" in createHash, createCipher and createAead, which build KernelHash,
// KernelCipher and KernelAead objects for the driver names chosen here.
#include "tessel/factory.h"

#include "tessel/assert.h"
#include "tessel/block.h"
#include "tessel/cbc.h"
#include "tessel/gcm.h"
#include "tessel/hmac.h"

namespace ol {
bool kernelCrypto = false;
bool experimentalKernelCrypto = false;
}  // namespace ol

namespace tessel {

namespace detail {

std::string prioCrypto(const std::vector<std::string>& vars, std::string_view cryptoInfo) {
  TESSEL_ASSERT(vars.size());
  for (const std::string& name : vars)
    if (!name.empty() && cryptoInfo.find(name) != std::string_view::npos) return name;
  return vars.back();
}

std::unique_ptr<Hash> createSoftwareHash(unsigned id) {
  switch (id) {
    case hashMd5Sha1: return std::make_unique<MD5SHA1>();
    case hashMd4: return std::make_unique<MD4>();
    case hashMd5: return std::make_unique<MD5>();
    case hashSha1: return std::make_unique<SHA1>();
    case hashSha256: return std::make_unique<SHA256>();
    case hashSha384: return std::make_unique<SHA384>();
    case hashSha512: return std::make_unique<SHA512>();
    default: return nullptr;
  }
}

}  // namespace detail

namespace {

// kernelAvailable says whether AF_ALG objects can be made. Always false until the kernel
// offload lands; it will then probe socket(AF_ALG) once and also require the driver text.
bool kernelAvailable() { return false; }

// cryptoInfo is the "/proc/crypto" text; empty until the kernel offload reads it at load.
std::string_view cryptoInfo() { return {}; }

bool isAesKey(std::size_t keyLen) { return keyLen == 16 || keyLen == 24 || keyLen == 32; }

// hashDriver returns the kernel driver for a HashID, or "" for software.
std::string hashDriver(unsigned id) {
  if (!ol::kernelCrypto || !kernelAvailable()) return {};
  switch (id) {
    case hashSha1: return detail::prioCrypto({"sha1-avx", "sha1-generic"}, cryptoInfo());
    case hashSha256: return detail::prioCrypto({"sha256-avx", "sha256-generic"}, cryptoInfo());
    case hashSha512: return detail::prioCrypto({"sha512-avx", "sha512-generic"}, cryptoInfo());
    default: return {};  // MD4, MD5, SHA-384 and the MD5+SHA-1 pair are always software
  }
}

// cipherDriver returns the kernel driver for a cipher id and key length, or "" for software.
std::string cipherDriver(unsigned id, std::size_t keyLen) {
  if (!ol::kernelCrypto || !kernelAvailable()) return {};
  if (id == 4 && isAesKey(keyLen)) return detail::prioCrypto({"cbc-aes-aesni", "cbc(aes-generic)"}, cryptoInfo());
  if (id == 5 && isAesKey(keyLen)) return detail::prioCrypto({"ctr-aes-aesni", "ctr(aes-generic)"}, cryptoInfo());
  if (id == 7 && (keyLen == 16 || keyLen == 32)) {
    // Each GCM entry may name a second driver to bind instead of the one searched for.
    static const std::pair<const char*, const char*> gcm[] = {
        {"generic-gcm-aesni", ""}, {"gcm_base(ctr(aes-generic),ghash-generic)", ""}};
    for (auto [name, bind] : gcm)
      if (cryptoInfo().find(name) != std::string_view::npos) return *bind ? bind : name;
    return "gcm_base(ctr(aes-generic),ghash-generic)";
  }
  return {};
}

// OwningHMAC is an HMAC that owns the digest it runs on. The holder base is built first and
// destroyed last, so the digest outlives the HMAC around it.
struct DigestHolder {
  std::unique_ptr<Hash> owned;
};

class OwningHMAC : private DigestHolder, public HMAC {
 public:
  OwningHMAC(std::unique_ptr<Hash> h, std::span<const unsigned char> key)
      : DigestHolder{std::move(h)}, HMAC(owned.get(), key.data(), static_cast<unsigned>(key.size())) {}
};

template <class Mode>
std::unique_ptr<Cipher> mode(std::unique_ptr<BlockCipher> block) {
  if (!block) return nullptr;
  return std::make_unique<Mode>(std::move(block));
}

std::unique_ptr<Cipher> softwareCipher(unsigned id, std::span<const unsigned char> key) {
  const unsigned char* k = key.data();
  switch (id) {
    case 1: return mode<CBCCipher>(std::make_unique<NullBlockCipher>());
    case 2: return key.size() == 8 ? mode<CBCCipher>(std::make_unique<DES>(k)) : nullptr;
    case 3: return key.size() == 24 ? mode<CBCCipher>(std::make_unique<DES3>(k)) : nullptr;
    case 4: return mode<CBCCipher>(detail::makeAES(k, key.size()));
    case 5: return mode<CTR128Cipher>(detail::makeAES(k, key.size()));
    case 6: return key.size() == 16 ? mode<CFB128Cipher>(std::make_unique<AES128>(k)) : nullptr;
    case 7: return key.size() == 24 ? nullptr : mode<GCMCipher>(detail::makeAES(k, key.size()));
    default: return nullptr;
  }
}

}  // namespace

std::unique_ptr<Hash> createHash(unsigned id) {
  if (std::string driver = hashDriver(id); !driver.empty()) {
    // kernel offload: a KernelHash opened on `driver` goes here.
  }
  return detail::createSoftwareHash(id);
}

std::unique_ptr<Hash> createHMAC(unsigned id, std::span<const unsigned char> key) {
  auto h = createHash(id);
  if (!h) return nullptr;
  return std::make_unique<OwningHMAC>(std::move(h), key);
}

std::unique_ptr<Cipher> createCipher(unsigned id, std::span<const unsigned char> key, unsigned /*tagLength*/) {
  if (std::string driver = cipherDriver(id, key.size()); !driver.empty()) {
    // kernel offload: a KernelCipher (KernelAead with the tag length for id 7) opened on
    // `driver` goes here; once a driver is chosen there is no fall-back to software.
  }
  return softwareCipher(id, key);
}

std::unique_ptr<Cipher> createAead(unsigned cipherId, unsigned hashId, std::span<const unsigned char> cipherKey,
                                   std::span<const unsigned char> macKey) {
  if (ol::kernelCrypto && !hashDriver(hashId).empty() && !cipherDriver(cipherId, cipherKey.size()).empty()) {
    // kernel offload: a KernelAead on "authenc(hmac(<hash driver>),<cipher driver>)" goes here.
  }
  if (cipherId != 3 && cipherId != 4) return nullptr;
  auto mac = createHMAC(hashId, macKey);
  auto cipher = createCipher(cipherId, cipherKey, 16);
  if (!mac || !cipher) return nullptr;
  return std::make_unique<EncryptThenMacCipher>(std::move(cipher), std::move(mac));
}

}  // namespace tessel
