// tessel: a small command-line front end showing how a host uses the library.
//
//   tessel digest ALGO FILE...   print "HEX  FILE" lines like sha256sum (ALGO: md4, md5, sha1,
//                                sha256, sha384, sha512, md5sha1); "-" reads standard input
//   tessel dump FILE [--password PW]
//                                print the dump of a certificate, chain, CRL, request or key
//                                (PEM or DER)
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "ol/file.h"

#include "tessel/tessel.h"

namespace {

std::unique_ptr<tessel::Hash> hashByName(std::string_view name) {
  if (name == "md4") return std::make_unique<tessel::MD4>();
  if (name == "md5") return std::make_unique<tessel::MD5>();
  if (name == "sha1") return std::make_unique<tessel::SHA1>();
  if (name == "sha256") return std::make_unique<tessel::SHA256>();
  if (name == "sha384") return std::make_unique<tessel::SHA384>();
  if (name == "sha512") return std::make_unique<tessel::SHA512>();
  if (name == "md5sha1") return std::make_unique<tessel::MD5SHA1>();
  return nullptr;
}

std::string hex(const std::vector<unsigned char>& bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) out += {digits[b >> 4], digits[b & 15]};
  return out;
}

// hashStream feeds a whole stream to `h` in 64 KiB reads; false on a read error.
bool hashStream(std::FILE* f, tessel::Hash& h) {
  static unsigned char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) h.update(buf, static_cast<unsigned>(n));
  return !std::ferror(f);
}

int cmdDigest(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: tessel digest ALGO FILE...\n";
    return 2;
  }
  auto h = hashByName(argv[2]);
  if (!h) {
    std::cerr << "tessel: unknown digest '" << argv[2] << "'\n";
    return 2;
  }
  int status = 0;
  for (int i = 3; i < argc; ++i) {
    bool stdinInput = std::strcmp(argv[i], "-") == 0;
    std::FILE* f = stdinInput ? stdin : std::fopen(argv[i], "rb");
    if (!f || !hashStream(f, *h)) {
      std::cerr << "tessel: " << argv[i] << ": " << std::strerror(errno) << "\n";
      if (f && !stdinInput) std::fclose(f);
      h->digest();  // drop the partial message
      status = 1;
      continue;
    }
    if (!stdinInput) std::fclose(f);
    std::cout << hex(h->digest()) << "  " << argv[i] << "\n";
  }
  return status;
}

// dumpAny tries the text as each kind of object in turn; false when nothing reads it.
bool dumpAny(const std::string& text, const std::string& password) {
  using namespace tessel;
  std::string_view probe = text, label, body;
  const bool pem = parsePem(probe, &label, &body);
  if (!pem || label == "CERTIFICATE") {
    // A PEM certificate file may hold a chain; DER holds one certificate.
    auto chain = pem ? readCertChain(text) : std::vector<std::shared_ptr<X509Certificate>>{};
    if (chain.empty()) {
      if (auto cert = readCertFromStr(text)) chain.push_back(std::move(cert));
    }
    for (const auto& cert : chain) cert->dump(std::cout);
    if (!chain.empty()) return true;
  }
  if (auto crl = readCrl(text)) {
    crl->dump(std::cout);
    return true;
  }
  if (auto req = readReq(text)) {
    req->dump(std::cout);
    return true;
  }
  if (auto key = readPrivateKey(text, password)) {
    key->dump(std::cout);
    return true;
  }
  if (auto key = readPublicKey(text)) {
    key->dump(std::cout);
    return true;
  }
  return false;
}

int cmdDump(int argc, char** argv) {
  std::string password;
  const char* path = nullptr;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--password") == 0 && i + 1 < argc) password = argv[++i];
    else if (!path) path = argv[i];
    else path = nullptr, i = argc;
  }
  if (!path) {
    std::cerr << "usage: tessel dump FILE [--password PW]\n";
    return 2;
  }
  std::string text;
  if (!ol::readFile(text, path)) {
    std::cerr << "tessel: " << path << ": cannot read\n";
    return 1;
  }
  if (!dumpAny(text, password)) {
    std::cerr << "tessel: " << path << ": not a certificate, CRL, request or key\n";
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string_view cmd = argc > 1 ? argv[1] : "";
  if (cmd == "digest") return cmdDigest(argc, argv);
  if (cmd == "dump") return cmdDump(argc, argv);
  std::cerr << "usage: tessel digest ALGO FILE...\n       tessel dump FILE [--password PW]\n";
  return 2;
}
