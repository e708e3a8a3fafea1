// X25519, Ed25519 (and their key generation), ECDSA (P-256, P-384) and ML-KEM-768 per second, tessel beside OpenSSL in the same run.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <vector>

#include "tessel/ec_key.h"
#include "tessel/eddsa.h"
#include "tessel/mlkem.h"
#include "tessel/pkcs8.h"
#include "tessel/x25519.h"

namespace {

using Bytes = std::vector<unsigned char>;

const unsigned char kSeed[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
const unsigned char kMessage[64] = {42};

void rate(benchmark::State& state) {
  state.counters["op/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void tesselX25519(benchmark::State& state) {
  unsigned char peer[32], out[32];
  tessel::x25519::publicKey(peer, kSeed);
  for (auto _ : state) {
    tessel::x25519::scalarMult(out, kSeed, peer);
    benchmark::DoNotOptimize(out);
  }
  rate(state);
}

void opensslX25519(benchmark::State& state) {
  EVP_PKEY* key = EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, kSeed, 32);
  unsigned char pub[32], out[32];
  std::size_t len = 32;
  EVP_PKEY_get_raw_public_key(key, pub, &len);
  EVP_PKEY* peer = EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, pub, 32);
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  EVP_PKEY_derive_init(ctx);
  EVP_PKEY_derive_set_peer(ctx, peer);
  for (auto _ : state) {
    len = 32;
    EVP_PKEY_derive(ctx, out, &len);
    benchmark::DoNotOptimize(out);
  }
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(peer);
  EVP_PKEY_free(key);
  rate(state);
}

void tesselEd25519(benchmark::State& state) {
  const bool verify = state.range(0) != 0;
  unsigned char pub[32], sig[64];
  tessel::eddsa::publicKeyFromSeed(pub, kSeed);
  tessel::eddsa::sign(sig, kMessage, kSeed, pub);
  for (auto _ : state) {
    if (verify) {
      benchmark::DoNotOptimize(tessel::eddsa::verify(sig, kMessage, pub));
    } else {
      tessel::eddsa::sign(sig, kMessage, kSeed, pub);
      benchmark::DoNotOptimize(sig);
    }
  }
  rate(state);
}

void opensslEd25519(benchmark::State& state) {
  const bool verify = state.range(0) != 0;
  EVP_PKEY* key = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, kSeed, 32);
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  unsigned char sig[64];
  std::size_t len = 64;
  EVP_DigestSignInit(md, nullptr, nullptr, nullptr, key);
  EVP_DigestSign(md, sig, &len, kMessage, sizeof kMessage);
  for (auto _ : state) {
    EVP_MD_CTX_reset(md);
    if (verify) {
      EVP_DigestVerifyInit(md, nullptr, nullptr, nullptr, key);
      benchmark::DoNotOptimize(EVP_DigestVerify(md, sig, 64, kMessage, sizeof kMessage));
    } else {
      EVP_DigestSignInit(md, nullptr, nullptr, nullptr, key);
      len = 64;
      EVP_DigestSign(md, sig, &len, kMessage, sizeof kMessage);
      benchmark::DoNotOptimize(sig);
    }
  }
  EVP_MD_CTX_free(md);
  EVP_PKEY_free(key);
  rate(state);
}

// Key generation: the public key from a 32-byte private key; range(0) 0 for X25519, 1 for Ed25519.
void tesselKeygen(benchmark::State& state) {
  unsigned char pub[32];
  for (auto _ : state) {
    if (state.range(0)) {
      tessel::eddsa::publicKeyFromSeed(pub, kSeed);
    } else {
      tessel::x25519::publicKey(pub, kSeed);
    }
    benchmark::DoNotOptimize(pub);
  }
  rate(state);
}

void opensslKeygen(benchmark::State& state) {
  const int type = state.range(0) ? EVP_PKEY_ED25519 : EVP_PKEY_X25519;
  unsigned char pub[32];
  for (auto _ : state) {
    EVP_PKEY* key = EVP_PKEY_new_raw_private_key(type, nullptr, kSeed, 32);
    std::size_t len = 32;
    EVP_PKEY_get_raw_public_key(key, pub, &len);
    EVP_PKEY_free(key);
    benchmark::DoNotOptimize(pub);
  }
  rate(state);
}

