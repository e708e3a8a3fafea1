// Decodes arbitrary text as Base64 into buffers of every nearby capacity; re-encodes what decodes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "ol/base64.h"
#include "quiet_stdout.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  std::size_t full = size / 4 * 3;
  for (std::size_t capacity : {full, full ? full - 1 : 0, full ? full - 2 : 0}) {
    std::vector<unsigned char> out(capacity);
    int n = ol::base64Decode(text, size, out.data(), capacity);
    if (n < 0) continue;
    std::vector<char> again(ol::base64EncodedLength(static_cast<std::size_t>(n)));
    if (ol::base64Encode(out.data(), static_cast<std::size_t>(n), again.data(), again.size()) !=
        static_cast<int>(again.size()))
      __builtin_trap();
  }
  return 0;
}
