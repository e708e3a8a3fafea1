// Constant-time check under valgrind's memcheck: every secret byte is marked undefined, so any
// branch or memory index that depends on it is reported as a use of an uninitialised value.
// Covers the X25519 ladder, Ed25519 key derivation and signing, and ML-KEM-768 decapsulation.
// Outputs are marked defined again before they are looked at (they are public by design).
// Run through tests/ct/run.sh; the exit code is memcheck's error count (0 = no leak of timing).
#include "ct_support.h"

#include <cstdio>

#include "tessel/eddsa.h"
#include "tessel/mlkem.h"
#include "tessel/x25519.h"

int main() {
  using namespace tessel;
  unsigned char secret[32], peer[32], out[32], pub[32], sig[64];
  for (int i = 0; i < 32; ++i) {
    secret[i] = static_cast<unsigned char>(17 * i + 3);
    peer[i] = static_cast<unsigned char>(29 * i + 9);
  }
  peer[31] &= 0x7f;
  const unsigned char message[] = "constant-time check";

  // X25519: the scalar is secret, the peer's u-coordinate public.
  ctcheck::secret(secret, sizeof secret);
  const bool ok = ctcheck::reveal(x25519::scalarMult(out, secret, peer));
  std::printf("x25519 %s %08x\n", ok ? "ok" : "zero", ctcheck::checksum(out, sizeof out));
  x25519::publicKey(pub, secret);
  VALGRIND_MAKE_MEM_DEFINED(pub, sizeof pub);

  // Ed25519: the seed is secret; key derivation and signing must not branch on it.
  eddsa::publicKeyFromSeed(pub, secret);
  VALGRIND_MAKE_MEM_DEFINED(pub, sizeof pub);
  eddsa::sign(sig, {message, sizeof message}, secret, pub);
  VALGRIND_MAKE_MEM_DEFINED(sig, sizeof sig);
  VALGRIND_MAKE_MEM_DEFINED(secret, sizeof secret);
  std::printf("ed25519 signature %s\n", eddsa::verify(sig, {message, sizeof message}, pub) ? "verifies" : "FAILS");

  // ML-KEM-768 decapsulation: the secret vector s and the rejection seed z are secret, the
  // embedded encapsulation key public. A tampered ciphertext exercises implicit rejection too.
  std::vector<std::uint8_t> ek, dk, c, k1, k2;
  mlkem768::keyGen({secret, 32}, {peer, 32}, ek, dk);
  MLKEMEncap(ek).encapsulate({peer, 32}, c, k1);
  VALGRIND_MAKE_MEM_UNDEFINED(dk.data(), 1152);
  VALGRIND_MAKE_MEM_UNDEFINED(dk.data() + dk.size() - 32, 32);
  const MLKEMDecap decap(dk);
  for (int round = 0; round < 2; ++round) {
    decap.decapsulate(c, k2);
    ctcheck::revealed(k2);
    std::printf("ml-kem-768 %s\n", (k1 == k2) == (round == 0) ? "ok" : "FAILS");
    c[5] ^= 1;
  }
  return 0;
}
