#include "ol/base64.h"

#include <cstdint>

namespace ol {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Decoding table: 0..63 for alphabet characters, 64 for '=', 255 for anything else.
constexpr std::uint8_t kPad = 64, kBad = 255;
struct DecodeTable {
  std::uint8_t v[256];
  constexpr DecodeTable() : v() {
    for (auto& x : v) x = kBad;
    for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    v[static_cast<unsigned char>('=')] = kPad;
  }
};
constexpr DecodeTable kDecode;

}  // namespace

int base64Encode(const void* data, std::size_t length, char* out, std::size_t capacity) {
  std::size_t need = base64EncodedLength(length);
  if (need > capacity || need > 0x7fffffff) return -1;
  const auto* in = static_cast<const unsigned char*>(data);
  char* o = out;
  std::size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    std::uint32_t w = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
    *o++ = kAlphabet[w >> 18];
    *o++ = kAlphabet[(w >> 12) & 63];
    *o++ = kAlphabet[(w >> 6) & 63];
    *o++ = kAlphabet[w & 63];
  }
  if (std::size_t rest = length - i; rest != 0) {
    std::uint32_t w = std::uint32_t{in[i]} << 16;
    if (rest == 2) w |= std::uint32_t{in[i + 1]} << 8;
    *o++ = kAlphabet[w >> 18];
    *o++ = kAlphabet[(w >> 12) & 63];
    *o++ = rest == 2 ? kAlphabet[(w >> 6) & 63] : '=';
    *o++ = '=';
  }
  return static_cast<int>(o - out);
}

int base64Decode(const char* text, std::size_t length, unsigned char* out, std::size_t capacity) {
  if (length % 4 != 0 || length / 4 * 3 > 0x7fffffff) return -1;
  std::size_t written = 0;
  for (std::size_t i = 0; i < length; i += 4) {
    std::uint8_t v[4];
    for (int k = 0; k < 4; ++k) v[k] = kDecode.v[static_cast<unsigned char>(text[i + k])];
    bool last = i + 4 == length;
    // '=' may only end the text: "xx==" or "xxx=".
    unsigned pads = 0;
    if (v[3] == kPad) pads = v[2] == kPad ? 2 : 1;
    if (pads && !last) return -1;
    if (v[0] >= 64 || v[1] >= 64 || (pads < 2 && v[2] >= 64) || (pads == 0 && v[3] >= 64)) return -1;
    std::size_t n = 3 - pads;
    if (capacity - written < n) return -1;
    std::uint32_t w = (std::uint32_t{v[0]} << 18) | (std::uint32_t{v[1]} << 12) |
                      (std::uint32_t{pads < 2 ? v[2] : 0u} << 6) | (pads == 0 ? v[3] : 0u);
    out[written++] = static_cast<unsigned char>(w >> 16);
    if (n > 1) out[written++] = static_cast<unsigned char>(w >> 8);
    if (n > 2) out[written++] = static_cast<unsigned char>(w);
  }
  return static_cast<int>(written);
}

}  // namespace ol
