// Path validation and CA loading, tessel beside OpenSSL on the same bytes in the same run:
// a three-certificate chain (root, intermediate, leaf) with RSA-2048 keys and one with P-256
// keys, made here with libcrypto, and Debian's CA directory.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tessel/cert_store.h"
#include "tessel/x509_path.h"

namespace {

const char* const kCaDir = "/usr/share/ca-certificates/mozilla";
const std::int64_t kNow = 1767225600;  // 2026-01-01, inside every generated certificate

struct QuietStdout {
  std::ostringstream sink;
  std::streambuf* old = std::cout.rdbuf(sink.rdbuf());
  ~QuietStdout() { std::cout.rdbuf(old); }
};

void addExt(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

// makeCert issues a certificate for `key` named `cn`, signed by `signer` (self-signed when
// `issuer` is null), valid 2020-2040.
X509* makeCert(const char* cn, EVP_PKEY* key, X509* issuer, EVP_PKEY* signer, bool ca, long serial) {
  X509* cert = X509_new();
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), serial);
  X509_NAME* name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Bench"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
  X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer) : name);
  ASN1_TIME_set(X509_getm_notBefore(cert), 1577836800);
  ASN1_TIME_set(X509_getm_notAfter(cert), 2208988800);
  X509_set_pubkey(cert, key);
  X509* self = issuer ? issuer : cert;
  addExt(cert, self, NID_subject_key_identifier, "hash");
  addExt(cert, self, NID_authority_key_identifier, "keyid:always");
  addExt(cert, self, NID_basic_constraints, ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExt(cert, self, NID_key_usage, ca ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  if (!ca) addExt(cert, self, NID_subject_alt_name, "DNS:www.bench.test");
  X509_sign(cert, signer, EVP_sha256());
  return cert;
}

std::string der(X509* cert) {
  unsigned char* out = nullptr;
  const int len = i2d_X509(cert, &out);
  std::string s(reinterpret_cast<char*>(out), static_cast<size_t>(len));
  OPENSSL_free(out);
  return s;
}

// The same three certificates, as DER for us and as objects for OpenSSL.
struct BenchChain {
  std::vector<std::string> der;  // leaf, intermediate, root
  std::vector<X509*> x509;
  explicit BenchChain(bool rsa) {
    auto keygen = [rsa] { return rsa ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048})
                                     : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"); };
    EVP_PKEY* keys[3] = {keygen(), keygen(), keygen()};
    X509* root = makeCert("Bench Root", keys[2], nullptr, keys[2], true, 1);
    X509* inter = makeCert("Bench Intermediate", keys[1], root, keys[2], true, 2);
    X509* leaf = makeCert("www.bench.test", keys[0], inter, keys[1], false, 3);
    x509 = {leaf, inter, root};
    for (X509* c : x509) der.push_back(::der(c));
    for (EVP_PKEY* k : keys) EVP_PKEY_free(k);
  }
  ~BenchChain() {
    for (X509* c : x509) X509_free(c);
  }
};

std::shared_ptr<tessel::X509Certificate> parse(const std::string& der) {
  auto cert = std::make_shared<tessel::X509Certificate>();
  if (!cert->parse(reinterpret_cast<const unsigned char*>(der.data()), static_cast<unsigned>(der.size()))) return nullptr;
  return cert;
}

void tesselValidate(benchmark::State& state, bool rsa) {
  const BenchChain made(rsa);
  tessel::CertificateMemoryStore store;
  store.certificates.push_back(parse(made.der[2]));
  const auto leaf = parse(made.der[0]), inter = parse(made.der[1]);
  if (!leaf || !inter || !store.certificates[0]) return state.SkipWithError("chain did not parse");
  for (auto _ : state) {
    std::vector<std::shared_ptr<tessel::X509Certificate>> chain = {leaf, inter};
    tessel::x509BuildPath(store, chain, nullptr);
    std::string error;
    const unsigned code = tessel::x509ValidatePath(chain, store, tessel::TimePoint::fromSeconds(kNow),
                                                   "www.bench.test", {}, "", false, &error);
    if (code != 0) return state.SkipWithError(("validation failed: " + error).c_str());
  }
  state.counters["chains/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void opensslValidate(benchmark::State& state, bool rsa) {
  const BenchChain made(rsa);
  X509_STORE* store = X509_STORE_new();
  X509_STORE_add_cert(store, made.x509[2]);
  STACK_OF(X509)* untrusted = sk_X509_new_null();
  sk_X509_push(untrusted, made.x509[1]);
  for (auto _ : state) {
    X509_STORE_CTX* ctx = X509_STORE_CTX_new();
    X509_STORE_CTX_init(ctx, store, made.x509[0], untrusted);
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx);
    X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(kNow));
    X509_VERIFY_PARAM_set1_host(param, "www.bench.test", 0);
    const int ok = X509_verify_cert(ctx);
    X509_STORE_CTX_free(ctx);
    if (ok != 1) return state.SkipWithError("OpenSSL rejected the chain");
  }
  sk_X509_free(untrusted);
  X509_STORE_free(store);
  state.counters["chains/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

std::vector<std::string> caFiles() {
  std::vector<std::string> files;
  if (DIR* d = opendir(kCaDir)) {
    while (const dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') files.push_back(std::string(kCaDir) + "/" + e->d_name);
    }
    closedir(d);
  }
  return files;
}

void tesselLoadCaDir(benchmark::State& state) {
  if (caFiles().empty()) return state.SkipWithError("no CA directory");
  QuietStdout quiet;  // the roots' unknown extensions are reported on standard output
  size_t loaded = 0;
  for (auto _ : state) {
    tessel::CertificateMemoryStore store;
    store.loadFromDir(kCaDir, false);
    loaded = store.certificates.size();
    quiet.sink.str({});
  }
  state.SetLabel(std::to_string(loaded) + " certificates");
  state.counters["dirs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void opensslLoadCaDir(benchmark::State& state) {
  if (caFiles().empty()) return state.SkipWithError("no CA directory");
  size_t loaded = 0;
  for (auto _ : state) {
    // Listing and reading the files is part of the work, as it is for loadFromDir.
    X509_STORE* store = X509_STORE_new();
    loaded = 0;
    for (const std::string& path : caFiles()) {
      BIO* bio = BIO_new_file(path.c_str(), "r");
      if (bio == nullptr) continue;
      if (X509* x = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
        loaded += X509_STORE_add_cert(store, x) == 1;
        X509_free(x);
      }
      BIO_free(bio);
    }
    X509_STORE_free(store);
  }
  state.SetLabel(std::to_string(loaded) + " certificates");
  state.counters["dirs/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(tesselValidate, rsa2048, true)->Name("Path/validate_rsa2048/tessel")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(opensslValidate, rsa2048, true)->Name("Path/validate_rsa2048/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(tesselValidate, p256, false)->Name("Path/validate_p256/tessel")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(opensslValidate, p256, false)->Name("Path/validate_p256/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK(tesselLoadCaDir)->Name("Path/load_ca_dir/tessel")->Unit(benchmark::kMillisecond);
BENCHMARK(opensslLoadCaDir)->Name("Path/load_ca_dir/openssl")->Unit(benchmark::kMillisecond);

}  // namespace
