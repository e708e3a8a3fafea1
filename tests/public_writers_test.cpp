// The writers of a key's public part, handed a PRIVATE key object of every type, write what they
// write for its public part and not one stretch of the private material.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support.h"
#include "tessel/ec_key.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/keygen.h"
#include "tessel/mlkem_keys.h"
#include "tessel/pem.h"
#include "tessel/pkcs8.h"
#include "tessel/req.h"
#include "tessel/rsa.h"
#include "tessel/x509.h"

namespace tessel::test {
namespace {

// secretsOf lists the private values of a key as bytes.
std::vector<Bytes> secretsOf(const PrivateKey& key) {
  if (auto* rsa = dynamic_cast<const RsaPrivateKey*>(&key))
    return {rsa->d.bin(), rsa->p.bin(), rsa->q.bin(), rsa->dP.bin(), rsa->dQ.bin(), rsa->qInv.bin()};
  if (auto* ec = dynamic_cast<const EcPrivateKey*>(&key)) return {ec->d.bin()};
  if (auto* k25519 = dynamic_cast<const Key25519Private*>(&key))
    return {Bytes(k25519->privateKey.begin(), k25519->privateKey.end())};
  if (auto* mlkem = dynamic_cast<const MLKEMPrivateKey*>(&key))  // the seed, and the expanded key before ek
    return {mlkem->seed(), Bytes(mlkem->decapsulationKey().begin(), mlkem->decapsulationKey().begin() + 1152)};
  return {};
}

// leaks says whether any 12-byte stretch of a secret (taken every 6 bytes) turns up in `out`.
bool leaks(const Bytes& out, const std::vector<Bytes>& secrets) {
  for (const Bytes& s : secrets)
    for (std::size_t at = 0; at + 12 <= s.size(); at += 6)
      if (std::search(out.begin(), out.end(), s.begin() + at, s.begin() + at + 12) != out.end()) return true;
  return false;
}

using Writer = Bytes (*)(const PublicKey&);
const std::pair<const char*, Writer> kWriters[] = {
    {"encodeSubjectPublicKeyInfo", [](const PublicKey& k) { return encodeSubjectPublicKeyInfo(k); }},
    {"encodePemPublicKey", [](const PublicKey& k) { return pemBody(bytesOf(encodePemPublicKey(k))); }},
    {"X509Certificate::setSubjectPublicKey",
     [](const PublicKey& k) {
       X509Certificate cert;
       return cert.setSubjectPublicKey(k) ? cert.publicKeyInfo : Bytes();
     }},
    {"X509Req::setSubjectPublicKey",
     [](const PublicKey& k) {
       X509Req req;
       return req.setSubjectPublicKey(k) ? req.publicKeyInfo : Bytes();
     }},
    {"publicPart()->encodeToDerEncoded",
     [](const PublicKey& k) {
       auto* priv = dynamic_cast<const PrivateKey*>(&k);
       return priv ? priv->publicPart()->encodeToDerEncoded() : k.encodeToDerEncoded();
     }},
};

TEST(PublicWriters, NoPrivateMaterialFromPrivateObjects) {
  const std::pair<KeyType, unsigned> types[] = {{keyRsa, 2048},  {keyEc, 3},     {keyEc, 5},
                                                {keyEd25519, 0}, {keyX25519, 0}, {keyMlkem768, 0}};
  for (auto [type, size] : types) {
    auto key = generatePrivateKey(type, size);
    ASSERT_TRUE(key);
    auto pub = key->publicPart();
    ASSERT_TRUE(pub && pub->equals(*key));
    const std::vector<Bytes> secrets = secretsOf(*key);
    ASSERT_FALSE(secrets.empty());
    ASSERT_TRUE(leaks(encodePkcs8PrivateKey(*key), secrets)) << "the search finds nothing even where it should";
    for (auto [name, write] : kWriters) {
      SCOPED_TRACE(std::string(name) + " type " + std::to_string(type));
      const Bytes out = write(*key);
      EXPECT_FALSE(out.empty());
      EXPECT_EQ(out, write(*pub));
      EXPECT_FALSE(leaks(out, secrets));
    }
  }
}

}  // namespace
}  // namespace tessel::test
