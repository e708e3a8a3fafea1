// Reads arbitrary bytes as a message store entry file and as a bare field list. The encoding
// is canonical, so whatever decodes must encode back to exactly the same bytes.
#include <algorithm>
#include <cstdint>
#include <span>

#include "ol/store.h"
#include "quiet_stdout.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::span<const unsigned char> in(data, size);
  std::uint32_t id = 0;
  ol::message m;
  if (ol::decodeEntry(in, id, m) == nullptr) {
    auto again = ol::encodeEntry(id, m);
    if (again.size() != size || !std::equal(again.begin(), again.end(), data)) __builtin_trap();
  }
  if (m.parse(in)) {
    auto again = m.serialize();
    if (again.size() != size || !std::equal(again.begin(), again.end(), data)) __builtin_trap();
  }
  return 0;
}
