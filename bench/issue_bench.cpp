// Issuing a certificate (build the body, sign it, encode the whole) with a P-256 and an RSA-2048
// CA key: tessel's X509Base::sign beside OpenSSL's X509_sign, same keys, same fields, same run.
#include <benchmark/benchmark.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <string>

#include "ol/file.h"
#include "tessel/pkcs8.h"
#include "tessel/x509.h"

namespace {

std::string keyDer(const char* name) {
  return ol::readFile(std::string(TESSEL_SOURCE_DIR) + "/tests/data/keys/" + name + ".pkcs8.der");
}

const char* keyName(int64_t which) { return which == 0 ? "ec256" : "rsa2048"; }

void tesselIssue(benchmark::State& state) {
  const std::string der = keyDer(keyName(state.range(0)));
  const auto key = tessel::parseOneAssimetricKey(tessel::asn1::blob(std::string_view(der))).first;
  if (!key) return state.SkipWithError("no key");
  tessel::X509Certificate cert;
  cert.subject.CN = "host.example";
  cert.issuer.CN = "Issuing CA";
  cert.notBefore = tessel::TimePoint::fromSeconds(1'900'000'000);
  cert.notAfter = tessel::TimePoint::fromSeconds(1'930'000'000);
  cert.keyUsage = tessel::kuDigitalSignature | tessel::ekuTlsServer;
  cert.setSubjectPublicKey(*key);
  for (auto _ : state) {
    cert.serial.clear();  // a fresh serial, as each issued certificate gets
    cert.authorityKeyId.clear();
    if (!cert.sign(*key, tessel::hashSha256)) return state.SkipWithError("sign failed");
    benchmark::DoNotOptimize(cert.serialize());
  }
  state.counters["certs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void opensslIssue(benchmark::State& state) {
  const std::string der = keyDer(keyName(state.range(0)));
  const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
  EVP_PKEY* pkey = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size()));
  if (!pkey) return state.SkipWithError("no key");
  for (auto _ : state) {
    X509* x = X509_new();
    X509_set_version(x, X509_VERSION_3);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7F;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(x));
    BN_free(bn);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("host.example"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(X509_get_issuer_name(x), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("Issuing CA"), -1, -1, 0);
    ASN1_TIME_set(X509_getm_notBefore(x), 1'900'000'000);
    ASN1_TIME_set(X509_getm_notAfter(x), 1'930'000'000);
    X509_set_pubkey(x, pkey);
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
    for (const auto& [name, value] :
         {std::pair{"keyUsage", "critical,digitalSignature"}, std::pair{"extendedKeyUsage", "serverAuth"},
          std::pair{"subjectKeyIdentifier", "hash"}, std::pair{"authorityKeyIdentifier", "keyid"}}) {
      X509_EXTENSION* ext = X509V3_EXT_conf(nullptr, &ctx, name, value);
      X509_add_ext(x, ext, -1);
      X509_EXTENSION_free(ext);
    }
    X509_sign(x, pkey, EVP_sha256());
    unsigned char* out = nullptr;
    benchmark::DoNotOptimize(i2d_X509(x, &out));
    OPENSSL_free(out);
    X509_free(x);
  }
  EVP_PKEY_free(pkey);
  state.counters["certs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// Argument 0: P-256, 1: RSA-2048.
BENCHMARK(tesselIssue)->Name("x509/issue/tessel")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslIssue)->Name("x509/issue/openssl")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
