// Feeds arbitrary text to every PEM reader and to pemDecrypt (the first byte picks the
// password, so both right and wrong ones are tried on the legacy key seeds).
#include <cstdint>
#include <string>
#include <string_view>

#include "quiet_stdout.h"
#include "tessel/pem.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string password = size && (data[0] & 1) ? "tessel-fixture" : "wrong";
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tessel::readCertFromStr(text);
  tessel::readCertChain(text);
  tessel::readCrl(text);
  tessel::readReq(text);
  tessel::readPublicKey(text);
  tessel::readOneAssimetricKey(text);
  std::string_view in = text, label, body;
  while (tessel::parsePem(in, &label, &body)) {
    std::vector<unsigned char> out;
    if (body.starts_with("Proc-Type:")) tessel::pemDecrypt(body, &out, password);
    else if (tessel::pemDecode(body, &out) && !out.empty()) {
      // Writing the decoded bytes back must decode to the same bytes.
      std::string again = tessel::encodePemType("X", out);
      std::string_view a = again, l, b;
      std::vector<unsigned char> back;
      if (!tessel::parsePem(a, &l, &b) || !tessel::pemDecode(b, &back) || back != out) __builtin_trap();
    }
  }
  // Key readers last: a legacy key costs a few MD5 rounds only, but PBES2 (in a block or as
  // bare DER) may ask for millions of iterations, so that path is left to the pkcs8 fuzzer.
  if (text.starts_with("-----BEGIN ") && text.find("ENCRYPTED PRIVATE") == std::string_view::npos)
    tessel::readPrivateKey(text, password);
  return 0;
}
