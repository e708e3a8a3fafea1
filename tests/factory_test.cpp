#include <memory>

#include "backends.h"
#include "ol/file.h"
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

// Excerpts of "/proc/crypto": a processor with AES-NI and AVX2, one with the generic drivers
// only (the generic GCM appears once it has been used), and none at all.
const char kAccelerated[] =
    "name         : sha1\ndriver       : sha1-avx2\nmodule       : sha1_ssse3\npriority     : 170\n\n"
    "name         : sha1\ndriver       : sha1-avx\nmodule       : sha1_ssse3\npriority     : 160\n\n"
    "name         : sha256\ndriver       : sha256-avx2\nmodule       : sha256_ssse3\npriority     : 170\n\n"
    "name         : sha256\ndriver       : sha256-avx\nmodule       : sha256_ssse3\npriority     : 160\n\n"
    "name         : sha512\ndriver       : sha512-ssse3\nmodule       : sha512_ssse3\npriority     : 150\n\n"
    "name         : cbc(aes)\ndriver       : cbc-aes-aesni\nmodule       : aesni_intel\npriority     : 400\n\n"
    "name         : ctr(aes)\ndriver       : ctr-aes-aesni\nmodule       : aesni_intel\npriority     : 400\n\n"
    "name         : gcm(aes)\ndriver       : generic-gcm-aesni\nmodule       : aesni_intel\npriority     : 400\n";
const char kGeneric[] =
    "name         : sha256\ndriver       : sha256-generic\nmodule       : kernel\npriority     : 100\n\n"
    "name         : cbc(aes)\ndriver       : cbc(aes-generic)\nmodule       : kernel\npriority     : 100\n\n"
    "name         : gcm(aes)\ndriver       : gcm_base(ctr(aes-generic),ghash-generic)\nmodule       : gcm\n";

// Which driver the factory binds, by "/proc/crypto" text, for digests (key length 0) and
// ciphers; "" is software. Each list falls back to its last entry, GCM to its fixed name.
TEST(Factory, DriverChoiceTable) {
  struct Row {
    const char* text;
    bool hash;
    unsigned id;
    std::size_t keyLen;
    const char* driver;
  };
  const char* none = "";
  const Row rows[] = {
      {kAccelerated, true, hashSha1, 0, "sha1-avx"},  // found inside "sha1-avx2": a plain text search
      {kAccelerated, true, hashSha256, 0, "sha256-avx"},
      {kAccelerated, true, hashSha512, 0, "sha512-generic"},  // only the ssse3 driver is listed
      {kAccelerated, true, hashSha384, 0, ""},
      {kAccelerated, true, hashMd5, 0, ""},
      {kAccelerated, true, hashMd4, 0, ""},
      {kAccelerated, true, hashMd5Sha1, 0, ""},
      {kAccelerated, false, 4, 16, "cbc-aes-aesni"},
      {kAccelerated, false, 4, 24, "cbc-aes-aesni"},
      {kAccelerated, false, 5, 32, "ctr-aes-aesni"},
      {kAccelerated, false, 7, 16, "generic-gcm-aesni"},
      {kAccelerated, false, 7, 32, "generic-gcm-aesni"},
      {kAccelerated, false, 7, 24, ""},
      {kAccelerated, false, 4, 20, ""},
      {kAccelerated, false, 6, 16, ""},
      {kAccelerated, false, 2, 8, ""},
      {kAccelerated, false, 3, 24, ""},
      {kAccelerated, false, 1, 16, ""},
      {kGeneric, true, hashSha1, 0, "sha1-generic"},
      {kGeneric, true, hashSha256, 0, "sha256-generic"},
      {kGeneric, false, 4, 32, "cbc(aes-generic)"},
      {kGeneric, false, 5, 16, "ctr(aes-generic)"},
      {kGeneric, false, 7, 16, "gcm_base(ctr(aes-generic),ghash-generic)"},
      {none, true, hashSha1, 0, "sha1-generic"},
      {none, true, hashSha256, 0, "sha256-generic"},
      {none, true, hashSha512, 0, "sha512-generic"},
      {none, false, 4, 16, "cbc(aes-generic)"},
      {none, false, 5, 24, "ctr(aes-generic)"},
      {none, false, 7, 32, "gcm_base(ctr(aes-generic),ghash-generic)"},
      {none, false, 7, 24, ""}};
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.hash ? "hash " : "cipher ") + std::to_string(r.id) + " key " +
                 std::to_string(r.keyLen) + (r.text == kAccelerated ? " accelerated" : r.text == kGeneric ? " generic" : " empty"));
    test::FakeProcCrypto fake(r.text);
    EXPECT_EQ(r.hash ? detail::hashDriverName(r.id) : detail::cipherDriverName(r.id, r.keyLen), r.driver);
  }
}

