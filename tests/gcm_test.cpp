#include <memory>
#include <set>

#include "backends.h"
#include "support.h"
#include "tessel/gcm.h"

namespace tessel {
namespace {

using test::Bytes;
using test::toHex;

Bytes seal(const Bytes& key, const Bytes& iv, const Bytes& aad, const Bytes& msg) {
  GCMCipher gcm(detail::makeAES(key.data(), key.size()));
  gcm.setIV(iv.data(), static_cast<unsigned>(iv.size()));
  return test::sealWith(gcm, msg, aad);
}

std::optional<Bytes> open(const Bytes& key, const Bytes& iv, const Bytes& aad, const Bytes& sealed) {
  GCMCipher gcm(detail::makeAES(key.data(), key.size()));
  gcm.setIV(iv.data(), static_cast<unsigned>(iv.size()));
  return test::openWith(gcm, sealed, aad);
}

// Wycheproof: 12-byte and longer IVs must give the expected verdict; shorter IVs follow this
// library's zero-padding rule instead: the 8-byte IVs 68-70, the small IVs 277-310 (1 to 10
// bytes) and the empty IVs 311-316, which Wycheproof rejects and this library accepts as
// twelve zero bytes.
TEST(Gcm, Wycheproof) {
  LOAD_VECTORS(file, "wycheproof/aes_gcm_test.json");
  test::forEachAesPath([&] {
    std::set<int> ownRule, expected = {68, 69, 70};
    int checked = test::forEachWycheproofTest(file, [&](const auto&, const auto& t) {
      Bytes key = *test::field(t, "key"), iv = *test::field(t, "iv"), aad = *test::field(t, "aad");
      Bytes msg = *test::field(t, "msg"), sealed = *test::field(t, "ct"), tag = *test::field(t, "tag");
      sealed.insert(sealed.end(), tag.begin(), tag.end());
      const bool valid = t["result"] == "valid";
      if (iv.size() < 12) {
        // Zero-padded here, not hashed as the standard does: the result with the padded 12-byte
        // IV, whose own results are those of the 12-byte cases.
        ownRule.insert(t["tcId"].template get<int>());
        Bytes padded = iv, ours = seal(key, iv, aad, msg);
        padded.resize(12, 0);
        EXPECT_EQ(toHex(ours), toHex(seal(key, padded, aad, msg)));
        EXPECT_EQ(open(key, iv, aad, ours), msg);
        return;
      }
      if (valid) {
        EXPECT_EQ(toHex(seal(key, iv, aad, msg)), toHex(sealed));
      }
      EXPECT_EQ(open(key, iv, aad, sealed), valid ? std::optional(msg) : std::nullopt) << t["comment"];
    });
    EXPECT_EQ(checked, 316);
    for (int id = 277; id <= 316; ++id) expected.insert(id);
    EXPECT_EQ(ownRule, expected);
  });
}

TEST(Gcm, LengthsAndBadInput) {
  test::forEachAesPath([&] {
    Bytes key(16, 0x24), iv(12, 0x01), aad(20, 0xaa), msg(60, 0x55);
    GCMCipher gcm(detail::makeAES(key.data(), 16));
    EXPECT_EQ(gcm.ciphertextLength(0), 16u);
    EXPECT_EQ(gcm.blockLength(), 16u);
    Bytes sealed = seal(key, iv, aad, msg);
    EXPECT_EQ(open(key, iv, aad, sealed), msg);
    // Every bit of the tag, and ciphertext and AAD bits, are checked.
    for (std::size_t bit = 0; bit < sealed.size() * 8; bit += (bit >= 60 * 8 ? 1 : 37)) {
      Bytes bad = sealed;
      bad[bit / 8] ^= static_cast<unsigned char>(1 << bit % 8);
      EXPECT_FALSE(open(key, iv, aad, bad)) << bit;
    }
    // Truncated and empty messages: fewer than 16 bytes is rejected before anything is read.
    for (long len : {0, 1, 15, 16, 17, 75})
      EXPECT_FALSE(open(key, iv, aad, Bytes(sealed.begin(), sealed.begin() + len)));
    aad[19] ^= 1;
    EXPECT_FALSE(open(key, iv, aad, sealed));
    // An IV longer than 12 bytes takes the GHASH path: a 13-byte IV differs from its 12-byte prefix.
    EXPECT_NE(seal(key, Bytes(13, 0x01), aad, msg), seal(key, iv, aad, msg));
  });
}

TEST(GcmDeathTest, NeedsSixteenByteBlocks) {
  EXPECT_DEATH(
      GCMCipher(std::make_unique<DES>(Bytes(8).data())),
      "\"aes->blockLength\\(\\) == 16\" failed: file \"../include/tessel/gcm.h\", line [0-9]+, function: GCMCipher");
}

#if TESSEL_HAVE_OPENSSL
// Through the runner the kernel GCM shares (backends.h): 12-byte and longer IVs, the 128- and
// 256-bit keys the factory takes (Wycheproof has the 192-bit ones).
TEST(Gcm, MatchesOpenSslForRandomInputs) {
  test::forEachAesPath([&] { EXPECT_EQ(test::gcmMatchesOpenSsl(test::softwareBackend(), 600), 400); });
}
#endif

}  // namespace
}  // namespace tessel
