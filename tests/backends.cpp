#include "backends.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif
#include "tessel/factory.h"
#include "tessel/hmac.h"
#include "tessel/kernel.h"

namespace tessel::test {

namespace {

// made fails the test unless `obj` is a software object (`drivers` null) or a kernel object
// bound to `driver`.
template <class Object>
std::unique_ptr<Object> made(std::unique_ptr<Object> obj, const std::string& driver, std::set<std::string>* drivers) {
  auto* k = dynamic_cast<const KernelAlg*>(obj.get());
  EXPECT_EQ(k != nullptr, drivers != nullptr) << "expected driver " << driver;
  if (k && drivers) {
    EXPECT_EQ(k->algorithmName(), driver);
    drivers->insert(driver);
  }
  return obj;
}

// Offload switches kernel offload on or off for its lifetime.
struct Offload {
  explicit Offload(bool on) { ol::kernelCrypto = on; }
  ~Offload() { ol::kernelCrypto = false; }
};

// feed updates `h` with `msg` cut in `pieces`.
Hash& feed(Hash& h, const Bytes& msg, const std::vector<std::size_t>& pieces) {
  std::size_t at = 0;
  for (std::size_t n : pieces) {
    h.update(msg.data() + at, static_cast<unsigned>(n));
    at += n;
  }
  return h;
}

Bytes concat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// gcmCase seals `msg` and opens `sealed` with a fresh IV each time, expecting `sealed` to be
// what sealing gives (when `valid`) or to be rejected.
void gcmCase(const Backend& b, Cipher& c, const Bytes& iv, const Bytes& aad, const Bytes& msg, const Bytes& sealed,
             bool valid) {
  const auto ivLen = static_cast<unsigned>(iv.size());
  if (valid) {
    c.setIV(iv.data(), ivLen);
    // The kernel path sends no request for an empty message, so it writes no tag either.
    EXPECT_EQ(toHex(sealWith(c, msg, aad)), b.kernel && msg.empty() ? std::string(32, '0') : toHex(sealed));
  }
  c.setIV(iv.data(), ivLen);
  std::optional<Bytes> opened;
  const std::string said = test::said([&] { opened = openWith(c, sealed, aad); });
  EXPECT_EQ(opened, valid ? std::optional(msg) : std::nullopt);
  // The kernel reports a rejected message by the failing receive; software says nothing.
  std::string why = std::string(aad.empty() ? "alg recv failed: " : "alg recvmsg failed: ") + std::strerror(EBADMSG);
  if (!valid && sealed.size() >= 16) {
    EXPECT_EQ(said, b.kernel ? why + "\n" : "");
  }
}

// forEachCase calls check(case) under a trace naming the case and returns how many cases it
// checked; check returns false for a case the backend does not offer.
template <class Check>
int forEachCase(const nlohmann::json& cases, Check check) {
  int count = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c["id"].get<std::string>());
    count += check(c) ? 1 : 0;
  }
  return count;
}

bool hasKernelDriver(unsigned cipherId, std::size_t keyLen) {
  return ((cipherId == 4 || cipherId == 5) && (keyLen == 16 || keyLen == 24 || keyLen == 32)) ||
         (cipherId == 7 && (keyLen == 16 || keyLen == 32));
}

}  // namespace

Backend softwareBackend() {
  return {[](unsigned id) { return made(createHash(id), "", nullptr); },
          [](unsigned id, const Bytes& key) { return made(createCipher(id, key, 16), "", nullptr); }};
}

Backend kernelBackend(std::set<std::string>* drivers) {
  auto hash = [drivers](unsigned id) -> std::unique_ptr<Hash> {
    if (id != hashSha1 && id != hashSha256 && id != hashSha512) return nullptr;
    Offload on(true);
    return made(createHash(id), detail::hashDriverName(id), drivers);
  };
  auto cipher = [drivers](unsigned id, const Bytes& key) -> std::unique_ptr<Cipher> {
    if (!hasKernelDriver(id, key.size())) return nullptr;
    Offload on(true);
    return made(createCipher(id, key, 16), detail::cipherDriverName(id, key.size()), drivers);
  };
  return {hash, cipher, true};
}

