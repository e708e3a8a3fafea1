// Reads arbitrary bytes as a DER certificate; one that parses must write back to the same
// bytes, parse again from them, dump without trouble, and have its signature checked against
// its own key by both the strict and the historical reading (RSASSA-PSS parameters included).
#include <cstdint>
#include <sstream>

#include "quiet_stdout.h"
#include "tessel/x509.h"
#include "tessel/x509_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::X509Certificate cert;
  if (!cert.parse(data, static_cast<unsigned>(size))) return 0;
  std::ostringstream os;
  cert.dump(os);
  auto der = cert.serialize();
  tessel::X509Certificate again;
  if (!again.parse(der.data(), static_cast<unsigned>(der.size())) || again.tbs != cert.tbs) __builtin_trap();
  if (auto key = cert.parsePublicKey()) {
    tessel::PathRes res;
    const bool strict = cert.verify(*key);
    if (strict != cert.verify(*key)) __builtin_trap();  // verification has no state
    tessel::verifySignature(&cert, tessel::asn1::blob(cert.publicKeyInfo), &res);
  }
  return 0;
}
