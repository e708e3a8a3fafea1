// Processor features and the choice between portable and accelerated code paths.
//
// Algorithms with an accelerated path (SHA extensions for SHA-1/SHA-256) pick it at run time
// when the processor has the instructions. Both paths give identical results; the portable C++
// path always exists and is what other processors run.
#pragma once

namespace tessel {

// forcePortable(true) makes every algorithm use its portable path from the next call on;
// forcePortable(false) returns to automatic choice. Meant for tests that run each vector through
// both paths, and for hosts that want the same code on every machine. Not synchronised: set it
// while no other thread is hashing.
void forcePortable(bool on);

// cpuHasShaExtensions reports whether the processor offers the SHA-1/SHA-256 instructions.
bool cpuHasShaExtensions();

// shaExtensionsInUse reports whether SHA-1 and SHA-256 currently run on those instructions.
bool shaExtensionsInUse();

}  // namespace tessel