// ECDSA: range(0) is the curve (256 or 384), range(1) 0 for sign, 1 for verify. The digest has
// the curve's size (SHA-256 or SHA-384).
tessel::EcPrivateKey ecKey(long bits) {
  tessel::EcPrivateKey key;
  key.setPrivateKey(bits == 384 ? tessel::Curve::p384 : tessel::Curve::p256,
                    tessel::BigNum(tessel::asn1::blob(kSeed, 32)));
  return key;
}

void tesselEcdsa(benchmark::State& state) {
  const tessel::EcPrivateKey key = ecKey(state.range(0));
  const unsigned hashId = state.range(0) == 384 ? tessel::hashSha384 : tessel::hashSha256;
  const tessel::asn1::blob digest(kMessage, state.range(0) == 384 ? 48 : 32);
  const Bytes sig = key.signHashed(hashId, digest);
  for (auto _ : state) {
    if (state.range(1)) {
      benchmark::DoNotOptimize(key.verifyHashed(digest, tessel::asn1::blob(sig)));
    } else {
      benchmark::DoNotOptimize(key.signHashed(hashId, digest));
    }
  }
  rate(state);
}

void opensslEcdsa(benchmark::State& state) {
  const Bytes der = tessel::encodePkcs8PrivateKey(ecKey(state.range(0)));
  const unsigned char* p = der.data();
  EVP_PKEY* key = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size()));
  if (!key) return state.SkipWithError("no key");
  const std::size_t digestLen = state.range(0) == 384 ? 48 : 32;
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  unsigned char sig[160];
  std::size_t len = sizeof sig;
  EVP_PKEY_sign_init(ctx);
  EVP_PKEY_sign(ctx, sig, &len, kMessage, digestLen);
  const std::size_t sigLen = len;
  if (state.range(1)) EVP_PKEY_verify_init(ctx);
  for (auto _ : state) {
    if (state.range(1)) {
      benchmark::DoNotOptimize(EVP_PKEY_verify(ctx, sig, sigLen, kMessage, digestLen));
    } else {
      len = sizeof sig;
      EVP_PKEY_sign(ctx, sig, &len, kMessage, digestLen);
      benchmark::DoNotOptimize(sig);
    }
  }
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(key);
  rate(state);
}

// ML-KEM-768: range(0) 0 keygen, 1 encapsulation, 2 decapsulation. OpenSSL 3.0 has no ML-KEM,
// so there is no peer figure.
void tesselMlkem(benchmark::State& state) {
  Bytes ek, dk, c, secret;
  tessel::mlkem768::keyGen({kSeed, 32}, {kSeed, 32}, ek, dk);
  const tessel::MLKEMEncap encap(ek);
  const tessel::MLKEMDecap decap(dk);
  encap.encapsulate({kMessage, 32}, c, secret);
  for (auto _ : state) {
    switch (state.range(0)) {
      case 0: tessel::mlkem768::keyGen({kSeed, 32}, {kSeed, 32}, ek, dk); break;
      case 1: encap.encapsulate({kMessage, 32}, c, secret); break;
      default: decap.decapsulate(c, secret); break;
    }
    benchmark::DoNotOptimize(secret);
  }
  rate(state);
}

BENCHMARK(tesselMlkem)->Name("mlkem768/tessel")->ArgName("keygen0-encaps1-decaps2")->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(tesselX25519)->Name("x25519/tessel")->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslX25519)->Name("x25519/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK(tesselEd25519)->Name("ed25519/tessel")->ArgName("verify")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslEd25519)->Name("ed25519/openssl")->ArgName("verify")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(tesselKeygen)->Name("keygen25519/tessel")->ArgName("ed25519")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslKeygen)->Name("keygen25519/openssl")->ArgName("ed25519")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(tesselEcdsa)->Name("ecdsa/tessel")->ArgNames({"curve", "verify"})->ArgsProduct({{256, 384}, {0, 1}})->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslEcdsa)->Name("ecdsa/openssl")->ArgNames({"curve", "verify"})->ArgsProduct({{256, 384}, {0, 1}})->Unit(benchmark::kMicrosecond);

}  // namespace
