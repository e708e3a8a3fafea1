// Reads arbitrary bytes as a time-stamp request; one that parses must dump without trouble and
// write back to bytes that parse to the same fields and write back unchanged.
#include <cstdint>

#include "quiet_stdout.h"
#include "tessel/timestamp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::TimeStampRequest req;
  if (!req.parse(tessel::asn1::blob(data, size))) return 0;
  req.dump();
  tessel::DerEncoder out;
  req.save(out);
  tessel::TimeStampRequest again;
  if (!again.parse(tessel::asn1::blob(out.data))) __builtin_trap();
  if (again.hash != req.hash || again.digest != req.digest || again.policy != req.policy || again.nonce != req.nonce ||
      again.certReq != req.certReq)
    __builtin_trap();
  tessel::DerEncoder twice;
  again.save(twice);
  if (twice.data != out.data) __builtin_trap();
  return 0;
}
