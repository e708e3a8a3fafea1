#include "tessel/version.h"

namespace tessel {

// The macro is expanded here, in the library, so the answer is the library's own version.
const char* versionString() { return TESSEL_VERSION_STRING; }

}  // namespace tessel
