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

// Every id builds the software digest of its kind, and an HMAC over it; other ids nothing.
TEST(Factory, HashesAndHmacs) {
  for (unsigned id = 0; id <= 8; ++id) {
    auto h = createHash(id), reference = test::makeSoftwareHash(id);
    const Bytes key = test::bytesOf("key");
    auto mac = createHMAC(id, key);
    ASSERT_EQ(!h, id == 0 || id == 8) << id;
    EXPECT_EQ(!mac, !h) << id;
    if (!h) continue;
    const Hash &made = *h, &expected = *reference;
    EXPECT_EQ(typeid(made), typeid(expected)) << id;
    EXPECT_EQ(mac->update("msg", 3).digest(), HMAC(reference.get(), key.data(), 3).update("msg", 3).digest()) << id;
  }
  EXPECT_FALSE(createHash(100));
}

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("factory_cases.json");
  return all.at(table);
}

// One row per cipher id and key length: the object built (or none) and its block length.
TEST(Factory, CipherTable) {
  using enum test::BlockKind;
  const std::map<std::string, test::BlockKind> kinds = {{"null", null}, {"des", des}, {"des3", des3}, {"aes", aes}};
  for (const auto& r : cases("cipherTable")) {
    const unsigned id = r[0];
    const std::string kind = r[2];
    SCOPED_TRACE(r.dump());
    Bytes key(r[1].get<std::size_t>(), 0x4b), iv(16, 0x1f), msg(32, 0x3a), got(32), want(32);
    auto c = createCipher(id, key, 0);
    ASSERT_EQ(!c, kind.empty());
    if (!c) continue;
    EXPECT_EQ(c->blockLength(), r[3].get<unsigned>());
    if (kind == "GCM") {
      EXPECT_TRUE(dynamic_cast<GCMCipher*>(c.get()));
      EXPECT_EQ(c->ciphertextLength(0), 16u);  // 16-byte tags whatever tagLength says
      continue;
    }
    // The mode runs over the block cipher of the row: compare with one built by hand.
    auto block = test::makeBlockCipher(kinds.at(r[4]), key);
    c->setIV(iv.data(), 16);
    c->encrypt(msg.data(), 32, nullptr, 0, got.data());
    if (kind == "CBC") CBC_encrypt(*block, iv.data(), msg.data(), 32, want.data());
    if (kind == "CTR") CTR128_encrypt(*block, iv.data(), msg.data(), 32, want.data());
    if (kind == "CFB") CFB128_encrypt(*block, iv.data(), msg.data(), 32, want.data());
    EXPECT_EQ(got, want);
  }
}

// Encrypt-then-MAC for the CBC ciphers with any digest; nothing else.
TEST(Factory, AeadOnlyForCbcCiphersInSoftware) {
  for (unsigned cipherId : {1u, 2u, 5u, 6u, 7u, 9u})
    EXPECT_FALSE(createAead(cipherId, 5, Bytes(16), Bytes(32))) << cipherId;
  EXPECT_FALSE(createAead(4, 5, Bytes(15), Bytes(32)));  // no cipher for the key
  EXPECT_FALSE(createAead(4, 9, Bytes(16), Bytes(32)));  // no digest for the id
  const std::tuple<unsigned, unsigned, std::size_t> rows[] = {
      {4, 5, 16}, {4, 4, 32}, {4, 3, 24}, {3, 5, 24}, {3, 4, 24}};
  for (auto [cipherId, hashId, keyLen] : rows) {
    SCOPED_TRACE(std::to_string(cipherId) + "/" + std::to_string(hashId));
    auto aead = createAead(cipherId, hashId, Bytes(keyLen, 0x61), Bytes(20, 0x62));
    ASSERT_TRUE(dynamic_cast<EncryptThenMacCipher*>(aead.get()));
    EXPECT_EQ(aead->ciphertextLength(32), 32 + createHash(hashId)->digestLength());
    Bytes iv(16, 0x63), aad(9, 0x64), msg(32, 0x65);
    aead->setIV(iv.data(), 16);
    EXPECT_EQ(test::openWith(*aead, test::sealWith(*aead, msg, aad), aad), msg);
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
    EXPECT_EQ(r[1] == "hash" ? detail::hashDriverName(id) : detail::cipherDriverName(id, r[3].get<std::size_t>()),
              r[4].get<std::string>());
  }
  test::FakeProcCrypto fake(cases("prioCryptoText"));
  for (const auto& r : cases("prioCrypto"))
    EXPECT_EQ(detail::prioCrypto(r[0].get<std::vector<std::string>>()), r[1]) << r.dump();
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

TEST(FactoryDeathTest, PrioCryptoNeedsAList) {
  EXPECT_DEATH(detail::prioCrypto({}),
               "\"vars.size\\(\\)\" failed: file \"factory.cpp\", line [0-9]+, function: prioCrypto");
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
    EXPECT_TRUE(dynamic_cast<SHA256*>(h.get()) && dynamic_cast<CBCCipher*>(cbc.get()) &&
                dynamic_cast<CTR128Cipher*>(ctr.get()) && dynamic_cast<GCMCipher*>(gcm.get()) &&
                dynamic_cast<EncryptThenMacCipher*>(aead.get()));
  }
}

// The vector runners the kernel objects go through (kernel_test.cpp), here over the software
// objects of the factory, so both backends answer the same vectors the same way. (The random
// runners run from hash_test.cpp, modes_test.cpp and gcm_test.cpp.)
TEST(Factory, SoftwareObjectsThroughTheSharedRunners) {
  for (const test::VectorRun& r : test::kVectorRuns) {
    LOAD_VECTORS(cases, r.file);
    EXPECT_EQ(r.run(test::softwareBackend(), cases), r.software) << r.file;
  }
}

}  // namespace
}  // namespace tessel
