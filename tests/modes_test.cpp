#include <cstring>
#include <functional>
#include <memory>

#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif
#include "support.h"
#include "tessel/cipher.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

using ModeFn = void (*)(BlockCipher&, unsigned char*, const unsigned char*, unsigned, unsigned char*);

struct Mode {
  const char* name;
  ModeFn encrypt, decrypt;
};
const Mode kModes[] = {{"CBC", CBC_encrypt, CBC_decrypt},
                       {"CFB", CFB128_encrypt, CFB128_decrypt},
                       {"CTR", CTR128_encrypt, CTR128_decrypt}};

const Mode& modeNamed(const std::string& name) {
  for (const Mode& m : kModes)
    if (name.starts_with(m.name)) return m;  // "CFB128" is CFB
  ADD_FAILURE() << name;
  return kModes[0];
}

// run applies a mode function to `in` in the given pieces, chaining through one IV.
Bytes run(ModeFn fn, BlockCipher& c, Bytes iv, const Bytes& in, const std::vector<std::size_t>& pieces) {
  Bytes out(in.size());
  std::size_t at = 0;
  for (std::size_t n : pieces) {
    fn(c, iv.data(), in.data() + at, static_cast<unsigned>(n), out.data() + at);
    at += n;
  }
  return out;
}

TEST(Modes, Sp80038aVectors) {
  LOAD_VECTORS(cases, "kat/modes.json");
  ASSERT_EQ(cases.size(), 18u);
  test::forEachAesPath([&] {
    for (const auto& c : cases) {
      SCOPED_TRACE(c["id"].get<std::string>());
      Bytes key = fromHex(c["key"].get<std::string>());
      Bytes iv = *test::field(c, c.contains("iv") ? "iv" : "initial_counter_block");
      Bytes plain = fromHex(c["plaintext"].get<std::string>()), cipher = fromHex(c["ciphertext"].get<std::string>());
      auto aes = detail::makeAES(key.data(), key.size());
      const Mode& m = modeNamed(c["mode"]);
      // Whole message at once, and block by block on a chained IV.
      std::vector<std::size_t> blocks(plain.size() / 16, 16);
      if (c["direction"] == "encrypt") {
        EXPECT_EQ(toHex(run(m.encrypt, *aes, iv, plain, {plain.size()})), toHex(cipher));
        EXPECT_EQ(toHex(run(m.encrypt, *aes, iv, plain, blocks)), toHex(cipher));
      } else {
        EXPECT_EQ(toHex(run(m.decrypt, *aes, iv, cipher, {cipher.size()})), toHex(plain));
        EXPECT_EQ(toHex(run(m.decrypt, *aes, iv, cipher, blocks)), toHex(plain));
      }
    }
  });
}

TEST(Modes, CbcIgnoresPartialBlocksAndKeepsIv) {
  AES128 aes(Bytes(16, 7).data());
  Bytes iv(16, 0x11), in(31, 0x22), out(31, 0xee);
  for (unsigned len : {0u, 15u}) {
    CBC_encrypt(aes, iv.data(), in.data(), len, out.data());
    CBC_decrypt(aes, iv.data(), in.data(), len, out.data());
    EXPECT_EQ(iv, Bytes(16, 0x11));
    EXPECT_EQ(out, Bytes(31, 0xee));
  }
  CBC_encrypt(aes, iv.data(), in.data(), 31, out.data());
  EXPECT_EQ(Bytes(out.begin() + 16, out.end()), Bytes(15, 0xee));  // no output for the tail
  EXPECT_EQ(iv, Bytes(out.begin(), out.begin() + 16));
  // In-place encryption gives the same bytes.
  Bytes inPlace = in, iv2(16, 0x11);
  CBC_encrypt(aes, iv2.data(), inPlace.data(), 31, inPlace.data());
  EXPECT_EQ(Bytes(inPlace.begin(), inPlace.begin() + 16), Bytes(out.begin(), out.begin() + 16));
}

TEST(Modes, CtrCounterWrapsLowWordOnlyAndPartialBlocksUseWholeCounters) {
  Bytes key(16, 3);
  AES128 aes(key.data());
  Bytes iv = fromHex("0102030405060708090a0b0cffffffff"), zeros(48, 0), out(48);
  CTR128_encrypt(aes, iv.data(), zeros.data(), 17, out.data());
  EXPECT_EQ(toHex(iv), "0102030405060708090a0b0c00000001");  // wrapped, no carry, two counters used
  Bytes block(16);
  Bytes counter = fromHex("0102030405060708090a0b0c00000000");
  aes.encrypt(counter.data(), block.data());
  EXPECT_EQ(toHex(out.data() + 16, 1), toHex(block.data(), 1));
  CTR128_encrypt(aes, iv.data(), zeros.data(), 16, out.data());  // the next call starts at the third
  counter[15] = 1;
  aes.encrypt(counter.data(), block.data());
  EXPECT_EQ(toHex(out.data(), 16), toHex(block));
}

TEST(Modes, CfbPartialBlockDoesNotAdvanceIv) {
  AES128 aes(Bytes(16, 9).data());
  Bytes iv(16, 0x42), in(40, 0x5a), out(40);
  CFB128_encrypt(aes, iv.data(), in.data(), 20, out.data());
  Bytes afterFirst = iv;
  EXPECT_EQ(afterFirst, Bytes(out.begin(), out.begin() + 16));  // the last full ciphertext block
  CFB128_encrypt(aes, iv.data(), in.data(), 4, out.data() + 20);
  EXPECT_EQ(Bytes(out.begin() + 16, out.begin() + 20), Bytes(out.begin() + 20, out.begin() + 24));
  EXPECT_EQ(iv, afterFirst);
}

