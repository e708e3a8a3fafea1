// Certificate parsing, tessel beside OpenSSL, same bytes, same run: one DER certificate of
// about 2 KiB (RSA-4096, the usual server extensions) and a PEM chain of three.
#include <benchmark/benchmark.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <iostream>
#include <sstream>
#include <string>

#include "ol/file.h"
#include "tessel/pem.h"

namespace {

std::string fixture(const char* name) { return ol::readFile(std::string(TESSEL_SOURCE_DIR) + "/tests/data/certs/" + name); }

std::string typicalDer() {
  auto cert = tessel::readCertFromStr(fixture("typical.pem"));
  if (!cert) return {};
  auto der = cert->serialize();
  return std::string(der.begin(), der.end());
}

std::string chainPem() { return fixture("leaf.pem") + fixture("nc-dns.pem") + fixture("ca.pem"); }

// Our parsers report unknown extensions and PEM labels on standard output; keep that out of
// the timing by sending it to a string stream.
struct QuietStdout {
  std::ostringstream sink;
  std::streambuf* old = std::cout.rdbuf(sink.rdbuf());
  ~QuietStdout() { std::cout.rdbuf(old); }
};

void tesselDer(benchmark::State& state) {
  const std::string der = typicalDer();
  if (der.empty()) return state.SkipWithError("no certificate");
  QuietStdout quiet;
  for (auto _ : state) {
    tessel::X509Certificate cert;
    benchmark::DoNotOptimize(cert.parse(reinterpret_cast<const unsigned char*>(der.data()), static_cast<unsigned>(der.size())));
    quiet.sink.str({});
  }
  state.counters["certs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetLabel(std::to_string(der.size()) + " bytes");
}

void opensslDer(benchmark::State& state) {
  const std::string der = typicalDer();
  if (der.empty()) return state.SkipWithError("no certificate");
  for (auto _ : state) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
    X509* x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    benchmark::DoNotOptimize(x);
    X509_free(x);
  }
  state.counters["certs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void tesselChain(benchmark::State& state) {
  const std::string pem = chainPem();
  QuietStdout quiet;
  for (auto _ : state) {
    auto chain = tessel::readCertChain(pem);
    if (chain.size() != 3) return state.SkipWithError("chain did not parse");
    quiet.sink.str({});
  }
  state.counters["certs/s"] = benchmark::Counter(3.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void opensslChain(benchmark::State& state) {
  const std::string pem = chainPem();
  for (auto _ : state) {
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    int n = 0;
    while (X509* x = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
      ++n;
      X509_free(x);
    }
    BIO_free(bio);
    if (n != 3) return state.SkipWithError("chain did not parse");
  }
  state.counters["certs/s"] = benchmark::Counter(3.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(tesselDer)->Name("x509/parse-der-2k/tessel");
BENCHMARK(opensslDer)->Name("x509/parse-der-2k/openssl");
BENCHMARK(tesselChain)->Name("x509/read-pem-chain3/tessel");
BENCHMARK(opensslChain)->Name("x509/read-pem-chain3/openssl");

}  // namespace
