// What the tessel program's commands share: option parsing, help, the two failure exits, file
// input and output, private keys and the signing options.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tessel/tessel.h"

namespace tessel::cli {

// Options holds `--name value` pairs (repeatable names keep every value) and `--flag`s.
struct Options {
  std::multimap<std::string, std::string> values;
  std::vector<std::string> flags, positional;

  bool has(const std::string& name) const { return values.count(name) != 0; }
  std::string get(const std::string& name, const std::string& fallback = "") const {
    auto it = values.find(name);
    return it == values.end() ? fallback : it->second;
  }
  bool flag(const std::string& name) const {
    for (const std::string& f : flags)
      if (f == name) return true;
    return false;
  }
};

// Usage is a command's help text; the first line names the command.
struct Usage {
  const char* text;
  std::vector<std::string_view> flags;  // options that take no value
};

// fail prints one line and gives the exit status of a bad invocation (2).
int fail(const std::string& message);
// failed prints one line and gives the exit status of work that could not be done (1).
int failed(const std::string& message);
// parseOptions reads argv[first..]; false (after one line on standard error) for an unknown
// shape. `--help` is a flag every command has.
bool parseOptions(int argc, char** argv, int first, const Usage& usage, Options* o);
// helpAsked prints the usage to standard output when --help was given, and says so.
bool helpAsked(const Options& o, const Usage& usage);
// readText reads a whole file; false, with a line on standard error, when it cannot.
bool readText(const std::string& path, std::string* text);
// writeOut writes to `path` (standard output when empty); secret files are created 0600.
// False, with the system's reason on standard error, when the write fails.
bool writeOut(const std::string& path, const std::string& text, bool secret = false);
// number reads plain decimal digits up to `max`; nullopt for anything else (a sign included).
std::optional<unsigned> number(const std::string& text, unsigned max);
// loadKey reads a PEM private key, decrypting it with `password` when it is encrypted; null,
// with a line on standard error, when it cannot.
std::shared_ptr<PrivateKey> loadKey(const std::string& path, const std::string& password);
// signingParams reads --digest and --pss for `key`; Ed25519 signs without a digest. Nullopt
// for a combination the key cannot sign with.
std::optional<SignatureParams> signingParams(const Options& o, const PrivateKey& key);

}  // namespace tessel::cli
