// Shared test helpers: hex conversion, the test-vector reader and OpenSSL oracles.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tessel/block.h"
#include "tessel/cipher.h"
#include "tessel/cpu.h"
#include "tessel/hash.h"

namespace tessel::test {

using Bytes = std::vector<unsigned char>;

Bytes fromHex(std::string_view hex);
std::string toHex(const unsigned char* data, std::size_t len);
inline std::string toHex(const Bytes& b) { return toHex(b.data(), b.size()); }
inline Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }

// vectorsDir is $TESSEL_VECTORS, or the shared vectors folder beside the checkout.
std::string vectorsDir();

// loadVectors parses a JSON file below vectorsDir(); nullopt when the file is missing.
std::optional<nlohmann::json> loadVectors(const std::string& relativePath);

// field returns the bytes of a vector field: hex `name`, or the ASCII of `name`_string when
// only that is given. Absent or null gives nullopt.
std::optional<Bytes> field(const nlohmann::json& c, const std::string& name);

// forEachWycheproofTest calls fn(group, test) for every test of a Wycheproof file, under a
// trace naming its tcId, and returns how many there were.
template <class Fn>
int forEachWycheproofTest(const nlohmann::json& file, Fn fn) {
  int count = 0;
  for (const auto& group : file["testGroups"])
    for (const auto& t : group["tests"]) {
      SCOPED_TRACE("tcId " + std::to_string(t["tcId"].get<int>()));
      fn(group, t);
      ++count;
    }
  return count;
}

// sealWith encrypts `msg` (with `aad`) and returns the ciphertextLength() output bytes.
Bytes sealWith(Cipher& c, const Bytes& msg, const Bytes& aad = {});
// openWith decrypts `in` and returns the plaintext, or nullopt for the failure value.
std::optional<Bytes> openWith(Cipher& c, const Bytes& in, const Bytes& aad = {});

// makeBlockCipher builds a block cipher of a kind from `key` (AES by its length).
enum class BlockKind { null, des, des3, aes };
std::unique_ptr<BlockCipher> makeBlockCipher(BlockKind kind, const Bytes& key);

// readFixture returns the bytes of a file below tests/data, failing the test when it is missing.
Bytes readFixture(const std::string& relativePath);
// dataFile parses a JSON case file below tests/data, failing the test when it is missing.
nlohmann::json dataFile(const std::string& relativePath);
// parseCases returns one table of tests/data/parse_cases.json (written by gen_parse_cases.py).
nlohmann::json parseCases(const char* table);
// pemBody decodes the Base64 body of the first PEM block of `text` (headers not allowed).
Bytes pemBody(const Bytes& text);

// makeSoftwareHash returns the software digest for a HashID (1..7), or null.
std::unique_ptr<Hash> makeSoftwareHash(unsigned id);

// CodePath is one implementation an algorithm can run on; every vector runs through each.
struct CodePath {
  const char* name;
  bool portable;
};

// digestCodePaths lists the portable path and, when this processor has the SHA extensions, the
// accelerated one.
std::vector<CodePath> digestCodePaths();

// UseCodePath selects a code path for its lifetime and restores automatic choice afterwards.
class UseCodePath {
 public:
  explicit UseCodePath(const CodePath& path);
  ~UseCodePath();
  UseCodePath(const UseCodePath&) = delete;
  UseCodePath& operator=(const UseCodePath&) = delete;
};

// aesCodePaths lists the portable AES (with table GHASH) and, when this processor has the AES
// instructions, the accelerated one (with carry-less GHASH where available).
std::vector<CodePath> aesCodePaths();

// bignumCodePaths lists the Montgomery products on 32-bit digits and, where the compiler has a
// 128-bit product, the one on 64-bit limbs.
std::vector<CodePath> bignumCodePaths();

// forEachPath runs `body` once per entry of `paths`, under a trace naming it, after checking
// with `inUse` that the path asked for is the one that runs.
template <class Body>
void forEachPath(const char* family, const std::vector<CodePath>& paths, bool (*inUse)(), Body body) {
  for (const CodePath& path : paths) {
    UseCodePath use(path);
    SCOPED_TRACE(std::string(family) + " path " + path.name);
    EXPECT_EQ(inUse(), !path.portable);
    body();
  }
}

template <class Body>
void forEachAesPath(Body body) {
  forEachPath("AES", aesCodePaths(), aesInstructionsInUse, body);
}

template <class Body>
void forEachDigestPath(Body body) {
  forEachPath("digest", digestCodePaths(), shaExtensionsInUse, body);
}

