#include <memory>

#include "support.h"
#include "tessel/cbc.h"
#include "tessel/factory.h"
#include "tessel/gcm.h"
#include "tessel/hmac.h"

namespace tessel {
namespace {

using test::Bytes;

TEST(Factory, KernelFlagsDefaultOff) {
  EXPECT_FALSE(ol::kernelCrypto);
  EXPECT_FALSE(ol::experimentalKernelCrypto);
}

TEST(Factory, HashesAndHmacs) {
  for (unsigned id = 1; id <= 7; ++id) {
    auto h = createHash(id);
    ASSERT_TRUE(h) << id;
    auto reference = test::makeSoftwareHash(id);
    const Hash &made = *h, &expected = *reference;
    EXPECT_EQ(typeid(made), typeid(expected)) << id;
    EXPECT_EQ(h->update("abc", 3).digest(), reference->update("abc", 3).digest()) << id;
    Bytes key = test::bytesOf("key");
    auto mac = createHMAC(id, key);
    ASSERT_TRUE(mac) << id;
    HMAC expectedMac(reference.get(), key.data(), 3);
    EXPECT_EQ(mac->update("msg", 3).digest(), expectedMac.update("msg", 3).digest()) << id;
  }
  for (unsigned id : {0u, 8u, 100u}) {
    EXPECT_FALSE(createHash(id)) << id;
    EXPECT_FALSE(createHMAC(id, Bytes(4))) << id;
  }
}

// One row per cipher id and key length: the object built (or none) and its block length.
TEST(Factory, CipherTable) {
  using enum test::BlockKind;
  struct Row {
    unsigned id;
    std::size_t keyLen;
    const char* kind;  // "" for an empty pointer
    unsigned block;
    test::BlockKind blockKind;  // AES by key length
  };
  const Row rows[] = {
      {1, 0, "CBC", 1, null},  {1, 13, "CBC", 1, null}, {2, 8, "CBC", 8, des},    {2, 16, "", 0, des},
      {3, 24, "CBC", 8, des3}, {3, 16, "", 0, des3},     {4, 16, "CBC", 16, aes},  {4, 24, "CBC", 16, aes},
      {4, 32, "CBC", 16, aes}, {4, 20, "", 0, aes},      {5, 16, "CTR", 16, aes},  {5, 24, "CTR", 16, aes},
      {5, 32, "CTR", 16, aes}, {5, 8, "", 0, aes},       {6, 16, "CFB", 16, aes},  {6, 24, "", 0, aes},
      {6, 32, "", 0, aes},     {7, 16, "GCM", 16, aes},  {7, 32, "GCM", 16, aes},  {7, 24, "", 0, aes},
      {0, 16, "", 0, aes},     {8, 16, "", 0, aes},      {99, 32, "", 0, aes}};
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.id) + " with " + std::to_string(r.keyLen) + "-byte key");
    Bytes key(r.keyLen, 0x4b);
    auto c = createCipher(r.id, key, 0);
    if (!*r.kind) {
      EXPECT_FALSE(c);
      continue;
    }
    ASSERT_TRUE(c);
    const std::string kind = r.kind;
    EXPECT_EQ(c->blockLength(), r.block);
    const bool rightMode = kind == "CBC"   ? dynamic_cast<CBCCipher*>(c.get()) != nullptr
                           : kind == "CTR" ? dynamic_cast<CTR128Cipher*>(c.get()) != nullptr
                           : kind == "CFB" ? dynamic_cast<CFB128Cipher*>(c.get()) != nullptr
                                           : dynamic_cast<GCMCipher*>(c.get()) != nullptr;
    EXPECT_TRUE(rightMode);
    if (kind == "GCM") {
      EXPECT_EQ(c->ciphertextLength(0), 16u);  // 16-byte tags whatever tagLength says
      continue;
    }
    // The mode runs over the block cipher of the row: compare with one built by hand.
    auto block = test::makeBlockCipher(r.blockKind, key);
    Bytes iv(16, 0x1f), msg(32, 0x3a), got(32), want(32);
    c->setIV(iv.data(), 16);
    c->encrypt(msg.data(), 32, nullptr, 0, got.data());
    if (kind == "CBC") CBC_encrypt(*block, iv.data(), msg.data(), 32, want.data());
    if (kind == "CTR") CTR128_encrypt(*block, iv.data(), msg.data(), 32, want.data());
    if (kind == "CFB") CFB128_encrypt(*block, iv.data(), msg.data(), 32, want.data());
    EXPECT_EQ(got, want);
  }
  // The null cipher ignores its key: CBC over the identity XORs each byte with the previous.
  auto identity = createCipher(1, Bytes(5, 9), 0);
  Bytes iv = {7}, in = {1, 2, 3}, out(3);
  identity->setIV(iv.data(), 1);
  identity->encrypt(in.data(), 3, nullptr, 0, out.data());
  EXPECT_EQ(out, Bytes({6, 4, 7}));
}

