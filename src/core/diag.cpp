#include "core/diag.h"

#include <iostream>

#include "tessel/diagnostics.h"

namespace tessel {
namespace {

DiagnosticSink& sink() {
  static DiagnosticSink installed;
  return installed;
}

}  // namespace

void setDiagnosticSink(DiagnosticSink s) { sink() = std::move(s); }

void diagnostic(std::string_view line) {
  if (const auto& s = sink()) {
    s(line);
    return;
  }
  // The default is what the library always did: the line and '\n' on standard output, unflushed.
  std::cout << line << '\n';
}

}  // namespace tessel
