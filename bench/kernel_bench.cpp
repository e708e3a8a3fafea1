// Kernel offload throughput on 16 KiB messages: the factory's AF_ALG objects beside its software
// objects and OpenSSL, for SHA-256, AES-128-CBC and AES-128-GCM. Registered only where the
// running kernel offers AF_ALG (the guest run of scripts/test.sh prints the same comparison
// from the KernelTiming test).
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <memory>
#include <string>
#include <vector>

#include "tessel/factory.h"

namespace {

constexpr unsigned kSize = 16384;

struct Algo {
  const char* name;
  unsigned hashId, cipherId;  // one of them is 0
  const EVP_MD* (*md)();
  const EVP_CIPHER* (*evp)();
};

const Algo kAlgos[] = {{"sha256", 5, 0, EVP_sha256, nullptr},
                       {"aes128-cbc", 0, 4, nullptr, EVP_aes_128_cbc},
                       {"aes128-gcm", 0, 7, nullptr, EVP_aes_128_gcm}};

void tesselObjects(benchmark::State& state, const Algo* a, bool kernel) {
  std::vector<unsigned char> key(16, 0x4b), iv(16, 0x1f), in(kSize, 0x5a), out(kSize + 64);
  ol::kernelCrypto = kernel;
  auto h = a->hashId ? tessel::createHash(a->hashId) : nullptr;
  auto c = a->cipherId ? tessel::createCipher(a->cipherId, key, 16) : nullptr;
  ol::kernelCrypto = false;
  for (auto _ : state) {
    if (h) {
      h->update(in.data(), kSize).digest(out.data());
    } else {
      c->setIV(iv.data(), a->cipherId == 7 ? 12 : 16);
      c->encrypt(in.data(), kSize, nullptr, 0, out.data());
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
}

void opensslEvp(benchmark::State& state, const Algo* a) {
  std::vector<unsigned char> key(16, 0x4b), iv(16, 0x1f), in(kSize, 0x5a), out(kSize + 64);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (a->evp) {
    EVP_EncryptInit_ex(ctx, a->evp(), nullptr, key.data(), nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
  }
  int n = 0;
  unsigned len = 0;
  for (auto _ : state) {
    if (a->md) {
      EVP_Digest(in.data(), kSize, out.data(), &len, a->md(), nullptr);
    } else {
      EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, iv.data());
      EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), kSize);
      EVP_EncryptFinal_ex(ctx, out.data() + n, &n);
    }
    benchmark::DoNotOptimize(out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
}

const bool registered = [] {
  if (!tessel::detail::afAlgAvailable()) return false;
  for (const Algo& a : kAlgos) {
    const std::string base = std::string("kernel/") + a.name;
    benchmark::RegisterBenchmark((base + "/tessel-kernel").c_str(), tesselObjects, &a, true);
    benchmark::RegisterBenchmark((base + "/tessel").c_str(), tesselObjects, &a, false);
    benchmark::RegisterBenchmark((base + "/openssl").c_str(), opensslEvp, &a);
  }
  return true;
}();

}  // namespace
