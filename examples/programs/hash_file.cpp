// hash_file FILE KEY: prints the file's SHA-256 and its HMAC-SHA-256 under KEY, in hex.
#include <tessel/tessel.h>

#include <cstdio>
#include <string>
#include <vector>

static std::string hex(const std::vector<unsigned char>& bytes) {
  std::string out;
  char two[3];
  for (unsigned char b : bytes) std::snprintf(two, sizeof two, "%02x", b), out += two;
  return out;
}

int main(int argc, char** argv) {
  if (argc != 3) return std::fputs("usage: hash_file FILE KEY\n", stderr), 2;
  std::string data;
  if (!ol::readFile(data, argv[1])) return std::fprintf(stderr, "hash_file: cannot read %s\n", argv[1]), 1;
  const std::string key = argv[2];
  auto sha = tessel::createHash(tessel::hashSha256);
  auto mac = tessel::createHMAC(tessel::hashSha256, {reinterpret_cast<const unsigned char*>(key.data()), key.size()});
  sha->update(data.data(), static_cast<unsigned>(data.size()));
  mac->update(data.data(), static_cast<unsigned>(data.size()));
  std::printf("sha256 %s\nhmac-sha256 %s\n", hex(sha->digest()).c_str(), hex(mac->digest()).c_str());
}
