#include "tessel/assert.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tessel::detail {

std::string reportedSourceName(const char* path) {
  std::string_view p(path);
  if (auto at = p.rfind("/include/"); at != std::string_view::npos) return ".." + std::string(p.substr(at));
  if (p.starts_with("include/")) return "../" + std::string(p);
  // Sources live in one folder per layer, but messages name the bare file, as they always have.
  if (p.find("/src/") != std::string_view::npos || p.starts_with("src/"))
    return std::string(p.substr(p.rfind('/') + 1));
  return std::string(p);
}

}  // namespace tessel::detail

namespace tessel {

void assertFail(const char* cond, const char* path, int line, const char* func) {
  std::fprintf(stderr, "assertion \"%s\" failed: file \"%s\", line %d, function: %s\n", cond,
               detail::reportedSourceName(path).c_str(), line, func);
  std::fflush(stderr);
  std::abort();
}

}  // namespace tessel
