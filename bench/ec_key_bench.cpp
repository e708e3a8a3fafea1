// ECDSA signing, ECDH and public-key derivation per NIST curve, each tessel figure printed beside
// OpenSSL's (ECDSA_sign, ECDH_compute_key, EC_POINT_mul on the generator) with the same key.
#include <benchmark/benchmark.h>
#include <openssl/ec.h>
#include <openssl/ecdh.h>
#include <openssl/ecdsa.h>
#include <openssl/obj_mac.h>

#include <string>
#include <vector>

#include "tessel/ec_key.h"
#include "tessel/hash.h"

namespace {

using tessel::BigNum;
using tessel::Curve;

int nidOf(Curve c) {
  switch (c) {
    case Curve::p192: return NID_X9_62_prime192v1;
    case Curve::p224: return NID_secp224r1;
    case Curve::p256: return NID_X9_62_prime256v1;
    case Curve::p384: return NID_secp384r1;
    case Curve::p521: return NID_secp521r1;
  }
  return 0;
}

// Keys holds one fixed private key per curve and a peer for ECDH, in both libraries.
struct Keys {
  explicit Keys(Curve c) {
    const BigNum n = tessel::getOrderForECCurve(c);
    std::vector<unsigned char> bytes((n.bits() + 7) / 8);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(37 * i + 11);
    auto below = [&] {
      BigNum r;
      tessel::div(BigNum(tessel::asn1::blob(bytes)), n, nullptr, &r);
      return r;
    };
    ours.setPrivateKey(c, below());
    bytes[1] ^= 0xff;
    peer.setPrivateKey(c, below());
    key = EC_KEY_new_by_curve_name(nidOf(c));
    const std::vector<unsigned char> d = ours.d.bin();
    BIGNUM* bn = BN_bin2bn(d.data(), static_cast<int>(d.size()), nullptr);
    EC_KEY_set_private_key(key, bn);
    const EC_GROUP* group = EC_KEY_get0_group(key);
    EC_POINT* pub = EC_POINT_new(group);
    EC_POINT_mul(group, pub, bn, nullptr, nullptr, nullptr);
    EC_KEY_set_public_key(key, pub);
    peerPoint = EC_POINT_new(group);
    const std::vector<unsigned char> q = peer.EcPublicKey::encodeToDerEncoded();
    EC_POINT_oct2point(group, peerPoint, q.data(), q.size(), nullptr);
    EC_POINT_free(pub);
    BN_free(bn);
  }
  ~Keys() {
    EC_POINT_free(peerPoint);
    EC_KEY_free(key);
  }
  tessel::EcPrivateKey ours, peer;
  EC_KEY* key;
  EC_POINT* peerPoint;
};

const unsigned char kDigest[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9};

void tesselSign(benchmark::State& state, Curve c) {
  const Keys k(c);
  for (auto _ : state) benchmark::DoNotOptimize(k.ours.signHashed(tessel::hashSha256, {kDigest, sizeof kDigest}));
}

void opensslSign(benchmark::State& state, Curve c) {
  const Keys k(c);
  unsigned char sig[160];
  unsigned len = 0;
  for (auto _ : state) {
    ECDSA_sign(0, kDigest, sizeof kDigest, sig, &len, k.key);
    benchmark::DoNotOptimize(sig);
  }
}

void tesselEcdh(benchmark::State& state, Curve c) {
  const Keys k(c);
  for (auto _ : state) benchmark::DoNotOptimize(k.ours.deriveSharedSecret(k.peer));
}

void opensslEcdh(benchmark::State& state, Curve c) {
  const Keys k(c);
  unsigned char out[66];
  const std::vector<unsigned char> want = k.ours.deriveSharedSecret(k.peer);
  int len = 0;
  for (auto _ : state) {
    len = ECDH_compute_key(out, sizeof out, k.peerPoint, k.key, nullptr);
    benchmark::DoNotOptimize(out);
  }
  if (std::vector<unsigned char>(out, out + len) != want) state.SkipWithError("tessel and OpenSSL disagree");
}

void tesselDerive(benchmark::State& state, Curve c) {
  Keys k(c);
  const BigNum d = k.ours.d;
  for (auto _ : state) benchmark::DoNotOptimize(k.ours.setPrivateKey(c, d));
}

void opensslDerive(benchmark::State& state, Curve c) {
  const Keys k(c);
  const EC_GROUP* group = EC_KEY_get0_group(k.key);
  EC_POINT* pub = EC_POINT_new(group);
  BN_CTX* ctx = BN_CTX_new();
  BIGNUM *x = BN_new(), *y = BN_new();
  for (auto _ : state) {
    EC_POINT_mul(group, pub, EC_KEY_get0_private_key(k.key), nullptr, nullptr, ctx);
    EC_POINT_get_affine_coordinates(group, pub, x, y, ctx);
    benchmark::DoNotOptimize(x);
  }
  BN_free(x), BN_free(y);
  BN_CTX_free(ctx);
  EC_POINT_free(pub);
}

// Registered in pairs so each tessel line is followed by OpenSSL's for the same work.
const bool registered = [] {
  for (Curve c : {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521}) {
    const std::string name = std::string("eckey/") + tessel::getCurveName(c);
    auto add = [&](const char* what, void (*ours)(benchmark::State&, Curve), void (*theirs)(benchmark::State&, Curve)) {
      benchmark::RegisterBenchmark((name + what + "/tessel").c_str(), ours, c)->Unit(benchmark::kMicrosecond);
      benchmark::RegisterBenchmark((name + what + "/openssl").c_str(), theirs, c)->Unit(benchmark::kMicrosecond);
    };
    add("/sign", tesselSign, opensslSign);
    add("/ecdh", tesselEcdh, opensslEcdh);
    add("/derive", tesselDerive, opensslDerive);
  }
  return true;
}();

}  // namespace
