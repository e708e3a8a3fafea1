// Digest throughput: each tessel figure is printed beside OpenSSL's for the same work.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <memory>
#include <vector>

#include "tessel/cpu.h"
#include "tessel/hash.h"
#include "tessel/hmac.h"

namespace {

struct Algo {
  const char* name;
  unsigned id;
  const EVP_MD* (*evp)();
};

const Algo kAlgos[] = {{"md4", tessel::hashMd4, EVP_md4},         {"md5", tessel::hashMd5, EVP_md5},
                       {"sha1", tessel::hashSha1, EVP_sha1},      {"sha256", tessel::hashSha256, EVP_sha256},
                       {"sha384", tessel::hashSha384, EVP_sha384}, {"sha512", tessel::hashSha512, EVP_sha512}};

std::unique_ptr<tessel::Hash> make(unsigned id) {
  switch (id) {
    case tessel::hashMd4: return std::make_unique<tessel::MD4>();
    case tessel::hashMd5: return std::make_unique<tessel::MD5>();
    case tessel::hashSha1: return std::make_unique<tessel::SHA1>();
    case tessel::hashSha256: return std::make_unique<tessel::SHA256>();
    case tessel::hashSha384: return std::make_unique<tessel::SHA384>();
    default: return std::make_unique<tessel::SHA512>();
  }
}

void tesselDigest(benchmark::State& state, unsigned id) {
  std::vector<unsigned char> msg(static_cast<std::size_t>(state.range(0)), 0x5a);
  unsigned char out[64];
  auto h = make(id);
  for (auto _ : state) {
    h->update(msg.data(), static_cast<unsigned>(msg.size()));
    h->digest(out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// The portable path of a digest that has an accelerated one, for the record.
void tesselPortableDigest(benchmark::State& state, unsigned id) {
  tessel::forcePortable(true);
  tesselDigest(state, id);
  tessel::forcePortable(false);
}

void opensslDigest(benchmark::State& state, const EVP_MD* (*evp)()) {
  std::vector<unsigned char> msg(static_cast<std::size_t>(state.range(0)), 0x5a);
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned len;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  const EVP_MD* md = evp();
  for (auto _ : state) {
    EVP_DigestInit_ex(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, msg.data(), msg.size());
    EVP_DigestFinal_ex(ctx, out, &len);
    benchmark::DoNotOptimize(out);
  }
  EVP_MD_CTX_free(ctx);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void tesselHmacSha256(benchmark::State& state) {
  std::vector<unsigned char> msg(static_cast<std::size_t>(state.range(0)), 0x5a);
  unsigned char key[32] = {1}, out[32];
  tessel::SHA256 h;
  tessel::HMAC mac(&h, key, sizeof key);
  for (auto _ : state) {
    mac.update(msg.data(), static_cast<unsigned>(msg.size()));
    mac.digest(out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void opensslHmacSha256(benchmark::State& state) {
  std::vector<unsigned char> msg(static_cast<std::size_t>(state.range(0)), 0x5a);
  unsigned char key[32] = {1}, out[EVP_MAX_MD_SIZE];
  size_t len;
  EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  EVP_MAC_CTX* ctx = EVP_MAC_CTX_new(mac);
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string("digest", const_cast<char*>("SHA256"), 0),
                         OSSL_PARAM_construct_end()};
  for (auto _ : state) {
    EVP_MAC_init(ctx, key, sizeof key, params);
    EVP_MAC_update(ctx, msg.data(), msg.size());
    EVP_MAC_final(ctx, out, &len, sizeof out);
    benchmark::DoNotOptimize(out);
  }
  EVP_MAC_CTX_free(ctx);
  EVP_MAC_free(mac);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// Registered in pairs so each tessel line is followed by OpenSSL's for the same digest.
const bool registered = [] {
  OSSL_PROVIDER_load(nullptr, "legacy");
  OSSL_PROVIDER_load(nullptr, "default");
  for (const Algo& a : kAlgos) {
    for (long size : {16384L, 64L}) {
      benchmark::RegisterBenchmark((std::string("digest/") + a.name + "/tessel").c_str(), tesselDigest, a.id)->Arg(size);
      if (a.id == tessel::hashSha1 || a.id == tessel::hashSha256)
        benchmark::RegisterBenchmark((std::string("digest/") + a.name + "/tessel-portable").c_str(),
                                     tesselPortableDigest, a.id)->Arg(size);
      benchmark::RegisterBenchmark((std::string("digest/") + a.name + "/openssl").c_str(), opensslDigest, a.evp)->Arg(size);
    }
  }
  for (long size : {16384L, 64L}) {
    benchmark::RegisterBenchmark("hmac/sha256/tessel", tesselHmacSha256)->Arg(size);
    benchmark::RegisterBenchmark("hmac/sha256/openssl", opensslHmacSha256)->Arg(size);
  }
  return true;
}();

}  // namespace
