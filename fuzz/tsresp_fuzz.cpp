// Reads arbitrary bytes as a time-stamp response; one that parses must dump without trouble and
// be checked against a request made from its own TSTInfo without a crash. A token's TSTInfo that
// parses must write back to bytes that parse to the same fields.
#include <cstdint>

#include "quiet_stdout.h"
#include "tessel/timestamp.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::TimeStampResponse resp;
  if (!resp.parse(tessel::asn1::blob(data, size))) return 0;
  resp.dump();
  tessel::TimeStampRequest req;
  tessel::TSTInfo info;
  if (resp.token && info.parse(tessel::asn1::blob(resp.token->content))) {
    const std::vector<unsigned char> der = info.encode();
    tessel::TSTInfo again;
    if (!again.parse(tessel::asn1::blob(der)) || again.encode() != der || again.nonce != info.nonce ||
        again.digest != info.digest || again.genTime != info.genTime)
      __builtin_trap();
    req.hash = info.hash;
    req.digest = info.digest;
    req.nonce = info.nonce;
    req.policy = info.policy;
  }
  tessel::verifyTimeStamp(resp, req);
  return 0;
}
