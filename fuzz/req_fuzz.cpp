// Reads arbitrary bytes as a DER certificate request; one that parses must dump and parse
// again from its serialisation.
#include <cstdint>
#include <sstream>

#include "quiet_stdout.h"
#include "tessel/req.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::X509Req req;
  if (!req.parse(data, static_cast<unsigned>(size))) return 0;
  std::ostringstream os;
  req.dump(os);
  auto der = req.serialize();
  tessel::X509Req again;
  if (!again.parse(der.data(), static_cast<unsigned>(der.size())) || again.keyUsage != req.keyUsage) __builtin_trap();
  return 0;
}
