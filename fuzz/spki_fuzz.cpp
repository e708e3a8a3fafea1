// Reads arbitrary bytes as a SubjectPublicKeyInfo; a key that parses must write back to the
// same bytes' meaning: parse(encode(key)) equals key.
#include <cstdint>

#include "quiet_stdout.h"
#include "tessel/pkcs8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto key = tessel::parsePkcs8PublicKey(tessel::asn1::blob(data, size));
  if (!key) return 0;
  auto again = tessel::encodePkcs8PublicKey(*key);
  auto back = tessel::parsePkcs8PublicKey(tessel::asn1::blob(again));
  if (!back || !back->equals(*key)) __builtin_trap();
  return 0;
}
