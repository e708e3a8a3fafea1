// The algorithm factory. Each create function first asks for a kernel driver and, when there
// is none, builds the software object. Once a driver name is chosen the kernel object is
// returned even if it could not be set up: it then fails loudly rather than quietly computing
// in software.
#include "tessel/factory.h"

#include "tessel/assert.h"
#include "tessel/block.h"
#include "tessel/cbc.h"
#include "tessel/gcm.h"
#include "tessel/hmac.h"
#include "tessel/kernel.h"

#include <sys/socket.h>
#include <unistd.h>

#include "ol/file.h"

namespace ol {
bool kernelCrypto = false;
bool experimentalKernelCrypto = false;
}  // namespace ol

namespace tessel {

namespace detail {

namespace {

std::string readCryptoInfo() {
  std::string text;
  ol::readFile(text, ol::rootPath("/proc/crypto"), -1, 0);
  return text;
}

// The driver list of the running kernel, read once when the library is loaded.
std::string cryptoInfoText = readCryptoInfo();

}  // namespace

const std::string& cryptoInfo() { return cryptoInfoText; }

void reloadCryptoInfoForTesting() { cryptoInfoText = readCryptoInfo(); }

bool afAlgAvailable() {
  static const bool available = [] {
    const int fd = ::socket(AF_ALG, SOCK_SEQPACKET, 0);
    if (fd >= 0) ::close(fd);
    return fd >= 0;
  }();
  return available;
}

std::string prioCrypto(const std::vector<std::string>& vars) {
  TESSEL_ASSERT(vars.size());
  for (const std::string& name : vars)
    if (!name.empty() && cryptoInfo().find(name) != std::string::npos) return name;
  return vars.back();
}

std::string hashDriverName(unsigned id) {
  switch (id) {
    case hashSha1: return prioCrypto({"sha1-avx", "sha1-generic"});
    case hashSha256: return prioCrypto({"sha256-avx", "sha256-generic"});
    case hashSha512: return prioCrypto({"sha512-avx", "sha512-generic"});
    default: return {};  // MD4, MD5, SHA-384 and the MD5+SHA-1 pair are always software
  }
}

std::string cipherDriverName(unsigned id, std::size_t keyLen) {
  const bool aesKey = keyLen == 16 || keyLen == 24 || keyLen == 32;
  if (id == cipherAesCbc && aesKey) return prioCrypto({"cbc-aes-aesni", "cbc(aes-generic)"});
  if (id == cipherAesCtr && aesKey) return prioCrypto({"ctr-aes-aesni", "ctr(aes-generic)"});
  if (id == cipherAesGcm && (keyLen == 16 || keyLen == 32)) {
    // Each GCM entry may name a second driver to bind instead of the one searched for.
    static const std::pair<const char*, const char*> gcm[] = {
        {"generic-gcm-aesni", ""}, {"gcm_base(ctr(aes-generic),ghash-generic)", ""}};
    for (auto [name, bind] : gcm)
      if (cryptoInfo().find(name) != std::string::npos) return *bind ? bind : name;
    return "gcm_base(ctr(aes-generic),ghash-generic)";
  }
  return {};
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

// hashDriver and cipherDriver return the kernel driver to use, or "" for software: offload must
// be switched on and AF_ALG present.
std::string hashDriver(unsigned id) {
  if (!ol::kernelCrypto || !detail::afAlgAvailable()) return {};
  return detail::hashDriverName(id);
}

std::string cipherDriver(unsigned id, std::size_t keyLen) {
  if (!ol::kernelCrypto || !detail::afAlgAvailable()) return {};
  return detail::cipherDriverName(id, keyLen);
}

// openAead sets up a kernel AEAD: each step only after the previous one succeeded, the sockets
// closed if one failed, and the message limit raised in any case.
std::unique_ptr<Cipher> openAead(const std::string& name, unsigned block, std::span<const unsigned char> key,
                                 std::span<const unsigned char> key2, unsigned tagLength) {
  auto aead = std::make_unique<KernelAead>(block);
  if (!aead->kernelOpen("aead", name) || !aead->kernelSetKey(key, key2) || !aead->kernelSetTag(tagLength))
    aead->closeSockets();
  aead->setSockmem(262244);
  return aead;
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
    case cipherNullCbc: return mode<CBCCipher>(std::make_unique<NullBlockCipher>());
    case cipherDesCbc: return key.size() == 8 ? mode<CBCCipher>(std::make_unique<DES>(k)) : nullptr;
    case cipherDes3Cbc: return key.size() == 24 ? mode<CBCCipher>(std::make_unique<DES3>(k)) : nullptr;
    case cipherAesCbc: return mode<CBCCipher>(detail::makeAES(k, key.size()));
    case cipherAesCtr: return mode<CTR128Cipher>(detail::makeAES(k, key.size()));
    case cipherAesCfb: return key.size() == 16 ? mode<CFB128Cipher>(std::make_unique<AES128>(k)) : nullptr;
    case cipherAesGcm: return key.size() == 24 ? nullptr : mode<GCMCipher>(detail::makeAES(k, key.size()));
    default: return nullptr;
  }
}

}  // namespace

std::unique_ptr<Hash> createHash(unsigned id) {
  if (std::string driver = hashDriver(id); !driver.empty()) {
    auto h = std::make_unique<KernelHash>(id);
    h->kernelOpen("hash", driver);  // a failed open gives all-zero digests, never software ones
    return h;
  }
  return detail::createSoftwareHash(id);
}

std::unique_ptr<Hash> createHMAC(unsigned id, std::span<const unsigned char> key) {
  auto h = createHash(id);
  if (!h) return nullptr;
  return std::make_unique<OwningHMAC>(std::move(h), key);
}

std::unique_ptr<Cipher> createCipher(unsigned id, std::span<const unsigned char> key, unsigned tagLength) {
  if (std::string driver = cipherDriver(id, key.size()); !driver.empty()) {
    if (id == cipherAesGcm) return openAead(driver, 1, key, {}, tagLength);
    auto c = std::make_unique<KernelCipher>(16);
    if (c->kernelOpen("skcipher", driver)) c->kernelSetKey(key, {});
    return c;
  }
  return softwareCipher(id, key);
}

std::unique_ptr<Cipher> createAead(unsigned cipherId, unsigned hashId, std::span<const unsigned char> cipherKey,
                                   std::span<const unsigned char> macKey) {
  if (ol::kernelCrypto) {
    const std::string hash = hashDriver(hashId), cipher = cipherDriver(cipherId, cipherKey.size());
    if (!hash.empty() && !cipher.empty())
      return openAead("authenc(hmac(" + hash + ")," + cipher + ")", cipherId == cipherAesGcm ? 1 : 16, cipherKey, macKey,
                      KernelHash::digestLengthOf(hashId));
  }
  if (cipherId != cipherDes3Cbc && cipherId != cipherAesCbc) return nullptr;
  auto mac = createHMAC(hashId, macKey);
  auto cipher = createCipher(cipherId, cipherKey, 16);
  if (!mac || !cipher) return nullptr;
  return std::make_unique<EncryptThenMacCipher>(std::move(cipher), std::move(mac));
}

}  // namespace tessel
