#include <memory>

#include "backends.h"
#include "support.h"
#include "tessel/cipher.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

TEST(Modes, CbcIgnoresPartialBlocksAndKeepsIv) {
  AES128 aes(Bytes(16, 7).data());
  Bytes iv(16, 0x11), in(31, 0x22), out(31, 0xee);
  for (unsigned len : {0u, 15u}) {
    CBC_encrypt(aes, iv.data(), in.data(), len, out.data());
    CBC_decrypt(aes, iv.data(), in.data(), len, out.data());
  }
  EXPECT_EQ(iv, Bytes(16, 0x11));
  EXPECT_EQ(out, Bytes(31, 0xee));
  CBC_encrypt(aes, iv.data(), in.data(), 31, out.data());
  EXPECT_EQ(Bytes(out.begin() + 16, out.end()), Bytes(15, 0xee));  // no output for the tail
  EXPECT_EQ(iv, Bytes(out.begin(), out.begin() + 16));
  iv.assign(16, 0x11);
  CBC_encrypt(aes, iv.data(), in.data(), 31, in.data());  // in place: the same bytes
  EXPECT_EQ(Bytes(in.begin(), in.begin() + 16), Bytes(out.begin(), out.begin() + 16));
}

TEST(Modes, CtrCounterWrapsLowWordOnlyAndPartialBlocksUseWholeCounters) {
  AES128 aes(Bytes(16, 3).data());
  Bytes iv = fromHex("0102030405060708090a0b0cffffffff"), zeros(48, 0), out(48), block(16);
  CTR128_encrypt(aes, iv.data(), zeros.data(), 17, out.data());
  EXPECT_EQ(toHex(iv), "0102030405060708090a0b0c00000001");  // wrapped, no carry, two counters used
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
  const Bytes afterFirst = iv;
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
  for (Cipher* c : {static_cast<Cipher*>(&cbc), static_cast<Cipher*>(&cfb), static_cast<Cipher*>(&ctr)}) {
    EXPECT_EQ(c->blockLength(), 16u);
    EXPECT_EQ(c->ciphertextLength(31), c == &cbc ? 16u : 31u);
    Bytes ct(c->ciphertextLength(37)), pt(ct.size());
    c->setIV(iv.data(), 16);
    c->encrypt(msg.data(), 37, nullptr, 0, ct.data());
    c->setIV(iv.data(), 16);
    EXPECT_EQ(c->decrypt(ct.data(), static_cast<unsigned>(ct.size()), nullptr, 0, pt.data()), ct.size());
    EXPECT_EQ(pt, Bytes(msg.begin(), msg.begin() + static_cast<long>(pt.size())));
  }
  // CBC copies at most 16 IV bytes and keeps the old value of bytes not given.
  Bytes a(16), b(16);
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
  EXPECT_DEATH(ctr.setIV(buf.data(), 12),
               "\"size == sizeof\\(iv\\)\" failed: file \"cipher.cpp\", line [0-9]+, function: setIV");
}

#if TESSEL_HAVE_OPENSSL
// CBC, CTR and CFB over AES and CBC over (triple) DES, as the factory builds them, against
// OpenSSL through the runner the kernel objects share (backends.h).
TEST(Modes, MatchOpenSslForRandomInputsAndSplits) {
  test::forEachAesPath([&] { EXPECT_EQ(test::modesMatchOpenSsl(test::softwareBackend(), 150), 9 * 150); });
}
#endif

}  // namespace
}  // namespace tessel
