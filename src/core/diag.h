// The one path every library diagnostic line takes (tessel/diagnostics.h says where it goes).
#pragma once

#include <sstream>
#include <string_view>
#include <utility>

namespace tessel {

// diagnostic hands one line (no trailing newline) to the host's sink, or writes it with a
// newline to standard output when the host installed none.
void diagnostic(std::string_view line);

// DiagLine collects one line with stream syntax and emits it when the statement ends:
//   diag() << "unknown ext id=" << oidStr(oid);
class DiagLine {
 public:
  DiagLine() = default;
  DiagLine(const DiagLine&) = delete;
  DiagLine& operator=(const DiagLine&) = delete;
  ~DiagLine() { diagnostic(text_.view()); }

  template <typename T>
  DiagLine& operator<<(T&& value) {
    text_ << std::forward<T>(value);
    return *this;
  }
  // Manipulators such as std::hex.
  DiagLine& operator<<(std::ios_base& (*manip)(std::ios_base&)) {
    text_ << manip;
    return *this;
  }

 private:
  std::ostringstream text_;
};

inline DiagLine diag() { return {}; }

}  // namespace tessel
