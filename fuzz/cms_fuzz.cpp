// Reads arbitrary bytes as a signed CMS message. One that parses must print without trouble,
// write back to bytes that parse again and write the same, and survive verification: on its
// own, with the input itself offered as detached content, and with its own certificates as the
// store that the signers' paths are validated through.
#include <cstdint>
#include <sstream>

#include "quiet_stdout.h"
#include "tessel/cms.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const tessel::asn1::blob input(data, size);
  tessel::PKCS7SignedData sd;
  if (!sd.parse(input, 0)) return 0;
  std::ostringstream os;
  sd.dump(os);
  const std::vector<unsigned char> der = sd.encode();
  tessel::PKCS7SignedData again;
  if (!again.parse(tessel::asn1::blob(der), 0) || again.encode() != der) __builtin_trap();

  const tessel::CmsVerifyResult plain = sd.verify();
  if (plain.reason.empty() != static_cast<bool>(plain)) __builtin_trap();  // a reason exactly when it failed
  tessel::CmsVerifyOptions options;
  options.detachedContent = input;
  sd.verify(options);
  tessel::CertificateMemoryStore store;
  store.certificates = sd.certificates;
  options.store = &store;
  options.validatePath = true;
  options.at = tessel::TimePoint::fromSeconds(1893456000);  // 2030, inside the seeds' certificates
  sd.verify(options);
  return 0;
}
