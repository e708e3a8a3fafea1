// Walks arbitrary bytes as DER with every parser operation, descending into each SEQUENCE.
#include <cstddef>
#include <cstdint>

#include "quiet_stdout.h"
#include "tessel/asn1.h"

namespace {

void walk(tessel::asn1::blob level, int depth) {
  tessel::asn1::parser p(level);
  while (p.tag != tessel::asn1::tagEnd && p.tag != tessel::asn1::tagError) {
    (void)tessel::asn1::str(p.content);
    if (p.tag == 0x06) (void)tessel::asn1::oid2name(p.content);
    if (p.tag == 0x03) (void)tessel::asn1::bitStringContent(p.content);
    if (p.tag == 0x30 && depth < 64) {
      tessel::asn1::parser inner = p;
      inner.enter();
      walk(p.content, depth + 1);
    }
    switch (p.tag & 3) {
      case 0: p.takeElement(); break;
      case 1: p.takeUInt(); break;
      case 2: p.takeBool(); break;
      default: p.takeString(); break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  walk(tessel::asn1::blob(data, size), 0);
  return 0;
}
