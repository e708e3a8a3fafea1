// What the tessel program's commands share.
#include "cli.h"

#include <fcntl.h>
#include <unistd.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "ol/file.h"

namespace tessel::cli {

// fail prints one line and gives the exit status of a bad invocation.
int fail(const std::string& message) {
  std::cerr << "tessel: " << message << "\n";
  return 2;
}

// failed prints one line and gives the exit status of work that could not be done.
int failed(const std::string& message) {
  std::cerr << "tessel: " << message << "\n";
  return 1;
}

// parseOptions reads argv[first..]; false (after one line on standard error) for an unknown
// shape. `--help` is a flag every command has.
bool parseOptions(int argc, char** argv, int first, const Usage& usage, Options* o) {
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!arg.starts_with("--")) {
      o->positional.push_back(arg);
      continue;
    }
    const std::string name = arg.substr(2);
    bool isFlag = name == "help";
    for (std::string_view f : usage.flags) isFlag = isFlag || name == f;
    if (isFlag) {
      o->flags.push_back(name);
    } else if (i + 1 < argc) {
      o->values.emplace(name, argv[++i]);
    } else {
      fail("option " + arg + " needs a value");
      return false;
    }
  }
  return true;
}

bool helpAsked(const Options& o, const Usage& usage) {
  if (!o.flag("help")) return false;
  std::cout << usage.text;
  return true;
}

bool readText(const std::string& path, std::string* text) {
  if (ol::readFile(*text, path)) return true;
  std::cerr << "tessel: " << path << ": cannot read\n";
  return false;
}

// writeOut writes to `path` (standard output when empty); secret files are created 0600.
bool writeOut(const std::string& path, const std::string& text, bool secret) {
  if (path.empty()) {
    std::cout << text;
    return static_cast<bool>(std::cout);
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, secret ? 0600 : 0644);
  bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (fd >= 0) ok = ::close(fd) == 0 && ok;
  if (!ok) std::cerr << "tessel: " << path << ": " << std::strerror(errno) << "\n";
  return ok;
}

std::optional<unsigned> number(const std::string& text, unsigned max) {
  char* end = nullptr;
  const unsigned long v = std::strtoul(text.c_str(), &end, 10);
  // strtoul takes a sign and wraps it, so only plain digits are numbers here.
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end != '\0' || v > max)
    return std::nullopt;
  return static_cast<unsigned>(v);
}

std::shared_ptr<PrivateKey> loadKey(const std::string& path, const std::string& password) {
  std::string text;
  if (!readText(path, &text)) return nullptr;
  auto key = readPrivateKey(text, password);
  if (!key) std::cerr << "tessel: " << path << ": not a private key (or a wrong password)\n";
  return key;
}

// signingParams reads --digest and --pss for `key`; Ed25519 signs without a digest.
std::optional<SignatureParams> signingParams(const Options& o, const PrivateKey& key) {
  if (key.getKeyType() == keyEd25519) {
    if (o.has("digest") || o.flag("pss")) return std::nullopt;
    return SignatureParams{};
  }
  static const std::pair<const char*, HashID> kDigests[] = {
      {"sha1", hashSha1}, {"sha256", hashSha256}, {"sha384", hashSha384}, {"sha512", hashSha512}};
  const std::string name = o.get("digest", "sha256");
  for (const auto& [n, id] : kDigests)
    if (name == n) {
      if (o.flag("pss") && key.getKeyType() != keyRsa) return std::nullopt;
      return SignatureParams{id, o.flag("pss")};
    }
  return std::nullopt;
}

}  // namespace tessel::cli
