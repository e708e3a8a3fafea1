// Included by every fuzz target: the library reports some faults on one line on standard
// output, and writing those for millions of inputs would slow the fuzzer down. Standard output
// is pointed at /dev/null once, before the first input; libFuzzer itself reports on stderr.
#pragma once

#include <fcntl.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  return 0;
}
