#include <map>
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

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("factory_cases.json");
  return all.at(table);
}

// One row per cipher id and key length: the object built (or none) and its block length.
TEST(Factory, CipherTable) {
  for (const auto& r : cases("cipherTable")) {
    const unsigned id = r[0];
    const std::size_t keyLen = r[1];
    const std::string kind = r[2];
    SCOPED_TRACE(std::to_string(id) + " with " + std::to_string(keyLen) + "-byte key");
    Bytes key(keyLen, 0x4b);
    auto c = createCipher(id, key, 0);
    if (kind.empty()) {
      EXPECT_FALSE(c);
      continue;
    }
    ASSERT_TRUE(c);
    EXPECT_EQ(c->blockLength(), r[3].get<unsigned>());
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
    using enum test::BlockKind;
    const std::map<std::string, test::BlockKind> kinds = {{"null", null}, {"des", des}, {"des3", des3}, {"aes", aes}};
    auto block = test::makeBlockCipher(kinds.at(r[4]), key);
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

std::string procCrypto(const char* name) { return cases("procCrypto").at(name); }

// Which driver the factory binds, by "/proc/crypto" text, for digests and ciphers; "" is
// software. Each list falls back to its last entry, GCM to its fixed name.
TEST(Factory, DriverChoiceTable) {
  for (const auto& r : cases("driverChoice")) {
    SCOPED_TRACE(r.dump());
    test::FakeProcCrypto fake(procCrypto(r[0].get<std::string>().c_str()));
    const unsigned id = r[2];
    EXPECT_EQ(r[1] == "hash" ? detail::hashDriverName(id) : detail::cipherDriverName(id, r[3].get<std::size_t>()), r[4].get<std::string>());
  }
}

TEST(Factory, CryptoInfoIsReadUnderThePlatformRoot) {
  const std::string real = detail::cryptoInfo();
  {
    test::FakeProcCrypto fake(procCrypto("generic"));
    EXPECT_EQ(detail::cryptoInfo(), procCrypto("generic"));
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

// With offload off the driver list does not matter: every object is software. Without AF_ALG,
// offload switched on builds software objects too, silently.
TEST(Factory, SoftwareWhateverTheDriverListAndWithoutAfAlg) {
  test::FakeProcCrypto fake(procCrypto("accelerated"));
  for (bool offload : {false, true}) {
    if (offload && detail::afAlgAvailable()) continue;  // (kernel_test.cpp covers that case)
    ol::kernelCrypto = offload;
    std::unique_ptr<Hash> h;
    std::unique_ptr<Cipher> cbc, ctr, gcm, aead;
    EXPECT_EQ(test::said([&] {
                h = createHash(hashSha256);
                cbc = createCipher(cipherAesCbc, Bytes(16), 16);
                ctr = createCipher(cipherAesCtr, Bytes(16), 0);
                gcm = createCipher(cipherAesGcm, Bytes(32), 16);
                aead = createAead(cipherAesCbc, hashSha256, Bytes(16), Bytes(32));
              }),
              "");
    ol::kernelCrypto = false;
    EXPECT_TRUE(dynamic_cast<SHA256*>(h.get()));
    EXPECT_TRUE(dynamic_cast<CBCCipher*>(cbc.get()));
    EXPECT_TRUE(dynamic_cast<CTR128Cipher*>(ctr.get()));
    EXPECT_TRUE(dynamic_cast<GCMCipher*>(gcm.get()));
    EXPECT_TRUE(dynamic_cast<EncryptThenMacCipher*>(aead.get()));
  }
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
