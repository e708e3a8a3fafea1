// The tessel program's conventions, run as a script would run it: help on standard output with
// status 0, a usage error as one line on standard error with status 2, unreadable input apart
// from a failed verification, strict dates, results alone on standard output.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "support.h"
#include "tessel/version.h"

namespace {

struct Ran {
  std::string out, err;
  int status;
};

// run executes a shell command and returns its standard output, standard error and exit status.
Ran run(const std::string& command) {
  // One file per process: ctest runs the tests of this file side by side.
  const std::string errFile = testing::TempDir() + "tessel-tool-stderr." + std::to_string(getpid());
  Ran r{"", "", -1};
  FILE* p = popen((command + " 2>" + errFile).c_str(), "r");
  if (!p) return r;
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream err(errFile);
  r.err.assign(std::istreambuf_iterator<char>(err), {});
  std::remove(errFile.c_str());
  return r;
}

std::string expand(std::string text) {
  const std::pair<std::string, std::string> values[] = {{"$tool", TESSEL_TOOL_PATH},
                                                        {"$src", TESSEL_SOURCE_DIR},
                                                        {"$data", std::string(TESSEL_SOURCE_DIR) + "/tests/data"}};
  for (const auto& [name, value] : values)
    for (std::size_t at; (at = text.find(name)) != std::string::npos;) text.replace(at, name.size(), value);
  return text;
}

constexpr const char* kChain = " $src/examples/site-chain.pem";

// What a run must print: `out` and `err` are regular expressions its whole standard output and
// standard error must match.
struct Row {
  std::string run;
  int status;
  std::string out, err;
};

const std::string kOneLine = "tessel: [^\n]*\n|usage: [^\n]*\n", kHelp = "usage: (.|\n)+", kNothing = "",
                  kAny = "(.|\n)*", kResult = "code [0-9]+: [^\n]*\n";

std::vector<Row> rows() {
  std::vector<Row> r = {
      {"$tool --help", 0, kHelp, kNothing},
      {"$tool --version", 0, std::string("tessel ") + tessel::versionString() + "\n", kNothing},
      {"$tool", 2, kNothing, kOneLine},
      {"$tool frobnicate", 2, kNothing, kOneLine},
      {"$tool digest", 2, kNothing, kOneLine},
      {"$tool digest sha3 $src/examples/abc.txt", 2, kNothing, kOneLine},
      {"$tool dump", 2, kNothing, kOneLine},
      {"$tool verify", 2, kNothing, kOneLine},
      {"$tool verify" + std::string(kChain) + " --frobnicate 1", 2, kNothing, kOneLine},
      // Dates: a leap day exists in 2024 only; fields out of range are errors, not carried over.
      {"$tool verify" + std::string(kChain) + " --time 2024-02-29", 1, kResult, kAny},
      {"$tool verify" + std::string(kChain) + " --time 2024-02-29T23:59:59", 1, kResult, kAny},
      {"$tool verify" + std::string(kChain) + " --time 2023-02-29", 2, kNothing, kOneLine},
      {"$tool verify" + std::string(kChain) + " --time 2023-13-45", 2, kNothing, kOneLine},
      {"$tool verify" + std::string(kChain) + " --time 2023-04-01T24:00:00", 2, kNothing, kOneLine},
      {"$tool verify" + std::string(kChain) + " --time 2023-4-01", 2, kNothing, kOneLine},
      {"$tool verify" + std::string(kChain) + " --time ' 2023-04-01'", 2, kNothing, kOneLine},
      // Unreadable or malformed input (3) is not a chain that fails to validate (1).
      {"$tool verify /nonexistent", 3, kNothing, kOneLine},
      {"$tool verify $src/examples/abc.txt", 3, kNothing, kOneLine},
      {"$tool verify" + std::string(kChain) + " --ca /nonexistent", 3, kNothing, kOneLine},
      {"$tool verify $src/examples/broken-chain.pem --time 2023-04-01", 1, kResult, kAny},
      // The store loader's diagnostic lines go to standard error; standard output is the result.
      {"$tool verify" + std::string(kChain) + " --ca $src/examples/leaf.pem --time 2023-04-01", 1, kResult,
       "(.*\n)*LABEL: CERTIFICATE\n(.*\n)*"},
      {"$tool dump /nonexistent", 1, kNothing, kOneLine},
      {"$tool dump $data/keys/rsa2048.legacy-aes256.pem", 1, kNothing, "tessel: [^\n]*encrypted key[^\n]*password\n"},
      {"$tool dump $data/keys/rsa2048.legacy-aes256.pem --password wrong", 1, kNothing,
       "tessel: [^\n]*encrypted key: wrong password\n"},
  };
  for (const char* command : {"digest", "dump", "verify", "genkey", "req", "ca", "cms", "ts", "pkcs12"})
    r.push_back({std::string("$tool ") + command + " --help", 0, kHelp, kNothing});
  return r;
}

// matches checks `text` against a row's pattern; help texts and "anything" are checked without
// a regular expression, whose recursion grows with the text.
bool matches(const std::string& text, const std::string& pattern) {
  if (pattern == kAny) return true;
  if (pattern == kHelp) return text.starts_with("usage: ") && text.ends_with("\n");
  return std::regex_match(text, std::regex(pattern));
}

TEST(ToolConventions, StatusAndStreams) {
  if (std::string(TESSEL_TOOL_PATH).empty()) GTEST_SKIP() << "built without the example program";
  for (const Row& row : rows()) {
    const std::string command = expand(row.run);
    SCOPED_TRACE(command);
    const Ran r = run(command);
    EXPECT_EQ(r.status, row.status) << r.out << r.err;
    EXPECT_TRUE(matches(r.out, row.out)) << "stdout: " << r.out;
    EXPECT_TRUE(matches(r.err, row.err)) << "stderr: " << r.err;
  }
}

// Every digest the program names, against OpenSSL's dgst over the same bytes on standard input.
TEST(ToolConventions, DigestsFromStandardInputMatchOpenSsl) {
  if (std::string(TESSEL_TOOL_PATH).empty()) GTEST_SKIP() << "built without the example program";
  const std::pair<const char*, const char*> names[] = {
      {"md5sha1", "md5-sha1"}, {"md4", "md4"},       {"md5", "md5"},      {"sha1", "sha1"},
      {"sha256", "sha256"},    {"sha384", "sha384"}, {"sha512", "sha512"}};
  const std::string input = expand("$src/examples/fox.txt");
  for (const auto& [ours, theirs] : names) {
    SCOPED_TRACE(ours);
    const Ran oracle = run(std::string("openssl dgst -") + theirs + " -r < " + input);
    if (oracle.status != 0) {
      std::cout << "openssl has no " << theirs << " here: its comparison is left out\n";
      continue;
    }
    const std::string hex = oracle.out.substr(0, oracle.out.find(' '));
    EXPECT_EQ(run(expand("$tool digest ") + ours + " < " + input).out, hex + "  -\n");
    EXPECT_EQ(run(expand("$tool digest ") + ours + " " + input).out, hex + "  " + input + "\n");
  }
}

}  // namespace
