// Handling secrets: a comparison whose time does not depend on where two byte strings differ, and
// wiping that the optimiser cannot remove. For hosts comparing MACs, tokens or password hashes.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <span>

namespace tessel {

// constantTimeEqual returns true when `a` and `b` hold the same bytes. It reads every byte of both
// whatever their contents, so its time reveals only the lengths, which are treated as public (it
// returns false at once when they differ).
TESSEL_API bool constantTimeEqual(std::span<const unsigned char> a, std::span<const unsigned char> b);

// secureWipe sets `n` bytes at `p` to zero in a way the compiler may not drop as a dead store, for
// keys and intermediate values about to go out of scope.
TESSEL_API void secureWipe(void* p, std::size_t n);

}  // namespace tessel