TEST(Modes, CipherClassesFollowTheirRules) {
  Bytes key(16, 1), iv(20, 0x33), msg(37, 0x44);
  CBCCipher cbc(std::make_unique<AES128>(key.data()));
  CFB128Cipher cfb(std::make_unique<AES128>(key.data()));
  CTR128Cipher ctr(std::make_unique<AES128>(key.data()));
  EXPECT_EQ(cbc.ciphertextLength(31), 16u);
  EXPECT_EQ(cfb.ciphertextLength(31), 31u);
  EXPECT_EQ(ctr.ciphertextLength(31), 31u);
  for (Cipher* c : {static_cast<Cipher*>(&cbc), static_cast<Cipher*>(&cfb), static_cast<Cipher*>(&ctr)}) {
    EXPECT_EQ(c->blockLength(), 16u);
    Bytes ct(c->ciphertextLength(37)), pt(ct.size());
    c->setIV(iv.data(), 16);
    c->encrypt(msg.data(), 37, nullptr, 0, ct.data());
    c->setIV(iv.data(), 16);
    EXPECT_EQ(c->decrypt(ct.data(), static_cast<unsigned>(ct.size()), nullptr, 0, pt.data()), ct.size());
    EXPECT_EQ(pt, Bytes(msg.begin(), msg.begin() + static_cast<long>(pt.size())));
  }
  // CBC copies at most 16 IV bytes and keeps the old value of bytes not given.
  Bytes a(16), b(16);
  cbc.setIV(Bytes(16, 0).data(), 16);
  cbc.setIV(iv.data(), 20);
  cbc.encrypt(msg.data(), 16, nullptr, 0, a.data());
  cbc.setIV(Bytes(16, 0x33).data(), 16);
  cbc.setIV(Bytes(8, 0x99).data(), 0);
  cbc.encrypt(msg.data(), 16, nullptr, 0, b.data());
  EXPECT_EQ(a, b);
}

TEST(ModesDeathTest, AssertionsNameTheirFiles) {
  Bytes key(8, 1), buf(16);
  DES des(key.data());
  EXPECT_DEATH(CFB128_encrypt(des, buf.data(), buf.data(), 8, buf.data()),
               "\"cipher.blockLength\\(\\) == 16\" failed: file \"cbc.cpp\"");
  EXPECT_DEATH(CTR128_decrypt(des, buf.data(), buf.data(), 8, buf.data()),
               "\"cipher.blockLength\\(\\) == 16\" failed: file \"block.cpp\"");
  CTR128Cipher ctr(std::make_unique<AES128>(Bytes(16).data()));
  EXPECT_DEATH(ctr.setIV(buf.data(), 12), "\"size == sizeof\\(iv\\)\" failed: file \"cipher.cpp\", line [0-9]+, function: setIV");
}

#if TESSEL_HAVE_OPENSSL
// Random keys, IVs, lengths and call splits for CBC, CFB128 and CTR over AES and CBC over
// DES and triple DES, against OpenSSL. CTR counters start low enough never to cross 2^32.
TEST(Modes, MatchOpenSslForRandomInputsAndSplits) {
  ASSERT_TRUE(test::legacyProviders());
  test::forEachAesPath([&] {
    using enum test::BlockKind;
    struct Row {
      const char* mode;
      test::BlockKind kind;
      std::size_t keyLen;
      const EVP_CIPHER* (*evp)();
    };
    const Row rows[] = {
        {"CBC", aes, 16, EVP_aes_128_cbc},    {"CBC", aes, 24, EVP_aes_192_cbc},    {"CBC", aes, 32, EVP_aes_256_cbc},
        {"CFB", aes, 16, EVP_aes_128_cfb128}, {"CFB", aes, 24, EVP_aes_192_cfb128}, {"CFB", aes, 32, EVP_aes_256_cfb128},
        {"CTR", aes, 16, EVP_aes_128_ctr},    {"CTR", aes, 24, EVP_aes_192_ctr},    {"CTR", aes, 32, EVP_aes_256_ctr},
        {"CBC", des, 8, EVP_des_cbc},         {"CBC", des3, 24, EVP_des_ede3_cbc}};
    test::TestRng rng(0x30de5);
    for (const Row& r : rows) {
      const Mode& m = modeNamed(r.mode);
      for (int i = 0; i < 150; ++i) {
        Bytes key = rng.bytes(r.keyLen);
        auto c = test::makeBlockCipher(r.kind, key);
        const std::size_t b = c->blockLength();
        Bytes iv = rng.bytes(b);
        if (m.encrypt == CTR128_encrypt) iv[12] = 0;  // at most 2^24 blocks from the wrap
        std::size_t len = rng.below(2000);
        if (m.encrypt == CBC_encrypt) len -= len % b;
        Bytes msg = rng.bytes(len);
        // Every piece but the last is whole blocks: only a stream's end may be partial.
        std::vector<std::size_t> pieces;
        for (std::size_t left = len; left;) {
          std::size_t n = std::min(left, b * rng.below(40));
          if (!n || n == left) n = left;
          pieces.push_back(n);
          left -= n;
        }
        Bytes expected = test::opensslCipher(r.evp(), key, iv, msg, true);
        ASSERT_EQ(toHex(run(m.encrypt, *c, iv, msg, pieces)), toHex(expected)) << r.mode << r.keyLen << " it " << i;
        ASSERT_EQ(toHex(run(m.decrypt, *c, iv, expected, pieces)), toHex(msg)) << r.mode << r.keyLen << " it " << i;
      }
    }
  });
}
#endif

}  // namespace
}  // namespace tessel
