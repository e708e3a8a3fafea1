// Small pieces both validators use (not a public header).
#pragma once

#include <string>
#include <string_view>

#include "tessel/crl.h"
#include "tessel/x509.h"

namespace tessel {

// lowerCase maps ASCII capitals to small letters and leaves every other byte as it is, as host
// names and e-mail domains compare.
std::string lowerCase(std::string_view s);

// isRevoked is true when `crl` lists the serial number of `cert`.
bool isRevoked(const X509Crl& crl, const X509Certificate& cert);

}  // namespace tessel
