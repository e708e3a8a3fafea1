#include "ol/file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ol {

namespace {
std::string& rootStorage() {
  static std::string r = "/";
  return r;
}
}  // namespace

void setRoot(std::string_view dir) {
  std::string r(dir);
  while (r.size() > 1 && r.back() == '/') r.pop_back();
  rootStorage() = r.empty() ? "/" : r;
}

const std::string& root() { return rootStorage(); }

std::string rootPath(std::string_view absolute) {
  const std::string& r = root();
  if (r == "/") return std::string(absolute);
  if (!absolute.empty() && absolute.front() != '/') return r + "/" + std::string(absolute);
  return r + std::string(absolute);
}

bool readFile(std::string& out, std::string_view path, long long maxSize, long long offset) {
  out.clear();
  int fd = ::open(std::string(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = offset <= 0 || ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) >= 0;
  // Read in chunks rather than trusting st_size: /proc files report size 0.
  char chunk[16384];
  while (ok && (maxSize < 0 || static_cast<long long>(out.size()) < maxSize)) {
    std::size_t want = sizeof(chunk);
    if (maxSize >= 0 && static_cast<unsigned long long>(maxSize) - out.size() < want)
      want = static_cast<std::size_t>(maxSize - static_cast<long long>(out.size()));
    ssize_t n = ::read(fd, chunk, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    out.append(chunk, static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (!ok) out.clear();
  return ok;
}

std::string readFile(std::string_view path) {
  std::string out;
  readFile(out, path);
  return out;
}

}  // namespace ol
