#include <span>

#include "support.h"
#include "tessel/cmac.h"

namespace tessel {
namespace {

using test::Bytes;
using test::toHex;
using Spans = std::vector<std::span<const unsigned char>>;

Bytes cmac(const Bytes& key, const Bytes& msg) {
  Bytes out(16, 0xee);
  aesCmac(key.data(), static_cast<unsigned>(key.size()), msg.data(), static_cast<unsigned>(msg.size()), out.data());
  return out;
}

TEST(Cmac, Rfc4493) {
  LOAD_VECTORS(cases, "kat/cmac.json");
  test::forEachAesPath([&] {
    for (const auto& c : cases) {
      SCOPED_TRACE(c["id"].get<std::string>());
      Bytes key = *test::field(c, "key"), k1(16), k2(16), out(16);
      if (c.contains("k1")) {
        genCmacSubkey(key.data(), k1.data(), k2.data());
        EXPECT_EQ(toHex(k1) + toHex(k2), c["k1"].get<std::string>() + c["k2"].get<std::string>());
        continue;
      }
      Bytes msg = *test::field(c, "message");
      aesCmac128(key.data(), msg.data(), static_cast<unsigned>(msg.size()), out.data());
      EXPECT_EQ(toHex(out), c["tag"].get<std::string>());
    }
  });
}

// Wycheproof (every message length around the blocks, all three key sizes, truncated tags):
// 16-, 24- and 32-byte keys give the expected verdict (a tag equal to the expected one exactly
// for the valid cases); every other key size produces nothing.
TEST(Cmac, Wycheproof) {
  LOAD_VECTORS(file, "wycheproof/aes_cmac_test.json");
  test::forEachAesPath([&] {
    int checked = test::forEachWycheproofTest(file, [](const auto&, const auto& t) {
      Bytes key = *test::field(t, "key"), tag = *test::field(t, "tag"), out = cmac(key, *test::field(t, "msg"));
      if (key.size() != 16 && key.size() != 24 && key.size() != 32) {
        Bytes k1(16, 0xee), k2(16, 0xee);
        genCmacSubkey(key.data(), static_cast<unsigned>(key.size()), k1.data(), k2.data());
        EXPECT_EQ(out, Bytes(16, 0xee));  // untouched
        EXPECT_EQ(k1, out);
        EXPECT_EQ(k2, out);
        return;
      }
      EXPECT_EQ(t["result"] == "valid", toHex(out).substr(0, 2 * tag.size()) == toHex(tag)) << t["comment"];
    });
    EXPECT_EQ(checked, 311);
  });
}

Spans spans(const std::vector<Bytes>& parts) { return Spans(parts.begin(), parts.end()); }

TEST(Siv, Rfc5297) {
  LOAD_VECTORS(cases, "kat/siv.json");
  test::forEachAesPath([&] {
    for (const auto& c : cases) {
      SCOPED_TRACE(c["id"].get<std::string>());
      Bytes key = *test::field(c, "key"), plain = *test::field(c, "plaintext");
      std::vector<Bytes> ad;
      for (const auto& a : c["associated_data"]) ad.push_back(test::fromHex(a.get<std::string>()));
      if (!c["nonce"].is_null()) ad.push_back(*test::field(c, "nonce"));  // the nonce is the last AD string
      AESSIV siv(key);
      Bytes out(plain.size() + 16), back(plain.size());
      ASSERT_TRUE(siv.encrypt(plain, spans(ad), out.data()));
      EXPECT_EQ(toHex(out), c["output"].get<std::string>());
      ASSERT_TRUE(siv.decrypt(out, spans(ad), back.data()));
      EXPECT_EQ(back, plain);
    }
  });
}

// Wycheproof gives one associated-data string per case; every case gives its verdict.
TEST(Siv, Wycheproof) {
  LOAD_VECTORS(file, "wycheproof/aes_siv_cmac_test.json");
  test::forEachAesPath([&] {
    int checked = test::forEachWycheproofTest(file, [](const auto&, const auto& t) {
      Bytes key = *test::field(t, "key"), msg = *test::field(t, "msg"), ct = *test::field(t, "ct");
      std::vector<Bytes> ad = {*test::field(t, "aad")};
      AESSIV siv(key);
      Bytes plain(ct.size() >= 16 ? ct.size() - 16 : 0), sealed(msg.size() + 16);
      const bool valid = t["result"] == "valid";
      EXPECT_EQ(siv.decrypt(ct, spans(ad), plain.data()), valid) << t["comment"];
      if (!valid) return;
      EXPECT_EQ(plain, msg);
      EXPECT_TRUE(siv.encrypt(msg, spans(ad), sealed.data()));
      EXPECT_EQ(toHex(sealed), toHex(ct));
    });
    EXPECT_EQ(checked, 442);
  });
}

// Bad key sizes do nothing; the empty plaintext with no AD, records shorter than the IV, and
// one with an AD string dropped (the AD strings as RFC 5297's second case has them).
TEST(Siv, EdgeCases) {
  Bytes key(64, 0x3c), msg(40, 0x61), out(56, 0xee);
  for (std::size_t bad : {0u, 16u, 24u, 40u, 63u}) {
    AESSIV siv(key.data(), static_cast<unsigned>(bad));
    EXPECT_FALSE(siv.encrypt(msg, {}, out.data())) << bad;
    EXPECT_EQ(out, Bytes(56, 0xee)) << bad;
    EXPECT_FALSE(siv.decrypt(out, {}, out.data())) << bad;
  }
  for (unsigned len : {32u, 48u, 64u}) {
    AESSIV siv(key.data(), len);
    Bytes empty(16), none, sealed(56), back(40);
    ASSERT_TRUE(siv.encrypt({}, {}, empty.data()));  // S2V over the single empty plaintext
    EXPECT_TRUE(siv.decrypt(empty, {}, none.data()));
    ASSERT_TRUE(siv.encrypt(msg, spans({Bytes(5, 1), Bytes(), Bytes(33, 2)}), sealed.data()));
    for (std::size_t cut : {0u, 15u}) EXPECT_FALSE(siv.decrypt({sealed.data(), cut}, {}, back.data())) << cut;
    EXPECT_FALSE(siv.decrypt(sealed, spans({Bytes(5, 1), Bytes(33, 2)}), back.data()));
  }
}

}  // namespace
}  // namespace tessel
