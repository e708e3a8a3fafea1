// Symbol visibility of the public interface.
//
// The library is compiled with hidden visibility, so a shared libtessel exports only what its
// public headers mark TESSEL_API: the classes and functions hosts call. Everything else (the
// detail:: helpers, the internal layers under src/) stays private to the library and cannot be
// bound to by accident. The marking is harmless in a static build and for the host's compiler.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define TESSEL_API __attribute__((visibility("default")))
#else
#define TESSEL_API
#endif
