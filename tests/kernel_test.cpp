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
using test::said;
using test::toHex;

#define SKIP_WITHOUT_AF_ALG() \
  if (!detail::afAlgAvailable()) GTEST_SKIP() << "no AF_ALG in this kernel"

// line is what the kernel objects print when `call` fails with `err`.
std::string line(const std::string& call, int err) { return "alg " + call + " failed: " + std::strerror(err) + "\n"; }

// OffloadOn switches kernel offload on for its lifetime.
struct OffloadOn {
  OffloadOn() { ol::kernelCrypto = true; }
  ~OffloadOn() { ol::kernelCrypto = false; }
};

// bindLine is what a failed bind prints.
std::string bindLine(const std::string& type, const std::string& name) {
  return "alg bind failed: " + std::string(std::strerror(ENOENT)) + " for type:" + type + " name:" + name + "\n";
}

template <class T>
bool isKernel(const std::unique_ptr<T>& obj) {
  return dynamic_cast<const KernelAlg*>(obj.get()) != nullptr;
}

// --- objects that were never opened (any kernel) ------------------------------------------------

TEST(KernelClosed, FailsWithTheSystemsWordsAndNoOutput) {
  KernelHash h(hashSha256);
  Bytes digest(32, 0xee);
  EXPECT_EQ(said([&] { h.update("abc", 3).digest(digest.data()); }), "");
  EXPECT_EQ(digest, Bytes(32, 0));  // a failed digest is all zeros
  EXPECT_TRUE(h.failed());
  KernelCipher c(16);
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSetKey(Bytes(16), {})); }), line("setkey", EBADF));
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSetKey(Bytes(16), Bytes(32))); }), line("setkey", EBADF));
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSetTag(16)); }), line("authsize", EBADF));
  // A zero tag length is only stored: no call is made, so the closed socket cannot fail it.
  EXPECT_EQ(said([&] { EXPECT_TRUE(c.kernelSetTag(0)); }), "");
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.setSockmem(1 << 20)); }), "");
  iovec none[1] = {{nullptr, 0}};
  EXPECT_EQ(said([&] { EXPECT_FALSE(c.kernelSend(none, 1, true, 0)); }), "");
}

TEST(KernelClosed, LengthRulesAndRefusals) {
  KernelCipher c(16);
  KernelAead gcm(1), authenc(16);
  EXPECT_EQ(c.ciphertextLength(47), 32u);
  EXPECT_EQ(gcm.ciphertextLength(5), 5u);
  EXPECT_EQ(authenc.blockLength(), 16u);
  EXPECT_EQ(gcm.blockLength(), 1u);
  EXPECT_TRUE(gcm.kernelSetTag(0));
  // Unpadded cipher input is refused; an object not opened has a message limit of 0, so every
  // AEAD message is too much. Nothing is written.
  Bytes in(48, 1), out(48, 0xee);
  EXPECT_EQ(said([&] { c.encrypt(in.data(), 17, nullptr, 0, out.data()); }),
            "alg cipher failed: data not padded: 17\n");
  EXPECT_EQ(said([&] { EXPECT_EQ(c.decrypt(in.data(), 33, nullptr, 0, out.data()), decryptFailed); }),
            "alg cipher failed: data not padded: 33\n");
  EXPECT_EQ(said([&] { gcm.encrypt(in.data(), 16, in.data(), 4, out.data()); }),
            "alg aead failed: too much data: 20\n");
  EXPECT_EQ(said([&] { EXPECT_EQ(gcm.decrypt(in.data(), 1, nullptr, 0, out.data()), decryptFailed); }),
            "alg aead failed: too much data: 1\n");
  EXPECT_EQ(out, Bytes(48, 0xee));
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
  EXPECT_EQ(said([&] { EXPECT_FALSE(h.kernelOpen("hash", "sha256")); }), line("socket", EAFNOSUPPORT));
  EXPECT_EQ(h.algorithmName(), "");
}