TEST(Factory, CryptoInfoIsReadUnderThePlatformRoot) {
  const std::string real = detail::cryptoInfo();
  {
    test::FakeProcCrypto fake(kGeneric);
    EXPECT_EQ(detail::cryptoInfo(), kGeneric);
  }
  EXPECT_EQ(detail::cryptoInfo(), real);
  ol::setRoot("/nonexistent-tessel-root");
  detail::reloadCryptoInfoForTesting();
  EXPECT_EQ(detail::cryptoInfo(), "");  // an unreadable file leaves the text empty
  ol::setRoot("/");
  detail::reloadCryptoInfoForTesting();
}

TEST(Factory, PrioCryptoTakesFirstListedDriverElseLast) {
  test::FakeProcCrypto fake("name : sha256\ndriver : sha256-generic\nname : cbc(aes)\ndriver : cbc-aes-aesni\n");
  EXPECT_EQ(detail::prioCrypto({"sha256-avx", "sha256-generic"}), "sha256-generic");
  EXPECT_EQ(detail::prioCrypto({"cbc-aes-aesni", "cbc(aes-generic)"}), "cbc-aes-aesni");
  EXPECT_EQ(detail::prioCrypto({"sha512-avx", "sha512-generic"}), "sha512-generic");
  EXPECT_EQ(detail::prioCrypto({"", "x"}), "x");  // an empty name never matches
  EXPECT_EQ(detail::prioCrypto({"sha256-avx"}), "sha256-avx");
  EXPECT_EQ(detail::prioCrypto({"name : sha256\ndriver", "y"}), "name : sha256\ndriver");  // any text matches
}

TEST(FactoryDeathTest, PrioCryptoNeedsAList) {
  EXPECT_DEATH(detail::prioCrypto({}), "\"vars.size\\(\\)\" failed: file \"factory.cpp\", line [0-9]+, function: prioCrypto");
}

// With offload off the driver list does not matter: every object is software.
TEST(Factory, OffloadOffBuildsSoftwareWhateverTheDriverList) {
  test::FakeProcCrypto fake(kAccelerated);
  auto h = createHash(hashSha256);
  auto c = createCipher(4, Bytes(16), 16);
  auto g = createCipher(7, Bytes(32), 16);
  auto aead = createAead(4, 5, Bytes(16), Bytes(32));
  EXPECT_TRUE(dynamic_cast<SHA256*>(h.get()));
  EXPECT_TRUE(dynamic_cast<CBCCipher*>(c.get()));
  EXPECT_TRUE(dynamic_cast<GCMCipher*>(g.get()));
  EXPECT_TRUE(dynamic_cast<EncryptThenMacCipher*>(aead.get()));
}

// Without AF_ALG, offload switched on still builds software objects, silently.
TEST(KernelWithoutAfAlg, FactoryBuildsSoftware) {
  if (detail::afAlgAvailable()) GTEST_SKIP() << "AF_ALG present in this kernel";
  test::FakeProcCrypto fake(kAccelerated);
  ol::kernelCrypto = true;
  testing::internal::CaptureStdout();
  auto h = createHash(hashSha256);
  auto c = createCipher(5, Bytes(16), 0);
  auto g = createCipher(7, Bytes(16), 16);
  auto aead = createAead(4, 5, Bytes(16), Bytes(32));
  const std::string said = testing::internal::GetCapturedStdout();
  ol::kernelCrypto = false;
  EXPECT_TRUE(dynamic_cast<SHA256*>(h.get()));
  EXPECT_TRUE(dynamic_cast<CTR128Cipher*>(c.get()));
  EXPECT_TRUE(dynamic_cast<GCMCipher*>(g.get()));
  EXPECT_TRUE(dynamic_cast<EncryptThenMacCipher*>(aead.get()));
  EXPECT_EQ(said, "");
}

// The runners that the kernel objects go through (kernel_test.cpp), here over the software
// objects of the factory, so both backends answer the same vectors the same way.
TEST(Factory, SoftwareObjectsThroughTheSharedRunners) {
  const test::Backend b = test::softwareBackend();
  LOAD_VECTORS(sha, "kat/sha.json");
  EXPECT_EQ(test::digestKnownAnswers(b, sha), 52);
  LOAD_VECTORS(hmac, "kat/hmac.json");
  EXPECT_EQ(test::hmacKnownAnswers(b, hmac), 35);
  LOAD_VECTORS(modes, "kat/modes.json");
  EXPECT_EQ(test::modeKnownAnswers(b, modes), 14);  // CBC, CTR and the AES-128 CFB ones
  LOAD_VECTORS(gcm, "kat/gcm.json");
  EXPECT_EQ(test::gcmKnownAnswers(b, gcm), 8);  // those with 12-byte IVs
  LOAD_VECTORS(wycheproof, "wycheproof/aes_gcm_test.json");
  EXPECT_EQ(test::gcmWycheproof(b, wycheproof), 133);  // 12-byte IVs; 192-bit keys are refused
#if TESSEL_HAVE_OPENSSL
  EXPECT_EQ(test::digestsMatchOpenSsl(b, 150), 450);
  EXPECT_EQ(test::modesMatchOpenSsl(b, 40), 240);
  EXPECT_EQ(test::gcmMatchesOpenSsl(b, 120), 120);
#endif
}

}  // namespace
}  // namespace tessel
