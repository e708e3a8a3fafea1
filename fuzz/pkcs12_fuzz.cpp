// Reads arbitrary bytes as a PKCS#12 file under the password "fuzz" (the seeds use it, and one
// iteration, so that the fuzzer reaches the bags), allowing at most 64 iterations per derivation
// so that hostile counts cannot throttle it; and as a bare encrypted-data ContentInfo. A file
// that reads must print, and one whose key pairs with a certificate must write out and read
// back to the same key; a failed read hands out no bag.
#include <cstdint>
#include <sstream>
#include <string>

#include "quiet_stdout.h"
#include "tessel/pkcs12.h"

namespace {

constexpr tessel::PKCS12ReadOptions kOptions{.maxIterations = 64};

void pfx(tessel::asn1::blob in) {
  tessel::PKCS12PFX file;
  if (!file.parse(in, std::string("fuzz"), kOptions)) {
    if (!file.bags.empty()) __builtin_trap();
    return;
  }
  std::ostringstream os;
  file.dump(os);
  const tessel::PKCS12KeyAndCertificate found = file.keyAndCertificate();
  if (!found.key || !found.certificate) return;
  tessel::PKCS12WriteOptions options;
  options.iterations = options.macIterations = 1;
  const auto again = tessel::encodePkcs12(*found.key, *found.certificate, found.others, std::string("fuzz"), options);
  if (again.empty()) return;  // a key type we read but cannot write
  tessel::PKCS12PFX back;
  if (!back.parse(tessel::asn1::blob(again), std::string("fuzz"), kOptions)) __builtin_trap();
  const tessel::PKCS12KeyAndCertificate read = back.keyAndCertificate();
  if (!read.key || !read.key->equals(*found.key) || !read.certificate) __builtin_trap();
}

void encryptedData(tessel::asn1::blob in) {
  tessel::PKCS7EncryptedData data;
  if (!data.parse(in)) return;
  tessel::PKCS7EncryptedData again;
  if (!again.parse(tessel::asn1::blob(data.encode())) || again.algorithm != data.algorithm ||
      again.encryptedContent != data.encryptedContent)
    __builtin_trap();
  std::vector<unsigned char> plain;
  if (!data.decrypt(std::string("fuzz"), plain, 64) && !plain.empty()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const tessel::asn1::blob in(data, size);
  pfx(in);
  encryptedData(in);
  return 0;
}
