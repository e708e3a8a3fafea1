// X25519 and Ed25519 against RFC 7748 / RFC 8032 known answers, random cases from Python's
// cryptography (tests/data/gen_num_25519.py) and every X25519 Wycheproof case, and their key
// classes. (Ed25519's Wycheproof cases run through the key classes in signature_test.cpp, and
// the `openssl genpkey` keys through every container in ec_key_test.cpp.)
#include <cstdlib>
#include <sstream>
#include <string>

#include "support.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/eddsa.h"
#include "tessel/x25519.h"

namespace tessel {
namespace {

using test::Bytes;
using test::field;
using test::fromHex;
using test::toHex;

std::string x25519Of(const Bytes& scalar, const Bytes& u, bool* nonZero = nullptr) {
  Bytes out(32);
  const bool ok = x25519::scalarMult(out.data(), scalar.data(), u.data());
  if (nonZero) *nonZero = ok;
  return toHex(out);
}

std::string publicOf(const Bytes& scalar) {
  Bytes out(32);
  x25519::publicKey(out.data(), scalar.data());
  return toHex(out);
}

// withPython appends the cases of table `name` of num_25519.json to the known answers.
nlohmann::json withPython(nlohmann::json known, const char* name) {
  const nlohmann::json python = test::dataFile("num_25519.json");
  for (const auto& c : python[name]) known.push_back(c);
  return known;
}

const nlohmann::json& edges(const char* table) {
  static const nlohmann::json all = test::dataFile("curve25519_edges.json");
  return all.at(table);
}

// The one-million-iteration case takes about a minute of processor time on a 64-bit machine
// (several on the 32-bit build), so it runs only when TESSEL_SLOW is set.
TEST(X25519, KnownAnswers) {
  LOAD_VECTORS(known, "kat/x25519.json");
  int checked = 0;
  for (const auto& c : withPython(known, "x25519")) {
    SCOPED_TRACE(c["id"].get<std::string>());
    if (c.contains("scalar")) {
      EXPECT_EQ(x25519Of(*field(c, "scalar"), *field(c, "u_coordinate")), c["output"]);
    } else if (c.contains("iterations")) {
      if (c.value("slow", false) && !std::getenv("TESSEL_SLOW")) continue;
      Bytes k = *field(c, "initial_k"), u = *field(c, "initial_u");
      for (long i = c["iterations"].get<long>(); i > 0; --i) u = std::exchange(k, fromHex(x25519Of(k, u)));
      EXPECT_EQ(toHex(k), c["result_k"]);
    } else {
      const Bytes a = *field(c, "alice_private"), b = *field(c, "bob_private");
      EXPECT_EQ(publicOf(a), c["alice_public"]);
      EXPECT_EQ(publicOf(b), c["bob_public"]);
      EXPECT_EQ(x25519Of(a, *field(c, "bob_public")), c["shared_secret"]);
      EXPECT_EQ(x25519Of(b, *field(c, "alice_public")), c["shared_secret"]);
    }
    ++checked;
  }
  EXPECT_GE(checked, 20);
}

// Every Wycheproof case: valid and acceptable cases give the listed secret, except that an
// all-zero secret (small-order peer) is refused.
TEST(X25519, Wycheproof) {
  LOAD_VECTORS(v, "wycheproof/x25519_test.json");
  int zeroRefused = 0;
  int n = test::forEachWycheproofTest(v, [&](const nlohmann::json&, const nlohmann::json& t) {
    bool nonZero = false;
    const std::string out = x25519Of(*field(t, "private"), *field(t, "public"), &nonZero);
    const bool zeroExpected = *field(t, "shared") == Bytes(32, 0);
    ASSERT_NE(t["result"], "invalid");
    EXPECT_EQ(out, t["shared"]);
    EXPECT_EQ(nonZero, !zeroExpected);
    zeroRefused += zeroExpected;
  });
  EXPECT_EQ(n, 518);
  EXPECT_GT(zeroRefused, 0);
}

TEST(Ed25519, KnownAnswers) {
  LOAD_VECTORS(known, "kat/ed25519.json");
  const nlohmann::json v = withPython(known, "ed25519");
  for (const auto& c : v) {
    SCOPED_TRACE(c["id"].get<std::string>());
    const Bytes seed = *field(c, "secret_key"), msg = *field(c, "message");
    Bytes pub(32), sig(64);
    eddsa::publicKeyFromSeed(pub.data(), seed.data());
    EXPECT_EQ(toHex(pub), c["public_key"]);
    eddsa::sign(sig.data(), msg, seed.data(), pub.data());
    EXPECT_EQ(toHex(sig), c["signature"]);
    EXPECT_TRUE(eddsa::verify(sig, msg, pub));
  }
  EXPECT_GE(v.size(), 27u);
}

// Scalars at and beyond L (tests/data/curve25519_edges.json): the reduction must be exact across
// the whole 512-bit range. Point encodings: unreduced y and y with no x are refused; [L]B and
// B + (−B) are the neutral element.
TEST(Ed25519, ReduceScalarAndPointEdges) {
  for (const auto& c : edges("reduceScalar")) {
    Bytes in = fromHex(c[0].get<std::string>()), out(32);
    eddsa::reduceScalar(out.data(), in.data());
    EXPECT_EQ(toHex(out), c[1]) << c[2];
  }
  Edwards25519 p;
  for (const auto& c : edges("edwardsDecode"))
    EXPECT_EQ(Edwards25519::fromBin_vartime(&p, fromHex(c[0].get<std::string>()).data()), c[1].get<bool>()) << c[2];
  const Bytes order = fromHex(edges("reduceScalar")[0][0].get<std::string>().substr(0, 64));  // L
  const std::string neutral = edges("edwardsDecode")[2][0];
  Bytes b(32);
  Edwards25519::base().toBin(b.data());
  EXPECT_EQ(toHex(b), edges("edwardsDecode")[4][0]);
  Edwards25519::base().scalarMult(order.data()).toBin(b.data());
  EXPECT_EQ(toHex(b), neutral) << "[L]B";
  Edwards25519::base().add(Edwards25519::base().negate()).toBin(b.data());
  EXPECT_EQ(toHex(b), neutral) << "B + (−B)";
}

// ---- the key classes ----

TEST(Key25519, MalformedBodiesRefused) {
  for (const auto& c : edges("keyBodies")) {
    Ed25519PublicKey pub;
    X25519PrivateKey priv;
    PublicKey& key = c[0] == "Ed25519PublicKey" ? static_cast<PublicKey&>(pub) : priv;
    const Bytes body = fromHex(c[1].get<std::string>()), params = fromHex(c[2].get<std::string>());
    EXPECT_EQ(key.parseFromDerEncoded(asn1::blob(body), asn1::blob(params)), c[3].get<bool>()) << c;
  }
}

// The RFC 8032 answer through the key class, a small-order peer refused, and the dumps. (X25519
// agreement through the key class is checked against OpenSSL in key_agreement_test.cpp.)
TEST(Key25519, DumpsAndOperations) {
  LOAD_VECTORS(ed, "kat/ed25519.json");
  Ed25519PrivateKey key;
  X25519PrivateKey x;
  key.setPrivateKey(field(ed[0], "secret_key")->data());
  x.setPrivateKey(field(ed[0], "secret_key")->data());
  const Bytes msg = *field(ed[0], "message");
  EXPECT_EQ(toHex(key.signHashed(hashNone, asn1::blob(msg))), ed[0]["signature"]);
  EXPECT_TRUE(key.verify(asn1::blob(msg), asn1::blob(*field(ed[0], "signature"))));
  EXPECT_TRUE(key.signHashed(hashSha256, asn1::blob(msg)).empty());
  const std::string pubLine = "publicKey: " + ed[0]["public_key"].get<std::string>() + "\n";
  std::ostringstream pub;
  key.Key25519Public::dump(pub);
  EXPECT_EQ(pub.str(), "[ED25519-PUBLIC]\n" + pubLine);
  EXPECT_EQ(test::dumpOf(key),
            "[ED25519-PRIVATE]\n" + pubLine + "privateKey: " + ed[0]["secret_key"].get<std::string>() + "\n");
  EXPECT_TRUE(x.deriveSharedSecret(X25519PublicKey()).empty()) << "u = 0 has small order: refused";
  EXPECT_EQ(test::dumpOf(x).substr(0, 28), "[X25519-PRIVATE]\npublicKey: ");
  EXPECT_FALSE(x.equals(key));
}

}  // namespace
}  // namespace tessel
