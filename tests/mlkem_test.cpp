// ML-KEM-768 against the Wycheproof files (key generation from seeds, encapsulation with the key
// checks, decapsulation with implicit rejection and the decapsulation-key checks), and its key
// classes: every private key form through the containers, and encapsulation to the public key
// opened by the private key. (No OpenSSL oracle: the OpenSSL 3.0 of the build machines has no
// ML-KEM.)
#include <sstream>
#include <string>

#include "support.h"
#include "tessel/mlkem.h"
#include "tessel/mlkem_keys.h"
#include "tessel/pkcs8.h"

namespace tessel {
namespace {

using test::Bytes;
using test::field;
using test::toHex;

// expectVerdict checks that a valid case succeeded with the listed outputs and any other failed.
void expectVerdict(const nlohmann::json& t, bool ok, std::initializer_list<std::pair<const char*, Bytes>> outputs) {
  if (t["result"] != "valid") {
    EXPECT_FALSE(ok) << t.value("comment", "");
    return;
  }
  ASSERT_TRUE(ok);
  for (const auto& [name, value] : outputs) EXPECT_EQ(toHex(value), t[name]) << name;
}

// Every case of the three Wycheproof files: keys from seeds, then decapsulation of the given
// ciphertext (the implicit rejection value where it is not the encryption of anything we would
// send); encapsulation with the key checks; decapsulation with the decapsulation-key checks.
TEST(MLKEM768, Wycheproof) {
  LOAD_VECTORS(v, "wycheproof/mlkem_768_test.json");
  LOAD_VECTORS(encaps, "wycheproof/mlkem_768_encaps_test.json");
  LOAD_VECTORS(decaps, "wycheproof/mlkem_768_semi_expanded_decaps_test.json");
  auto keyGenDecaps = [](const nlohmann::json&, const nlohmann::json& t) {
    const Bytes seed = *field(t, "seed"), c = *field(t, "c");
    Bytes ek, dk, secret;
    const bool ok = seed.size() == 64 && mlkem768::keyGen({seed.data(), 32}, {seed.data() + 32, 32}, ek, dk) &&
                    MLKEMDecap(dk).decapsulate(c, secret);
    expectVerdict(t, ok, {{"ek", ek}, {"K", secret}});
  };
  auto encapsulate = [](const nlohmann::json&, const nlohmann::json& t) {
    const MLKEMEncap encap(*field(t, "ek"));
    Bytes c, secret;
    const bool ok = encap.encapsulate(*field(t, "m"), c, secret);
    EXPECT_EQ(ok, encap.isValid());
    expectVerdict(t, ok, {{"c", c}, {"K", secret}});
  };
  auto decapKeyChecks = [](const nlohmann::json&, const nlohmann::json& t) {
    Bytes secret;
    const bool ok = MLKEMDecap(*field(t, "dk")).decapsulate(*field(t, "c"), secret);
    expectVerdict(t, ok, {{"K", secret}});
  };
  EXPECT_EQ(test::forEachWycheproofTest(v, keyGenDecaps), 193);
  EXPECT_EQ(test::forEachWycheproofTest(encaps, encapsulate), 265);
  EXPECT_EQ(test::forEachWycheproofTest(decaps, decapKeyChecks), 9);
}

// ---- the key classes ----

// The PKCS#8 prefix of the seed form: version 0, id-alg-ml-kem-768 without parameters, and
// OCTET STRING { [0] 64 bytes }.
const char kSeedPrefix[] = "3054020100300b060960864801650304040204428040";

Bytes der(unsigned tag, const Bytes& content) {
  DerEncoder e;
  e.addPrimitive(tag, asn1::blob(content));
  return std::move(e.data);
}

// publicOf is the public half as its own object (a private key encodes its private form).
MLKEMPublicKey publicOf(const MLKEMPrivateKey& key) {
  MLKEMPublicKey pub;
  pub.encapsulationKey = key.encapsulationKey;
  return pub;
}

// Every seed of the key generation file: the derived keys match, and both keys survive their
// containers.
TEST(MLKEMKeys, WycheproofSeedsThroughContainers) {
  LOAD_VECTORS(v, "wycheproof/mlkem_768_keygen_seed_test.json");
  int n = test::forEachWycheproofTest(v, [](const nlohmann::json&, const nlohmann::json& t) {
    const Bytes seed = *field(t, "seed");
    MLKEMPrivateKey key;
    ASSERT_TRUE(key.setSeed(seed));
    EXPECT_EQ(toHex(key.encapsulationKey), t["ek"]);
    EXPECT_EQ(toHex(key.decapsulationKey()), t["dk"]);
    const Bytes pkcs8 = encodePkcs8PrivateKey(key);
    EXPECT_EQ(toHex(pkcs8), kSeedPrefix + toHex(seed));
    auto [priv, pub] = parseOneAssimetricKey(asn1::blob(pkcs8));
    ASSERT_TRUE(priv && !pub);
    EXPECT_EQ(priv->getKeyType(), keyMlkem768);
    EXPECT_EQ(toHex(dynamic_cast<MLKEMPrivateKey&>(*priv).decapsulationKey()), t["dk"]);
    auto parsed = parsePkcs8PublicKey(asn1::blob(encodePkcs8PublicKey(publicOf(key))));
    ASSERT_TRUE(parsed);
    EXPECT_TRUE(parsed->equals(key) && key.equals(*parsed));
    EXPECT_EQ(toHex(dynamic_cast<MLKEMPublicKey&>(*parsed).encapsulationKey), t["ek"]);
  });
  EXPECT_EQ(n, 100);
}

// A round trip through the containers, the primitive's answer for the same message, and a
// changed ciphertext giving the implicit-rejection secret J(z ‖ c) rather than an error.
TEST(MLKEMKeys, EncapsulateToPublicDecapsulateWithPrivate) {
  test::TestRng rng(203);
  MLKEMPrivateKey key;
  ASSERT_TRUE(key.setSeed(rng.bytes(64)));
  auto pub = parsePkcs8PublicKey(asn1::blob(encodePkcs8PublicKey(publicOf(key))));
  ASSERT_TRUE(pub);
  const auto& encap = dynamic_cast<const MLKEMPublicKey&>(*pub);
  Bytes c, k1, k2, k3, pc, pk;
  ASSERT_TRUE(encap.encapsulate(getDefaultRng(), c, k1));
  ASSERT_EQ(c.size(), mlkem768::ciphertextSize);
  ASSERT_TRUE(key.decapsulate(c, k2));
  EXPECT_EQ(toHex(k1), toHex(k2));
  const Bytes m = rng.bytes(32);
  ASSERT_TRUE(encap.encapsulateWith(m, c, k1));
  ASSERT_TRUE(MLKEMEncap(key.encapsulationKey).encapsulate(m, pc, pk));
  EXPECT_EQ(toHex(c) + toHex(k1), toHex(pc) + toHex(pk));
  c[17] ^= 4;
  ASSERT_TRUE(key.decapsulate(c, k3));
  EXPECT_NE(toHex(k3), toHex(k1)) << "a changed ciphertext gives the implicit-rejection secret";
  EXPECT_FALSE(key.decapsulate(Bytes(1087), k3));
  EXPECT_FALSE(encap.encapsulateWith(Bytes(31), c, k1)) << "a short message";
  EXPECT_FALSE(MLKEMPublicKey().encapsulate(getDefaultRng(), c, k1)) << "unset key";
  EXPECT_TRUE(c.empty() && k1.empty());
  MLKEMPrivateKey fresh;
  ASSERT_TRUE(fresh.generate(getDefaultRng()));
  EXPECT_EQ(fresh.seed().size(), 64u);
  EXPECT_FALSE(fresh.equals(key));
}

// The expanded and the pair forms are read; each refusal below is one malformation.
TEST(MLKEMKeys, PrivateKeyForms) {
  test::TestRng rng(768);
  const Bytes seed = rng.bytes(64);
  MLKEMPrivateKey ref, expanded, both;
  ASSERT_TRUE(ref.setSeed(seed));
  const Bytes dk = ref.decapsulationKey();
  ASSERT_TRUE(expanded.parseFromDerEncoded(asn1::blob(der(0x04, dk)), {}));
  EXPECT_TRUE(expanded.seed().empty());
  EXPECT_TRUE(expanded.equals(ref));
  EXPECT_EQ(toHex(expanded.encodeToDerEncoded()), toHex(der(0x04, dk))) << "written back as read";
  Bytes c, k1, k2;
  ASSERT_TRUE(ref.encapsulateWith(rng.bytes(32), c, k1));
  ASSERT_TRUE(expanded.decapsulate(c, k2));
  EXPECT_EQ(toHex(k1), toHex(k2));

  auto pair = [](const Bytes& s, const Bytes& d) {
    Bytes body = der(0x04, s), tail = der(0x04, d);
    body.insert(body.end(), tail.begin(), tail.end());
    return der(0x30, body);
  };
  ASSERT_TRUE(both.parseFromDerEncoded(asn1::blob(pair(seed, dk)), {}));
  EXPECT_EQ(toHex(both.encodeToDerEncoded()), toHex(der(0x80, seed))) << "written in the seed form";

  Bytes otherDk = dk, badEk = dk, trailing = der(0x80, seed);
  otherDk.back() ^= 1;               // another z: valid alone, but not what the seed derives
  badEk[1152] = badEk[1153] = 0xff;  // a coefficient of ek at 0xfff, above q (H(ek) then fails too)
  trailing.push_back(0);
  const Bytes refused[] = {der(0x80, Bytes(seed.begin(), seed.end() - 1)),
                           der(0x04, seed),
                           der(0x04, badEk),
                           pair(seed, otherDk),
                           der(0x81, seed),
                           trailing,
                           der(0x30, der(0x80, seed)),
                           {}};
  for (const Bytes& body : refused)
    EXPECT_FALSE(MLKEMPrivateKey().parseFromDerEncoded(asn1::blob(body), {})) << toHex(body).substr(0, 16);
  const Bytes null = {0x05, 0x00};
  EXPECT_FALSE(MLKEMPrivateKey().parseFromDerEncoded(asn1::blob(der(0x80, seed)), asn1::blob(null))) << "parameters";
  MLKEMPublicKey p;
  EXPECT_FALSE(p.parseFromDerEncoded(asn1::blob(ref.encapsulationKey), asn1::blob(null)));
  EXPECT_FALSE(p.parseFromDerEncoded(asn1::blob(Bytes(badEk.begin() + 1152, badEk.begin() + 2336)), {}));
  EXPECT_FALSE(p.parseFromDerEncoded(asn1::blob(Bytes(1183)), {}));
  EXPECT_TRUE(p.parseFromDerEncoded(asn1::blob(ref.encapsulationKey), {}));
}

TEST(MLKEMKeys, Dumps) {
  MLKEMPrivateKey key;
  ASSERT_TRUE(key.setSeed(Bytes(64, 0xab)));
  std::ostringstream pub;
  key.MLKEMPublicKey::dump(pub);
  const std::string ek = toHex(key.encapsulationKey);
  EXPECT_EQ(pub.str(), "[MLKEM768-PUBLIC]\nencapsulationKey: " + ek + "\n");
  EXPECT_EQ(test::dumpOf(key),
            "[MLKEM768-PRIVATE]\nencapsulationKey: " + ek + "\nseed: " + toHex(Bytes(64, 0xab)) + "\n");
}

}  // namespace
}  // namespace tessel
