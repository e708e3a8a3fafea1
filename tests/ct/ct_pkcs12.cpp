// Constant-time check under valgrind's memcheck for the PKCS#12 code: RC2's key schedule and
// both directions with a secret key and secret blocks; the PKCS#12 key derivation with SHA-1,
// SHA-256 and SHA-512 from a secret password; and a whole pbeWithSHAAnd40BitRC2-CBC decryption
// under a secret password, of which only the verdict comes out. Run through tests/ct/run.sh.
#include "ct_support.h"

#include <cstdio>

#include "keys/pbe.h"
#include "tessel/block.h"
#include "tessel/hash.h"

namespace {

using tessel::asn1::blob;

unsigned char key[33], data[32], out[32];

using ctcheck::checksum;
using ctcheck::reveal;
using ctcheck::secret;

unsigned rc2(unsigned keyLen, unsigned bits) {
  secret(key, keyLen);
  secret(data, sizeof data);
  const tessel::RC2 cipher(key, keyLen, bits);
  for (unsigned at = 0; at < sizeof data; at += 8) cipher.encrypt(data + at, out + at);
  for (unsigned at = 0; at < sizeof data; at += 8) cipher.decrypt(out + at, out + at);
  return checksum(out, sizeof out);
}

unsigned kdf(tessel::Hash& h) {
  unsigned char password[18] = {0, 's', 0, 'e', 0, 'c', 0, 'r', 0, 'e', 0, 't', 0, '!', 0, '!', 0, 0};
  secret(password, sizeof password);
  const unsigned char salt[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  auto k = tessel::pbe::pkcs12Kdf(h, 1, blob(password, sizeof password), blob(salt, 8), 3, 40);
  return checksum(k.data(), k.size());
}

// decryptRc2 encrypts `length` bytes, then decrypts them with the password marked secret.
unsigned decryptRc2(unsigned length) {
  unsigned char password[10] = {0, 'p', 0, 'a', 0, 's', 0, 's', 0, 0};
  // SEQUENCE { OCTET STRING salt, INTEGER 2 }
  const unsigned char params[] = {0x30, 0x0d, 0x04, 0x08, 9, 8, 7, 6, 5, 4, 3, 2, 0x02, 0x01, 0x02};
  const auto* scheme = tessel::pbe::findPkcs12Scheme(tessel::asn1::oid::pbeWithShaAnd40BitRc2Cbc.content());
  std::vector<unsigned char> ciphertext, plain;
  tessel::pbe::pkcs12Crypt(*scheme, blob(params, sizeof params), blob(password, sizeof password), blob(data, length),
                           ciphertext, true, 10);
  secret(password, sizeof password);
  const bool ok = reveal(tessel::pbe::pkcs12Crypt(*scheme, blob(params, sizeof params), blob(password, sizeof password),
                                                  blob(ciphertext), plain, false, 10));
  return ok ? 1 + checksum(plain.data(), plain.size()) : 0;
}

}  // namespace

int main() {
  for (unsigned i = 0; i < sizeof key; ++i) key[i] = static_cast<unsigned char>(i * 7 + 5);
  for (unsigned i = 0; i < sizeof data; ++i) data[i] = static_cast<unsigned char>(i * 13 + 1);
  for (auto [len, bits] : {std::pair{5u, 40u}, std::pair{16u, 128u}, std::pair{33u, 129u}})
    std::printf("RC2 key %u bytes, %u bits: %08x\n", len, bits, rc2(len, bits));
  tessel::SHA1 sha1;
  tessel::SHA256 sha256;
  tessel::SHA512 sha512;
  std::printf("PKCS#12 derivation SHA-1 %08x, SHA-256 %08x, SHA-512 %08x\n", kdf(sha1), kdf(sha256), kdf(sha512));
  for (unsigned length : {0u, 7u, 8u, 21u})
    std::printf("RC2-40 decryption of %u bytes: %08x\n", length, decryptRc2(length));
  return 0;
}
