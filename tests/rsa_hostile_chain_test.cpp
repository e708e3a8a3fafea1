// Chains whose RSA keys have exponents no real key has: generated here with OpenSSL (keys with
// a chosen exponent, certificates signed with them), then validated. A chain that is otherwise
// sound must fail signature verification, and do so cheaply (timed only with TESSEL_TIMING=1).
#include <gtest/gtest.h>

#if TESSEL_HAVE_OPENSSL
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

// rsaKeyWithExponent makes an RSA key of `bits` bits whose public exponent is 65537 or, when
// `huge`, a random odd number one bit shorter than the modulus.
EVP_PKEY* rsaKeyWithExponent(int bits, bool huge) {
  BIGNUM* e = BN_new();
  huge ? BN_rand(e, bits - 1, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD) : BN_set_word(e, 65537);
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr);
  EVP_PKEY* key = nullptr;
  EVP_PKEY_keygen_init(ctx);
  EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, bits);
  EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx, e);
  EVP_PKEY_keygen(ctx, &key);
  EVP_PKEY_CTX_free(ctx);
  BN_free(e);
  return key;
}

// certificate returns CN=<subject> issued by CN=<issuer> for `key`, self-signed, as a CA
// certificate valid around now.
std::shared_ptr<X509Certificate> certificate(const std::string& subject, const std::string& issuer, EVP_PKEY* key) {
  X509* x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 3600);
  for (auto [name, cn] : {std::pair{X509_get_subject_name(x), &subject}, {X509_get_issuer_name(x), &issuer}})
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn->c_str()), -1, -1,
                               0);
  X509_set_pubkey(x, key);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
  X509_add_ext(x, ext, -1);
  X509_EXTENSION_free(ext);
  X509_sign(x, key, EVP_sha256());
  unsigned char* der = nullptr;
  const int len = i2d_X509(x, &der);
  X509_free(x);
  auto cert = std::make_shared<X509Certificate>();
  const bool ok = len > 0 && cert->parse(der, static_cast<unsigned>(len));
  OPENSSL_free(der);
  return ok ? cert : nullptr;
}

// validateChain builds c0 <- c1 <- ... <- c<length-1>, the last self-signed and in the store,
// all under one key, and returns x509ValidatePath's code.
unsigned validateChain(int bits, bool huge, std::size_t length, std::string* error, double* seconds = nullptr) {
  EVP_PKEY* key = rsaKeyWithExponent(bits, huge);
  std::vector<std::shared_ptr<X509Certificate>> chain;
  for (std::size_t i = 0; i < length && key; ++i)
    chain.push_back(certificate("c" + std::to_string(i), "c" + std::to_string(std::min(i + 1, length - 1)), key));
  EVP_PKEY_free(key);
  if (chain.size() != length || std::count(chain.begin(), chain.end(), nullptr)) return ~0u;
  CertificateMemoryStore store;
  store.certificates.push_back(chain.back());
  const auto start = std::chrono::steady_clock::now();
  const unsigned code = x509ValidatePath(chain, store, TimePoint::now(), "", {}, "", false, error);
  if (seconds) *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return code;
}

// The refusal's time is asserted only with TESSEL_TIMING=1, over 2047-bit exponents.
TEST(RsaHostileChain, HugeExponentsFailSignatureVerification) {
  const char* timing = std::getenv("TESSEL_TIMING");
  const bool timed = timing && std::string(timing) == "1";
  std::string error;
  // The generator's chains are sound: with an ordinary exponent one validates.
  EXPECT_EQ(validateChain(1024, false, 3, &error), pathValid) << error;
  error.clear();
  double seconds = 0;
  EXPECT_EQ(validateChain(timed ? 2048 : 1024, true, 1001, &error, &seconds), pathBadSignature);
  EXPECT_EQ(error, "cert signature is invalid for: \"CN=c0\"");
  EXPECT_TRUE(!timed || seconds < 0.05) << "1,001 certificates with 2047-bit exponents refused in " << seconds << " s";
}

}  // namespace
}  // namespace tessel

#endif
