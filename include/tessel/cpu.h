// Processor features and the choice between portable and accelerated code paths.
//
// Algorithms with an accelerated path (SHA extensions for SHA-1/SHA-256, AES instructions for
// AES, carry-less multiplication for GHASH) pick it at run time when the processor has the
// instructions. Both paths give identical results; the portable C++
// path always exists and is what other processors run.
#pragma once

#include "tessel/export.h"

namespace tessel {

// forcePortable(true) makes every algorithm use its portable path from the next call on;
// forcePortable(false) returns to automatic choice. Meant for tests that run each vector through
// both paths, and for hosts that want the same code on every machine. Not synchronised: set it
// while no other thread is hashing.
TESSEL_API void forcePortable(bool on);

// cpuHasShaExtensions reports whether the processor offers the SHA-1/SHA-256 instructions.
TESSEL_API bool cpuHasShaExtensions();

// shaExtensionsInUse reports whether SHA-1 and SHA-256 currently run on those instructions.
TESSEL_API bool shaExtensionsInUse();

// cpuHasAesInstructions reports whether the processor offers AES-NI (with SSE4.1).
TESSEL_API bool cpuHasAesInstructions();

// aesInstructionsInUse reports whether AES blocks currently run on those instructions.
TESSEL_API bool aesInstructionsInUse();

// cpuHasCarrylessMultiply reports whether the processor offers PCLMULQDQ (with SSSE3).
TESSEL_API bool cpuHasCarrylessMultiply();

// wideLimbsInUse reports whether Montgomery products of even digit counts run on 64-bit limbs
// (hosts whose compiler has a 128-bit product); otherwise they run on the 32-bit digits.
TESSEL_API bool wideLimbsInUse();

// carrylessMultiplyInUse reports whether GHASH objects built now multiply with PCLMULQDQ (each
// GHASH object keeps the choice made when it was built; GCM builds one per message). It
// requires the AES instructions to be in use as well.
TESSEL_API bool carrylessMultiplyInUse();

}  // namespace tessel
