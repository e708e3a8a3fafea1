// Helpers of the issuing tests: fixture keys, a scratch folder and OpenSSL's command line as the
// outside judge of what tessel issues.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ol/file.h"
#include "support.h"
#include "tessel/pkcs8.h"

namespace tessel::test {

// fixtureKey reads tests/data/keys/<name>.pkcs8.der.
inline std::shared_ptr<PrivateKey> fixtureKey(const std::string& name) {
  return parseOneAssimetricKey(asn1::blob(fixtureDer("keys/" + name + ".pkcs8.der"))).first;
}

// readFileBytes returns a file's bytes; empty when it cannot be read.
inline Bytes readFileBytes(const std::string& path) { return bytesOf(ol::readFile(path)); }

// Scratch is a fresh folder that is removed with everything in it.
class Scratch {
 public:
  Scratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tessel-issue-XXXXXX").string();
    dir_ = mkdtemp(pattern.data());
  }
  ~Scratch() { std::filesystem::remove_all(dir_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  // file writes `text` to the folder and returns its path.
  std::string file(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

 private:
  std::string dir_;
};

struct CliResult {
  int status = -1;
  std::string output;  // standard output and error together
};

// runCli runs a shell command and collects its exit status and output.
inline CliResult runCli(const std::string& command) {
  CliResult r;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return r;
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) r.output.append(buf, n);
  const int status = pclose(pipe);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

}  // namespace tessel::test
