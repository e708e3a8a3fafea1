// The AF_ALG objects. Tests of objects that were never opened run everywhere; the others need a
// kernel with AF_ALG (scripts/test.sh kernel boots one under QEMU) and skip elsewhere.
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "backends.h"
#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif
#include "support.h"
#include "tessel/cbc.h"
#include "tessel/factory.h"
#include "tessel/kernel.h"

namespace tessel {
namespace {

using test::Bytes;
using test::toHex;

#define SKIP_WITHOUT_AF_ALG() \
  if (!detail::afAlgAvailable()) GTEST_SKIP() << "no AF_ALG in this kernel"

using test::said;

std::string errorText(int err) { return std::strerror(err); }

// OffloadOn switches kernel offload on for its lifetime.
struct OffloadOn {
  OffloadOn() { ol::kernelCrypto = true; }
  ~OffloadOn() { ol::kernelCrypto = false; }
};

// --- objects that were never opened (any kernel) ------------------------------------------------

TEST(KernelClosed, FailsWithTheSystemsWordsAndNoOutput) {
  KernelHash h(hashSha256);
  EXPECT_EQ(h.digestLength(), 32u);
  Bytes digest(32, 0xee);
  EXPECT_EQ(said([&] { h.update("abc", 3).digest(digest.data()); }), "");
  EXPECT_EQ(digest, Bytes(32, 0));  // a failed digest is all zeros
  EXPECT_TRUE(h.failed());

  KernelCipher c(16);
  const std::string badFd = errorText(EBADF);
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSetKey(Bytes(16), {})); }), "alg setkey failed: " + badFd + "\n");
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSetKey(Bytes(16), Bytes(32))); }), "alg setkey failed: " + badFd + "\n");
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSetTag(16)); }), "alg authsize failed: " + badFd + "\n");
  // A zero tag length is only stored: no call is made, so the closed socket cannot fail it.
  EXPECT_EQ(said([&] { EXPECT_TRUE(c.kernelSetTag(0)); }), "");
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.setSockmem(1 << 20)); }), "");
  iovec none[1] = {{nullptr, 0}};
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSend(none, 1, true, 0)); }), "");
}

TEST(KernelClosed, LengthRulesAndRefusals) {
  struct Row {
    unsigned id, block, digest;
  };
  for (Row r : {Row{hashMd5, 64, 16}, Row{hashSha1, 64, 20}, Row{hashSha256, 64, 32}, Row{hashSha384, 128, 48},
                Row{hashSha512, 128, 64}, Row{hashMd4, 0, 0}, Row{hashMd5Sha1, 0, 0}, Row{8, 0, 0}}) {
    KernelHash h(r.id);
    EXPECT_EQ(h.blockLength(), r.block) << r.id;
    EXPECT_EQ(h.digestLength(), r.digest) << r.id;
    EXPECT_EQ(h.lengthFieldSize(), 8u) << r.id;
  }
  KernelCipher c(16);
  EXPECT_EQ(c.ciphertextLength(47), 32u);
  Bytes in(48, 1), out(48, 0xee);
  EXPECT_EQ(said([&] { c.encrypt(in.data(), 17, nullptr, 0, out.data()); }), "alg cipher failed: data not padded: 17\n");
  EXPECT_EQ(out, Bytes(48, 0xee));
  EXPECT_EQ(said([&] { EXPECT_EQ(c.decrypt(in.data(), 33, nullptr, 0, out.data()), decryptFailed); }),
            "alg cipher failed: data not padded: 33\n");

  KernelAead gcm(1), authenc(16);
  EXPECT_TRUE(gcm.kernelSetTag(0));
  EXPECT_EQ(gcm.ciphertextLength(5), 5u);
  // Not opened, so its message limit is 0: everything is too much.
  EXPECT_EQ(said([&] { gcm.encrypt(in.data(), 16, in.data(), 4, out.data()); }), "alg aead failed: too much data: 20\n");
  EXPECT_EQ(out, Bytes(48, 0xee));
  EXPECT_EQ(said([&] { EXPECT_EQ(gcm.decrypt(in.data(), 1, nullptr, 0, out.data()), decryptFailed); }),
            "alg aead failed: too much data: 1\n");
  EXPECT_EQ(authenc.blockLength(), 16u);
  EXPECT_EQ(gcm.blockLength(), 1u);
}

