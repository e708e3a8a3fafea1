// ML-KEM-768 against the Wycheproof files: key generation from seeds, encapsulation with the
// key checks, decapsulation with implicit rejection and the decapsulation-key checks.
#include <string>

#include "support.h"
#include "tessel/mlkem.h"

namespace tessel {
namespace {

using test::Bytes;
using test::field;
using test::toHex;

TEST(MLKEM768, KeyGenFromSeed) {
  LOAD_VECTORS(v, "wycheproof/mlkem_768_keygen_seed_test.json");
  int n = test::forEachWycheproofTest(v, [](const nlohmann::json&, const nlohmann::json& t) {
    const Bytes seed = *field(t, "seed");
    Bytes ek, dk;
    ASSERT_TRUE(mlkem768::keyGen({seed.data(), 32}, {seed.data() + 32, 32}, ek, dk));
    EXPECT_EQ(toHex(ek), t["ek"].get<std::string>());
    EXPECT_EQ(toHex(dk), t["dk"].get<std::string>());
  });
  EXPECT_EQ(n, 100);
}

// mlkem_768_test: keys from seeds, then decapsulation of the given ciphertext (the implicit
// rejection value where the ciphertext is not the encryption of anything we would send).
TEST(MLKEM768, KeyGenAndDecaps) {
  LOAD_VECTORS(v, "wycheproof/mlkem_768_test.json");
  int n = test::forEachWycheproofTest(v, [](const nlohmann::json&, const nlohmann::json& t) {
    const Bytes seed = *field(t, "seed"), c = *field(t, "c");
    Bytes ek, dk, secret;
    const bool keyOk = seed.size() == 64 && mlkem768::keyGen({seed.data(), 32}, {seed.data() + 32, 32}, ek, dk);
    const bool ok = keyOk && MLKEMDecap(dk).decapsulate(c, secret);
    if (t["result"] == "valid") {
      ASSERT_TRUE(ok);
      EXPECT_EQ(toHex(ek), t["ek"].get<std::string>());
      EXPECT_EQ(toHex(secret), t["K"].get<std::string>());
    } else {
      EXPECT_FALSE(ok) << t.value("comment", "");
    }
  });
  EXPECT_EQ(n, 193);
}

TEST(MLKEM768, Encaps) {
  LOAD_VECTORS(v, "wycheproof/mlkem_768_encaps_test.json");
  int n = test::forEachWycheproofTest(v, [](const nlohmann::json&, const nlohmann::json& t) {
    const MLKEMEncap encap(*field(t, "ek"));
    Bytes c, secret;
    const bool ok = encap.encapsulate(*field(t, "m"), c, secret);
    EXPECT_EQ(ok, encap.isValid());
    if (t["result"] == "valid") {
      ASSERT_TRUE(ok);
      EXPECT_EQ(toHex(c), t["c"].get<std::string>());
      EXPECT_EQ(toHex(secret), t["K"].get<std::string>());
    } else {
      EXPECT_FALSE(ok) << t.value("comment", "");
    }
  });
  EXPECT_EQ(n, 265);
}

TEST(MLKEM768, DecapsKeyChecks) {
  LOAD_VECTORS(v, "wycheproof/mlkem_768_semi_expanded_decaps_test.json");
  int n = test::forEachWycheproofTest(v, [](const nlohmann::json&, const nlohmann::json& t) {
    const MLKEMDecap decap(*field(t, "dk"));
    Bytes secret;
    const bool ok = decap.decapsulate(*field(t, "c"), secret);
    if (t["result"] == "valid") {
      ASSERT_TRUE(ok);
      EXPECT_EQ(toHex(secret), t["K"].get<std::string>());
    } else {
      EXPECT_FALSE(ok) << t.value("comment", "");
    }
  });
  EXPECT_EQ(n, 9);
}

// A round trip, and a changed ciphertext giving the implicit-rejection secret J(z ‖ c) rather than
// an error.
TEST(MLKEM768, RoundTripAndImplicitRejection) {
  test::TestRng rng(203);
  const Bytes d = rng.bytes(32), z = rng.bytes(32), m = rng.bytes(32);
  Bytes ek, dk, c, k1, k2, k3;
  ASSERT_TRUE(mlkem768::keyGen(d, z, ek, dk));
  ASSERT_TRUE(MLKEMEncap(ek).encapsulate(m, c, k1));
  const MLKEMDecap decap(dk);
  ASSERT_TRUE(decap.decapsulate(c, k2));
  EXPECT_EQ(toHex(k1), toHex(k2));
  c[100] ^= 1;
  ASSERT_TRUE(decap.decapsulate(c, k3));
  EXPECT_NE(toHex(k3), toHex(k1));
  EXPECT_FALSE(MLKEMEncap(ek).encapsulate(Bytes(31), c, k1));
}

}  // namespace
}  // namespace tessel