unsigned hashIdForName(std::string name) {
  if (name.starts_with("HMAC-")) name = name.substr(5);
  static const std::pair<const char*, unsigned> names[] = {
      {"MD4", hashMd4},           {"MD5", hashMd5},          {"SHA-1", hashSha1},    {"SHA-256", hashSha256},
      {"SHA-384", hashSha384},    {"SHA-512", hashSha512},   {"HMACSHA1", hashSha1}, {"HMACSHA256", hashSha256},
      {"HMACSHA384", hashSha384}, {"HMACSHA512", hashSha512}};
  for (auto& [n, id] : names)
    if (name == n) return id;
  ADD_FAILURE() << "unknown algorithm in vectors: " << name;
  return hashNone;
}

int digestKnownAnswers(const Backend& b, const nlohmann::json& cases) {
  return forEachCase(cases, [&](const nlohmann::json& c) {
    auto h = b.hash(hashIdForName(c["algorithm"]));
    if (!h) return false;
    const Bytes unit = *field(c, "message");
    Bytes msg = c.contains("message_repeat") ? Bytes{} : unit;
    for (int i = 0; i < c.value("message_repeat", 0); ++i) msg.insert(msg.end(), unit.begin(), unit.end());
    // One call, then in pieces crossing the block edges on the same object: a digest leaves it
    // reusable.
    EXPECT_EQ(toHex(h->update(msg).digest()), c["digest"]);
    std::vector<std::size_t> pieces(std::min<std::size_t>(msg.size(), 200), 1);
    if (msg.size() > 200) pieces = {1, 63, 65, 127, msg.size() - 256};
    EXPECT_EQ(toHex(feed(*h, msg, pieces).digest()), c["digest"]);
    return true;
  });
}

int hmacKnownAnswers(const Backend& b, const nlohmann::json& cases) {
  return forEachCase(cases, [&](const nlohmann::json& c) {
    auto h = b.hash(hashIdForName(c["algorithm"]));
    if (!h) return false;
    Bytes key = *field(c, "key");
    const Bytes out = HMAC(h.get(), key.data(), static_cast<unsigned>(key.size())).update(*field(c, "data")).digest();
    EXPECT_EQ(toHex(out), c["mac"].get<std::string>());
    return true;
  });
}

int modeKnownAnswers(const Backend& b, const nlohmann::json& cases) {
  return forEachCase(cases, [&](const nlohmann::json& c) {
    const unsigned id = c["mode"] == "CBC" ? 4 : c["mode"] == "CTR" ? 5 : 6;
    Bytes key = *field(c, "key"), iv = *field(c, c.contains("iv") ? "iv" : "initial_counter_block");
    auto cipher = b.cipher(id, key);
    if (!cipher) return false;
    const bool encrypt = c["direction"] == "encrypt";
    const Bytes in = *field(c, encrypt ? "plaintext" : "ciphertext"),
                want = *field(c, encrypt ? "ciphertext" : "plaintext");
    // The whole message at once, then block by block on the chaining the object keeps.
    for (unsigned piece : {static_cast<unsigned>(in.size()), 16u}) {
      Bytes out(in.size());
      cipher->setIV(iv.data(), 16);
      for (unsigned at = 0; at < in.size(); at += piece) {
        if (encrypt) cipher->encrypt(in.data() + at, piece, nullptr, 0, out.data() + at);
        else EXPECT_EQ(cipher->decrypt(in.data() + at, piece, nullptr, 0, out.data() + at), piece);
      }
      EXPECT_EQ(toHex(out), toHex(want)) << "in pieces of " << piece;
    }
    return true;
  });
}

int gcmWycheproof(const Backend& b, const nlohmann::json& file) {
  int count = 0;
  forEachWycheproofTest(file, [&](const auto&, const auto& t) {
    Bytes iv = *field(t, "iv");
    auto gcm = iv.size() == 12 ? b.cipher(7, *field(t, "key")) : nullptr;
    if (!gcm) return;
    gcmCase(b, *gcm, iv, *field(t, "aad"), *field(t, "msg"), concat(*field(t, "ct"), *field(t, "tag")),
            t["result"] == "valid");
    ++count;
  });
  return count;
}

#if TESSEL_HAVE_OPENSSL
// failedHere tells whether the running test failed since `before` was taken (a random runner
// stops at its first failure rather than repeating it).
bool failedHere(bool before) { return !before && testing::Test::HasFailure(); }