TEST(KernelDeathTest, AssertionsNameTheHeader) {
  Bytes iv(65), buf(32);
  KernelCipher c(16);
  c.setIV(iv.data(), 64);  // the largest IV fits
  EXPECT_DEATH(c.setIV(iv.data(), 65),
               "\"size <= sizeof\\(iv\\)\" failed: file \"../include/tessel/kernel.h\", line [0-9]+, function: setIV");
  KernelAead g(1);
  EXPECT_DEATH(g.setIV(iv.data(), 65), "\"size <= sizeof\\(iv\\)\" failed: file \"../include/tessel/kernel.h\"");
  // A cipher that was never opened has a message limit of 0.
  EXPECT_DEATH(c.encrypt(buf.data(), 16, nullptr, 0, buf.data()),
               "\"sockmem > asize\" failed: file \"../include/tessel/kernel.h\", line [0-9]+, function: encrypt");
  EXPECT_DEATH(c.decrypt(buf.data(), 16, nullptr, 0, buf.data()),
               "\"sockmem > asize\" failed: file \"../include/tessel/kernel.h\", line [0-9]+, function: decrypt");
}

TEST(KernelWithoutAfAlg, OpenSaysWhy) {
  if (detail::afAlgAvailable()) GTEST_SKIP() << "AF_ALG present in this kernel";
  KernelHash h(hashSha256);
  EXPECT_EQ(said([&] { EXPECT_FALSE(h.kernelOpen("hash", "sha256")); }),
            "alg socket failed: " + errorText(EAFNOSUPPORT) + "\n");
  EXPECT_EQ(h.algorithmName(), "");
}

// --- a kernel with AF_ALG ------------------------------------------------------------------------

// The factory binds the drivers its lists choose for the running kernel, and prints them for
// the log.
TEST(KernelFactory, BindsTheChosenDrivers) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  for (unsigned id : {hashSha1, hashSha256, hashSha512}) {
    auto h = createHash(id);
    auto* k = dynamic_cast<KernelHash*>(h.get());
    ASSERT_TRUE(k) << id;
    EXPECT_EQ(k->algorithmName(), detail::hashDriverName(id));
    std::printf("kernel: hash %u -> %s\n", id, k->algorithmName().c_str());
  }
  for (unsigned id : {hashMd5, hashSha384, hashMd4, hashMd5Sha1}) {
    auto h = createHash(id);
    EXPECT_FALSE(dynamic_cast<KernelAlg*>(h.get())) << id;  // always software
  }
  struct Row {
    unsigned id;
    std::size_t keyLen;
    bool aead;
  };
  for (Row r : {Row{4, 16, false}, Row{4, 24, false}, Row{4, 32, false}, Row{5, 16, false}, Row{5, 32, false},
                Row{7, 16, true}, Row{7, 32, true}}) {
    auto c = createCipher(r.id, Bytes(r.keyLen, 7), 16);
    auto* k = dynamic_cast<KernelAlg*>(c.get());
    ASSERT_TRUE(k) << r.id;
    EXPECT_EQ(dynamic_cast<KernelAead*>(c.get()) != nullptr, r.aead);
    EXPECT_EQ(k->algorithmName(), detail::cipherDriverName(r.id, r.keyLen));
    std::printf("kernel: cipher %u with %zu-byte key -> %s\n", r.id, r.keyLen, k->algorithmName().c_str());
  }
  for (Row r : {Row{7, 24, true}, Row{6, 16, false}, Row{2, 8, false}, Row{3, 24, false}, Row{1, 0, false}}) {
    auto c = createCipher(r.id, Bytes(r.keyLen, 7), 16);
    EXPECT_FALSE(dynamic_cast<KernelAlg*>(c.get())) << r.id;
  }
  auto aead = createAead(4, hashSha256, Bytes(16), Bytes(32));
  auto* k = dynamic_cast<KernelAead*>(aead.get());
  ASSERT_TRUE(k);
  EXPECT_EQ(k->algorithmName(),
            "authenc(hmac(" + detail::hashDriverName(hashSha256) + ")," + detail::cipherDriverName(4, 16) + ")");
  EXPECT_EQ(aead->ciphertextLength(32), 64u);
  std::printf("kernel: aead 4/5 -> %s\n", k->algorithmName().c_str());
}

