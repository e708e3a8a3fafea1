// gcm_buffer: seals a buffer with AES-256-GCM under a random key and IV, opens it again, and
// shows that a flipped bit is refused.
#include <tessel/tessel.h>

#include <cstdio>
#include <cstring>
#include <vector>

int main() {
  unsigned char key[32], iv[12];
  tessel::getDefaultRng().generate(key, sizeof key);
  tessel::getDefaultRng().generate(iv, sizeof iv);
  const char message[] = "attack at dawn";
  const unsigned len = sizeof message - 1;

  auto gcm = tessel::createCipher(tessel::cipherAesGcm, key, 16);  // 16-byte tag
  std::vector<unsigned char> sealed(gcm->ciphertextLength(len)), opened(len);
  gcm->setIV(iv, sizeof iv);  // a fresh IV for every message
  gcm->encrypt(reinterpret_cast<const unsigned char*>(message), len, nullptr, 0, sealed.data());

  gcm->setIV(iv, sizeof iv);
  const unsigned n = gcm->decrypt(sealed.data(), static_cast<unsigned>(sealed.size()), nullptr, 0, opened.data());
  if (n != len || std::memcmp(opened.data(), message, len) != 0) return std::puts("round trip failed"), 1;

  sealed[0] ^= 1;
  gcm->setIV(iv, sizeof iv);
  const bool refused = gcm->decrypt(sealed.data(), static_cast<unsigned>(sealed.size()), nullptr, 0, opened.data()) ==
                       tessel::decryptFailed;
  tessel::secureWipe(key, sizeof key);
  std::printf("sealed %u bytes, opened them, tampered copy %s\n", len, refused ? "refused" : "ACCEPTED");
  return refused ? 0 : 1;
}
