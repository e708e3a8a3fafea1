// Marking secret-derived values public again (not a public header).
//
// The constant-time check (tests/ct/run.sh) runs the library under valgrind's memcheck with every
// secret byte marked undefined, so that a branch or memory index fed by a secret is reported.
// Some values computed from secrets are public by design: a signature, a public key, the fact
// that a nonce candidate was rejected. Code that is about to branch on such a value first passes
// it through declassify, which tells memcheck it is defined. Outside valgrind the request is a
// few instructions that do nothing; without valgrind's header it compiles to nothing.
#pragma once

#include <cstddef>

#if defined(__has_include)
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define TESSEL_HAVE_MEMCHECK 1
#endif
#endif

namespace tessel::ct {

// declassify marks `n` bytes at `p` as public. Call it only on values that leave the library
// anyway (or whose disclosure is harmless and argued for where it is called).
inline void declassify(const void* p, std::size_t n) {
#if defined(TESSEL_HAVE_MEMCHECK)
  (void)VALGRIND_MAKE_MEM_DEFINED(p, n);
#else
  (void)p;
  (void)n;
#endif
}

// declassify returns a copy of `x` that memcheck treats as public.
template <class T>
inline T declassified(T x) {
  declassify(&x, sizeof x);
  return x;
}

}  // namespace tessel::ct