// Every vector and random case of the software objects, through the kernel objects.
TEST(KernelVectors, SameAnswersAsSoftware) {
  SKIP_WITHOUT_AF_ALG();
  std::set<std::string> drivers;
  const test::Backend kernel = test::kernelBackend(&drivers), software = test::softwareBackend();
  {
    LOAD_VECTORS(sha, "kat/sha.json");
    const int n = test::digestKnownAnswers(kernel, sha);
    EXPECT_EQ(n, test::digestKnownAnswers(software, sha) - 13);  // all but the 13 SHA-384 ones
    std::printf("kernel: %d digest vectors\n", n);
  }
  {
    LOAD_VECTORS(hmac, "kat/hmac.json");
    const int n = test::hmacKnownAnswers(kernel, hmac);
    EXPECT_EQ(n, 21);  // HMAC-SHA-1, -256 and -512
    std::printf("kernel: %d HMAC vectors over kernel digests\n", n);
  }
  {
    LOAD_VECTORS(modes, "kat/modes.json");
    const int n = test::modeKnownAnswers(kernel, modes);
    EXPECT_EQ(n, 12);  // the CBC and CTR ones; CFB has no kernel driver here
    std::printf("kernel: %d CBC/CTR vectors\n", n);
  }
  {
    LOAD_VECTORS(gcm, "kat/gcm.json");
    const int n = test::gcmKnownAnswers(kernel, gcm);
    EXPECT_EQ(n, test::gcmKnownAnswers(software, gcm));
    std::printf("kernel: %d GCM vectors\n", n);
  }
  {
    LOAD_VECTORS(wycheproof, "wycheproof/aes_gcm_test.json");
    const int n = test::gcmWycheproof(kernel, wycheproof);
    EXPECT_EQ(n, test::gcmWycheproof(software, wycheproof));
    std::printf("kernel: %d Wycheproof GCM tests with 12-byte IVs and 128/256-bit keys\n", n);
  }
#if TESSEL_HAVE_OPENSSL
  std::printf("kernel: %d random digests, %d random CBC/CTR messages, %d random GCM messages against OpenSSL\n",
              test::digestsMatchOpenSsl(kernel, 150), test::modesMatchOpenSsl(kernel, 40),
              test::gcmMatchesOpenSsl(kernel, 120));
#endif
  std::string names;
  for (const std::string& d : drivers) names += " " + d;
  std::printf("kernel: drivers bound:%s\n", names.c_str());
  EXPECT_EQ(drivers.size(), 3u + 2u + 1u) << names;  // three digests, CBC, CTR and one GCM
}

