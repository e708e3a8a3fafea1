// Extension lists of 100,000 entries in a certificate, a request and a CRL: the verdict (a
// repeated OID fails, distinct ones pass) and one message per unknown extension read before it.
// Their parsing time is only asserted when TESSEL_TIMING=1 (bench/x509_extensions_bench.cpp
// measures it).
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
const SignedKind kKinds[] = {SignedKind::certificate, SignedKind::request, SignedKind::crl};

// parseAs parses `der` as a `kind` object; `said` gets what it printed.
bool parseAs(SignedKind kind, const std::vector<unsigned char>& der, std::string* said = nullptr) {
  const auto size = static_cast<unsigned>(der.size());
  bool ok = false;
  const std::string out = test::said([&] {
    if (kind == SignedKind::certificate) ok = X509Certificate().parse(der.data(), size);
    if (kind == SignedKind::request) ok = X509Req().parse(der.data(), size);
    if (kind == SignedKind::crl) ok = X509Crl().parse(der.data(), size);
  });
  if (said) *said = out;
  return ok;
}

std::size_t countOf(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// The parsing time is asserted only with TESSEL_TIMING=1: processor time, not wall time, so that a
// machine busy with other work does not fail it.
TEST(ManyExtensions, RepeatedOidFailsAtTheRepeat) {
  const char* timing = std::getenv("TESSEL_TIMING");
  const bool timed = timing && std::string(timing) == "1";
  for (SignedKind kind : kKinds)
    for (bool repeatFirst : {false, true}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + (repeatFirst ? " repeated" : " distinct"));
      const std::string unknownLine = kind == SignedKind::crl ? "unknown crl ext id=" : "unknown ext id=";
      const auto der = test::signedWithManyExtensions(kind, kCount, repeatFirst);
      std::string said;
      const std::clock_t start = std::clock();
      EXPECT_EQ(parseAs(kind, der, &said), !repeatFirst);
      const double took = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
      EXPECT_TRUE(!timed || took < 0.5) << took << " s";
      EXPECT_EQ(countOf(said, unknownLine), repeatFirst ? kCount - 1 : kCount);
      EXPECT_EQ(countOf(said, "\n"), countOf(said, unknownLine));
    }
}

}  // namespace
}  // namespace tessel
