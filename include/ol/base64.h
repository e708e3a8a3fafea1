// Host platform: Base64 (standard alphabet, "=" padding, no line breaks).
#pragma once

#include "tessel/export.h"

#include <cstddef>

namespace ol {

// base64EncodedLength returns how many characters base64Encode writes for `length` bytes.
constexpr std::size_t base64EncodedLength(std::size_t length) { return (length + 2) / 3 * 4; }

// base64Encode writes the Base64 text of `length` bytes of `data` to `out` (no terminator)
// and returns the number of characters written, or -1 if `capacity` is too small, in which
// case nothing is written.
TESSEL_API int base64Encode(const void* data, std::size_t length, char* out, std::size_t capacity);

// base64Decode decodes `length` characters of `text` into `out` and returns the number of
// bytes written. It returns -1, never reading or writing out of bounds, when the text is
// malformed (a length that is not a multiple of four, a character outside the alphabet,
// misplaced or excess "=") or when the result would not fit in `capacity` bytes. Set bits
// below the last full byte are ignored, as most encoders' readers do.
TESSEL_API int base64Decode(const char* text, std::size_t length, unsigned char* out, std::size_t capacity);

}  // namespace ol
