// Reads arbitrary bytes as a PKCS#8 private key, plain and encrypted (password "fuzz"). Keys that
// parse must encode and parse again to an equal key.
#include <cstdint>
#include <cstdio>

#include "quiet_stdout.h"
#include "tessel/pkcs8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::asn1::blob in(data, size);
  auto [key, pub] = tessel::parseOneAssimetricKey(in);
  if (key) {
    auto again = tessel::encodePkcs8PrivateKey(*key);
    auto back = tessel::parseOneAssimetricKey(tessel::asn1::blob(again)).first;
    if (!back || !back->equals(*key)) __builtin_trap();
  }
  (void)tessel::parsePkcs8EncryptedPrivateKey(in, "fuzz");
  return 0;
}
