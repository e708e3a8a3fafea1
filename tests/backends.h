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
// fails the test when an object it made is not of its kind.
struct Backend {
  std::string name;
  std::function<std::unique_ptr<Hash>(unsigned id)> hash;
  std::function<std::unique_ptr<Cipher>(unsigned id, const Bytes& key)> cipher;
  // Kernel ciphers take whole blocks only (CTR too), GCM only with 12-byte IVs, and send
  // nothing for an empty message.
  bool kernel = false;
};

// softwareBackend is the factory with offload off.
Backend softwareBackend();

// kernelBackend is the factory with offload on, for the algorithms with kernel drivers only. It
// records the driver names bound in `drivers`.
Backend kernelBackend(std::set<std::string>* drivers);

// hashIdForName maps the algorithm names of the vector files ("SHA-256", "HMAC-SHA-256",
// Wycheproof's "HMACSHA256") to HashIDs.
unsigned hashIdForName(std::string name);

// Each runner returns how many vectors or random cases it checked.
int digestKnownAnswers(const Backend& b, const nlohmann::json& cases);
// HMAC over the backend's digests (kat/hmac.json).
int hmacKnownAnswers(const Backend& b, const nlohmann::json& cases);
int modeKnownAnswers(const Backend& b, const nlohmann::json& cases);
int gcmKnownAnswers(const Backend& b, const nlohmann::json& cases);
int gcmWycheproof(const Backend& b, const nlohmann::json& file);

#if TESSEL_HAVE_OPENSSL
// Random messages, fed in random splits, against OpenSSL (SHA-1, SHA-256, SHA-512).
int digestsMatchOpenSsl(const Backend& b, int perAlgorithm);
// Random CBC and CTR messages with every AES key size, in one call and in chained calls of
// whole blocks, encrypting and decrypting, against OpenSSL.
int modesMatchOpenSsl(const Backend& b, int perRow);
// Random GCM messages with and without associated data, against OpenSSL.
int gcmMatchesOpenSsl(const Backend& b, int count);
#endif

}  // namespace tessel::test
