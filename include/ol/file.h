// Host platform: whole-file reading and the platform root.
//
// The library reads a few fixed system paths ("/proc/crypto", the CA directory, CRL folders,
// the message store). Each such absolute path is resolved under one platform root, "/" by
// default, so that tests and hosts running in a chroot-like layout can point the library at
// another folder. Paths that callers pass in (a certificate file, say) are used as given.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace ol {

// setRoot sets the folder under which fixed system paths resolve. An empty string or "/"
// restores the real root. Call it before the library reads any fixed path; it is not
// synchronised with concurrent readers.
TESSEL_API void setRoot(std::string_view dir);

// root returns the current platform root, "/" unless setRoot changed it.
TESSEL_API const std::string& root();

// rootPath maps an absolute system path such as "/proc/crypto" to where it lives under the
// platform root. With the default root it returns `absolute` unchanged.
TESSEL_API std::string rootPath(std::string_view absolute);

// readFile replaces `out` with up to `maxSize` bytes of the file at `path` starting at byte
// `offset` (maxSize < 0: to the end). It returns true on success; on any failure `out` is left
// empty and false is returned. Works for files whose size is not known in advance (/proc).
TESSEL_API bool readFile(std::string& out, std::string_view path, long long maxSize = -1, long long offset = 0);

// readFile returns the whole file at `path`, or an empty string if it cannot be read.
TESSEL_API std::string readFile(std::string_view path);

// readRegularFile replaces `out` with the whole content of the regular file at `path`, for files
// anyone could have placed in a folder the library scans (store entries, CA and CRL files). It
// never opens anything else for reading: a FIFO, device or socket is "not a regular file", as is
// a symbolic link when `followLinks` is false; a file longer than `maxSize` bytes is "too
// large"; a folder, a missing file or a read error is "unreadable". It returns null on success,
// otherwise that static text with `out` left empty.
TESSEL_API const char* readRegularFile(std::string& out, std::string_view path, std::size_t maxSize, bool followLinks);

}  // namespace ol
