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

// cpuidLeaf1 returns the feature bits of CPUID leaf 1 in ECX, or 0.
unsigned cpuidLeaf1Ecx() {
#if defined(__x86_64__) || defined(__i386__)
  unsigned a, b, c, d;
  if (__get_cpuid(1, &a, &b, &c, &d)) return c;
#endif
  return 0;
}

constexpr unsigned kPclmul = 1u << 1, kSsse3 = 1u << 9, kSse41 = 1u << 19, kAes = 1u << 25;

}  // namespace

void forcePortable(bool on) { portableForced = on; }

bool cpuHasShaExtensions() {
  static const bool has = detectShaExtensions();
  return has;
}

bool wideLimbsInUse() {
#if defined(__SIZEOF_INT128__)
  return !portableForced;
#else
  return false;
#endif
}

bool shaExtensionsInUse() { return !portableForced && cpuHasShaExtensions(); }

bool cpuHasAesInstructions() {
  static const bool has = (cpuidLeaf1Ecx() & (kAes | kSse41)) == (kAes | kSse41);
  return has;
}

bool aesInstructionsInUse() { return !portableForced && cpuHasAesInstructions(); }

bool cpuHasCarrylessMultiply() {
  static const bool has = (cpuidLeaf1Ecx() & (kPclmul | kSsse3)) == (kPclmul | kSsse3);
  return has;
}

bool carrylessMultiplyInUse() { return cpuHasCarrylessMultiply() && aesInstructionsInUse(); }

}  // namespace tessel
