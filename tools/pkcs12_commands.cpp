// tessel pkcs12: writing a key and its certificates into a PKCS#12 file, describing one and
// taking one apart.
//
//   tessel pkcs12 --export --key FILE --cert FILE [--chain FILE] [--name NAME] [--password PW]
//                 [--legacy] [--iter N] [--key-password PW] --out FILE
//   tessel pkcs12 --info --in FILE [--password PW]
//   tessel pkcs12 --extract --in FILE [--password PW] [--out-password PW] [--out FILE]
// Without --password the password is empty; --no-password makes it absent instead.
#include <iostream>
#include <sstream>
#include <string>

#include "cli.h"
#include "commands.h"
#include "tessel/tessel.h"

namespace {

using namespace tessel;
using namespace tessel::cli;
using Bytes = std::vector<unsigned char>;

const Usage kUsage{
    "usage: tessel pkcs12 --export --key FILE --cert FILE [--chain FILE] [--name NAME] [--password PW]\n"
    "                     [--legacy] [--iter N] [--key-password PW] --out FILE\n"
    "       tessel pkcs12 --info --in FILE [--password PW]\n"
    "       tessel pkcs12 --extract --in FILE [--password PW] [--out-password PW] [--out FILE]\n"
    "  --export writes the key, its certificate and the --chain certificates (PEM) under the\n"
    "  password: PBES2 with AES-256-CBC and an HMAC-SHA-256 MAC, or with --legacy triple DES for\n"
    "  the key, RC2-40 for the certificates and an HMAC-SHA-1 MAC, for old appliances. --name sets\n"
    "  the friendly name; --iter the iteration count (2048). --info prints the MAC, the encryption\n"
    "  and every bag. --extract writes the key as PKCS#8 PEM (encrypted with --out-password) and\n"
    "  the certificates as PEM. The password is empty without --password, absent with\n"
    "  --no-password. Exit status 0 done, 1 failed (a wrong password among it), 2 bad usage.\n",
    {"export", "info", "extract", "legacy", "no-password", "help"}};

PbePassword passwordOf(const Options& o) {
  if (o.flag("no-password")) return std::nullopt;
  return o.get("password");
}

int exportCommand(const Options& o) {
  if (!o.has("key") || !o.has("cert") || !o.has("out")) return fail("pkcs12 --export needs --key, --cert and --out");
  PKCS12WriteOptions options;
  options.legacy = o.flag("legacy");
  options.friendlyName = o.get("name");
  if (o.has("iter")) {
    const auto iter = number(o.get("iter"), kMaxPbeIterations);
    if (!iter || *iter == 0) return fail("--iter takes a count from 1 to " + std::to_string(kMaxPbeIterations));
    options.iterations = options.macIterations = *iter;
  }
  auto key = loadKey(o.get("key"), o.get("key-password"));
  if (!key) return 1;
  std::shared_ptr<X509Certificate> cert = readCertFromFile(o.get("cert"));
  if (!cert) return failed(o.get("cert") + ": not a certificate");
  std::vector<std::shared_ptr<X509Certificate>> chain;
  if (o.has("chain")) {
    chain = readCertChainFromFile(o.get("chain"));
    if (chain.empty()) return failed(o.get("chain") + ": no certificates");
  }
  const Bytes der = encodePkcs12(*key, *cert, chain, passwordOf(o), options);
  if (der.empty()) return failed("cannot write the PKCS#12 file");
  return writeOut(o.get("out"), std::string(der.begin(), der.end()), true) ? 0 : 1;
}

bool readPfx(const Options& o, PKCS12PFX* pfx) {
  std::string text;
  if (!readText(o.get("in"), &text)) return false;
  if (pfx->parse(asn1::blob(std::string_view(text)), passwordOf(o))) return true;
  std::cerr << "tessel: " << o.get("in") << ": " << pfx->error << "\n";
  return false;
}

int infoCommand(const Options& o) {
  PKCS12PFX pfx;
  if (!readPfx(o, &pfx)) return 1;
  pfx.dump(std::cout);
  return 0;
}

int extractCommand(const Options& o) {
  PKCS12PFX pfx;
  if (!readPfx(o, &pfx)) return 1;
  const PKCS12KeyAndCertificate found = pfx.keyAndCertificate();
  std::string out;
  if (found.key)
    out += o.has("out-password") ? encodePemPkcs8EncryptedPrivateKey(*found.key, o.get("out-password"))
                                 : encodePemPkcs8PrivateKey(*found.key);
  if (found.certificate) out += encodePemCertificate(*found.certificate);
  for (const auto& c : found.others) out += encodePemCertificate(*c);
  return writeOut(o.get("out"), out, found.key != nullptr) ? 0 : 1;
}

}  // namespace

int cmdPkcs12(int argc, char** argv) {
  Options o;
  if (!parseOptions(argc, argv, 2, kUsage, &o)) return 2;
  if (helpAsked(o, kUsage)) return 0;
  if (!o.positional.empty()) return fail("unexpected argument " + o.positional[0]);
  const int modes = o.flag("export") + o.flag("info") + o.flag("extract");
  if (modes != 1) return fail("pkcs12 needs one of --export, --info and --extract (see tessel pkcs12 --help)");
  if (o.flag("export")) return exportCommand(o);
  if (!o.has("in")) return fail("pkcs12 needs --in");
  return o.flag("info") ? infoCommand(o) : extractCommand(o);
}