int digestsMatchOpenSsl(const Backend& b, int perAlgorithm) {
  int count = 0;
  const bool before = testing::Test::HasFailure();
  TestRng rng(0x7e55e1);
  for (unsigned id = 1; id <= 7; ++id) {
    auto h = b.hash(id);
    for (int i = 0; h && i < perAlgorithm; ++i) {
      // Every length up to past two 128-byte blocks, then random ones and ones near block edges.
      std::size_t len = i % 3 ? rng.below(4096) : 128 * rng.below(33) + rng.below(3) + (rng.below(2) ? 0 : 8);
      len = i < 300 ? static_cast<std::size_t>(i) : i % 3 || !len ? len : len - 1;
      Bytes msg = rng.bytes(len);
      EXPECT_EQ(toHex(feed(*h, msg, randomSplits(rng, len)).digest()), toHex(opensslDigest(id, msg)))
          << "id " << id << " iteration " << i << " length " << len;
      if (failedHere(before)) return count;
      ++count;
    }
  }
  return count;
}

int modesMatchOpenSsl(const Backend& b, int perRow) {
  struct Row {
    unsigned id;
    std::size_t keyLen;
    const EVP_CIPHER* (*evp)();
  };
  const Row rows[] = {{4, 16, EVP_aes_128_cbc},    {4, 24, EVP_aes_192_cbc}, {4, 32, EVP_aes_256_cbc},
                      {5, 16, EVP_aes_128_ctr},    {5, 24, EVP_aes_192_ctr}, {5, 32, EVP_aes_256_ctr},
                      {6, 16, EVP_aes_128_cfb128}, {2, 8, EVP_des_cbc},      {3, 24, EVP_des_ede3_cbc}};
  int count = 0;
  const bool before = testing::Test::HasFailure();
  TestRng rng(0xc1be5);
  for (const Row& r : rows) {
    for (int i = 0; i < perRow; ++i) {
      Bytes key = rng.bytes(r.keyLen);
      auto c = b.cipher(r.id, key);
      if (!c) break;
      const std::size_t block = c->blockLength();
      Bytes iv = rng.bytes(block);
      if (r.id == 5) iv[12] = 0;  // far from the low word's wrap, which OpenSSL carries and we do not
      std::size_t len = rng.below(3000);
      if ((r.id != 5 && r.id != 6) || b.kernel) len -= len % block;
      Bytes msg = rng.bytes(len), want = opensslCipher(r.evp(), key, iv, msg, true), out(len);
      // Chained calls of whole blocks; only a stream's last piece may be partial.
      for (bool encrypt : {true, false}) {
        c->setIV(iv.data(), static_cast<unsigned>(block));
        const Bytes& in = encrypt ? msg : want;
        for (std::size_t at = 0, n; at < len; at += n) {
          n = std::min(len - at, block * rng.below(40));
          if (!n) n = len - at;
          if (encrypt) c->encrypt(in.data() + at, static_cast<unsigned>(n), nullptr, 0, out.data() + at);
          else EXPECT_EQ(c->decrypt(in.data() + at, static_cast<unsigned>(n), nullptr, 0, out.data() + at), n);
        }
        EXPECT_EQ(toHex(out), toHex(encrypt ? want : msg)) << r.id << "/" << r.keyLen << " iteration " << i;
        if (failedHere(before)) return count;
      }
      ++count;
    }
  }
  return count;
}

int gcmMatchesOpenSsl(const Backend& b, int count) {
  TestRng rng(0x6c3);
  int done = 0;
  const bool before = testing::Test::HasFailure();
  for (int i = 0; i < count && !failedHere(before); ++i) {
    Bytes key = rng.bytes(i % 3 == 0   ? 32
                          : i % 3 == 1 ? 16
                                       : 24),
          iv = rng.bytes(rng.below(3) ? 12 : 13 + rng.below(60));
    Bytes aad = rng.bytes(rng.below(3) ? rng.below(70) : 0), msg = rng.bytes(rng.below(1500));
    auto gcm = iv.size() == 12 || !b.kernel ? b.cipher(7, key) : nullptr;
    if (!gcm) continue;
    gcmCase(b, *gcm, iv, aad, msg, opensslGcmSeal(key, iv, aad, msg), true);
    ++done;
  }
  return done;
}
#endif

}  // namespace tessel::test
