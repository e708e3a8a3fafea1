// SHA extension compression functions (x86 only). Internal header.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tessel::detail {

#if defined(__x86_64__) || defined(__i386__)
#define TESSEL_HAVE_SHA_X86 1
void sha256CompressShaExt(std::uint32_t state[8], const unsigned char* blocks, std::size_t count,
                          const std::uint32_t k[64]);
void sha1CompressShaExt(std::uint32_t state[5], const unsigned char* blocks, std::size_t count);
#endif

}  // namespace tessel::detail
