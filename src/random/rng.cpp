#include "tessel/rng.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>

#ifndef GRND_INSECURE
#define GRND_INSECURE 0x0004  // Linux 5.6; older C libraries lack the name
#endif

namespace tessel {

namespace {

class KernelRng final : public Rng {
 public:
  bool generate(unsigned char* buf, unsigned len) override { return kernelRand(buf, len, false); }
  bool generateInsecure(unsigned char* buf, unsigned len) override { return kernelRand(buf, len, true); }
};

}  // namespace

Rng& getDefaultRng() {
  static KernelRng rng;
  return rng;
}

bool kernelRand(unsigned char* buf, unsigned len, bool insecure) {
  const unsigned flags = insecure ? GRND_INSECURE : 0;
  while (len > 0) {
    ssize_t n = getrandom(buf, len, flags);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::abort();
    }
    buf += n;
    len -= static_cast<unsigned>(n);
  }
  return true;
}

}  // namespace tessel
