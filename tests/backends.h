// Vector runners shared by the software objects and the kernel (AF_ALG) objects of the factory:
// every known answer and every OpenSSL comparison goes through the same code whichever backend
// computes it, and each object made is checked to come from the backend named.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "support.h"
#include "tessel/cipher.h"
#include "tessel/hash.h"

namespace tessel::test {

// Backend builds digests and ciphers by factory id, or null for what it does not offer, and
// fails the test when an object it made is not of its kind. Kernel ciphers take whole blocks
// only (CTR too), GCM only with 12-byte IVs, and send nothing for an empty message.
struct Backend {
  std::function<std::unique_ptr<Hash>(unsigned id)> hash;
  std::function<std::unique_ptr<Cipher>(unsigned id, const Bytes& key)> cipher;
  bool kernel = false;
};

// softwareBackend is the factory with offload off; kernelBackend the factory with offload on,
// for the algorithms with kernel drivers only, recording the driver names bound in `drivers`.
Backend softwareBackend();
Backend kernelBackend(std::set<std::string>* drivers);

// hashIdForName maps the algorithm names of the vector files ("SHA-256", "HMAC-SHA-256",
// Wycheproof's "HMACSHA256") to HashIDs.
unsigned hashIdForName(std::string name);

// Each runner returns how many vectors or random cases it checked.
using VectorRunner = int (*)(const Backend& b, const nlohmann::json& cases);
int digestKnownAnswers(const Backend& b, const nlohmann::json& cases);
int hmacKnownAnswers(const Backend& b, const nlohmann::json& cases);  // over the backend's digests
int modeKnownAnswers(const Backend& b, const nlohmann::json& cases);
int gcmWycheproof(const Backend& b, const nlohmann::json& file);

// A vector file, its runner, and how many of its cases the software and the kernel objects take.
struct VectorRun {
  const char* file;
  VectorRunner run;
  int software, kernel;
};
inline constexpr VectorRun kVectorRuns[] = {
    {"kat/sha.json", digestKnownAnswers, 52, 39},                // all but the SHA-384 ones in the kernel
    {"kat/hmac.json", hmacKnownAnswers, 35, 21},                 // HMAC-SHA-1, -256 and -512 in the kernel
    {"kat/modes.json", modeKnownAnswers, 14, 12},                // CBC, CTR, AES-128 CFB; no kernel CFB
    {"wycheproof/aes_gcm_test.json", gcmWycheproof, 133, 133}};  // 12-byte IVs, no 192-bit keys

#if TESSEL_HAVE_OPENSSL
// Random messages of every short length and around block edges, fed in random splits, through
// every digest the backend offers, against OpenSSL.
int digestsMatchOpenSsl(const Backend& b, int perAlgorithm);
// Random CBC (AES, DES, triple DES), CTR and CFB messages, encrypted and decrypted in chained
// calls of random lengths (whole blocks but the last), against OpenSSL.
int modesMatchOpenSsl(const Backend& b, int perRow);
// Random GCM messages with and without associated data, 12-byte and longer IVs, against OpenSSL.
int gcmMatchesOpenSsl(const Backend& b, int count);
#endif

}  // namespace tessel::test
