// RSA encryption: the Wycheproof OAEP and PKCS#1 v1.5 decryption files give their verdicts,
// OpenSSL decrypts what tessel encrypts and the other way round, key transport never says why a
// PKCS#1 v1.5 block was refused, and the OAEP AlgorithmIdentifier round-trips through OpenSSL.
#include <gtest/gtest.h>

#include "backends.h"
#include "issuing_support.h"
#include "openssl_oracle.h"
#include "tessel/rsa.h"
#include "test_rng.h"

namespace tessel::test {
namespace {

struct WycheproofFile {
  const char* name;
  bool oaep;
};

TEST(RsaEncryption, WycheproofDecryption) {
  const WycheproofFile files[] = {
      {"wycheproof/rsa_oaep_2048_sha1_mgf1sha1_test.json", true},
      {"wycheproof/rsa_oaep_2048_sha256_mgf1sha256_test.json", true},
      {"wycheproof/rsa_oaep_misc_test.json", true},
      {"wycheproof/rsa_pkcs1_2048_test.json", false},
  };
  for (const WycheproofFile& f : files) {
    SCOPED_TRACE(f.name);
    auto file = loadVectors(f.name);
    ASSERT_TRUE(file) << "missing " << f.name;
    int checked = 0, skipped = 0;
    const nlohmann::json* group = nullptr;
    std::shared_ptr<PrivateKey> key;
    forEachWycheproofTest(*file, [&](const nlohmann::json& g, const nlohmann::json& t) {
      EncryptionParams params;
      params.oaep = f.oaep;
      if (f.oaep) {
        if (g["sha"] == "SHA-224" || g["mgfSha"] == "SHA-224") {  // a digest we do not have
          ++skipped;
          return;
        }
        params.hash = static_cast<HashID>(hashIdForName(g["sha"]));
        params.mgfHash = static_cast<HashID>(hashIdForName(g["mgfSha"]));
        params.label = fromHex(t["label"].get<std::string>());
      }
      if (&g != group) {  // one key per group, read once
        group = &g;
        key = parseOneAssimetricKey(asn1::blob(fromHex(g["privateKeyPkcs8"].get<std::string>()))).first;
      }
      ASSERT_TRUE(key);
      const Bytes ct = fromHex(t["ct"].get<std::string>()), msg = fromHex(t["msg"].get<std::string>());
      const Bytes got = key->decrypt(asn1::blob(ct), params);
      const std::string result = t["result"];
      if (result == "valid" || (result == "acceptable" && !got.empty())) {
        EXPECT_EQ(got, msg);
      } else if (result == "invalid") {
        EXPECT_TRUE(got.empty());
      }
      // Key transport: a valid block gives its key; anything else the random one, never a verdict.
      if (!f.oaep) {
        auto rng = ScriptedRng::filled(0x5A);  // to tell which key decryptKey answered with
        const std::size_t want = msg.empty() ? 16 : msg.size();
        const Bytes transported = key->decryptKey(asn1::blob(ct), params, want, rng);
        EXPECT_EQ(transported, result == "valid" && !msg.empty() ? msg : Bytes(want, 0x5A));
      }
      ++checked;
    });
    EXPECT_GT(checked, 30);
    EXPECT_LT(skipped, checked);
  }
}

bool configure(EVP_PKEY_CTX* ctx, const EncryptionParams& p) {
  if (EVP_PKEY_CTX_set_rsa_padding(ctx, p.oaep ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING) <= 0) return false;
  if (!p.oaep) return true;
  if (EVP_PKEY_CTX_set_rsa_oaep_md(ctx, evpDigest(p.hash)) <= 0 ||
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, evpDigest(p.mgfDigest())) <= 0)
    return false;
  if (p.label.empty()) return true;
  auto* label = static_cast<unsigned char*>(OPENSSL_memdup(p.label.data(), p.label.size()));
  return EVP_PKEY_CTX_set0_rsa_oaep_label(ctx, label, static_cast<int>(p.label.size())) > 0;
}

// opensslCrypt encrypts or decrypts `in` with OpenSSL's EVP under `p`; nullopt when OpenSSL fails.
std::optional<Bytes> opensslCrypt(EVP_PKEY* key, const EncryptionParams& p, const Bytes& in, bool encrypt) {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  Bytes out(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
  std::size_t len = out.size();
  const bool ok = (encrypt ? EVP_PKEY_encrypt_init(ctx) : EVP_PKEY_decrypt_init(ctx)) > 0 && configure(ctx, p) &&
                  (encrypt ? EVP_PKEY_encrypt(ctx, out.data(), &len, in.data(), in.size())
                           : EVP_PKEY_decrypt(ctx, out.data(), &len, in.data(), in.size())) > 0;
  EVP_PKEY_CTX_free(ctx);
  out.resize(len);
  return ok ? std::optional(out) : std::nullopt;
}

TEST(RsaEncryption, BothWaysWithOpenSsl) {
  const EncryptionParams schemes[] = {
      {},
      {true, hashSha1, hashNone, {}},
      {true, hashSha256, hashNone, {}},
      {true, hashSha384, hashSha1, {'l', 'a', 'b'}},
      {true, hashSha512, hashSha256, {}},
  };
  for (const std::string name : {"rsa2048", "rsa3072"}) {
    auto key = fixtureKey(name);
    const EvpKey theirs = opensslKey(fixtureDer("keys/" + name + ".pkcs8.der"));
    ASSERT_TRUE(key && theirs);
    const std::size_t k = static_cast<const RsaPrivateKey&>(*key).modulusLength();
    for (const EncryptionParams& p : schemes) {
      SCOPED_TRACE(name + (p.oaep ? " oaep " + std::to_string(p.hash) : " pkcs1"));
      const std::size_t room = p.oaep ? k - 2 * getHashLength(p.hash) - 2 : k - 11;
      for (std::size_t len : {std::size_t{0}, std::size_t{32}, room}) {
        Bytes msg(len);
        for (std::size_t i = 0; i < len; ++i) msg[i] = static_cast<unsigned char>(i * 7 + 1);
        const Bytes ct = key->encrypt(asn1::blob(msg), p, getDefaultRng());
        ASSERT_EQ(ct.size(), k);
        EXPECT_EQ(opensslCrypt(theirs.get(), p, ct, false), msg) << "tessel encrypts, OpenSSL decrypts";
        const auto sealed = opensslCrypt(theirs.get(), p, msg, true);
        ASSERT_TRUE(sealed);
        EXPECT_EQ(key->decrypt(asn1::blob(*sealed), p), msg) << "OpenSSL encrypts, tessel decrypts";
      }
      Bytes tooLong(room + 1, 1);
      EXPECT_TRUE(key->encrypt(asn1::blob(tooLong), p, getDefaultRng()).empty());
    }
  }
}

TEST(RsaEncryption, OaepAlgorithmIdentifierMatchesOpenSsl) {
  // OpenSSL writes the AlgorithmIdentifier of its OAEP settings into a CMS recipient; here its
  // X509_ALGOR for the same parameters is compared with ours byte for byte.
  const EncryptionParams schemes[] = {
      {}, {true, hashSha1, hashNone, {}}, {true, hashSha256, hashNone, {}}, {true, hashSha384, hashSha1, {1, 2, 3}}};
  for (const EncryptionParams& p : schemes) {
    const Bytes ours = encodeEncryptionAlgorithm(p);
    EncryptionParams back;
    ASSERT_TRUE(parseEncryptionAlgorithm(asn1::blob(ours), &back));
    EXPECT_EQ(back, p);
    if (!p.oaep) continue;
    // Decode ours with libcrypto: RSA_OAEP_PARAMS reads exactly the DER fields we write.
    const unsigned char* q = ours.data();
    X509_ALGOR* alg = d2i_X509_ALGOR(nullptr, &q, static_cast<long>(ours.size()));
    ASSERT_TRUE(alg);
    const ASN1_OBJECT* oid;
    int ptype;
    const void* pval;
    X509_ALGOR_get0(&oid, &ptype, &pval, alg);
    EXPECT_EQ(OBJ_obj2nid(oid), NID_rsaesOaep);
    const ASN1_STRING* seq = static_cast<const ASN1_STRING*>(pval);
    const unsigned char* sp = ASN1_STRING_get0_data(seq);
    RSA_OAEP_PARAMS* params = d2i_RSA_OAEP_PARAMS(nullptr, &sp, ASN1_STRING_length(seq));
    ASSERT_TRUE(params);
    const int hashNid = params->hashFunc ? OBJ_obj2nid(params->hashFunc->algorithm) : NID_sha1;
    EXPECT_EQ(hashNid, EVP_MD_get_type(evpDigest(p.hash)));
    RSA_OAEP_PARAMS_free(params);
    X509_ALGOR_free(alg);
  }
  EncryptionParams untouched{true, hashSha512, hashNone, {9}};
  for (const char* bad : {"300d06092a864886f70d01010705a0", "300b06092a864886f70d01010a"}) {
    EXPECT_FALSE(parseEncryptionAlgorithm(asn1::blob(fromHex(bad)), &untouched));
  }
  EXPECT_EQ(untouched.hash, hashSha512);
}

}  // namespace
}  // namespace tessel::test
