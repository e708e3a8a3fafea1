#include <iostream>
#include <memory>

#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif
#include "support.h"
#include "tessel/block.h"
#include "tessel/cpu.h"

namespace tessel {
namespace {

using test::Bytes;
using test::toHex;

// ecb runs a block cipher over whole blocks in place, in either direction.
Bytes ecb(const BlockCipher& c, Bytes data, bool encrypt) {
  for (std::size_t at = 0; at < data.size(); at += c.blockLength())
    encrypt ? c.encrypt(data.data() + at, data.data() + at) : c.decrypt(data.data() + at, data.data() + at);
  return data;
}

// Both directions in place, and the first block into a separate buffer.
void checkKnownAnswer(const BlockCipher& c, const Bytes& plain, const Bytes& cipher) {
  EXPECT_EQ(toHex(ecb(c, plain, true)), toHex(cipher));
  EXPECT_EQ(toHex(ecb(c, cipher, false)), toHex(plain));
  Bytes out(c.blockLength());
  c.encrypt(plain.data(), out.data());
  EXPECT_EQ(toHex(out), toHex(cipher).substr(0, 2 * c.blockLength()));
}

// The published AES and DES answers (a single-DES key also as the triple key K1 = K2 = K3).
TEST(BlockCiphers, KnownAnswers) {
  LOAD_VECTORS(aes, "kat/aes.json");
  LOAD_VECTORS(des, "kat/des.json");
  test::forEachAesPath([&] {
    for (const auto& c : aes) {
      SCOPED_TRACE(c["id"].get<std::string>());
      Bytes key = *test::field(c, "key");
      auto cipher = detail::makeAES(key.data(), key.size());
      ASSERT_TRUE(cipher);
      checkKnownAnswer(*cipher, *test::field(c, "plaintext"), *test::field(c, "ciphertext"));
    }
    unsigned char key[40] = {};
    for (std::size_t bad : {0u, 8u, 15u, 17u, 31u, 33u, 40u}) EXPECT_FALSE(detail::makeAES(key, bad)) << bad;
  });
  for (const auto& c : des) {
    SCOPED_TRACE(c["id"].get<std::string>());
    Bytes key = *test::field(c, "key"), plain = *test::field(c, "plaintext"), cipher = *test::field(c, "ciphertext");
    if (key.size() == 8) checkKnownAnswer(DES(key.data()), plain, cipher);
    const Bytes k1(key.begin(), key.begin() + 8);
    while (key.size() < 24) key.insert(key.end(), k1.begin(), k1.end());
    checkKnownAnswer(DES3(key.data()), plain, cipher);
  }
  checkKnownAnswer(NullBlockCipher(), {0xa5, 0x3c}, {0xa5, 0x3c});  // one byte at a time
}

// The AES and GHASH paths follow the processor and the portable switch.
TEST(Aes, CodePathFollowsProcessorAndSwitch) {
  EXPECT_EQ(aesInstructionsInUse(), cpuHasAesInstructions());
  EXPECT_EQ(carrylessMultiplyInUse(), cpuHasAesInstructions() && cpuHasCarrylessMultiply());
  forcePortable(true);
  EXPECT_FALSE(aesInstructionsInUse());
  EXPECT_FALSE(carrylessMultiplyInUse());
  forcePortable(false);
  std::cout << "AES instructions: " << cpuHasAesInstructions() << ", carry-less multiply: " << cpuHasCarrylessMultiply()
            << "\n";
}

// skip(n) then encrypt equals encrypt of n + len bytes with the first n dropped; setKey restarts.
TEST(Rc4, KeystreamAtOffsetsAndSkip) {
  LOAD_VECTORS(cases, "kat/rc4.json");
  for (const auto& c : cases) {
    SCOPED_TRACE(c["id"].get<std::string>());
    Bytes key = *test::field(c, "key"), stream(4096 + 16);
    RC4 whole, skipped;
    whole.setKey(key.data(), static_cast<unsigned>(key.size()));
    whole.encrypt(stream.data(), stream.data(), static_cast<unsigned>(stream.size()));  // of zero bytes
    for (const auto& at : c["keystream_at_offsets"]) {
      unsigned offset = at["offset"];
      EXPECT_EQ(toHex(stream.data() + offset, 16), at["keystream"].get<std::string>()) << offset;
      skipped.setKey(key.data(), static_cast<unsigned>(key.size()));
      skipped.skip(offset);
      Bytes part(16);
      skipped.encrypt(part.data(), part.data(), 16);
      EXPECT_EQ(toHex(part), at["keystream"].get<std::string>()) << offset;
    }
  }
}

#if TESSEL_HAVE_OPENSSL
// Random keys and blocks through every block cipher against OpenSSL's ECB.
TEST(BlockCiphers, MatchOpenSslOnRandomBlocks) {
  ASSERT_TRUE(test::legacyProviders());
  test::forEachAesPath([&] {
    using enum test::BlockKind;
    const std::tuple<test::BlockKind, std::size_t, const EVP_CIPHER* (*)()> rows[] = {{aes, 16, EVP_aes_128_ecb},
                                                                                      {aes, 24, EVP_aes_192_ecb},
                                                                                      {aes, 32, EVP_aes_256_ecb},
                                                                                      {des, 8, EVP_des_ecb},
                                                                                      {des3, 24, EVP_des_ede3_ecb}};
    test::TestRng rng(0xb10c);
    for (const auto& [kind, keyLen, evp] : rows) {
      for (int i = 0; i < 200; ++i) {
        Bytes key = rng.bytes(keyLen);
        auto c = test::makeBlockCipher(kind, key);
        Bytes plain = rng.bytes(c->blockLength() * (1 + rng.below(8)));
        Bytes expected = test::opensslCipher(evp(), key, {}, plain, true);
        ASSERT_EQ(toHex(ecb(*c, plain, true)), toHex(expected)) << keyLen << " iteration " << i;
        ASSERT_EQ(toHex(ecb(*c, expected, false)), toHex(plain)) << keyLen << " iteration " << i;
      }
    }
  });
}

// Keys of every length from 1 to 256 bytes, messages fed in random splits.
TEST(Rc4, MatchesOpenSslForRandomKeysAndSplits) {
  ASSERT_TRUE(test::legacyProviders());
  test::TestRng rng(0x4c4);
  for (int i = 0; i < 300; ++i) {
    Bytes key = rng.bytes(1 + rng.below(256)), msg = rng.bytes(rng.below(3000)), out(msg.size());
    const Bytes expected = test::opensslCipher(EVP_rc4(), key, {}, msg, true);
    RC4 rc4;
    rc4.setKey(key.data(), static_cast<unsigned>(key.size()));
    std::size_t at = 0;
    for (std::size_t piece : test::randomSplits(rng, msg.size())) {
      rc4.encrypt(msg.data() + at, out.data() + at, static_cast<unsigned>(piece));
      at += piece;
    }
    ASSERT_EQ(toHex(out), toHex(expected)) << "iteration " << i;
  }
}
#endif

}  // namespace
}  // namespace tessel
