// Modular exponentiation: each tessel figure is printed beside OpenSSL's BN_mod_exp for the
// same modulus, base and exponent.
#include <benchmark/benchmark.h>
#include <openssl/bn.h>

#include <random>
#include <vector>

#include "tessel/reducer.h"

namespace {

using tessel::BigNum;

// Operands is a fixed RSA-shaped case: an odd modulus with its top bit set, a base below it,
// and either a full-length exponent (private-key shape) or 65537 (verify shape).
struct Operands {
  BigNum m, a, e;
};

BigNum randomBits(std::mt19937& gen, unsigned bits) {
  std::vector<unsigned char> bytes(bits / 8);
  for (auto& b : bytes) b = static_cast<unsigned char>(gen());
  bytes[0] |= 0x80;
  return BigNum(tessel::asn1::blob(bytes));
}

Operands makeOperands(unsigned bits, bool fullExponent) {
  std::mt19937 gen(bits);
  Operands o;
  o.m = randomBits(gen, bits);
  o.m[0] |= 1;
  o.a = randomBits(gen, bits - 8);
  o.e = fullExponent ? randomBits(gen, bits) : BigNum(65537u);
  return o;
}

BIGNUM* toBn(const BigNum& x) {
  const std::vector<unsigned char> b = x.bin();
  return BN_bin2bn(b.data(), static_cast<int>(b.size()), nullptr);
}

void tesselExp(benchmark::State& state, unsigned bits, bool full) {
  const Operands o = makeOperands(bits, full);
  for (auto _ : state) benchmark::DoNotOptimize(tessel::expByMod(o.a, o.e, o.m));
}

void opensslExp(benchmark::State& state, unsigned bits, bool full) {
  const Operands o = makeOperands(bits, full);
  BIGNUM *m = toBn(o.m), *a = toBn(o.a), *e = toBn(o.e), *r = BN_new();
  BN_CTX* ctx = BN_CTX_new();
  for (auto _ : state) {
    BN_mod_exp(r, a, e, m, ctx);
    benchmark::DoNotOptimize(r);
  }
  // Both must compute the same value, or the comparison means nothing.
  std::vector<unsigned char> got(static_cast<std::size_t>(BN_num_bytes(r)));
  BN_bn2bin(r, got.data());
  if (BigNum(tessel::asn1::blob(got)) != tessel::expByMod(o.a, o.e, o.m))
    state.SkipWithError("tessel and OpenSSL disagree");
  BN_CTX_free(ctx);
  BN_free(m), BN_free(a), BN_free(e), BN_free(r);
}

// Registered in pairs so each tessel line is followed by OpenSSL's for the same operands.
const bool registered = [] {
  for (unsigned bits : {2048u, 4096u}) {
    for (bool full : {true, false}) {
      const std::string name = "expByMod/" + std::to_string(bits) + (full ? "/full-exponent" : "/e65537");
      benchmark::RegisterBenchmark((name + "/tessel").c_str(), tesselExp, bits, full)->Unit(benchmark::kMicrosecond);
      benchmark::RegisterBenchmark((name + "/openssl").c_str(), opensslExp, bits, full)->Unit(benchmark::kMicrosecond);
    }
  }
  return true;
}();

}  // namespace
