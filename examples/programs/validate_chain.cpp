// validate_chain CHAIN.pem CA.pem HOST [UNIX-TIME]: completes the peer's chain (leaf first) from
// the CA file and validates it for HOST at the given time (default: now).
#include <tessel/tessel.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 4 && argc != 5) return std::fputs("usage: validate_chain CHAIN CA HOST [UNIX-TIME]\n", stderr), 2;
  // The library's notes on what it skipped go to standard error, not into our output.
  tessel::setDiagnosticSink([](std::string_view line) { std::cerr << line << '\n'; });
  tessel::CertificateMemoryStore store;
  if (!store.loadFromStr(ol::readFile(argv[2]))) return std::fputs("validate_chain: no CA certificates\n", stderr), 2;
  auto chain = tessel::readCertChain(ol::readFile(argv[1]));
  if (chain.empty()) return std::fputs("validate_chain: no certificates in the chain\n", stderr), 2;
  tessel::x509BuildPath(store, chain, nullptr);
  const auto when = argc == 5 ? tessel::TimePoint::fromSeconds(std::atoll(argv[4])) : tessel::TimePoint::now();
  std::string why;
  const unsigned code = tessel::x509ValidatePath(chain, store, when, argv[3], {}, "", false, &why);
  std::printf("code %u: %s\n", code, why.empty() ? tessel::pathCodeText(code) : why.c_str());
  return code == tessel::pathValid ? 0 : 1;
}
