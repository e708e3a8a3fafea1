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

// OffloadOn switches kernel offload on for its lifetime.
struct OffloadOn {
  OffloadOn() { ol::kernelCrypto = true; }
  ~OffloadOn() { ol::kernelCrypto = false; }
};

// checkKernel fails the test unless `obj` is a kernel object bound to `driver`.
template <class Object>
void checkKernel(const Object* obj, const std::string& driver, std::set<std::string>* drivers) {
  auto* k = dynamic_cast<const KernelAlg*>(obj);
  ASSERT_TRUE(k) << "not a kernel object; expected driver " << driver;
  EXPECT_EQ(k->algorithmName(), driver);
  drivers->insert(driver);
}

bool isAesKey(std::size_t n) { return n == 16 || n == 24 || n == 32; }

// pieces cuts `len` bytes into update() calls: byte by byte for short messages, otherwise a few
// pieces that cross the 64- and 128-byte block edges unevenly.
std::vector<std::size_t> pieces(std::size_t len) {
  if (len <= 200) return std::vector<std::size_t>(len, 1);
  std::vector<std::size_t> out = {1, 63, 65, 127};
  out.push_back(len - 256);
  return out;
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
    Bytes ours = sealWith(c, msg, aad);
    // The kernel path sends no request for an empty message, so it writes no tag either.
    EXPECT_EQ(toHex(ours), b.kernel && msg.empty() ? std::string(32, '0') : toHex(sealed));
  }
  c.setIV(iv.data(), ivLen);
  if (!b.kernel) {
    EXPECT_EQ(openWith(c, sealed, aad), valid ? std::optional(msg) : std::nullopt);
    return;
  }
  // A rejected message is reported by the failing receive.
  std::optional<Bytes> opened;
  const std::string said = test::said([&] { opened = openWith(c, sealed, aad); });
  EXPECT_EQ(opened, valid ? std::optional(msg) : std::nullopt);
  if (!valid && sealed.size() >= 16) {
    EXPECT_EQ(said, std::string(aad.empty() ? "alg recv failed: " : "alg recvmsg failed: ") + std::strerror(EBADMSG) + "\n");
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

}  // namespace

Backend softwareBackend() {
  Backend b;
  b.name = "software";
  b.hash = [](unsigned id) {
    auto h = createHash(id);
    EXPECT_FALSE(dynamic_cast<KernelAlg*>(h.get()));
    return h;
  };
  b.cipher = [](unsigned id, const Bytes& key) {
    auto c = createCipher(id, key, 16);
    EXPECT_FALSE(dynamic_cast<KernelAlg*>(c.get()));
    return c;
  };
  return b;
}

Backend kernelBackend(std::set<std::string>* drivers) {
  Backend b;
  b.name = "kernel";
  b.kernel = true;
  b.hash = [drivers](unsigned id) -> std::unique_ptr<Hash> {
    if (id != hashSha1 && id != hashSha256 && id != hashSha512) return nullptr;
    OffloadOn on;
    auto h = createHash(id);
    checkKernel(h.get(), detail::hashDriverName(id), drivers);
    return h;
  };
  b.cipher = [drivers](unsigned id, const Bytes& key) -> std::unique_ptr<Cipher> {
    if (!((id == 4 || id == 5) && isAesKey(key.size())) && !(id == 7 && (key.size() == 16 || key.size() == 32)))
      return nullptr;
    OffloadOn on;
    auto c = createCipher(id, key, 16);
    checkKernel(c.get(), detail::cipherDriverName(id, key.size()), drivers);
    return c;
  };
  return b;
}

unsigned hashIdForName(std::string name) {
  if (name.starts_with("HMAC-")) name = name.substr(5);
  static const std::pair<const char*, unsigned> names[] = {
      {"MD4", hashMd4},           {"MD5", hashMd5},           {"SHA-1", hashSha1},        {"SHA-256", hashSha256},
      {"SHA-384", hashSha384},    {"SHA-512", hashSha512},    {"HMACSHA1", hashSha1},     {"HMACSHA256", hashSha256},
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
    Bytes msg;
    if (c.contains("message_repeat")) {
      std::string unit = c["message_string"];
      for (int i = 0, n = c["message_repeat"]; i < n; ++i) msg.insert(msg.end(), unit.begin(), unit.end());
    } else {
      msg = *field(c, "message");
    }
    const std::string expected = c["digest"];
    // One call, then in pieces on the same object: a digest leaves it reusable.
    EXPECT_EQ(toHex(h->update(msg).digest()), expected);
    std::size_t at = 0;
    for (std::size_t n : pieces(msg.size())) {
      h->update(msg.data() + at, static_cast<unsigned>(n));
      at += n;
    }
    EXPECT_EQ(toHex(h->digest()), expected);
    return true;
  });
}

int hmacKnownAnswers(const Backend& b, const nlohmann::json& cases) {
  return forEachCase(cases, [&](const nlohmann::json& c) {
    auto h = b.hash(hashIdForName(c["algorithm"]));
    if (!h) return false;
    Bytes key = *field(c, "key");
    HMAC mac(h.get(), key.data(), static_cast<unsigned>(key.size()));
    const Bytes out = mac.update(*field(c, "data")).digest();
    if (c.contains("truncated_mac")) {
      EXPECT_EQ(toHex(out.data(), c["truncated_mac_length_bytes"].get<std::size_t>()), c["truncated_mac"].get<std::string>());
    }
    EXPECT_EQ(toHex(out), c["mac"].get<std::string>());
    return true;
  });
}

