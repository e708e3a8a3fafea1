// Constant-time check under valgrind's memcheck for the symmetric code: the portable (bitsliced)
// AES key schedule and rounds in both directions, one block and batches; the key schedule on the
// AES instructions; the portable GHASH inside GCM with a secret key; the MAC-then-pad record
// decryption with secret keys (so the decrypted record, its padding and its MAC are secret);
// and the PKCS#5 padding removal. Only verdicts and outputs are marked defined again, where
// they become public by design. Run through tests/ct/run.sh.
#include "ct_support.h"

#include <cstdio>
#include <memory>

#include "cipher/padding.h"
#include "tessel/block.h"
#include "tessel/cbc.h"
#include "tessel/cpu.h"
#include "tessel/factory.h"
#include "tessel/gcm.h"

namespace {

unsigned char key[32], data[64], out[80], iv[16];

using ctcheck::checksum;
using ctcheck::reveal;
using ctcheck::secret;

// aesRounds runs a secret key and secret blocks through every entry point of the block cipher.
unsigned aesRounds(std::size_t keyLen) {
  secret(key, keyLen);
  secret(data, sizeof data);
  auto aes = tessel::detail::makeAES(key, keyLen);
  aes->encrypt(data, out);
  aes->decrypt(out, out + 16);
  aes->encryptBlocks(data, out, 4);
  aes->decryptBlocks(data, out, 3);
  return checksum(out, 64);
}

unsigned gcm(bool decrypting) {
  secret(key, 16);
  secret(data, sizeof data);
  tessel::GCMCipher gcm(tessel::detail::makeAES(key, 16));
  gcm.setIV(iv, 12);
  if (!decrypting) {
    gcm.encrypt(data, 37, iv, 5, out);
    return checksum(out, 37 + 16);
  }
  const unsigned verdict = reveal(gcm.decrypt(data, 53, iv, 5, out));
  return verdict ^ checksum(out, 37);
}

// record decrypts 96 bytes under secret cipher and MAC keys: every byte of the decrypted record,
// the padding length included, is secret. Only the verdict comes out.
unsigned record(unsigned hashId) {
  secret(key, 32);
  tessel::CBC_MAC_MP_Cipher rec(tessel::createCipher(4, {key, 16}, 0), tessel::createHMAC(hashId, {key + 16, 16}));
  rec.setIV(iv, 16);
  unsigned char in[96] = {}, plain[96];
  for (unsigned i = 0; i < sizeof in; ++i) in[i] = static_cast<unsigned char>(7 * i);
  return reveal(rec.decrypt(in, sizeof in, nullptr, 0, plain));
}

unsigned unpad(unsigned last) {
  unsigned char block[32];
  for (unsigned i = 0; i < 32; ++i) block[i] = static_cast<unsigned char>(i + last < 32 ? i : last);
  secret(block, sizeof block);
  return reveal(tessel::detail::pkcs7UnpaddedLength(block, 32, 16));
}

}  // namespace

int main() {
  for (unsigned i = 0; i < 64; ++i) data[i] = static_cast<unsigned char>(i * 13 + 1);
  for (unsigned i = 0; i < 32; ++i) key[i] = static_cast<unsigned char>(i * 7 + 5);
  tessel::forcePortable(true);
  for (std::size_t keyLen : {16u, 24u, 32u}) std::printf("portable AES-%zu %08x\n", keyLen * 8, aesRounds(keyLen));
  std::printf("portable GCM encrypt %08x, decrypt %08x\n", gcm(false), gcm(true));
  for (unsigned hashId : {tessel::hashSha1, tessel::hashSha256, tessel::hashSha384, tessel::hashMd5})
    std::printf("record with hash %u: verdict %08x\n", hashId, record(hashId));
  tessel::forcePortable(false);
  if (tessel::cpuHasAesInstructions()) {
    for (std::size_t keyLen : {16u, 24u, 32u}) std::printf("AES-NI AES-%zu %08x\n", keyLen * 8, aesRounds(keyLen));
  } else {
    std::printf("no AES instructions here: the hardware key schedule is not checked\n");
  }
  for (unsigned last : {0u, 1u, 5u, 16u, 17u, 200u}) std::printf("unpad %u: %08x\n", last, unpad(last));
  return 0;
}