#if TESSEL_HAVE_OPENSSL
// Messages longer than one socket message go in several chunks, chained by the kernel.
TEST(KernelCipher, MessagesLongerThanSockmem) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  test::TestRng rng(0x5e9d);
  for (unsigned id : {4u, 5u}) {
    Bytes key = rng.bytes(16), iv = rng.bytes(16);
    iv[12] = 0;
    auto c = createCipher(id, key, 0);
    auto* k = dynamic_cast<KernelCipher*>(c.get());
    ASSERT_TRUE(k);
    ASSERT_GT(k->sockmemSize(), 0u);
    const std::size_t len = 3 * k->sockmemSize() + 48;
    Bytes msg = rng.bytes(len), out(len);
    Bytes want = test::opensslCipher(id == 4 ? EVP_aes_128_cbc() : EVP_aes_128_ctr(), key, iv, msg, true);
    c->setIV(iv.data(), 16);
    c->encrypt(msg.data(), static_cast<unsigned>(len), nullptr, 0, out.data());
    EXPECT_TRUE(out == want) << id;
    c->setIV(iv.data(), 16);
    EXPECT_EQ(c->decrypt(want.data(), static_cast<unsigned>(len), nullptr, 0, out.data()), len);
    EXPECT_TRUE(out == msg) << id;
  }
  auto h = createHash(hashSha256);
  Bytes big = rng.bytes(1 << 20);
  EXPECT_EQ(h->update(big).digest(), test::opensslDigest(hashSha256, big));
}

// The IV goes with the first message after setIV only; setIV with 0 bytes sends none, so the
// kernel's chaining carries on.
TEST(KernelCipher, IvOnlyWithTheNextMessage) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  Bytes key(16, 0x21), iv(16, 0x43), msg(64, 0x65), out(64);
  Bytes want = test::opensslCipher(EVP_aes_128_cbc(), key, iv, msg, true);
  auto c = createCipher(4, key, 0);
  c->setIV(iv.data(), 16);
  c->encrypt(msg.data(), 32, nullptr, 0, out.data());
  c->setIV(Bytes(16, 0xff).data(), 0);
  c->encrypt(msg.data() + 32, 32, nullptr, 0, out.data() + 32);
  EXPECT_EQ(toHex(out), toHex(want));
  // A 12-byte IV is refused by a 16-byte-IV driver.
  c->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { c->encrypt(msg.data(), 16, nullptr, 0, out.data()); }),
            "alg: sendmsg error:" + errorText(EINVAL) + "\n");
}
#endif

TEST(KernelCipher, Refusals) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  Bytes key(16, 1), iv(16, 2), in(64, 3), out(80, 0xee);
  auto ctr = createCipher(5, key, 0);
  ctr->setIV(iv.data(), 16);
  EXPECT_EQ(said([&] { ctr->encrypt(in.data(), 17, nullptr, 0, out.data()); }), "alg cipher failed: data not padded: 17\n");
  EXPECT_EQ(out, Bytes(80, 0xee));
  EXPECT_EQ(ctr->ciphertextLength(17), 16u);  // the kernel CTR takes whole blocks only
  auto* k = dynamic_cast<KernelCipher*>(ctr.get());
  ASSERT_TRUE(k);
  const unsigned limit = k->sockmemSize();
  Bytes aad(limit);
  EXPECT_DEATH(ctr->encrypt(in.data(), 16, aad.data(), limit, out.data()), "\"sockmem > asize\" failed");
}

TEST(KernelAead, TooMuchDataAndForgedTags) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  test::TestRng rng(0xaead);
  Bytes key = rng.bytes(16), iv = rng.bytes(12), aad = rng.bytes(20);
  auto gcm = createCipher(7, key, 16);
  auto* k = dynamic_cast<KernelAead*>(gcm.get());
  ASSERT_TRUE(k);
  ASSERT_EQ(k->sockmemSize(), 262244u);  // raised for every AEAD (as root)
  const unsigned limit = k->sockmemSize();
  // Exactly the limit goes in one request; one byte more is refused.
  Bytes msg = rng.bytes(limit - 20), sealed(limit - 20 + 16, 0xee);
  gcm->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { gcm->encrypt(msg.data(), limit - 20, aad.data(), 20, sealed.data()); }), "");
#if TESSEL_HAVE_OPENSSL
  EXPECT_TRUE(sealed == test::opensslGcmSeal(key, iv, aad, msg));
