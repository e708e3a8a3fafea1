// Processor features for the accelerated AES and GHASH paths. Internal header.
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#define TESSEL_X86 1
#endif

namespace tessel::detail {

struct CpuFeatures {
  bool aes = false;     // AES-NI and SSE4.1
  bool pclmul = false;  // PCLMULQDQ and SSSE3
};

// cpuFeatures is read from the processor once; on other architectures everything is false.
inline const CpuFeatures& cpuFeatures() {
  static const CpuFeatures features = [] {
    CpuFeatures f;
#if TESSEL_X86
    __builtin_cpu_init();  // the features may be asked for before libgcc's own constructor ran
    f.aes = __builtin_cpu_supports("aes") && __builtin_cpu_supports("sse4.1");
    f.pclmul = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
#endif
    return f;
  }();
  return features;
}

}  // namespace tessel::detail
