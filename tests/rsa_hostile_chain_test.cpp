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

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>

#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

using Chain = std::vector<std::shared_ptr<X509Certificate>>;

// rsaKeyWithExponent makes an RSA key of `bits` bits whose public exponent is 65537 or, when
// `huge`, a random odd number one bit shorter than the modulus.
EVP_PKEY* rsaKeyWithExponent(int bits, bool huge) {
  BN_CTX* ctx = BN_CTX_new();
  BIGNUM *p = BN_new(), *q = BN_new(), *n = BN_new(), *e = BN_new(), *d = BN_new(), *phi = BN_new(), *p1 = BN_new(),
         *q1 = BN_new(), *dp = BN_new(), *dq = BN_new(), *qinv = BN_new();
  BN_generate_prime_ex(p, bits / 2, 0, nullptr, nullptr, nullptr);
  BN_generate_prime_ex(q, bits / 2, 0, nullptr, nullptr, nullptr);
  BN_mul(n, p, q, ctx);
  BN_sub(p1, p, BN_value_one());
  BN_sub(q1, q, BN_value_one());
  BN_mul(phi, p1, q1, ctx);
  do {
    if (huge) {
      BN_rand(e, bits - 1, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
    } else {
      BN_set_word(e, 65537);
    }
  } while (!BN_mod_inverse(d, e, phi, ctx));
  BN_mod(dp, d, p1, ctx);
  BN_mod(dq, d, q1, ctx);
  BN_mod_inverse(qinv, q, p, ctx);
  RSA* rsa = RSA_new();
  RSA_set0_key(rsa, n, e, d);
  RSA_set0_factors(rsa, p, q);
  RSA_set0_crt_params(rsa, dp, dq, qinv);
  BN_free(phi);
  BN_free(p1);
  BN_free(q1);
  BN_CTX_free(ctx);
  EVP_PKEY* key = EVP_PKEY_new();
  EVP_PKEY_assign_RSA(key, rsa);
  return key;
}

// certificate returns CN=<subject> issued by CN=<issuer> for `key`, signed with `signer`, as a
// CA certificate valid around now.
std::shared_ptr<X509Certificate> certificate(const std::string& subject, const std::string& issuer, EVP_PKEY* key,
                                             EVP_PKEY* signer) {
  X509* x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 3600);
  auto setName = [](X509_NAME* name, const std::string& cn) {
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
  };
  setName(X509_get_subject_name(x), subject);
  setName(X509_get_issuer_name(x), issuer);
  X509_set_pubkey(x, key);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
  X509_add_ext(x, ext, -1);
  X509_EXTENSION_free(ext);
  X509_sign(x, signer, EVP_sha256());
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
  Chain chain;
  for (std::size_t i = 0; i < length; ++i) {
    const std::string issuer = "c" + std::to_string(i + 1 < length ? i + 1 : i);
    chain.push_back(certificate("c" + std::to_string(i), issuer, key, key));
    if (!chain.back()) return ~0u;
  }
  EVP_PKEY_free(key);
  CertificateMemoryStore store;
  store.certificates.push_back(chain.back());
  const auto start = std::chrono::steady_clock::now();
  const unsigned code = x509ValidatePath(chain, store, TimePoint::now(), "", {}, "", false, error);
  if (seconds) *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return code;
}

TEST(RsaHostileChain, HugeExponentsFailSignatureVerification) {
  std::string error;
  // The generator's chains are sound: with an ordinary exponent one validates.
  EXPECT_EQ(validateChain(1024, false, 3, &error), pathValid) << error;
  error.clear();
  EXPECT_EQ(validateChain(1024, true, 1001, &error), pathBadSignature);
  EXPECT_EQ(error, "cert signature is invalid for: \"CN=c0\"");
}

TEST(RsaHostileChain, RefusedInMilliseconds) {
  const char* timing = std::getenv("TESSEL_TIMING");
  if (!timing || std::string(timing) != "1") GTEST_SKIP() << "timing checks run with TESSEL_TIMING=1";
  std::string error;
  double seconds = 0;
  EXPECT_EQ(validateChain(2048, true, 1001, &error, &seconds), pathBadSignature);
  std::cout << "1,001 certificates with 2047-bit exponents refused in " << seconds * 1000 << " ms\n";
  EXPECT_LT(seconds, 0.05);
}

}  // namespace
}  // namespace tessel

#endif
