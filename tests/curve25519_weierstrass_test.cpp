// X25519 and Ed25519 against RFC 7748 / RFC 8032 known answers, every Wycheproof case and
// OpenSSL's libcrypto.
#include <cstdlib>
#include <cstring>
#include <string>

#if TESSEL_HAVE_OPENSSL
#include <openssl/evp.h>

#include "openssl_oracle.h"
#endif
#include "support.h"
#include "tessel/eddsa.h"
#include "tessel/x25519.h"

namespace tessel {
namespace {

using test::Bytes;
using test::field;
using test::fromHex;
using test::toHex;

Bytes x25519Of(const Bytes& scalar, const Bytes& u, bool* nonZero = nullptr) {
  Bytes out(32);
  bool ok = x25519::scalarMult(out.data(), scalar.data(), u.data());
  if (nonZero) *nonZero = ok;
  return out;
}

// The one-million-iteration case takes about a minute of processor time on a 64-bit machine
// (several on the 32-bit build), so it runs only when TESSEL_SLOW is set.
bool slowCasesWanted() { return std::getenv("TESSEL_SLOW") != nullptr; }

TEST(X25519, KnownAnswers) {
  LOAD_VECTORS(v, "kat/x25519.json");
  int checked = 0;
  for (const auto& c : v) {
    SCOPED_TRACE(c["id"].get<std::string>());
    if (c.contains("scalar")) {
      EXPECT_EQ(toHex(x25519Of(*field(c, "scalar"), *field(c, "u_coordinate"))), c["output"].get<std::string>());
      ++checked;
    } else if (c.contains("iterations")) {
      const long n = c["iterations"].get<long>();
      if (c.value("slow", false) && !slowCasesWanted()) continue;
      Bytes k = *field(c, "initial_k"), u = *field(c, "initial_u");
      for (long i = 0; i < n; ++i) {
        Bytes r = x25519Of(k, u);
        u = k;
        k = r;
      }
      EXPECT_EQ(toHex(k), c["result_k"].get<std::string>());
      ++checked;
    } else if (c.contains("alice_private")) {
      Bytes a = *field(c, "alice_private"), b = *field(c, "bob_private");
      Bytes pa(32), pb(32);
      x25519::publicKey(pa.data(), a.data());
      x25519::publicKey(pb.data(), b.data());
      if (c.contains("alice_public")) {
        EXPECT_EQ(toHex(pa), c["alice_public"].get<std::string>());
      }
      if (c.contains("bob_public")) {
        EXPECT_EQ(toHex(pb), c["bob_public"].get<std::string>());
      }
      EXPECT_EQ(toHex(x25519Of(a, pb)), c["shared_secret"].get<std::string>());
      EXPECT_EQ(toHex(x25519Of(b, pa)), c["shared_secret"].get<std::string>());
      ++checked;
    } else {
      ADD_FAILURE() << "unknown case shape";
    }
  }
  EXPECT_GE(checked, 3);
}

// Every Wycheproof case: valid and acceptable cases give the listed secret, except that an
// all-zero secret (small-order peer) is refused.
TEST(X25519, Wycheproof) {
  LOAD_VECTORS(v, "wycheproof/x25519_test.json");
  int zeroRefused = 0;
  int n = test::forEachWycheproofTest(v, [&](const nlohmann::json&, const nlohmann::json& t) {
    bool nonZero = false;
    Bytes out = x25519Of(*field(t, "private"), *field(t, "public"), &nonZero);
    const Bytes expected = *field(t, "shared");
    const bool zeroExpected = expected == Bytes(32, 0);
    ASSERT_NE(t["result"], "invalid");
    EXPECT_EQ(toHex(out), toHex(expected));
    EXPECT_EQ(nonZero, !zeroExpected);
    zeroRefused += zeroExpected;
  });
  EXPECT_EQ(n, 518);
  EXPECT_GT(zeroRefused, 0);
}

TEST(Ed25519, KnownAnswers) {
  LOAD_VECTORS(v, "kat/ed25519.json");
  for (const auto& c : v) {
    SCOPED_TRACE(c["id"].get<std::string>());
    const Bytes seed = *field(c, "secret_key"), msg = *field(c, "message");
    Bytes pub(32), sig(64);
    eddsa::publicKeyFromSeed(pub.data(), seed.data());
    EXPECT_EQ(toHex(pub), c["public_key"].get<std::string>());
    eddsa::sign(sig.data(), msg, seed.data(), pub.data());
    EXPECT_EQ(toHex(sig), c["signature"].get<std::string>());
    EXPECT_TRUE(eddsa::verify(sig, msg, pub));
    sig[5] ^= 1;
    EXPECT_FALSE(eddsa::verify(sig, msg, pub));
  }
  EXPECT_GE(v.size(), 3u);
}

TEST(Ed25519, Wycheproof) {
  LOAD_VECTORS(v, "wycheproof/ed25519_test.json");
  int n = test::forEachWycheproofTest(v, [](const nlohmann::json& g, const nlohmann::json& t) {
    const Bytes pk = fromHex(g["publicKey"]["pk"].get<std::string>());
    const bool ok = eddsa::verify(*field(t, "sig"), *field(t, "msg"), pk);
    EXPECT_EQ(ok, t["result"] == "valid");
  });
  EXPECT_EQ(n, 151);
}

// Scalars at and beyond L (tests/data/curve25519_edges.json): the reduction must be exact
// across the whole 512-bit range.
TEST(Ed25519, ReduceScalarEdges) {
  const auto cases = test::dataFile("curve25519_edges.json");
  for (const auto& c : cases.at("reduceScalar")) {
    Bytes in = fromHex(c[0].get<std::string>()), out(32);
    eddsa::reduceScalar(out.data(), in.data());
    EXPECT_EQ(toHex(out), c[1].get<std::string>()) << c[2];
  }
}

TEST(Edwards25519, EncodingRejects) {
  Edwards25519 p;
  Bytes b(32);
  // y = p (not reduced) and y = 2 (no x exists) are refused; y = 1 with the sign bit is x = 0 "negative".
  Bytes yp = fromHex("edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f");
  EXPECT_FALSE(Edwards25519::fromBin_vartime(&p, yp.data()));
  Bytes y2(32, 0);
  y2[0] = 2;
  EXPECT_FALSE(Edwards25519::fromBin_vartime(&p, y2.data()));
  Bytes y1(32, 0);
  y1[0] = 1;
  EXPECT_TRUE(Edwards25519::fromBin_vartime(&p, y1.data()));
  y1[31] = 0x80;
  EXPECT_FALSE(Edwards25519::fromBin_vartime(&p, y1.data()));
  // The base point round-trips and [L]B is the neutral element.
  Edwards25519::base().toBin(b.data());
  EXPECT_EQ(toHex(b), "5866666666666666666666666666666666666666666666666666666666666666");
  Bytes order = fromHex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
  Edwards25519::base().scalarMult(order.data()).toBin(b.data());
  EXPECT_EQ(toHex(b), "0100000000000000000000000000000000000000000000000000000000000000");
  // B + (-B) is neutral too.
  Edwards25519::base().add(Edwards25519::base().negate()).toBin(b.data());
  EXPECT_EQ(toHex(b), "0100000000000000000000000000000000000000000000000000000000000000");
}

#if TESSEL_HAVE_OPENSSL

EVP_PKEY* opensslRawKey(int type, const Bytes& raw, bool priv) {
  return priv ? EVP_PKEY_new_raw_private_key(type, nullptr, raw.data(), raw.size())
              : EVP_PKEY_new_raw_public_key(type, nullptr, raw.data(), raw.size());
}

TEST(X25519, AgreesWithOpenSSL) {
  test::TestRng rng(25519);
  for (int i = 0; i < 32; ++i) {
    Bytes a = rng.bytes(32), b = rng.bytes(32), pb(32);
    x25519::publicKey(pb.data(), b.data());
    EVP_PKEY* ka = opensslRawKey(EVP_PKEY_X25519, a, true);
    EVP_PKEY* kb = opensslRawKey(EVP_PKEY_X25519, pb, false);
    ASSERT_TRUE(ka && kb);
    Bytes opub(32);
    size_t len = 32;
    ASSERT_EQ(EVP_PKEY_get_raw_public_key(ka, opub.data(), &len), 1);
    Bytes pa(32);
    x25519::publicKey(pa.data(), a.data());
    EXPECT_EQ(toHex(pa), toHex(opub));
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(ka, nullptr);
    Bytes secret(32);
    len = 32;
    ASSERT_EQ(EVP_PKEY_derive_init(ctx), 1);
    ASSERT_EQ(EVP_PKEY_derive_set_peer(ctx, kb), 1);
    ASSERT_EQ(EVP_PKEY_derive(ctx, secret.data(), &len), 1);
    EXPECT_EQ(toHex(x25519Of(a, pb)), toHex(secret));
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(ka);
    EVP_PKEY_free(kb);
  }
}

TEST(Ed25519, InteropWithOpenSSL) {
  test::TestRng rng(8032);
  for (int i = 0; i < 24; ++i) {
    const Bytes seed = rng.bytes(32), msg = rng.bytes(rng.below(300));
    Bytes pub(32), sig(64), osig(64);
    eddsa::publicKeyFromSeed(pub.data(), seed.data());
    EVP_PKEY* key = opensslRawKey(EVP_PKEY_ED25519, seed, true);
    ASSERT_TRUE(key);
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    size_t len = 64;
    ASSERT_EQ(EVP_DigestSignInit(md, nullptr, nullptr, nullptr, key), 1);
    ASSERT_EQ(EVP_DigestSign(md, osig.data(), &len, msg.data(), msg.size()), 1);
    EXPECT_TRUE(eddsa::verify(osig, msg, pub)) << "OpenSSL's signature verifies with ours";
    eddsa::sign(sig.data(), msg, seed.data(), pub.data());
    EXPECT_EQ(toHex(sig), toHex(osig)) << "deterministic: both sign alike";
    EVP_MD_CTX_reset(md);
    ASSERT_EQ(EVP_DigestVerifyInit(md, nullptr, nullptr, nullptr, key), 1);
    EXPECT_EQ(EVP_DigestVerify(md, sig.data(), sig.size(), msg.data(), msg.size()), 1);
    EVP_MD_CTX_free(md);
    EVP_PKEY_free(key);
  }
}

#endif  // TESSEL_HAVE_OPENSSL

}  // namespace
}  // namespace tessel
