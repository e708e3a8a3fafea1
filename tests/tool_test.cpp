// The example program, run as a host would run it.
#include <cstdio>
#include <string>

#include "support.h"

namespace {

// run executes a shell command and returns its standard output and exit status.
std::pair<std::string, int> run(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) return {"", -1};
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int status = pclose(p);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST(Tool, DigestPrintsSha256sumLines) {
  const std::string tool = TESSEL_TOOL_PATH;
  if (tool.empty()) GTEST_SKIP() << "built without the example program";
  const std::string abc = std::string(TESSEL_SOURCE_DIR) + "/examples/abc.txt";
  auto [out, status] = run(tool + " digest sha256 " + abc + " 2>/dev/null");
  EXPECT_EQ(status, 0);
  // FIPS 180-2 appendix B.1: SHA-256("abc").
  EXPECT_EQ(out, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  " + abc + "\n");
  auto [md5, md5Status] = run("printf abc | " + tool + " digest md5 -");
  EXPECT_EQ(md5, "900150983cd24fb0d6963f7d28e17f72  -\n");  // RFC 1321 appendix A.5
  EXPECT_EQ(run(tool + " digest sha256 /nonexistent/file 2>/dev/null").second, 1);
  EXPECT_EQ(run(tool + " digest sha3 " + abc + " 2>/dev/null").second, 2);
  EXPECT_EQ(run(tool + " 2>/dev/null").second, 2);
}

}  // namespace
