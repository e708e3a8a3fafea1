// Curve scalar products: each tessel figure is printed beside OpenSSL's EC_POINT_mul for the
// same curve, point and scalars. Both sides end with the affine result.
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>

#include <random>
#include <vector>

#include "tessel/ec.h"

namespace {

using tessel::BigNum;
using tessel::Curve;
using tessel::ECPoint;
using tessel::WCurve;

BIGNUM* toBn(const BigNum& x) {
  const std::vector<unsigned char> b = x.bin();
  return BN_bin2bn(b.data(), static_cast<int>(b.size()), nullptr);
}

BigNum fromBn(const BIGNUM* x) {
  std::vector<unsigned char> b(static_cast<std::size_t>(BN_num_bytes(x)));
  BN_bn2bin(x, b.data());
  return BigNum(tessel::asn1::blob(b));
}

// Work is one fixed case per curve: two scalars below the order and a point Q = s·G that is
// not the base point, so OpenSSL's precomputed base-point tables do not apply to Q.
struct Work {
  explicit Work(Curve c) : curve(c), nid(c == Curve::p256 ? NID_X9_62_prime256v1 : NID_secp384r1) {
    BigNum p, n;
    tessel::getECParams(c, p, n, G);
    std::mt19937 gen(static_cast<unsigned>(c));
    auto scalar = [&] {
      std::vector<unsigned char> b((n.bits() + 7) / 8);
      for (auto& x : b) x = static_cast<unsigned char>(gen());
      b[0] &= 0x7f;
      return BigNum(tessel::asn1::blob(b));
    };
    k1 = scalar();
    k2 = scalar();
    const WCurve w(p);
    Q = w.toEC(w.mul(scalar(), w.fromEC(G)));
    mod = p;
  }
  Curve curve;
  int nid;
  BigNum mod, k1, k2;
  ECPoint G, Q;
};

void tesselMul(benchmark::State& state, Curve c) {
  const Work w(c);
  const WCurve curve(w.mod);
  for (auto _ : state) benchmark::DoNotOptimize(curve.toEC(curve.mul(w.k1, curve.fromEC(w.Q))));
}

void tesselMul2add(benchmark::State& state, Curve c) {
  const Work w(c);
  const WCurve curve(w.mod);
  for (auto _ : state)
    benchmark::DoNotOptimize(curve.toEC(curve.mul2add(w.k1, curve.fromEC(w.G), w.k2, curve.fromEC(w.Q))));
}

// opensslRun times EC_POINT_mul for k1·Q (mul) or k1·G + k2·Q (mul2add) and checks that the
// result is the one tessel computes.
void opensslRun(benchmark::State& state, Curve c, bool twoScalars) {
  const Work w(c);
  EC_GROUP* group = EC_GROUP_new_by_curve_name(w.nid);
  BN_CTX* ctx = BN_CTX_new();
  EC_POINT *q = EC_POINT_new(group), *r = EC_POINT_new(group);
  BIGNUM *qx = toBn(w.Q.x), *qy = toBn(w.Q.y), *k1 = toBn(w.k1), *k2 = toBn(w.k2);
  BIGNUM *x = BN_new(), *y = BN_new();
  EC_POINT_set_affine_coordinates(group, q, qx, qy, ctx);
  for (auto _ : state) {
    if (twoScalars)
      EC_POINT_mul(group, r, k1, q, k2, ctx);
    else
      EC_POINT_mul(group, r, nullptr, q, k1, ctx);
    EC_POINT_get_affine_coordinates(group, r, x, y, ctx);
    benchmark::DoNotOptimize(x);
  }
  const WCurve curve(w.mod);
  const ECPoint want = twoScalars ? curve.toEC(curve.mul2add(w.k1, curve.fromEC(w.G), w.k2, curve.fromEC(w.Q)))
                                  : curve.toEC(curve.mul(w.k1, curve.fromEC(w.Q)));
  if (!(ECPoint{fromBn(x), fromBn(y)} == want)) state.SkipWithError("tessel and OpenSSL disagree");
  BN_free(qx), BN_free(qy), BN_free(k1), BN_free(k2), BN_free(x), BN_free(y);
  EC_POINT_free(q), EC_POINT_free(r);
  BN_CTX_free(ctx);
  EC_GROUP_free(group);
}

void opensslMul(benchmark::State& state, Curve c) { opensslRun(state, c, false); }
void opensslMul2add(benchmark::State& state, Curve c) { opensslRun(state, c, true); }

// Registered in pairs so each tessel line is followed by OpenSSL's for the same work.
const bool registered = [] {
  for (Curve c : {Curve::p256, Curve::p384}) {
    const std::string name = c == Curve::p256 ? "ec/p256" : "ec/p384";
    benchmark::RegisterBenchmark((name + "/mul/tessel").c_str(), tesselMul, c)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((name + "/mul/openssl").c_str(), opensslMul, c)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((name + "/mul2add/tessel").c_str(), tesselMul2add, c)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark((name + "/mul2add/openssl").c_str(), opensslMul2add, c)->Unit(benchmark::kMicrosecond);
  }
  return true;
}();

}  // namespace
