// Random source: the Rng interface and the process-wide default over getrandom.
#pragma once

#include "tessel/export.h"

namespace tessel {

// Rng is a source of random bytes, passed by reference to every operation that needs one.
// Hosts may supply their own; getDefaultRng() reads the kernel's pool.
class TESSEL_API Rng {
 public:
  virtual ~Rng() = default;
  // generate fills `buf` with `len` random bytes; false means no randomness could be had and
  // the caller must give up.
  virtual bool generate(unsigned char* buf, unsigned len) = 0;
  // generateInsecure fills `buf` with bytes that may come from a not yet initialised pool, for
  // uses that must not block early at boot. The library itself never calls it.
  virtual bool generateInsecure(unsigned char* buf, unsigned len) = 0;
};

// getDefaultRng returns the process-wide default source (always the same object), whose
// generate() and generateInsecure() call kernelRand and therefore always succeed.
TESSEL_API Rng& getDefaultRng();

// kernelRand fills `buf` with `len` bytes from getrandom, blocking until the pool is
// initialised unless `insecure` is set (GRND_INSECURE). Short reads are completed and EINTR is
// retried; any other failure aborts the process, since no caller could go on without
// randomness. It returns true; a zero length makes no system call.
TESSEL_API bool kernelRand(unsigned char* buf, unsigned len, bool insecure);

}  // namespace tessel
