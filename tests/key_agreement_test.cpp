// Key agreement through the key classes, and the X9.63 KDF CMS derives key-encryption keys
// with: both against OpenSSL's libcrypto (EVP_PKEY_derive, the X963KDF of EVP_KDF).
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/kdf.h>

#include "issuing_support.h"
#include "openssl_oracle.h"
#include "tessel/factory.h"
#include "tessel/keygen.h"
#include "tessel/x963_kdf.h"

namespace tessel::test {
namespace {

Bytes opensslDerive(EVP_PKEY* mine, EVP_PKEY* peer) {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(mine, nullptr);
  Bytes out(66);
  std::size_t len = out.size();
  const bool ok = EVP_PKEY_derive_init(ctx) > 0 && EVP_PKEY_derive_set_peer(ctx, peer) > 0 &&
                  EVP_PKEY_derive(ctx, out.data(), &len) > 0;
  EVP_PKEY_CTX_free(ctx);
  out.resize(ok ? len : 0);
  return out;
}

TEST(KeyAgreement, SameSecretAsOpenSsl) {
  const struct {
    KeyType type;
    unsigned size;
    const char* fixture;
  } kinds[] = {{keyEc, static_cast<unsigned>(Curve::p256), "ec256"},
               {keyEc, static_cast<unsigned>(Curve::p384), "ec384"},
               {keyEc, static_cast<unsigned>(Curve::p521), "ec521"},
               {keyX25519, 0, "x25519"}};
  for (const auto& k : kinds) {
    SCOPED_TRACE(k.fixture);
    auto mine = fixtureKey(k.fixture);
    auto peer = generatePrivateKey(k.type, k.size);
    ASSERT_TRUE(mine && peer);
    const Bytes ours = mine->agree(*peer->publicPart());
    EXPECT_EQ(ours, peer->agree(*mine));
    EXPECT_EQ(ours, opensslDerive(opensslKey(encodePkcs8PrivateKey(*mine)).get(),
                                  opensslKey(encodePkcs8PrivateKey(*peer)).get()));
    EXPECT_FALSE(ours.empty());
  }
  // Across types and curves nothing is agreed; keys that only sign agree on nothing.
  auto p256 = fixtureKey("ec256"), p384 = fixtureKey("ec384"), x = fixtureKey("x25519");
  auto rsa = fixtureKey("rsa2048"), ed = fixtureKey("ed25519");
  EXPECT_TRUE(p256->agree(*p384).empty());
  EXPECT_TRUE(p256->agree(*x).empty());
  EXPECT_TRUE(x->agree(*p256).empty());
  EXPECT_TRUE(rsa->agree(*rsa).empty());
  EXPECT_TRUE(ed->agree(*ed).empty());
}

Bytes opensslX963(const char* digest, const Bytes& z, const Bytes& info, std::size_t length) {
  EVP_KDF* kdf = EVP_KDF_fetch(nullptr, "X963KDF", nullptr);
  EVP_KDF_CTX* ctx = EVP_KDF_CTX_new(kdf);
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>(digest), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<unsigned char*>(z.data()), z.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<unsigned char*>(info.data()), info.size()),
      OSSL_PARAM_construct_end()};
  Bytes out(length);
  const bool ok = EVP_KDF_derive(ctx, out.data(), out.size(), params) > 0;
  EVP_KDF_CTX_free(ctx);
  EVP_KDF_free(kdf);
  return ok ? out : Bytes();
}

TEST(KeyAgreement, X963KdfMatchesOpenSsl) {
  const std::pair<const char*, HashID> digests[] = {
      {"SHA1", hashSha1}, {"SHA256", hashSha256}, {"SHA384", hashSha384}, {"SHA512", hashSha512}};
  Bytes z(66), info(40);
  for (std::size_t i = 0; i < z.size(); ++i) z[i] = static_cast<unsigned char>(i * 13 + 5);
  for (std::size_t i = 0; i < info.size(); ++i) info[i] = static_cast<unsigned char>(i * 3);
  for (const auto& [name, id] : digests) {
    auto h = createHash(id);
    for (std::size_t length : {1u, 16u, 32u, 65u, 130u}) {
      for (std::size_t infoLength : {0u, 17u, 40u}) {
        SCOPED_TRACE(std::string(name) + " " + std::to_string(length) + " " + std::to_string(infoLength));
        const Bytes sharedInfo(info.begin(), info.begin() + static_cast<std::ptrdiff_t>(infoLength));
        EXPECT_EQ(x963Kdf(*h, asn1::blob(z), asn1::blob(sharedInfo), length), opensslX963(name, z, sharedInfo, length));
      }
    }
  }
  EXPECT_TRUE(x963Kdf(*createHash(hashSha256), asn1::blob(z), {}, 0).empty());
}

}  // namespace
}  // namespace tessel::test
