// Signed CMS messages with a P-256 and an RSA-2048 signer, tessel beside OpenSSL's CMS_sign and
// CMS_verify, same keys, same certificate, same run. The content is 1 KiB, carried in the message.
//   sign: digest the content; build contentType, signingTime and messageDigest signed attributes;
//         sign them (ECDSA or PKCS#1 v1.5, SHA-256); write the DER message with the signer's
//         certificate included. OpenSSL: CMS_sign with CMS_BINARY|CMS_NOSMIMECAP, then
//         i2d_CMS_ContentInfo.
//   verify: read the same message (made once by tessel) from DER; find the signer's certificate
//         in it; check contentType and messageDigest against the content's digest; verify the
//         signature over the attributes. No certificate path is validated on either side: tessel
//         verifies without a store, OpenSSL with CMS_NO_SIGNER_CERT_VERIFY. OpenSSL also copies
//         the content out (to a null BIO), which it cannot skip.
#include <benchmark/benchmark.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "ol/file.h"
#include "tessel/cms.h"
#include "tessel/pkcs8.h"
#include "tessel/x509.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Party is one signer: the key and a self-signed certificate for it, in tessel's form and DER.
struct Party {
  std::shared_ptr<tessel::PrivateKey> key;
  std::shared_ptr<tessel::X509Certificate> cert;
  std::string keyDer;
  Bytes certDer;
};

// party reads tests/data/keys/<ec256|rsa2048>.pkcs8.der (argument 0 or 1) and certifies it.
Party party(int64_t which) {
  Party p;
  p.keyDer = ol::readFile(std::string(TESSEL_SOURCE_DIR) + "/tests/data/keys/" + (which == 0 ? "ec256" : "rsa2048") +
                          ".pkcs8.der");
  p.key = tessel::parseOneAssimetricKey(tessel::asn1::blob(std::string_view(p.keyDer))).first;
  if (!p.key) return {};
  tessel::X509Certificate cert;
  cert.subject.CN = "cms signer";
  cert.issuer.CN = "cms signer";
  cert.notBefore = tessel::TimePoint::fromSeconds(1'700'000'000);
  cert.notAfter = tessel::TimePoint::fromSeconds(2'000'000'000);
  cert.keyUsage = tessel::kuDigitalSignature;
  if (!cert.setSubjectPublicKey(*p.key) || !cert.sign(*p.key, tessel::hashSha256)) return {};
  p.certDer = cert.serialize();
  p.cert = std::make_shared<tessel::X509Certificate>();
  if (!p.cert->parse(p.certDer.data(), static_cast<unsigned>(p.certDer.size()))) return {};
  return p;
}

const Bytes& content() {
  static const Bytes bytes = [] {
    Bytes b(1024);
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<unsigned char>(i * 7 + 1);
    return b;
  }();
  return bytes;
}

tessel::CmsSigner signerOf(const Party& p) {
  tessel::CmsSigner s;
  s.key = p.key.get();
  s.certificate = p.cert;
  s.params = tessel::SignatureParams{tessel::hashSha256};
  return s;
}

// OpenSSL's copies of a party's key and certificate.
struct OpenSslParty {
  EVP_PKEY* key = nullptr;
  X509* cert = nullptr;
  explicit OpenSslParty(const Party& p) {
    const unsigned char* k = reinterpret_cast<const unsigned char*>(p.keyDer.data());
    key = d2i_AutoPrivateKey(nullptr, &k, static_cast<long>(p.keyDer.size()));
    const unsigned char* c = p.certDer.data();
    cert = d2i_X509(nullptr, &c, static_cast<long>(p.certDer.size()));
  }
  ~OpenSslParty() {
    EVP_PKEY_free(key);
    X509_free(cert);
  }
  bool ok() const { return key && cert; }
};

void rate(benchmark::State& state) {
  state.counters["msgs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void tesselSign(benchmark::State& state) {
  const Party p = party(state.range(0));
  if (!p.cert) return state.SkipWithError("no key or certificate");
  const std::vector<tessel::CmsSigner> signers{signerOf(p)};
  for (auto _ : state) {
    tessel::PKCS7SignedData sd;
    if (!sd.sign(tessel::asn1::blob(content()), signers)) return state.SkipWithError("sign failed");
    benchmark::DoNotOptimize(sd.encode());
  }
  rate(state);
}

void opensslSign(benchmark::State& state) {
  const Party p = party(state.range(0));
  if (!p.cert) return state.SkipWithError("no key or certificate");
  OpenSslParty o(p);
  if (!o.ok()) return state.SkipWithError("OpenSSL did not read the key or certificate");
  for (auto _ : state) {
    BIO* in = BIO_new_mem_buf(content().data(), static_cast<int>(content().size()));
    CMS_ContentInfo* cms = CMS_sign(o.cert, o.key, nullptr, in, CMS_BINARY | CMS_NOSMIMECAP);
    BIO_free(in);
    if (!cms) return state.SkipWithError("CMS_sign failed");
    unsigned char* out = nullptr;
    benchmark::DoNotOptimize(i2d_CMS_ContentInfo(cms, &out));
    OPENSSL_free(out);
    CMS_ContentInfo_free(cms);
  }
  rate(state);
}

// signedMessage is the message both sides verify: made by tessel, checked by OpenSSL once.
Bytes signedMessage(const Party& p) {
  tessel::PKCS7SignedData sd;
  if (!sd.sign(tessel::asn1::blob(content()), {signerOf(p)})) return {};
  return sd.encode();
}

void tesselVerify(benchmark::State& state) {
  const Party p = party(state.range(0));
  const Bytes msg = p.cert ? signedMessage(p) : Bytes{};
  if (msg.empty()) return state.SkipWithError("no message");
  for (auto _ : state) {
    tessel::PKCS7SignedData sd;
    if (!sd.parse(tessel::asn1::blob(msg), 0) || !sd.verify()) return state.SkipWithError("verify failed");
  }
  rate(state);
}

void opensslVerify(benchmark::State& state) {
  const Party p = party(state.range(0));
  const Bytes msg = p.cert ? signedMessage(p) : Bytes{};
  if (msg.empty()) return state.SkipWithError("no message");
  BIO* sink = BIO_new(BIO_s_null());
  for (auto _ : state) {
    const unsigned char* at = msg.data();
    CMS_ContentInfo* cms = d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(msg.size()));
    const int ok = cms && CMS_verify(cms, nullptr, nullptr, nullptr, sink, CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY);
    CMS_ContentInfo_free(cms);
    if (ok != 1) {
      BIO_free(sink);
      return state.SkipWithError("CMS_verify failed");
    }
  }
  BIO_free(sink);
  rate(state);
}

// Argument 0: P-256, 1: RSA-2048.
BENCHMARK(tesselSign)->Name("cms/sign/tessel")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslSign)->Name("cms/sign/openssl")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(tesselVerify)->Name("cms/verify/tessel")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslVerify)->Name("cms/verify/openssl")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
