#include "support.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "tessel/cpu.h"

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

std::unique_ptr<Hash> makeSoftwareHash(unsigned id) {
  switch (id) {
    case hashMd5Sha1: return std::make_unique<MD5SHA1>();
    case hashMd4: return std::make_unique<MD4>();
    case hashMd5: return std::make_unique<MD5>();
    case hashSha1: return std::make_unique<SHA1>();
    case hashSha256: return std::make_unique<SHA256>();
    case hashSha384: return std::make_unique<SHA384>();
    case hashSha512: return std::make_unique<SHA512>();
    default: return nullptr;
  }
}

std::vector<CodePath> digestCodePaths() {
  std::vector<CodePath> paths = {{"portable", true}};
  if (cpuHasShaExtensions()) paths.push_back({"sha-extensions", false});
  else std::printf("note: no SHA extensions on this processor; only the portable digests are tested\n");
  return paths;
}

UseCodePath::UseCodePath(const CodePath& path) { forcePortable(path.portable); }
UseCodePath::~UseCodePath() { forcePortable(false); }

std::vector<std::size_t> randomSplits(TestRng& rng, std::size_t total) {
  std::vector<std::size_t> pieces;
  while (total > 0) {
    std::size_t n;
    switch (rng.below(4)) {
      case 0: n = rng.below(3); break;                 // 0, 1 or 2 bytes
      case 1: n = 1 + rng.below(200); break;           // around a block or two
      case 2: n = 64 * (1 + rng.below(4)); break;      // whole blocks
      default: n = 1 + rng.below(total); break;        // anything left
    }
    n = std::min(n, total);
    pieces.push_back(n);
    total -= n;
  }
  return pieces;
}

}  // namespace tessel::test
