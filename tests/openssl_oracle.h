// OpenSSL's libcrypto as an independent oracle for property tests.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

#include "support.h"
#include "tessel/algorithm_id.h"

namespace tessel::test {

// legacyProviders loads OpenSSL's legacy provider (MD4, DES, RC4) beside the default one, once,
// and reports whether the legacy one is there. The default provider is loaded either way, so
// the modern algorithms work where the legacy module cannot be loaded (static binaries).
inline bool legacyProviders() {
  static bool ok = [] {
    bool legacy = OSSL_PROVIDER_load(nullptr, "legacy") != nullptr;
    bool modern = OSSL_PROVIDER_load(nullptr, "default") != nullptr;
    return legacy && modern;
  }();
  return ok;
}

// evpDigest maps our HashID to OpenSSL's digest; null for ids OpenSSL has no single digest for.
inline const EVP_MD* evpDigest(unsigned id) {
  legacyProviders();
  switch (id) {
    case 1: return EVP_md5_sha1();
    case 2: return EVP_md4();
    case 3: return EVP_md5();
    case 4: return EVP_sha1();
    case 5: return EVP_sha256();
    case 6: return EVP_sha384();
    case 7: return EVP_sha512();
    default: return nullptr;
  }
}

inline Bytes opensslDigest(unsigned id, const Bytes& msg) {
  Bytes out(EVP_MAX_MD_SIZE);
  unsigned len = 0;
  if (!EVP_Digest(msg.data(), msg.size(), out.data(), &len, evpDigest(id), nullptr)) {
    ADD_FAILURE() << "EVP_Digest failed for id " << id;
    return {};
  }
  out.resize(len);
  return out;
}

inline Bytes opensslHmac(unsigned id, const Bytes& key, const Bytes& msg) {
  Bytes out(EVP_MAX_MD_SIZE);
  unsigned len = 0;
  // OpenSSL rejects a null key pointer even for an empty key.
  static const unsigned char empty = 0;
  ::HMAC(evpDigest(id), key.empty() ? &empty : key.data(), static_cast<int>(key.size()), msg.data(), msg.size(),
         out.data(), &len);
  out.resize(len);
  return out;
}

// opensslCipher runs an EVP cipher without padding over `in` in one call; `iv` may be empty, and
// a cipher of variable key length (RC4) takes the length of `key`.
inline Bytes opensslCipher(const EVP_CIPHER* type, const Bytes& key, const Bytes& iv, const Bytes& in, bool encrypt) {
  legacyProviders();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 32);
  int n = 0, tail = 0;
  bool ok = EVP_CipherInit_ex(ctx, type, nullptr, nullptr, nullptr, encrypt) &&
            EVP_CIPHER_CTX_set_key_length(ctx, static_cast<int>(key.size())) &&
            EVP_CipherInit_ex(ctx, nullptr, nullptr, key.data(), iv.empty() ? nullptr : iv.data(), encrypt) &&
            EVP_CIPHER_CTX_set_padding(ctx, 0) &&
            EVP_CipherUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size())) &&
            EVP_CipherFinal_ex(ctx, out.data() + n, &tail);
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) ADD_FAILURE() << "OpenSSL cipher failed";
  out.resize(static_cast<std::size_t>(n + tail));
  return out;
}

// opensslGcmSeal returns ciphertext || 16-byte tag of AES-GCM with OpenSSL's standard IV rule.
inline Bytes opensslGcmSeal(const Bytes& key, const Bytes& iv, const Bytes& aad, const Bytes& msg) {
  const EVP_CIPHER* evp = key.size() == 16   ? EVP_aes_128_gcm()
                          : key.size() == 24 ? EVP_aes_192_gcm()
                                             : EVP_aes_256_gcm();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(msg.size() + 16);
  int n = 0, tail = 0;
  bool ok = EVP_EncryptInit_ex(ctx, evp, nullptr, nullptr, nullptr) &&
            EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(iv.size()), nullptr) &&
            EVP_EncryptInit_ex(ctx, nullptr, nullptr, key.data(), iv.data()) &&
            (aad.empty() || EVP_EncryptUpdate(ctx, nullptr, &n, aad.data(), static_cast<int>(aad.size()))) &&
            EVP_EncryptUpdate(ctx, out.data(), &n, msg.data(), static_cast<int>(msg.size())) &&
            EVP_EncryptFinal_ex(ctx, out.data() + n, &tail) &&
            EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, out.data() + msg.size());
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) ADD_FAILURE() << "OpenSSL GCM failed";
  return out;
}

using EvpKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// opensslKey reads private key DER (PKCS#8 or the type's own form), or a SubjectPublicKeyInfo
// when `isPublic`, with libcrypto; null when libcrypto refuses it or leaves bytes over.
inline EvpKey opensslKey(const Bytes& der, bool isPublic = false) {
  const unsigned char* p = der.data();
  const long len = static_cast<long>(der.size());
  EvpKey key(isPublic ? d2i_PUBKEY(nullptr, &p, len) : d2i_AutoPrivateKey(nullptr, &p, len), EVP_PKEY_free);
  if (p != der.data() + der.size()) key.reset();
  return key;
}

// opensslVerifies checks a signature with EVP_DigestVerify; PSS with the MGF1 digest and salt
// length of `p` (the digest's length when unset).
inline bool opensslVerifies(EVP_PKEY* key, const SignatureParams& p, const Bytes& msg, const Bytes& sig) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_PKEY_CTX* pctx = nullptr;
  bool ok = key && EVP_DigestVerifyInit(ctx, &pctx, p.hash ? evpDigest(p.hash) : nullptr, nullptr, key) == 1;
  if (ok && p.pss)
    ok = EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(pctx, evpDigest(p.mgfDigest())) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, p.saltLength < 0 ? RSA_PSS_SALTLEN_DIGEST : p.saltLength) == 1;
  ok = ok && EVP_DigestVerify(ctx, sig.data(), sig.size(), msg.data(), msg.size()) == 1;
  EVP_MD_CTX_free(ctx);
  return ok;
}

}  // namespace tessel::test
