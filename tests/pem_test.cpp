// PEM: line and block finding, Base64 armour, the legacy encrypted keys made by `openssl rsa
// -aes128/-aes192/-aes256/-des3`, and every reader over the openssl fixtures.
#include "tessel/pem.h"
#include "support.h"
#include "tessel/pkcs8.h"

#if TESSEL_HAVE_OPENSSL
#include "openssl_oracle.h"
#endif

namespace tessel {
namespace {

using test::Bytes;

std::string text(const std::string& fixture) { return test::fixtureText(fixture); }
std::string path(const std::string& fixture) { return test::fixturePath(fixture); }

const std::string kPassword = "tessel-fixture";

TEST(Pem, NextLine) {
  const nlohmann::json rows = test::dataFile("pki_pem.json")["nextLine"];  // a copy: the file's object is a temporary
  for (const auto& c : rows) {
    std::string_view in = c[0].get_ref<const std::string&>(), line;
    std::vector<std::string> got;
    while (nextLine(in, &line)) got.emplace_back(line);
    EXPECT_EQ(got, c[1].get<std::vector<std::string>>()) << c[0];
  }
}

TEST(Pem, ParsePemBlocks) {
  std::string_view in = "junk\n-----BEGIN CERTIFICATE-----\r\nAAAA\r\nBBBB\r\n-----END X509 CRL-----\r\nrest";
  std::string_view label, body;
  ASSERT_TRUE(parsePem(in, &label, &body));
  EXPECT_EQ(label, "CERTIFICATE");
  EXPECT_EQ(body, "AAAA\r\nBBBB\r\n");
  EXPECT_EQ(in, "rest");
  Bytes der;
  ASSERT_TRUE(pemDecode(body, &der));
  EXPECT_EQ(der, test::fromHex("000000041041"));
  EXPECT_FALSE(parsePem(in, &label, &body));

  for (std::string_view broken : {"-----BEGIN X-----\nAAAA\n", "-----BEGIN X\nAAAA\n-----END X-----\n"})
    EXPECT_FALSE(parsePem(broken, &label, &body)) << broken;
  std::string_view bad = "-----BEGIN X-----\nAA!A\n-----END X-----\n";
  ASSERT_TRUE(parsePem(bad, &label, &body));
  EXPECT_FALSE(pemDecode(body, &der));
}

TEST(Pem, EncodePemTypeLines) {
  EXPECT_EQ(encodePemType("X", {}), "");
  const std::string b48 = encodePemType("X", Bytes(48, 0xFF));
  EXPECT_EQ(b48, "-----BEGIN X-----\n" + std::string(64, '/') + "\n-----END X-----\n");
  const std::string b49 = encodePemType("X", Bytes(49, 0xFF));
  EXPECT_EQ(b49, "-----BEGIN X-----\n" + std::string(64, '/') + "\n/w==\n-----END X-----\n");
  // openssl writes the same armour, so our writers reproduce its files byte for byte (certificates
  // and encrypted keys too, in tests/data/pki_tool.json, written by the tessel program's pkcs12).
  auto crl = readCrlFromFile(path("certs/crl.pem"));
  ASSERT_TRUE(crl);
  EXPECT_EQ(encodePemCrl(*crl), text("certs/crl.pem"));
  auto pub = readPublicKeyFromFile(path("keys/rsa1024.pub.pem"));
  ASSERT_TRUE(pub);
  EXPECT_EQ(encodePemPkcs8PublicKey(*pub), text("keys/rsa1024.pub.pem"));
  auto priv = readPrivateKeyFromFile(path("keys/rsa1024.pkcs8.pem"), "");
  ASSERT_TRUE(priv);
  EXPECT_EQ(encodePemPkcs8PrivateKey(*priv), text("keys/rsa1024.pkcs8.pem"));
}

#if TESSEL_HAVE_OPENSSL
// legacyBody encrypts `plain` (already padded by the caller) as OpenSSL's PEM writer would:
// key from EVP_BytesToKey(MD5, salt = IV[0..8]), CBC without padding.
std::string legacyBody(const char* name, const EVP_CIPHER* cipher, const Bytes& plain, const Bytes& iv) {
  Bytes key(EVP_CIPHER_key_length(cipher));
  EVP_BytesToKey(cipher, EVP_md5(), iv.data(), reinterpret_cast<const unsigned char*>(kPassword.data()),
                 static_cast<int>(kPassword.size()), 1, key.data(), nullptr);
  const std::string pem = encodePemType("X", test::opensslCipher(cipher, key, iv, plain, true));
  const std::size_t body = pem.find('\n') + 1;
  return "Proc-Type: 4,ENCRYPTED\nDEK-Info: " + std::string(name) + "," + test::toHex(iv) + "\n\n" +
         pem.substr(body, pem.find("-----END") - body);
}

TEST(Pem, LegacyPaddingBounds) {
  const Bytes iv = test::fromHex("00112233445566778899aabbccddeeff");
  auto check = [&](const char* name, const EVP_CIPHER* cipher, unsigned pad, bool accepted) {
    SCOPED_TRACE(std::string(name) + " pad " + std::to_string(pad));
    const unsigned block = EVP_CIPHER_block_size(cipher), total = (pad / block + 2) * block;
    Bytes plain(total, 0x5A), out;
    std::fill(plain.end() - pad, plain.end(), static_cast<unsigned char>(pad));
    if (pad == 0) plain.back() = 0;
    EXPECT_EQ(pemDecrypt(legacyBody(name, cipher, plain, Bytes(iv.begin(), iv.begin() + block)), &out, kPassword),
              accepted);
    EXPECT_TRUE(!accepted || out == Bytes(total - pad, 0x5A));
  };
  struct Case {
    const char* name;
    const EVP_CIPHER* cipher;
    std::vector<unsigned> accepted, refused;  // padding lengths
  } cases[] = {
      {"AES-256-CBC", EVP_aes_256_cbc(), {20, 32}, {33}},  // wider than a block: accepted up to 32
      {"AES-192-CBC", EVP_aes_192_cbc(), {24}, {25}},
      {"AES-128-CBC", EVP_aes_128_cbc(), {16}, {20, 0}},  // a zero last byte is no padding
      {"DES-EDE3-CBC", EVP_des_ede3_cbc(), {8}, {9}},
  };
  for (const Case& c : cases) {
    for (unsigned pad : c.accepted) check(c.name, c.cipher, pad, true);
    for (unsigned pad : c.refused) check(c.name, c.cipher, pad, false);
  }
}
#endif

// one gives the DER of what a reader returned: nothing for null.
template <class P, class F>
std::vector<Bytes> one(const P& p, F der) {
  return p ? std::vector<Bytes>{der(*p)} : std::vector<Bytes>{};
}

// readAs runs reader `kind` over `in`, or over the file `file` when one is named.
std::vector<Bytes> readAs(const std::string& kind, const std::string& in, const std::string& file,
                          const std::string& password) {
  const auto cert = [](const auto& c) { return c.serialize(); };
  const auto priv = [](const PrivateKey& k) { return encodePkcs8PrivateKey(k); };
  const auto pub = [](const PublicKey& k) { return encodePkcs8PublicKey(k); };
  if (kind == "cert") return one(file.empty() ? readCertFromStr(in) : readCertFromFile(file), cert);
  if (kind == "crl") return one(file.empty() ? readCrl(in) : readCrlFromFile(file), cert);
  if (kind == "req") return one(file.empty() ? readReq(in) : readReqFromFile(file), cert);
  if (kind == "priv")
    return one(file.empty() ? readPrivateKey(in, password) : readPrivateKeyFromFile(file, password), priv);
  if (kind == "pub") return one(file.empty() ? readPublicKey(in) : readPublicKeyFromFile(file), pub);
  if (kind == "oneKey") return one(readOneAssimetricKey(in).first, priv);
  std::vector<Bytes> out;
  for (const auto& c : file.empty() ? readCertChain(in) : readCertChainFromFile(file)) out.push_back(c->serialize());
  return out;
}

TEST(Pem, ReadersOverTheFixtures) {
  const nlohmann::json rows = test::dataFile("pki_pem.json")["readers"];  // a copy: the file's object is a temporary
  for (const auto& c : rows) {
    SCOPED_TRACE(c.dump());
    std::string in;
    for (const auto& f : c.value("from", nlohmann::json::array())) in += text(f);
    if (c.contains("edit"))
      in.replace(in.find(c["edit"][0].get<std::string>()), c["edit"][0].get<std::string>().size(), c["edit"][1]);
    for (std::size_t at = 0; c.value("crlf", false) && (at = in.find('\n', at)) != std::string::npos; at += 2)
      in.insert(at, "\r");
    const std::string file = c.contains("file") ? path(c["file"]) : "", password = c.value("password", "");
    std::vector<Bytes> want, got;
    for (const auto& f : c["want"]) want.push_back(test::fixtureDer(f));
    const std::string said = test::said([&] { got = readAs(c["read"], in, file, password); });
    EXPECT_EQ(got, want);
    EXPECT_TRUE(!c.contains("said") || said == c["said"]) << said;
    if (!password.empty()) test::said([&] { EXPECT_TRUE(readAs(c["read"], in, file, "wrong").empty()); });
  }
}

}  // namespace
}  // namespace tessel
