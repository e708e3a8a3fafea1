// Reads arbitrary bytes as a DER CRL; one that parses must dump and parse again from its
// serialisation.
#include <cstdint>
#include <sstream>

#include "quiet_stdout.h"
#include "tessel/crl.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::X509Crl crl;
  if (!crl.parse(data, static_cast<unsigned>(size))) return 0;
  std::ostringstream os;
  crl.dump(os);
  auto der = crl.serialize();
  tessel::X509Crl again;
  if (!again.parse(der.data(), static_cast<unsigned>(der.size())) || again.revoked.size() != crl.revoked.size())
    __builtin_trap();
  return 0;
}