int modeKnownAnswers(const Backend& b, const nlohmann::json& cases) {
  return forEachCase(cases, [&](const nlohmann::json& c) {
    const std::string mode = c["mode"];
    const unsigned id = mode == "CBC" ? 4 : mode == "CTR" ? 5 : 6;
    Bytes key = *field(c, "key"), iv = *field(c, c.contains("iv") ? "iv" : "initial_counter_block");
    auto cipher = b.cipher(id, key);
    if (!cipher) return false;
    const bool encrypt = c["direction"] == "encrypt";
    const Bytes in = *field(c, encrypt ? "plaintext" : "ciphertext"), want = *field(c, encrypt ? "ciphertext" : "plaintext");
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

int gcmKnownAnswers(const Backend& b, const nlohmann::json& cases) {
  return forEachCase(cases, [&](const nlohmann::json& c) {
    // IVs other than 12 bytes follow this library's own rule in software (gcm_test.cpp) and
    // are refused by the kernel.
    Bytes key = *field(c, "key"), iv = *field(c, "iv");
    auto gcm = iv.size() == 12 ? b.cipher(7, key) : nullptr;
    if (!gcm) return false;
    gcmCase(b, *gcm, iv, *field(c, "aad"), *field(c, "plaintext"), concat(*field(c, "ciphertext"), *field(c, "tag")),
            true);
    return true;
  });
}

int gcmWycheproof(const Backend& b, const nlohmann::json& file) {
  int count = 0;
  forEachWycheproofTest(file, [&](const auto&, const auto& t) {
    auto hex = [&](const char* name) { return fromHex(t[name].template get<std::string>()); };
    Bytes iv = hex("iv");
    if (iv.size() != 12) return;
    auto gcm = b.cipher(7, hex("key"));
    if (!gcm) return;
    gcmCase(b, *gcm, iv, hex("aad"), hex("msg"), concat(hex("ct"), hex("tag")), t["result"] == "valid");
    ++count;
  });
  return count;
}

#if TESSEL_HAVE_OPENSSL
int digestsMatchOpenSsl(const Backend& b, int perAlgorithm) {
  int count = 0;
  TestRng rng(0xd16e57);
  for (unsigned id : {hashSha1, hashSha256, hashSha512}) {
    auto h = b.hash(id);
    if (!h) continue;
    for (int i = 0; i < perAlgorithm; ++i) {
      const std::size_t len = i < 130 ? static_cast<std::size_t>(i) : rng.below(5000);
      Bytes msg = rng.bytes(len);
      std::size_t at = 0;
      for (std::size_t n : randomSplits(rng, len)) {
        h->update(msg.data() + at, static_cast<unsigned>(n));
        at += n;
      }
      const std::string got = toHex(h->digest()), want = toHex(opensslDigest(id, msg));
      EXPECT_EQ(got, want) << "id " << id << " iteration " << i;
      if (got != want) return count;
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
  const Row rows[] = {{4, 16, EVP_aes_128_cbc}, {4, 24, EVP_aes_192_cbc}, {4, 32, EVP_aes_256_cbc},
                      {5, 16, EVP_aes_128_ctr}, {5, 24, EVP_aes_192_ctr}, {5, 32, EVP_aes_256_ctr}};
  int count = 0;
  TestRng rng(0xc1be5);
  for (const Row& r : rows) {
    for (int i = 0; i < perRow; ++i) {
      Bytes key = rng.bytes(r.keyLen), iv = rng.bytes(16);
      auto c = b.cipher(r.id, key);
      if (!c) break;
      if (r.id == 5) iv[12] = 0;  // far from the low word's wrap, which OpenSSL carries and we do not
      std::size_t len = rng.below(3000);
      if (r.id == 4 || b.kernel) len -= len % 16;
      Bytes msg = rng.bytes(len), want = opensslCipher(r.evp(), key, iv, msg, true), out(len);
      c->setIV(iv.data(), 16);
      c->encrypt(msg.data(), static_cast<unsigned>(len), nullptr, 0, out.data());
      const bool sealed = out == want;
      EXPECT_EQ(toHex(out), toHex(want)) << r.id << "/" << r.keyLen << " iteration " << i;
      // Decrypt in chained calls of whole blocks (the last may be partial in software CTR).
      c->setIV(iv.data(), 16);
      for (std::size_t at = 0; at < len;) {
        std::size_t n = std::min(len - at, 16 * (1 + rng.below(20)));
        EXPECT_EQ(c->decrypt(want.data() + at, static_cast<unsigned>(n), nullptr, 0, out.data() + at), n);
        at += n;
      }
      EXPECT_EQ(toHex(out), toHex(msg)) << r.id << "/" << r.keyLen << " iteration " << i;
      if (!sealed || out != msg) return count;
      ++count;
    }
  }
  return count;
}

int gcmMatchesOpenSsl(const Backend& b, int count) {
  TestRng rng(0x6c3e);
  int done = 0;
  for (int i = 0; i < count; ++i) {
    Bytes key = rng.bytes(i % 2 ? 32 : 16), iv = rng.bytes(12);
    Bytes aad = rng.bytes(rng.below(3) ? rng.below(70) : 0), msg = rng.bytes(1 + rng.below(1500));
    auto gcm = b.cipher(7, key);
    if (!gcm) break;
    gcmCase(b, *gcm, iv, aad, msg, opensslGcmSeal(key, iv, aad, msg), true);
    if (testing::Test::HasFatalFailure()) break;
    ++done;
  }
  return done;
}
#endif

}  // namespace tessel::test