TEST(Factory, AeadOnlyForCbcCiphersInSoftware) {
  for (unsigned cipherId : {1u, 2u, 5u, 6u, 7u, 9u}) EXPECT_FALSE(createAead(cipherId, 5, Bytes(16), Bytes(32))) << cipherId;
  EXPECT_FALSE(createAead(4, 5, Bytes(15), Bytes(32)));  // no cipher for the key
  EXPECT_FALSE(createAead(4, 9, Bytes(16), Bytes(32)));  // no digest for the id
  struct Row {
    unsigned cipherId, hashId;
    std::size_t keyLen;
  };
  for (Row r : {Row{4, 5, 16}, Row{4, 4, 32}, Row{4, 3, 24}, Row{3, 5, 24}, Row{3, 4, 24}}) {
    SCOPED_TRACE(std::to_string(r.cipherId) + "/" + std::to_string(r.hashId));
    auto aead = createAead(r.cipherId, r.hashId, Bytes(r.keyLen, 0x61), Bytes(20, 0x62));
    ASSERT_TRUE(dynamic_cast<EncryptThenMacCipher*>(aead.get()));
    const unsigned block = r.cipherId == 3 ? 8 : 16, h = createHash(r.hashId)->digestLength();
    EXPECT_EQ(aead->ciphertextLength(32), 32 + h);
    Bytes iv(16, 0x63), aad(9, 0x64), msg(4 * block, 0x65);
    aead->setIV(iv.data(), 16);
    Bytes sealed = test::sealWith(*aead, msg, aad);
    EXPECT_EQ(test::openWith(*aead, sealed, aad), msg);
    sealed[block] ^= 4;  // tampered ciphertext
    EXPECT_FALSE(test::openWith(*aead, sealed, aad));
    sealed[block] ^= 4;
    sealed.back() ^= 1;  // tampered MAC
    EXPECT_FALSE(test::openWith(*aead, sealed, aad));
  }
}

TEST(Factory, OffloadSwitchedOnStillBuildsSoftwareForNow) {
  ol::kernelCrypto = true;
  auto c = createCipher(5, Bytes(16), 0);
  auto h = createHash(hashSha256);
  auto aead = createAead(4, 5, Bytes(16), Bytes(32));
  ol::kernelCrypto = false;
  EXPECT_TRUE(dynamic_cast<CTR128Cipher*>(c.get()));
  EXPECT_TRUE(dynamic_cast<SHA256*>(h.get()));
  EXPECT_TRUE(dynamic_cast<EncryptThenMacCipher*>(aead.get()));
}

TEST(Factory, PrioCryptoTakesFirstListedDriverElseLast) {
  const std::string info = "name : sha256\ndriver : sha256-generic\nname : cbc(aes)\ndriver : cbc-aes-aesni\n";
  EXPECT_EQ(detail::prioCrypto({"sha256-avx", "sha256-generic"}, info), "sha256-generic");
  EXPECT_EQ(detail::prioCrypto({"cbc-aes-aesni", "cbc(aes-generic)"}, info), "cbc-aes-aesni");
  EXPECT_EQ(detail::prioCrypto({"sha512-avx", "sha512-generic"}, info), "sha512-generic");
  EXPECT_EQ(detail::prioCrypto({"", "x"}, info), "x");  // an empty name never matches
  EXPECT_EQ(detail::prioCrypto({"sha256-avx"}, ""), "sha256-avx");
}

TEST(FactoryDeathTest, PrioCryptoNeedsAList) {
  EXPECT_DEATH(detail::prioCrypto({}, "x"), "\"vars.size\\(\\)\" failed: file \"factory.cpp\", line [0-9]+, function: prioCrypto");
}

}  // namespace
}  // namespace tessel