// --- a kernel with AF_ALG ------------------------------------------------------------------------

// Every vector and random case of the software objects, through the kernel objects (whose
// backend checks that each object is bound to the driver the factory's lists choose), and the
// algorithms that have no kernel driver stay software.
TEST(KernelVectors, SameAnswersAsSoftware) {
  SKIP_WITHOUT_AF_ALG();
  std::set<std::string> drivers;
  const test::Backend kernel = test::kernelBackend(&drivers);
  for (const test::VectorRun& r : test::kVectorRuns) {
    LOAD_VECTORS(cases, r.file);
    EXPECT_EQ(r.run(kernel, cases), r.kernel) << r.file;
  }
#if TESSEL_HAVE_OPENSSL
  std::printf("kernel: %d random digests, %d random CBC/CTR messages, %d random GCM messages against OpenSSL\n",
              test::digestsMatchOpenSsl(kernel, 350), test::modesMatchOpenSsl(kernel, 40),
              test::gcmMatchesOpenSsl(kernel, 120));
#endif
  std::string names;
  for (const std::string& d : drivers) names += " " + d;
  std::printf("kernel: drivers bound:%s\n", names.c_str());
  EXPECT_EQ(drivers.size(), 3u + 2u + 1u) << names;  // three digests, CBC, CTR and one GCM
  OffloadOn on;
  for (unsigned id : {hashMd5, hashSha384, hashMd4, hashMd5Sha1}) EXPECT_FALSE(isKernel(createHash(id))) << id;
  const std::pair<unsigned, std::size_t> software[] = {{7, 24}, {6, 16}, {2, 8}, {3, 24}, {1, 0}};
  for (auto [id, keyLen] : software) EXPECT_FALSE(isKernel(createCipher(id, Bytes(keyLen, 7), 16))) << id;
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
    ASSERT_TRUE(k && k->sockmemSize() > 0);
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
  Bytes big = rng.bytes(1 << 20);
  EXPECT_EQ(createHash(hashSha256)->update(big).digest(), test::opensslDigest(hashSha256, big));
}

// The IV goes with the first message after setIV only; setIV with 0 bytes sends none, so the
// kernel's chaining carries on. A 12-byte IV is refused by a 16-byte-IV driver.
TEST(KernelCipher, IvOnlyWithTheNextMessage) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  Bytes key(16, 0x21), iv(16, 0x43), msg(64, 0x65), out(64);
  auto c = createCipher(4, key, 0);
  c->setIV(iv.data(), 16);
  c->encrypt(msg.data(), 32, nullptr, 0, out.data());
  c->setIV(Bytes(16, 0xff).data(), 0);
  c->encrypt(msg.data() + 32, 32, nullptr, 0, out.data() + 32);
  EXPECT_EQ(toHex(out), toHex(test::opensslCipher(EVP_aes_128_cbc(), key, iv, msg, true)));
  c->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { c->encrypt(msg.data(), 16, nullptr, 0, out.data()); }),
            "alg: sendmsg error:" + std::string(std::strerror(EINVAL)) + "\n");
}
#endif

TEST(KernelCipher, Refusals) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  Bytes key(16, 1), iv(16, 2), in(64, 3), out(80, 0xee);
  auto ctr = createCipher(5, key, 0);
  ctr->setIV(iv.data(), 16);
  EXPECT_EQ(said([&] { ctr->encrypt(in.data(), 17, nullptr, 0, out.data()); }),
            "alg cipher failed: data not padded: 17\n");
  EXPECT_EQ(out, Bytes(80, 0xee));
  EXPECT_EQ(ctr->ciphertextLength(17), 16u);  // the kernel CTR takes whole blocks only
  auto* k = dynamic_cast<KernelCipher*>(ctr.get());
  ASSERT_TRUE(k);
  Bytes aad(k->sockmemSize());
  EXPECT_DEATH(ctr->encrypt(in.data(), 16, aad.data(), k->sockmemSize(), out.data()), "\"sockmem > asize\" failed");
}

