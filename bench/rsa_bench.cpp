// RSA PKCS#1 v1.5 signing of a SHA-256 digest, tessel beside OpenSSL, same keys, same run.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <string>

#include "ol/file.h"
#include "tessel/rsa.h"

namespace {

std::string keyDer(int bits) {
  return ol::readFile(std::string(TESSEL_SOURCE_DIR) + "/tests/data/keys/rsa" + std::to_string(bits) + ".pkcs1.der");
}

void tesselSign(benchmark::State& state) {
  std::string der = keyDer(static_cast<int>(state.range(0)));
  tessel::RsaPrivateKey key;
  if (!key.parseFromDerEncoded(tessel::asn1::blob(std::string_view(der)), {})) return state.SkipWithError("no key");
  unsigned char digest[32] = {1, 2, 3};
  for (auto _ : state) benchmark::DoNotOptimize(key.signHashed(tessel::hashSha256, tessel::asn1::blob(digest, 32)));
  state.counters["sign/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void opensslSign(benchmark::State& state) {
  std::string der = keyDer(static_cast<int>(state.range(0)));
  const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
  EVP_PKEY* pkey = d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size()));
  if (!pkey) return state.SkipWithError("no key");
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(pkey, nullptr);
  EVP_PKEY_sign_init(ctx);
  EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING);
  EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256());
  unsigned char digest[32] = {1, 2, 3}, sig[512];
  for (auto _ : state) {
    std::size_t len = sizeof sig;
    EVP_PKEY_sign(ctx, sig, &len, digest, sizeof digest);
    benchmark::DoNotOptimize(sig);
  }
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  state.counters["sign/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(tesselSign)->Name("rsa/sign-sha256/tessel")->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(opensslSign)->Name("rsa/sign-sha256/openssl")->Arg(2048)->Arg(4096)->Unit(benchmark::kMillisecond);

}  // namespace
