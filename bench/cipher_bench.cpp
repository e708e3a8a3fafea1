// Cipher throughput on 16 KiB buffers: each tessel figure is printed beside OpenSSL's EVP
// figure for the same work.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <memory>
#include <string>
#include <vector>

#include "tessel/block.h"
#include "tessel/cpu.h"
#include "tessel/factory.h"

namespace {

constexpr long kSize = 16384;

struct Algo {
  const char* name;
  unsigned id;  // factory cipher id; 0 for RC4
  std::size_t keyLen;
  const EVP_CIPHER* (*evp)();
};

const Algo kAlgos[] = {{"aes128-cbc", 4, 16, EVP_aes_128_cbc}, {"aes256-cbc", 4, 32, EVP_aes_256_cbc},
                       {"aes128-ctr", 5, 16, EVP_aes_128_ctr}, {"aes256-ctr", 5, 32, EVP_aes_256_ctr},
                       {"aes128-gcm", 7, 16, EVP_aes_128_gcm}, {"aes256-gcm", 7, 32, EVP_aes_256_gcm},
                       {"des3-cbc", 3, 24, EVP_des_ede3_cbc},  {"rc4", 0, 16, EVP_rc4}};

void tesselCipher(benchmark::State& state, const Algo* a, bool portable) {
  tessel::forcePortable(portable);
  std::vector<unsigned char> key(a->keyLen, 0x4b), iv(16, 0x1f), in(kSize, 0x5a), out(kSize + 16);
  auto c = a->id ? tessel::createCipher(a->id, key, 16) : nullptr;
  tessel::RC4 rc4;
  rc4.setKey(key.data(), static_cast<unsigned>(key.size()));
  for (auto _ : state) {
    if (c) {
      c->setIV(iv.data(), a->id == 7 ? 12 : 16);
      c->encrypt(in.data(), kSize, nullptr, 0, out.data());
    } else {
      rc4.encrypt(in.data(), out.data(), kSize);
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
  tessel::forcePortable(false);
}

void opensslCipher(benchmark::State& state, const Algo* a) {
  std::vector<unsigned char> key(a->keyLen, 0x4b), iv(16, 0x1f), in(kSize, 0x5a), out(kSize + 32);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  const EVP_CIPHER* type = a->evp();
  EVP_EncryptInit_ex(ctx, type, nullptr, nullptr, nullptr);
  if (a->id == 0) EVP_CIPHER_CTX_set_key_length(ctx, static_cast<int>(key.size()));
  EVP_CIPHER_CTX_set_padding(ctx, 0);
  EVP_EncryptInit_ex(ctx, nullptr, nullptr, key.data(), nullptr);
  int n = 0;
  for (auto _ : state) {
    // A fresh IV per message, as the tessel side does (RC4 keeps streaming, as tessel's does).
    if (a->id) EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, iv.data());
    EVP_EncryptUpdate(ctx, out.data(), &n, in.data(), kSize);
    if (a->id == 7) {
      EVP_EncryptFinal_ex(ctx, out.data() + n, &n);
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, out.data() + kSize);
    }
    benchmark::DoNotOptimize(out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
}

// Registered in pairs so each tessel line is followed by OpenSSL's for the same cipher; the AES
// rows also show the portable code ("tessel-portable") where the processor has AES instructions.
const bool registered = [] {
  OSSL_PROVIDER_load(nullptr, "legacy");
  OSSL_PROVIDER_load(nullptr, "default");
  for (const Algo& a : kAlgos) {
    benchmark::RegisterBenchmark((std::string("cipher/") + a.name + "/tessel").c_str(), tesselCipher, &a, false)->Arg(kSize);
    if (a.keyLen != 24 && a.id && tessel::cpuHasAesInstructions())
      benchmark::RegisterBenchmark((std::string("cipher/") + a.name + "/tessel-portable").c_str(), tesselCipher, &a, true)
          ->Arg(kSize);
    benchmark::RegisterBenchmark((std::string("cipher/") + a.name + "/openssl").c_str(), opensslCipher, &a)->Arg(kSize);
  }
  return true;
}();

}  // namespace
