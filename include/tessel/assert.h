// Always-on assertion for programming errors.
//
// TESSEL_ASSERT(cond) aborts the process when `cond` is false, after printing the condition
// text, the source file, the line and the function. It is never compiled out: callers rely on
// it in release builds to stop on misuse (a wrong IV size, a subtraction of a longer number)
// instead of computing garbage. Input errors are never asserted; they are return values.
#pragma once

#include <string>

#include "tessel/export.h"

namespace tessel::detail {

// reportedSourceName maps a compiler path to the name assertion messages carry: sources
// under src/ by their path below src/ ("bignum.cpp"), public headers as seen from src/
// ("../include/tessel/blob.h"). Any other path is returned unchanged.
std::string reportedSourceName(const char* path);

}  // namespace tessel::detail

namespace tessel {
// assertFail prints `assertion "COND" failed: file "FILE", line N, function: FUNC` to
// standard error and aborts. Only the TESSEL_ASSERT macros call it; it is exported because they
// expand in the host's code too.
[[noreturn]] TESSEL_API void assertFail(const char* cond, const char* path, int line, const char* func);
}  // namespace tessel

// TESSEL_ASSERT_TEXT checks `cond` but reports `text` as the condition: for checks written in a
// form that cannot overflow while the message keeps the condition's familiar wording.
#define TESSEL_ASSERT_TEXT(cond, text) \
  ((cond) ? static_cast<void>(0) : ::tessel::assertFail(text, __FILE__, __LINE__, __func__))

#define TESSEL_ASSERT(cond) ((cond) ? static_cast<void>(0) : ::tessel::assertFail(#cond, __FILE__, __LINE__, __func__))

// TESSEL_ASSERT_LINE checks `cond` but reports `line` instead of the current one: for assertions
// whose file and line hosts already match on in their crash reports, so the message stays the same
// when the code around it moves.
// TESSEL_ASSERT_TEXT_LINE combines it with TESSEL_ASSERT_TEXT's reported condition.
#define TESSEL_ASSERT_LINE(cond, line) TESSEL_ASSERT_TEXT_LINE(cond, #cond, line)
#define TESSEL_ASSERT_TEXT_LINE(cond, text, line) \
  ((cond) ? static_cast<void>(0) : ::tessel::assertFail(text, __FILE__, line, __func__))