#endif
  Bytes more = rng.bytes(limit - 19), out(limit + 16, 0xee);
  gcm->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { gcm->encrypt(more.data(), limit - 19, aad.data(), 20, out.data()); }),
            "alg aead failed: too much data: " + std::to_string(limit + 1) + "\n");
  EXPECT_EQ(out, Bytes(limit + 16, 0xee));
  EXPECT_EQ(said([&] { EXPECT_EQ(gcm->decrypt(more.data(), limit - 19, aad.data(), 20, out.data()), decryptFailed); }),
            "alg aead failed: too much data: " + std::to_string(limit + 1) + "\n");
  EXPECT_EQ(said([&] { EXPECT_EQ(gcm->decrypt(out.data(), 15, nullptr, 0, out.data()), decryptFailed); }), "");

  // A corrupted tag: -1 after the receive's failure line, with and without associated data.
  Bytes small = rng.bytes(100);
  for (bool withAad : {true, false}) {
    const Bytes& a = withAad ? aad : Bytes();
    gcm->setIV(iv.data(), 12);
    Bytes s = test::sealWith(*gcm, small, a);
    s.back() ^= 0x80;
    gcm->setIV(iv.data(), 12);
    std::optional<Bytes> opened;
    EXPECT_EQ(said([&] { opened = test::openWith(*gcm, s, a); }),
              std::string(withAad ? "alg recvmsg failed: " : "alg recv failed: ") + errorText(EBADMSG) + "\n");
    EXPECT_FALSE(opened);
    s.back() ^= 0x80;
    gcm->setIV(iv.data(), 12);
    EXPECT_EQ(test::openWith(*gcm, s, a), small);  // and the object still works
  }
}

// The factory's authenc key blob puts the cipher key first; the kernel reads the MAC key from
// the front and the cipher key from the back. Pinned here against OpenSSL, for equal and
// unequal key lengths, so that the kernel path keeps opening what it sealed before.
#if TESSEL_HAVE_OPENSSL
TEST(KernelAead, AuthencKeyBlobOrder) {
  SKIP_WITHOUT_AF_ALG();
  struct Row {
    unsigned cipherId, hashId;
    std::size_t cipherKeyLen, macKeyLen;
  };
  const Row rows[] = {{4, hashSha256, 16, 16}, {4, hashSha256, 32, 32}, {4, hashSha1, 16, 20},
                      {4, hashSha256, 16, 32}, {4, hashSha512, 24, 64}, {4, hashSha512, 32, 16},
                      {5, hashSha256, 16, 32}};
  test::TestRng rng(0xb10b);
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.cipherId) + "/" + std::to_string(r.hashId) + " keys " +
                 std::to_string(r.cipherKeyLen) + "+" + std::to_string(r.macKeyLen));
    Bytes cipherKey = rng.bytes(r.cipherKeyLen), macKey = rng.bytes(r.macKeyLen), iv = rng.bytes(16);
    Bytes aad = rng.bytes(13), msg = rng.bytes(80);
    std::unique_ptr<Cipher> aead;
    {
      OffloadOn on;
      aead = createAead(r.cipherId, r.hashId, cipherKey, macKey);
    }
    ASSERT_TRUE(dynamic_cast<KernelAead*>(aead.get()));
    aead->setIV(iv.data(), 16);
    Bytes sealed = test::sealWith(*aead, msg, aad);
    // What the kernel takes: the MAC key is the first macKeyLen bytes of cipherKey || macKey,
    // the cipher key the last cipherKeyLen bytes.
    Bytes blob = cipherKey;
    blob.insert(blob.end(), macKey.begin(), macKey.end());
    const auto split = blob.begin() + static_cast<long>(r.macKeyLen);
    Bytes usedMacKey(blob.begin(), split), usedCipherKey(split, blob.end());
    const EVP_CIPHER* evp = r.cipherId == 5 ? EVP_aes_128_ctr()
                            : r.cipherKeyLen == 16 ? EVP_aes_128_cbc()
                            : r.cipherKeyLen == 24 ? EVP_aes_192_cbc()
                                                   : EVP_aes_256_cbc();
    Bytes want = test::opensslCipher(evp, usedCipherKey, iv, msg, true);
    Bytes macked = aad;
    macked.insert(macked.end(), want.begin(), want.end());
    Bytes tag = test::opensslHmac(r.hashId, usedMacKey, macked);
    want.insert(want.end(), tag.begin(), tag.end());
    EXPECT_EQ(toHex(sealed), toHex(want));
    aead->setIV(iv.data(), 16);
    EXPECT_EQ(test::openWith(*aead, sealed, aad), msg);
    if (r.cipherId == 4 && r.cipherKeyLen == r.macKeyLen) {
      // With equal lengths the two keys simply trade places: the software encrypt-then-MAC
      // with the keys swapped seals the same bytes, and with the keys as given does not.
      auto swapped = createAead(4, r.hashId, macKey, cipherKey), given = createAead(4, r.hashId, cipherKey, macKey);
      swapped->setIV(iv.data(), 16);
      given->setIV(iv.data(), 16);
      EXPECT_EQ(toHex(test::sealWith(*swapped, msg, aad)), toHex(sealed));
      EXPECT_FALSE(test::openWith(*given, sealed, aad));
    }
  }
}
#endif

