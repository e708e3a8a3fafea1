// The example program run as a host would run it: each group of tests/data/pki_tool.json runs in
// one fresh scratch folder, beside OpenSSL's command line as the judge of what the program writes
// (signed and enveloped messages, time-stamps, keys, certificates, CRLs and PKCS#12 files) and as
// the maker of what it reads.
#include <algorithm>
#include <fstream>
#include <string>

#include "issuing_support.h"
#include "ol/file.h"
#include "ol/store.h"
#include "tessel/pem.h"

namespace {

// expand replaces each `$name` of `text` by its value.
std::string expand(std::string text, const std::vector<std::pair<std::string, std::string>>& values) {
  for (const auto& [name, value] : values)
    for (std::size_t at; (at = text.find(name)) != std::string::npos;) text.replace(at, name.size(), value);
  return text;
}

class Tool : public testing::TestWithParam<const char*> {};

TEST_P(Tool, Runs) {
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
  const tessel::test::Scratch dir;
  const std::string src = TESSEL_SOURCE_DIR;
  const std::vector<std::pair<std::string, std::string>> values = {
      {"$tool", tool}, {"$src", src}, {"$data", src + "/tests/data"}, {"$root", root}, {"$cerm", cerm.path("")}};
  const nlohmann::json runs = tessel::test::dataFile("pki_tool.json")["groups"][GetParam()];
  ASSERT_FALSE(runs.empty());
  for (const auto& r : runs) {
    if (r.value("needsRoot", false) && !haveRoot) continue;
    const std::string command = expand(r["run"], values);
    SCOPED_TRACE(command);
    // The host's command line needs its own providers, not the 32-bit run's OPENSSL_MODULES.
    const auto [status, out] = tessel::test::runCli("cd " + dir.path("") + " && unset OPENSSL_MODULES && " + command);
    EXPECT_TRUE(!r.contains("status") || status == r["status"].get<int>()) << status << "\n" << out;
    std::string whole;
    for (const std::string part : r.value("out", nlohmann::json::array()))
      whole += part[0] == '@' ? tessel::test::fixtureText(part.substr(1)) : expand(part, values);
    EXPECT_TRUE(!r.contains("out") || out == whole) << out;
    EXPECT_TRUE(out.starts_with(r.value("starts", ""))) << out;
    EXPECT_TRUE(out.ends_with(r.value("ends", ""))) << out;
    for (const std::string part : r.value("has", nlohmann::json::array()))
      EXPECT_NE(out.find(part), std::string::npos) << part << "\n" << out;
    EXPECT_TRUE(!r.contains("lines") || std::count(out.begin(), out.end(), '\n') == r["lines"].get<long>()) << out;
  }
}

INSTANTIATE_TEST_SUITE_P(Groups, Tool,
                         testing::Values("tool", "cms", "cms_signed", "cms_enveloped", "ts", "issue", "chains",
                                         "pkcs12"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
