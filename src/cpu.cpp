#include "tessel/cpu.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace tessel {

namespace {

bool portableForced = false;

bool detectShaExtensions() {
#if defined(__x86_64__) || defined(__i386__)
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
  const bool ssse3 = c & (1u << 9), sse41 = c & (1u << 19);
  if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
  const bool sha = b & (1u << 29);
  return ssse3 && sse41 && sha;
#else
  return false;
#endif
}

}  // namespace

void forcePortable(bool on) { portableForced = on; }

bool cpuHasShaExtensions() {
  static const bool has = detectShaExtensions();
  return has;
}

bool shaExtensionsInUse() { return !portableForced && cpuHasShaExtensions(); }

}  // namespace tessel
