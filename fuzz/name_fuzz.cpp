// Reads arbitrary bytes as a Name and as a GeneralName; a Name that parses must write back and
// parse again to an equal Name.
#include <cstdint>
#include <cstdio>

#include "quiet_stdout.h"
#include "tessel/names.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::asn1::blob in(data, size);
  tessel::DistinguishedName name;
  if (name.parse(in)) {
    (void)name.str();
    auto again = name.serialize();
    tessel::DistinguishedName back;
    if (!back.parse(tessel::asn1::blob(again)) || !(back == name)) __builtin_trap();
  }
  tessel::GeneralName general;
  general.parse(in);
  (void)general.dataStr();
  (void)general.serialize();
  return 0;
}
