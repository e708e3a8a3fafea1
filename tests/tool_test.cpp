// The example program, run as a host would run it (runs in tests/data/pki_tool.json).
#include <cstdio>
#include <fstream>
#include <string>

#include "ol/file.h"
#include "ol/store.h"
#include "support.h"
#include "tessel/pem.h"

namespace {

// run executes a shell command and returns its standard output and exit status.
std::pair<std::string, int> run(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return {"", -1};
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  int status = pclose(p);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

// expand replaces each `$name` of `text` by its value.
std::string expand(std::string text, const std::vector<std::pair<std::string, std::string>>& values) {
  for (const auto& [name, value] : values)
    for (std::size_t at; (at = text.find(name)) != std::string::npos;) text.replace(at, name.size(), value);
  return text;
}

TEST(Tool, DigestDumpAndVerify) {
  const std::string tool = TESSEL_TOOL_PATH, root = "/usr/share/ca-certificates/mozilla/ISRG_Root_X1.crt";
  if (tool.empty()) GTEST_SKIP() << "built without the example program";
  const bool haveRoot = std::ifstream(root).good();
  if (!haveRoot) std::cout << "ca-certificates is not installed: the verify runs that need it are left out\n";
  tessel::test::TempRoot cerm;  // a certificate-manager store holding the root for use 4, no built-in anchors
  if (haveRoot) {
    ol::message entry, settings;
    entry.set(ol::bool_id{0x0C}, true);
    entry.set(ol::u32_id{0x2D}, 0x4u);
    entry.set(ol::raw_id{0x0B}, tessel::readCertFromStr(ol::readFile(root))->serialize());
    settings.set(ol::u32_id{7}, 0u);
    ASSERT_TRUE(ol::Store("cerm").put(7, entry) && ol::Store("cert/settings").put(0, settings));
  }
  const std::string src = TESSEL_SOURCE_DIR;
  const std::vector<std::pair<std::string, std::string>> values = {
      {"$tool", tool}, {"$src", src}, {"$data", src + "/tests/data"}, {"$root", root}, {"$cerm", cerm.path("")}};
  const nlohmann::json rows =
      tessel::test::dataFile("pki_tool.json")["runs"];  // a copy: the file's object is a temporary
  for (const auto& r : rows) {
    if (r.value("needsRoot", false) && !haveRoot) continue;
    const std::string command = expand(r["run"], values);
    SCOPED_TRACE(command);
    const auto [out, status] = run(command);
    EXPECT_EQ(status, r["status"].get<int>()) << out;
    std::string whole;
    for (const std::string part : r.value("out", nlohmann::json::array()))
      whole += part[0] == '@' ? tessel::test::fixtureText(part.substr(1)) : expand(part, values);
    EXPECT_TRUE(!r.contains("out") || out == whole) << out;
    EXPECT_TRUE(out.starts_with(r.value("starts", ""))) << out;
    EXPECT_TRUE(out.ends_with(r.value("ends", ""))) << out;
  }
}

}  // namespace