// Exactly the message limit goes in one request; one byte more is refused. (The kernel's
// verdicts on forged tags are in the Wycheproof cases.)
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
  const std::string tooMuch = "alg aead failed: too much data: " + std::to_string(limit + 1) + "\n";
  Bytes msg = rng.bytes(limit - 20), sealed(limit - 20 + 16, 0xee), more = rng.bytes(limit - 19), out(limit + 16, 0xee);
  gcm->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { gcm->encrypt(msg.data(), limit - 20, aad.data(), 20, sealed.data()); }), "");
#if TESSEL_HAVE_OPENSSL
  EXPECT_TRUE(sealed == test::opensslGcmSeal(key, iv, aad, msg));
#endif
  gcm->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { gcm->encrypt(more.data(), limit - 19, aad.data(), 20, out.data()); }), tooMuch);
  EXPECT_EQ(out, Bytes(limit + 16, 0xee));
  EXPECT_EQ(said([&] { EXPECT_EQ(gcm->decrypt(more.data(), limit - 19, aad.data(), 20, out.data()), decryptFailed); }),
            tooMuch);
  EXPECT_EQ(said([&] { EXPECT_EQ(gcm->decrypt(out.data(), 15, nullptr, 0, out.data()), decryptFailed); }), "");
}

#if TESSEL_HAVE_OPENSSL
// The factory's authenc key blob puts the cipher key first; the kernel reads the MAC key from
// the front and the cipher key from the back. Pinned here against OpenSSL, for equal and
// unequal key lengths, so that the kernel path keeps opening what it sealed before. With equal
// lengths the two keys simply trade places: the software encrypt-then-MAC with the keys swapped
// seals the same bytes.
TEST(KernelAead, AuthencKeyBlobOrder) {
  SKIP_WITHOUT_AF_ALG();
  const std::tuple<unsigned, unsigned, std::size_t, std::size_t> rows[] = {
      {4, hashSha256, 16, 16}, {4, hashSha256, 32, 32}, {4, hashSha1, 16, 20},  {4, hashSha256, 16, 32},
      {4, hashSha512, 24, 64}, {4, hashSha512, 32, 16}, {5, hashSha256, 16, 32}};
  test::TestRng rng(0xb10b);
  for (auto [cipherId, hashId, cipherKeyLen, macKeyLen] : rows) {
    SCOPED_TRACE(std::to_string(cipherId) + "/" + std::to_string(hashId) + " keys " + std::to_string(cipherKeyLen) +
                 "+" + std::to_string(macKeyLen));
    Bytes cipherKey = rng.bytes(cipherKeyLen), macKey = rng.bytes(macKeyLen), iv = rng.bytes(16);
    Bytes aad = rng.bytes(13), msg = rng.bytes(80), blob = cipherKey;
    std::unique_ptr<Cipher> aead;
    {
      OffloadOn on;
      aead = createAead(cipherId, hashId, cipherKey, macKey);
    }
    ASSERT_TRUE(dynamic_cast<KernelAead*>(aead.get()));
    aead->setIV(iv.data(), 16);
    Bytes sealed = test::sealWith(*aead, msg, aad);
    // What the kernel takes: the MAC key is the first macKeyLen bytes of cipherKey || macKey,
    // the cipher key the last cipherKeyLen bytes.
    blob.insert(blob.end(), macKey.begin(), macKey.end());
    const auto split = blob.begin() + static_cast<long>(macKeyLen);
    const EVP_CIPHER* evp = cipherId == 5        ? EVP_aes_128_ctr()
                            : cipherKeyLen == 16 ? EVP_aes_128_cbc()
                            : cipherKeyLen == 24 ? EVP_aes_192_cbc()
                                                 : EVP_aes_256_cbc();
    Bytes want = test::opensslCipher(evp, Bytes(split, blob.end()), iv, msg, true), macked = aad;
    macked.insert(macked.end(), want.begin(), want.end());
    Bytes tag = test::opensslHmac(hashId, Bytes(blob.begin(), split), macked);
    want.insert(want.end(), tag.begin(), tag.end());
    EXPECT_EQ(toHex(sealed), toHex(want));
    aead->setIV(iv.data(), 16);
    EXPECT_EQ(test::openWith(*aead, sealed, aad), msg);
    if (cipherId == 4 && cipherKeyLen == macKeyLen) {
      auto swapped = createAead(4, hashId, macKey, cipherKey);
      swapped->setIV(iv.data(), 16);
      EXPECT_EQ(toHex(test::sealWith(*swapped, msg, aad)), toHex(sealed));
    }
  }
}
#endif