template <class Body>
void forEachBignumPath(Body body) {
  forEachPath("bignum", bignumCodePaths(), wideLimbsInUse, body);
}

// TempRoot points the platform root (ol/file.h) at a fresh temporary folder for its lifetime;
// the destructor restores the real root and deletes the folder.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  // path returns where the absolute system path `absolute` lives under this root.
  std::string path(const std::string& absolute) const { return dir_ + absolute; }
  // write creates the file at system path `absolute` (and its folders) holding `bytes`.
  void write(const std::string& absolute, const Bytes& bytes) const;

 private:
  std::string dir_;
};

// FakeProcCrypto points the platform root (ol/file.h) at a temporary folder whose
// proc/crypto holds `text`, and makes the factory read it again; the destructor restores the
// real root and the real driver list.
class FakeProcCrypto {
 public:
  explicit FakeProcCrypto(const std::string& text);
  ~FakeProcCrypto();
  FakeProcCrypto(const FakeProcCrypto&) = delete;
  FakeProcCrypto& operator=(const FakeProcCrypto&) = delete;

 private:
  TempRoot root_;
};

// Deterministic randomness for property tests, so a failure can be replayed from its seed.
class TestRng {
 public:
  explicit TestRng(std::uint64_t seed) : gen_(seed) {}
  std::uint32_t next() { return static_cast<std::uint32_t>(gen_()); }
  std::size_t below(std::size_t n) { return n ? gen_() % n : 0; }
  Bytes bytes(std::size_t n) {
    Bytes b(n);
    for (auto& x : b) x = static_cast<unsigned char>(gen_());
    return b;
  }

 private:
  std::mt19937_64 gen_;
};

// kSanitized is true in AddressSanitizer builds, whose instrumented arithmetic is many times slower.
#if defined(__SANITIZE_ADDRESS__)
#define TESSEL_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESSEL_TEST_ASAN 1
#endif
#endif
#ifdef TESSEL_TEST_ASAN
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// rounds gives the iteration count of a random property test: `n` natively, an eighth of it under
// the sanitizers (which look for memory faults, not for rare operands).
constexpr int rounds(int n) { return kSanitized ? (n + 7) / 8 : n; }

// randomSplits cuts [0, total) into consecutive pieces of random lengths, mixing tiny pieces
// with large ones so buffer boundaries are crossed in every way.
std::vector<std::size_t> randomSplits(TestRng& rng, std::size_t total);

// said runs `body` and returns what it printed on standard output.
template <class Body>
std::string said(Body body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

// parseSaying runs obj.parse over DER and returns its result with what it printed.
template <class T>
std::pair<bool, std::string> parseSaying(T& obj, const Bytes& der) {
  bool ok = false;
  std::string out = said([&] { ok = obj.parse(der.data(), static_cast<unsigned>(der.size())); });
  return {ok, out};
}

// fixturePath is the file name of a fixture below tests/data; fixtureText its contents.
inline std::string fixturePath(const std::string& relativePath) {
  return std::string(TESSEL_SOURCE_DIR) + "/tests/data/" + relativePath;
}
inline std::string fixtureText(const std::string& relativePath) {
  const Bytes b = readFixture(relativePath);
  return std::string(b.begin(), b.end());
}

// fixtureDer is the DER of a fixture: the file itself (.der) or the body of its first PEM block.
inline Bytes fixtureDer(const std::string& relativePath) {
  const Bytes b = readFixture(relativePath);
  return relativePath.ends_with(".der") ? b : pemBody(b);
}

// dumpOf returns what obj.dump writes.
template <class T>
std::string dumpOf(const T& obj) {
  std::ostringstream os;
  obj.dump(os);
  return os.str();
}

// hexField returns the bytes of hex field `name` of a case; an absent field gives no bytes.
inline Bytes hexField(const nlohmann::json& c, const char* name) {
  return c.contains(name) ? fromHex(c[name].get<std::string>()) : Bytes{};
}

}  // namespace tessel::test

// LOAD_VECTORS binds `var` to the parsed file or skips the test, saying which file is missing.
#define LOAD_VECTORS(var, path)                                                                 \
  auto var##_opt = ::tessel::test::loadVectors(path);                                           \
  if (!var##_opt)                                                                               \
    GTEST_SKIP() << "test vectors not found: " << ::tessel::test::vectorsDir() << "/" << (path) \
                 << " (set TESSEL_VECTORS)";                                                    \
  const nlohmann::json& var = *var##_opt
