// sign_with_key: makes a P-256 key, writes it as PKCS#8 PEM, reads it back, signs a message
// with it and checks the signature with the public part.
#include <tessel/tessel.h>

#include <cstdio>
#include <string>

int main() {
  // For EC keys the size is the curve number; the key comes from the system's random source.
  auto key = tessel::generatePrivateKey(tessel::keyEc, static_cast<unsigned>(tessel::Curve::p256));
  if (!key) return std::puts("key generation failed"), 1;
  const std::string pem = tessel::encodePemPkcs8PrivateKey(*key);
  auto again = tessel::readPrivateKey(pem, "");
  if (!again) return std::puts("could not read the key back"), 1;

  const std::string message = "pay 10 to alice";
  const tessel::asn1::blob text(reinterpret_cast<const unsigned char*>(message.data()), message.size());
  const tessel::SignatureParams params{tessel::hashSha256};
  const auto signature = again->sign(text, params);
  const bool good = key->verify(text, tessel::asn1::blob(signature), params);
  std::printf("%zu-byte PEM key, %zu-byte signature, %s\n", pem.size(), signature.size(),
              good ? "verified" : "NOT VERIFIED");
  return good ? 0 : 1;
}
