// Constant-time check under valgrind's memcheck for RSA decryption (OAEP, and PKCS#1 v1.5 key
// transport, whose refusal must not even be visible) and AES key unwrapping. The private key's
// parts and the key-encryption key are marked undefined; the decrypted block and the padding
// checks over it stay undefined until the verdict is declassified by the library (decrypt,
// unwrap) or, for key transport, never: the test marks the returned key defined to compare it.
// Run through tests/ct/run.sh; the exit code is memcheck's error count (0 = no leak of timing).
#include "ct_support.h"

#include <cstdio>

#include "tessel/keywrap.h"
#include "tessel/rsa.h"

namespace {

using Bytes = std::vector<unsigned char>;
using ctcheck::revealed;

class FixedRng : public tessel::Rng {
 public:
  bool generate(unsigned char* buf, unsigned len) override {
    for (unsigned i = 0; i < len; ++i) buf[i] = static_cast<unsigned char>(0xA5 ^ i);
    return true;
  }
  bool generateInsecure(unsigned char* buf, unsigned len) override { return generate(buf, len); }
};

bool rsaDecrypt() {
  using namespace tessel;
  RsaPrivateKey key;
  if (!key.parseFromDerEncoded(asn1::blob(ctcheck::fixture("keys/rsa2048.pkcs1.der")), {})) return false;
  Bytes secret(32);
  for (int i = 0; i < 32; ++i) secret[i] = static_cast<unsigned char>(3 * i + 1);
  const EncryptionParams oaep{true, hashSha256, hashNone, {}}, pkcs1{};
  FixedRng rng;
  const Bytes c1 = key.encrypt(asn1::blob(secret), oaep, rng), c2 = key.encrypt(asn1::blob(secret), pkcs1, rng);
  Bytes forged = c2;
  forged[key.modulusLength() - 1] ^= 1;  // decrypts to a block without the PKCS#1 v1.5 shape

  for (BigNum* s : {&key.d, &key.p, &key.q, &key.dP, &key.dQ, &key.qInv}) ctcheck::secretNum(*s);
  Bytes m1 = key.decrypt(asn1::blob(c1), oaep), m2 = key.decryptKey(asn1::blob(c2), pkcs1, 32, rng);
  Bytes m3 = key.decryptKey(asn1::blob(forged), pkcs1, 32, rng);
  revealed(m1, m2, m3);
  Bytes fallback(32);
  rng.generate(fallback.data(), 32);
  const bool ok = m1 == secret && m2 == secret && m3 == fallback;
  std::printf("rsa-2048 decrypt: oaep %s, pkcs1 key %s, forged pkcs1 %s\n", m1 == secret ? "ok" : "FAILS",
              m2 == secret ? "ok" : "FAILS", m3 == fallback ? "random key" : "FAILS");
  return ok;
}

bool keyUnwrap() {
  Bytes kek(32), key(24);
  for (int i = 0; i < 32; ++i) kek[i] = static_cast<unsigned char>(i * 11);
  for (int i = 0; i < 24; ++i) key[i] = static_cast<unsigned char>(i * 5 + 2);
  const Bytes wrapped = tessel::aesKeyWrap(tessel::asn1::blob(kek), tessel::asn1::blob(key));
  const Bytes padded = tessel::aesKeyWrapPad(tessel::asn1::blob(kek), tessel::asn1::blob(key.data(), 21));
  ctcheck::secret(kek.data(), kek.size());
  Bytes a = tessel::aesKeyUnwrap(tessel::asn1::blob(kek), tessel::asn1::blob(wrapped));
  Bytes b = tessel::aesKeyUnwrapPad(tessel::asn1::blob(kek), tessel::asn1::blob(padded));
  revealed(a, b);
  const bool ok = a == key && b == Bytes(key.begin(), key.begin() + 21);
  std::printf("aes key unwrap: %s\n", ok ? "ok" : "FAILS");
  return ok;
}

}  // namespace

int main() { return rsaDecrypt() & keyUnwrap() ? 0 : 2; }