// Opened once and left alone after; a fresh message after each digest. Names of 64 bytes or more
// are cut to 63 by the copy into the address; bind then fails, and so does a missing driver.
TEST(KernelAlg, OpenOnceAndLongNames) {
  SKIP_WITHOUT_AF_ALG();
  KernelHash h(hashSha256), missing(hashSha256);
  ASSERT_TRUE(h.kernelOpen("hash", "sha256"));
  EXPECT_EQ(said([&] { EXPECT_FALSE(h.kernelOpen("hash", "sha1")); }), "");
  EXPECT_EQ(h.algorithmName(), "sha256");
  EXPECT_EQ(toHex(h.update("abc", 3).digest()), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(toHex(h.digest()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  const std::string name = "authenc(hmac(sha256-generic),cbc(aes-generic))" + std::string(20, ' ');
  KernelAead a(16);
  EXPECT_EQ(said([&] { EXPECT_FALSE(a.kernelOpen("aead", name)); }), bindLine("aead", name));
  EXPECT_EQ(said([&] { EXPECT_FALSE(missing.kernelOpen("hash", "sha256-nonexistent")); }),
            bindLine("hash", "sha256-nonexistent"));
  EXPECT_EQ(said([&] { EXPECT_EQ(missing.update("abc", 3).digest(), Bytes(32, 0)); }), "");
}

// A kernel object whose setup failed is still what the factory returns: it fails, it does
// not quietly compute in software.
TEST(KernelFactory, FailedSetupIsReturned) {
  SKIP_WITHOUT_AF_ALG();
  OffloadOn on;
  std::unique_ptr<Cipher> gcm, aead;
  EXPECT_EQ(said([&] { gcm = createCipher(7, Bytes(16, 1), 5); }), line("authsize", EINVAL));
  ASSERT_TRUE(dynamic_cast<KernelAead*>(gcm.get()));
  Bytes iv(12), msg(32, 4), out(64, 0xee);
  gcm->setIV(iv.data(), 12);
  EXPECT_EQ(said([&] { gcm->encrypt(msg.data(), 32, nullptr, 0, out.data()); }), "");
  EXPECT_EQ(out, Bytes(64, 0xee));
  auto authenc = [](unsigned cipherId) {
    return "authenc(hmac(" + detail::hashDriverName(hashSha256) + ")," + detail::cipherDriverName(cipherId, 16) + ")";
  };
  EXPECT_EQ(said([&] { aead = createAead(7, hashSha256, Bytes(16), Bytes(32)); }), bindLine("aead", authenc(7)));
  EXPECT_TRUE(dynamic_cast<KernelAead*>(aead.get()));
  aead = createAead(4, hashSha256, Bytes(16), Bytes(32));
  ASSERT_TRUE(dynamic_cast<KernelAead*>(aead.get()));
  EXPECT_EQ(dynamic_cast<KernelAead*>(aead.get())->algorithmName(), authenc(4));
  EXPECT_EQ(aead->ciphertextLength(32), 64u);
}

}  // namespace
}  // namespace tessel
