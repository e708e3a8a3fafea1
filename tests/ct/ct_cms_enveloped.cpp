// Constant-time check under valgrind's memcheck for the enveloped-data secrets: the CBC padding
// check of decrypted content and RFC 3211's password key unwrap (the decrypted block, its check
// bytes and length byte are secret). Only the verdicts are marked defined before they are used.
// Run through tests/ct/run.sh; the exit code is memcheck's error count (0 = no leak of timing).
#include <valgrind/memcheck.h>

#include <cstdio>
#include <vector>

#include "cms/enveloped_internal.h"
#include "tessel/rng.h"

int main() {
  using namespace tessel;
  int failures = 0;
  // Padding: valid ones of every length and invalid ones, each with its plaintext secret.
  for (unsigned pad = 0; pad <= 17; ++pad) {
    std::vector<unsigned char> block(32, 0x41);
    for (unsigned i = 0; i < pad && i < 32; ++i) block[31 - i] = static_cast<unsigned char>(pad);
    VALGRIND_MAKE_MEM_UNDEFINED(block.data(), block.size());
    long kept = cms::pkcs7Unpad(block.data(), block.size());
    VALGRIND_MAKE_MEM_DEFINED(&kept, sizeof kept);
    const bool valid = pad >= 1 && pad <= 16;
    if (valid != (kept >= 0)) ++failures;
  }
  // Password key unwrap: the right and a wrong key-encryption key; the keys and the recovered
  // content key are secret, the wrapped bytes and IV public.
  unsigned char kek[16], wrong[16], iv[16], cek[16];
  for (int i = 0; i < 16; ++i) {
    kek[i] = static_cast<unsigned char>(3 * i + 1);
    wrong[i] = static_cast<unsigned char>(5 * i + 2);
    iv[i] = static_cast<unsigned char>(7 * i);
    cek[i] = static_cast<unsigned char>(11 * i + 5);
  }
  const std::vector<unsigned char> wrapped =
      cms::pwriWrap(asn1::blob(kek, 16), asn1::blob(iv, 16), asn1::blob(cek, 16), getDefaultRng());
  for (unsigned char* key : {kek, wrong}) {
    VALGRIND_MAKE_MEM_UNDEFINED(key, 16);
    std::vector<unsigned char> out = cms::pwriUnwrap(asn1::blob(key, 16), asn1::blob(iv, 16), asn1::blob(wrapped), 16);
    VALGRIND_MAKE_MEM_DEFINED(key, 16);
    if (!out.empty()) VALGRIND_MAKE_MEM_DEFINED(out.data(), out.size());
    if (out.empty() != (key == wrong)) ++failures;
  }
  std::printf("ct_cms_enveloped: %d wrong verdicts\n", failures);
  return failures;
}
