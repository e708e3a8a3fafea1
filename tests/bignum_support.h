// Operand generators for the big-number and curve tests, and conversions to OpenSSL's BIGNUM
// for the oracle checks.
#pragma once

#include <type_traits>

#include "support.h"
#include "tessel/bignum.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/bn.h>
#endif

namespace tessel {

// PrintTo lets gtest show a failing number as hex.
inline void PrintTo(const BigNum& x, std::ostream* os) { *os << x.strDigits(); }

}  // namespace tessel

namespace tessel::test {

// hexNum parses big-endian hex (no prefix) into a BigNum.
inline BigNum hexNum(std::string_view hex) {
  std::string even = hex.size() % 2 ? "0" + std::string(hex) : std::string(hex);
  return BigNum(asn1::blob(fromHex(even)));
}

// fromDigits builds a number from digits given least significant first, clamped.
inline BigNum fromDigits(std::vector<BigNum::Digit> digits) {
  BigNum r;
  r.digits() = std::move(digits);
  if (r.digits().empty()) r.digits().push_back(0);
  r.clamp();
  return r;
}

// randomNum returns a number of exactly `digits` digits (top digit non-zero) in one of the
// shapes that break carry and normalisation code: uniform digits, all-ones digits, a power of
// two, a top digit with its top bit set or clear, sparse digits, or runs of ones and zeros.
inline BigNum randomNum(TestRng& rng, unsigned digits) {
  std::vector<BigNum::Digit> d(digits);
  const std::size_t shape = rng.below(7);
  for (auto& x : d) {
    const BigNum::Digit r = rng.next();
    x = shape == 0 ? 0xffffffffu : shape == 1 ? 0 : shape == 4 ? (rng.below(4) ? 0 : r) : shape == 5 ? -(r & 1) : r;
  }
  if (shape == 1) d.back() = 1u << rng.below(32);
  if (shape == 2) d.back() |= 0x80000000u;
  if (shape == 3) d.back() = 1 + rng.next() % 0xffff;
  if (d.back() == 0) d.back() = 1 + rng.next() % 7;
  return fromDigits(std::move(d));
}

// randomSize returns a digit count in [1, max], tilted towards the small sizes where the
// boundary cases live while still reaching max.
inline unsigned randomSize(TestRng& rng, unsigned max) {
  return static_cast<unsigned>(rng.below(3) == 0 ? 1 + rng.below(4) : 1 + rng.below(max));
}

#if TESSEL_HAVE_OPENSSL
struct BnFree {
  void operator()(BIGNUM* p) const { BN_free(p); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;

struct BnCtx {
  BN_CTX* ctx = BN_CTX_new();
  ~BnCtx() { BN_CTX_free(ctx); }
  operator BN_CTX*() const { return ctx; }
};

inline Bn toBn(const BigNum& x) {
  const Bytes b = x.bin();
  return Bn(BN_bin2bn(b.data(), static_cast<int>(b.size()), nullptr));
}

inline Bn newBn() { return Bn(BN_new()); }

inline BigNum fromBn(const BIGNUM* x) {
  Bytes b(static_cast<std::size_t>(BN_num_bytes(x)));
  BN_bn2bin(x, b.data());
  return BigNum(asn1::blob(b));
}

// ossl returns OpenSSL's f(x...) as a BigNum: f is a BN_ function writing its first argument,
// with a trailing BN_CTX when it takes one (BN_mul, BN_mod_exp; BN_add takes none).
template <class>
using BnArg = const BIGNUM*;

template <class F, class... N>
BigNum ossl(F f, const N&... x) {
  static BnCtx ctx;
  Bn r = newBn();
  if constexpr (std::is_invocable_v<F, BIGNUM*, BnArg<N>..., BN_CTX*>) {
    f(r.get(), toBn(x).get()..., ctx.ctx);
  } else {
    f(r.get(), toBn(x).get()...);
  }
  return fromBn(r.get());
}
#endif

}  // namespace tessel::test
