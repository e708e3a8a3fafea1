#include "support.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "ol/file.h"
#include "tessel/factory.h"
#include "tessel/pem.h"

namespace tessel::test {

Bytes fromHex(std::string_view hex) {
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  Bytes out;
  if (hex.size() % 2) ADD_FAILURE() << "odd hex length: " << hex;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
    if (hi < 0 || lo < 0) ADD_FAILURE() << "bad hex: " << hex;
    out.push_back(static_cast<unsigned char>(hi << 4 | lo));
  }
  return out;
}

std::string toHex(const unsigned char* data, std::size_t len) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < len; ++i) s += {digits[data[i] >> 4], digits[data[i] & 15]};
  return s;
}

std::string vectorsDir() {
  if (const char* env = std::getenv("TESSEL_VECTORS"); env && *env) return env;
  return TESSEL_DEFAULT_VECTORS;
}

std::optional<nlohmann::json> loadVectors(const std::string& relativePath) {
  std::ifstream in(vectorsDir() + "/" + relativePath);
  if (!in) return std::nullopt;
  return nlohmann::json::parse(in);
}

std::optional<Bytes> field(const nlohmann::json& c, const std::string& name) {
  if (c.contains(name) && !c[name].is_null()) return fromHex(c[name].get<std::string>());
  if (c.contains(name + "_string") && !c[name + "_string"].is_null())
    return bytesOf(c[name + "_string"].get<std::string>());
  return std::nullopt;
}

Bytes sealWith(Cipher& c, const Bytes& msg, const Bytes& aad) {
  Bytes out(c.ciphertextLength(static_cast<unsigned>(msg.size())));
  c.encrypt(msg.data(), static_cast<unsigned>(msg.size()), aad.data(), static_cast<unsigned>(aad.size()), out.data());
  return out;
}

std::optional<Bytes> openWith(Cipher& c, const Bytes& in, const Bytes& aad) {
  Bytes out(in.size());
  const unsigned n =
      c.decrypt(in.data(), static_cast<unsigned>(in.size()), aad.data(), static_cast<unsigned>(aad.size()), out.data());
  if (n == decryptFailed) return std::nullopt;
  out.resize(n);
  return out;
}

std::unique_ptr<BlockCipher> makeBlockCipher(BlockKind kind, const Bytes& key) {
  switch (kind) {
    case BlockKind::null: return std::make_unique<NullBlockCipher>();
    case BlockKind::des: return std::make_unique<DES>(key.data());
    case BlockKind::des3: return std::make_unique<DES3>(key.data());
    default: return detail::makeAES(key.data(), key.size());
  }
}

Bytes readFixture(const std::string& relativePath) {
  std::string text;
  if (!ol::readFile(text, std::string(TESSEL_SOURCE_DIR) + "/tests/data/" + relativePath))
    ADD_FAILURE() << "missing fixture " << relativePath;
  return Bytes(text.begin(), text.end());
}

nlohmann::json dataFile(const std::string& relativePath) {
  const Bytes text = readFixture(relativePath);
  return text.empty() ? nlohmann::json::object() : nlohmann::json::parse(text);
}

nlohmann::json parseCases(const char* table) { return dataFile("parse_cases.json").at(table); }

Bytes pemBody(const Bytes& text) {
  std::string_view in(reinterpret_cast<const char*>(text.data()), text.size()), label, body;
  Bytes out;
  return parsePem(in, &label, &body) && pemDecode(body, &out) ? out : Bytes{};
}

std::unique_ptr<Hash> makeSoftwareHash(unsigned id) { return detail::createSoftwareHash(id); }

// pathsWith lists the portable path and, when `have`, the one named `name`; otherwise it says what is missing.
static std::vector<CodePath> pathsWith(bool have, const char* name, const char* missing) {
  if (have) return {{"portable", true}, {name, false}};
  std::printf("note: %s\n", missing);
  return {{"portable", true}};
}

std::vector<CodePath> digestCodePaths() {
  return pathsWith(cpuHasShaExtensions(), "sha-extensions",
                   "no SHA extensions on this processor; only the portable digests are tested");
}

std::vector<CodePath> aesCodePaths() {
  return pathsWith(cpuHasAesInstructions(), "aes-instructions",
                   "no AES instructions on this processor; only the portable AES is tested");
}

std::vector<CodePath> bignumCodePaths() {
  std::vector<CodePath> paths = {{"32-bit digits", true}};
#if defined(__SIZEOF_INT128__)
  paths.push_back({"64-bit limbs", false});
#endif
  return paths;
}

FakeProcCrypto::FakeProcCrypto(const std::string& text) {
  root_.write("/proc/crypto", bytesOf(text));
  detail::reloadCryptoInfoForTesting();
}

FakeProcCrypto::~FakeProcCrypto() {
  ol::setRoot("/");  // before the reload; the root's own destructor deletes the folder
  detail::reloadCryptoInfoForTesting();
}

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/tessel-root.XXXXXX";
  if (!::mkdtemp(tmpl)) ADD_FAILURE() << "mkdtemp failed";
  dir_ = tmpl;
  ol::setRoot(dir_);
}

TempRoot::~TempRoot() {
  ol::setRoot("/");
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

void TempRoot::write(const std::string& absolute, const Bytes& bytes) const {
  std::filesystem::path p = path(absolute);
  std::filesystem::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

UseCodePath::UseCodePath(const CodePath& path) { forcePortable(path.portable); }
UseCodePath::~UseCodePath() { forcePortable(false); }

std::vector<std::size_t> randomSplits(TestRng& rng, std::size_t total) {
  std::vector<std::size_t> pieces;
  while (total > 0) {
    std::size_t n;
    switch (rng.below(4)) {
      case 0: n = rng.below(3); break;             // 0, 1 or 2 bytes
      case 1: n = 1 + rng.below(200); break;       // around a block or two
      case 2: n = 64 * (1 + rng.below(4)); break;  // whole blocks
      default: n = 1 + rng.below(total); break;    // anything left
    }
    n = std::min(n, total);
    pieces.push_back(n);
    total -= n;
  }
  return pieces;
}

}  // namespace tessel::test
