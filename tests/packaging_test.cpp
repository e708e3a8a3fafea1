// The library as a host that installed it sees it: its version, where its diagnostic lines go,
// and the GCM misuse that stops the program.
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>

#include "support.h"
#include "tessel/block.h"
#include "tessel/cert_store.h"
#include "tessel/diagnostics.h"
#include "tessel/gcm.h"
#include "tessel/pem.h"
#include "tessel/version.h"

namespace {

TEST(Version, LibraryAndHeaderCarryTheProjectVersion) {
  std::ifstream file(std::string(TESSEL_SOURCE_DIR) + "/CMakeLists.txt");
  const std::string cmake{std::istreambuf_iterator<char>(file), {}};
  std::smatch m;
  ASSERT_TRUE(std::regex_search(cmake, m, std::regex(R"(project\(tessel VERSION ([0-9]+)\.([0-9]+)\.([0-9]+))")));
  EXPECT_EQ(std::string(tessel::versionString()), m[1].str() + "." + m[2].str() + "." + m[3].str());
  EXPECT_STREQ(TESSEL_VERSION_STRING, tessel::versionString());
  EXPECT_EQ(TESSEL_VERSION_MAJOR, std::stoi(m[1]));
  EXPECT_EQ(TESSEL_VERSION_MINOR, std::stoi(m[2]));
  EXPECT_EQ(TESSEL_VERSION_PATCH, std::stoi(m[3]));
}

// Library calls that print diagnostic lines, with the lines they print.
struct Noisy {
  const char* what;
  std::function<void()> call;
  std::vector<std::string> lines;
};

std::vector<Noisy> noisyCalls() {
  return {
      {"missing store folder",
       [] {
         tessel::CertificateMemoryStore store;
         EXPECT_FALSE(store.loadFromDir(std::string(TESSEL_SOURCE_DIR) + "/tests/data/no-such-folder", true));
       },
       {"[ERR] opendir: No such file or directory"}},
      {"two-certificate chain",
       [] { EXPECT_EQ(tessel::readCertChain(tessel::test::fixtureText("../../examples/site-chain.pem")).size(), 2u); },
       {"LABEL: CERTIFICATE", "LABEL: CERTIFICATE"}},
  };
}

TEST(Diagnostics, SinkReceivesEachLineAndStandardOutputNone) {
  for (const Noisy& n : noisyCalls()) {
    SCOPED_TRACE(n.what);
    std::vector<std::string> got;
    tessel::setDiagnosticSink([&](std::string_view line) { got.emplace_back(line); });
    const std::string out = tessel::test::said(n.call);
    tessel::setDiagnosticSink({});
    EXPECT_EQ(out, "");
    EXPECT_EQ(got, n.lines);
  }
}

TEST(Diagnostics, DefaultIsOneLineEachOnStandardOutput) {
  for (const Noisy& n : noisyCalls()) {
    SCOPED_TRACE(n.what);
    std::string expected;
    for (const std::string& line : n.lines) expected += line + "\n";
    EXPECT_EQ(tessel::test::said(n.call), expected);
  }
}

TEST(GcmDeathTest, EncryptOrDecryptBeforeSetIVAborts) {
  const tessel::test::Bytes key(16, 7), msg(20, 1);
  tessel::test::Bytes out(msg.size() + 16);
  for (bool decrypting : {false, true}) {
    tessel::GCMCipher gcm(tessel::detail::makeAES(key.data(), key.size()));
    const auto call = [&] {
      if (decrypting) gcm.decrypt(out.data(), static_cast<unsigned>(out.size()), nullptr, 0, out.data());
      else gcm.encrypt(msg.data(), static_cast<unsigned>(msg.size()), nullptr, 0, out.data());
    };
    EXPECT_DEATH(call(),
                 "assertion \"GCMCipher: setIV\\(\\) before encrypt\\(\\) or decrypt\\(\\)\" failed: "
                 "file \"gcm.cpp\", line [0-9]+, function: crypt");
    // Longer inputs than the 32-bit bit counts of the length block can describe: refused before
    // a byte is read, so the small buffers stand in for them.
    gcm.setIV(key.data(), 12);
    const unsigned tooLong = tessel::kGcmMaxLength + 1;
    EXPECT_DEATH(gcm.encrypt(msg.data(), decrypting ? 1 : tooLong, msg.data(), decrypting ? tooLong : 1, out.data()),
                 "assertion \"len <= kGcmMaxLength && aadLen <= kGcmMaxLength\" failed");
  }
}

}  // namespace
