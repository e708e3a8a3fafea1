#include "ol/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace ol {

namespace {
std::string& rootStorage() {
  static std::string r = "/";
  return r;
}

// readAll appends up to `maxSize` bytes (maxSize < 0: all) from `fd` to `out`. It reads in
// chunks rather than trusting st_size: /proc files report size 0.
bool readAll(int fd, std::string& out, long long maxSize) {
  char chunk[16384];
  while (maxSize < 0 || static_cast<long long>(out.size()) < maxSize) {
    std::size_t want = sizeof(chunk);
    if (maxSize >= 0 && static_cast<unsigned long long>(maxSize) - out.size() < want)
      want = static_cast<std::size_t>(maxSize - static_cast<long long>(out.size()));
    ssize_t n = ::read(fd, chunk, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    out.append(chunk, static_cast<std::size_t>(n));
  }
  return true;
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
  bool ok = (offset <= 0 || ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) >= 0) && readAll(fd, out, maxSize);
  ::close(fd);
  if (!ok) out.clear();
  return ok;
}

std::string readFile(std::string_view path) {
  std::string out;
  readFile(out, path);
  return out;
}

const char* readRegularFile(std::string& out, std::string_view path, std::size_t maxSize, bool followLinks) {
  out.clear();
  const std::string name(path);
  struct stat st;
  // Look before opening, so that no device is ever opened (opening one can have effects of its
  // own); fstat below checks again what was actually opened.
  if ((followLinks ? ::stat(name.c_str(), &st) : ::lstat(name.c_str(), &st)) != 0) return "unreadable";
  if (S_ISDIR(st.st_mode)) return "unreadable";  // as reading it would fail
  if (!S_ISREG(st.st_mode)) return "not a regular file";
  // O_NONBLOCK: should the name have become a FIFO meanwhile, opening it for reading would wait
  // for a writer. It has no effect on regular files.
  int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW);
  int fd = ::open(name.c_str(), flags);
  if (fd < 0) return errno == ELOOP && !followLinks ? "not a regular file" : "unreadable";
  const char* fault = nullptr;
  if (::fstat(fd, &st) != 0) fault = "unreadable";
  else if (!S_ISREG(st.st_mode)) fault = "not a regular file";
  else if (static_cast<unsigned long long>(st.st_size) > maxSize) fault = "too large";
  // Read one byte past the bound so that a file grown since fstat is still refused.
  else if (!readAll(fd, out, static_cast<long long>(maxSize) + 1)) fault = "unreadable";
  else if (out.size() > maxSize) fault = "too large";
  ::close(fd);
  if (fault) out.clear();
  return fault;
}

}  // namespace ol
