// OpenSSL's libcrypto as an independent oracle for property tests.
#pragma once

#include <openssl/evp.h>
#include <openssl/provider.h>

#include "support.h"

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

}  // namespace tessel::test
