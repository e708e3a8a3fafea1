// Where the library's diagnostic lines go.
//
// A few operations report a one-line note on what they skipped or refused ("unknown ext id=...",
// "[ERR] store ...", "alg bind failed: ..."), beside their return value, which alone carries the
// result. By default each line is written to standard output followed by '\n', unflushed, as the
// library always has. A host whose standard output is data (or that logs elsewhere) installs a
// sink. Printing that a host asks for (dump() into a stream it passes, the time-stamp dump()s)
// is output, not a diagnostic, and does not pass through here.
//
// The setting is process-wide and is not synchronised: set it once, before any thread calls
// into the library, and leave it. The sink itself may be called from any thread that calls the
// library, so a sink shared by such threads must do its own locking.
#pragma once

#include <functional>
#include <string_view>

#include "tessel/export.h"

namespace tessel {

// DiagnosticSink receives one diagnostic line without its trailing newline. The view is valid
// only during the call.
using DiagnosticSink = std::function<void(std::string_view line)>;

// setDiagnosticSink routes every later diagnostic line to `sink`, which the library keeps (a
// copy) until the next call; an empty sink restores the default, standard output. To silence
// the library, pass a sink that does nothing.
TESSEL_API void setDiagnosticSink(DiagnosticSink sink);

}  // namespace tessel
