// Reads arbitrary bytes as a DER certificate; one that parses must write back to the same
// bytes, parse again from them, and dump without trouble.
#include <cstdint>
#include <sstream>

#include "quiet_stdout.h"
#include "tessel/x509.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::X509Certificate cert;
  if (!cert.parse(data, static_cast<unsigned>(size))) return 0;
  std::ostringstream os;
  cert.dump(os);
  auto der = cert.serialize();
  tessel::X509Certificate again;
  if (!again.parse(der.data(), static_cast<unsigned>(der.size())) || again.tbs != cert.tbs) __builtin_trap();
  return 0;
}
