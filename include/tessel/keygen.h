// Fresh keys of every type from a random source.
#pragma once

#include "tessel/export.h"

#include <memory>

#include "tessel/keys.h"
#include "tessel/rng.h"

namespace tessel {

// generatePrivateKey returns a new key of `type` drawn from `rng` alone: `size` is the modulus
// length for keyRsa (2048 to 4096 bits, even) and the Curve number (1 to 5) for keyEc, and is
// ignored for the other types. The caller owns the key; null for a refused type or size or when
// rng fails.
TESSEL_API std::shared_ptr<PrivateKey> generatePrivateKey(KeyType type, unsigned size, Rng& rng);
// generatePrivateKey(type, size) is the same with getDefaultRng().
TESSEL_API std::shared_ptr<PrivateKey> generatePrivateKey(KeyType type, unsigned size);

}  // namespace tessel
