// Extension lists of 100,000 entries in a certificate, a request and a CRL: the verdict (a
// repeated OID fails, distinct ones pass) and one message per unknown extension read before it.
// Their parsing time is only asserted when TESSEL_TIMING=1 (bench/x509_bench.cpp measures it).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>

#include "many_extensions.h"
#include "support.h"
#include "tessel/crl.h"
#include "tessel/req.h"
#include "tessel/x509.h"

namespace tessel {
namespace {

using test::SignedKind;

constexpr unsigned kCount = 100000;

struct Case {
  SignedKind kind;
  bool repeatFirst;
  const char* unknownLine;  // how each unknown extension is reported
};

const Case kCases[] = {
    {SignedKind::certificate, false, "unknown ext id="}, {SignedKind::certificate, true, "unknown ext id="},
    {SignedKind::request, false, "unknown ext id="},     {SignedKind::request, true, "unknown ext id="},
    {SignedKind::crl, false, "unknown crl ext id="},     {SignedKind::crl, true, "unknown crl ext id="},
};

bool parseAs(SignedKind kind, const std::vector<unsigned char>& der) {
  const auto size = static_cast<unsigned>(der.size());
  switch (kind) {
    case SignedKind::certificate: return X509Certificate().parse(der.data(), size);
    case SignedKind::request: return X509Req().parse(der.data(), size);
    case SignedKind::crl: return X509Crl().parse(der.data(), size);
  }
  return false;
}

std::size_t countOf(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class ManyExtensions : public testing::TestWithParam<Case> {};

TEST_P(ManyExtensions, RepeatedOidFailsAtTheRepeat) {
  const Case& c = GetParam();
  const auto der = test::signedWithManyExtensions(c.kind, kCount, c.repeatFirst);
  bool ok = false;
  const std::string said = test::said([&] { ok = parseAs(c.kind, der); });
  EXPECT_EQ(ok, !c.repeatFirst);
  EXPECT_EQ(countOf(said, c.unknownLine), c.repeatFirst ? kCount - 1 : kCount);
  EXPECT_EQ(countOf(said, "\n"), countOf(said, c.unknownLine));
}

INSTANTIATE_TEST_SUITE_P(Objects, ManyExtensions, testing::ValuesIn(kCases));

TEST(ManyExtensionsTiming, EachParsesWellUnderASecond) {
  const char* timing = std::getenv("TESSEL_TIMING");
  if (!timing || std::string(timing) != "1") GTEST_SKIP() << "set TESSEL_TIMING=1 to time the parsers";
  for (const Case& c : kCases) {
    const auto der = test::signedWithManyExtensions(c.kind, kCount, c.repeatFirst);
    // Processor time, not wall time: a machine busy with other work must not fail this.
    const std::clock_t start = std::clock();
    test::said([&] { parseAs(c.kind, der); });
    const double took = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
    EXPECT_LT(took, 0.5) << "kind " << static_cast<int>(c.kind) << " repeat " << c.repeatFirst;
  }
}

}  // namespace
}  // namespace tessel