TEST(KernelAlg, OpenOnceAndLongNames) {
  SKIP_WITHOUT_AF_ALG();
  KernelHash h(hashSha256);
  ASSERT_TRUE(h.kernelOpen("hash", "sha256"));
  EXPECT_EQ(said([&] { EXPECT_FALSE(h.kernelOpen("hash", "sha1")); }), "");  // opened once, left alone
  EXPECT_EQ(h.algorithmName(), "sha256");
  EXPECT_EQ(toHex(h.update("abc", 3).digest()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(toHex(h.digest()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");  // fresh message

  // Names of 64 bytes or more are cut to 63 by the copy into the address; bind then fails.
  const std::string name = "authenc(hmac(sha256-generic),cbc(aes-generic))" + std::string(20, ' ');
  KernelAead a(16);
  EXPECT_EQ(said([&] { EXPECT_FALSE(a.kernelOpen("aead", name)); }),
            "alg bind failed: " + errorText(ENOENT) + " for type:aead name:" + name + "\n");
  KernelHash missing(hashSha256);
  EXPECT_EQ(said([&] { EXPECT_FALSE(missing.kernelOpen("hash", "sha256-nonexistent")); }),
            "alg bind failed: " + errorText(ENOENT) + " for type:hash name:sha256-nonexistent\n");
  EXPECT_EQ(said([&] { EXPECT_EQ(missing.update("abc", 3).digest(), Bytes(32, 0)); }), "");
}

// A kernel object whose setup failed is still what the factory returns: it fails, it does
// not quietly compute in software.
TEST(KernelFactory, FailedSetupIsReturned) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  std::unique_ptr<Cipher> gcm;
  EXPECT_EQ(said([&] { gcm = createCipher(7, Bytes(16, 1), 5); }), "alg authsize failed: " + errorText(EINVAL) + "\n");
  ASSERT_TRUE(dynamic_cast<KernelAead*>(gcm.get()));
  Bytes iv(12), msg(32, 4), out(64, 0xee);
  gcm->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { gcm->encrypt(msg.data(), 32, nullptr, 0, out.data()); }), "");
  EXPECT_EQ(out, Bytes(64, 0xee));
  std::unique_ptr<Cipher> aead;
  const std::string bindLine = said([&] { aead = createAead(7, hashSha256, Bytes(16), Bytes(32)); });
  EXPECT_EQ(bindLine, "alg bind failed: " + errorText(ENOENT) + " for type:aead name:authenc(hmac(" +
                          detail::hashDriverName(hashSha256) + ")," + detail::cipherDriverName(7, 16) + ")\n");
  EXPECT_TRUE(dynamic_cast<KernelAead*>(aead.get()));
}

}  // namespace
}  // namespace tessel
