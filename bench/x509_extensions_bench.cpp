// Parsing a certificate, a request and a CRL that each carry 100,000 extensions (about 1.3 MB),
// with distinct OIDs and with the last one repeating the first: the repetition check and the
// reading of the list must stay linear (or n log n) in the number of extensions.
#include <benchmark/benchmark.h>

#include <iostream>
#include <sstream>

#include "../tests/many_extensions.h"
#include "tessel/crl.h"
#include "tessel/req.h"
#include "tessel/x509.h"

namespace {

using tessel::test::SignedKind;

bool parseAs(SignedKind kind, const std::vector<unsigned char>& der) {
  const auto size = static_cast<unsigned>(der.size());
  switch (kind) {
    case SignedKind::certificate: return tessel::X509Certificate().parse(der.data(), size);
    case SignedKind::request: return tessel::X509Req().parse(der.data(), size);
    case SignedKind::crl: return tessel::X509Crl().parse(der.data(), size);
  }
  return false;
}

void parseMany(benchmark::State& state, SignedKind kind, bool repeatFirst) {
  const auto der = tessel::test::signedWithManyExtensions(kind, 100000, repeatFirst);
  std::ostringstream sink;  // every unknown extension is reported on standard output
  std::streambuf* old = std::cout.rdbuf(sink.rdbuf());
  for (auto _ : state) {
    benchmark::DoNotOptimize(parseAs(kind, der));
    sink.str({});
  }
  std::cout.rdbuf(old);
  state.SetLabel(std::to_string(der.size()) + " bytes");
}

BENCHMARK_CAPTURE(parseMany, certificate, SignedKind::certificate, false)
    ->Name("x509/parse-100k-extensions/certificate")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseMany, certificate_repeated, SignedKind::certificate, true)
    ->Name("x509/parse-100k-extensions/certificate-repeated")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseMany, request, SignedKind::request, false)
    ->Name("x509/parse-100k-extensions/request")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseMany, request_repeated, SignedKind::request, true)
    ->Name("x509/parse-100k-extensions/request-repeated")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseMany, crl, SignedKind::crl, false)
    ->Name("x509/parse-100k-extensions/crl")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseMany, crl_repeated, SignedKind::crl, true)
    ->Name("x509/parse-100k-extensions/crl-repeated")
    ->Unit(benchmark::kMillisecond);

}  // namespace
