// EC-SRP client: a password-authenticated key exchange over curve25519 (curve25519_weierstrass.h), with an
// SRP mode (49-byte server message) and an MS-CHAPv2 mode (33-byte server message).
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <string>
#include <vector>

#include "tessel/bignum.h"
#include "tessel/curve25519_weierstrass.h"

namespace tessel {

class TESSEL_API ECSRP {
 public:
  // ECSRP stores the credentials and the private scalar (big-endian, used as given: no
  // clamping, no reduction) and computes the public key toBin(a·G).
  ECSRP(const std::string& user, const std::string& password, const std::vector<std::uint8_t>& privateKey);

  // getChallenge returns the first client message: public key, user name, one zero byte.
  std::vector<std::uint8_t> getChallenge() const;
  // generateResponse answers a 33-byte server message in MS-CHAPv2 mode and a 49-byte one
  // (B, then a 16-byte salt) in SRP mode; any other length gives an empty vector.
  std::vector<std::uint8_t> generateResponse(const std::vector<std::uint8_t>& serverMessage);
  // generateSRPResponse returns the 32-byte client proof, or empty when B is not a valid point
  // (nothing changes then).
  std::vector<std::uint8_t> generateSRPResponse(const std::vector<std::uint8_t>& B,
                                                const std::vector<std::uint8_t>& salt);
  // generateMSCHAPResponse returns the 24-byte NT-Response, or empty when B is not valid.
  std::vector<std::uint8_t> generateMSCHAPResponse(const std::vector<std::uint8_t>& B);
  // verifyReply checks the server's final message: in SRP mode equal to the expected proof; in
  // MS-CHAPv2 mode one leading byte (ignored) and then the expected "S=" string. False before
  // any response.
  bool verifyReply(const std::vector<std::uint8_t>& reply) const;
  // getSessionKey is the shared secret of the last successful response (empty before).
  const std::string& getSessionKey() const { return sessionKey_; }
  // getPublicKey is the 33-byte encoding of a·G.
  const std::vector<std::uint8_t>& getPublicKey() const { return publicKey_; }

 private:
  std::string user_;
  std::string password_;
  BigNum privateKey_;
  std::vector<std::uint8_t> publicKey_;
  bool srpMode_ = false;
  std::string expectedReply_;
  std::string sessionKey_;
};

// curve25519Instance returns the shared, immutable curve the exchange runs on.
TESSEL_API const Curve25519& curve25519Instance();

// pwdHash returns SHA-256(salt ‖ SHA-256(user ‖ ":" ‖ password)).
TESSEL_API std::vector<std::uint8_t> pwdHash(const std::string& user, const std::string& password,
                                             const std::vector<std::uint8_t>& salt);
// pwdVerifier returns toBin(i·G) for the number i (big-endian bytes).
TESSEL_API std::vector<std::uint8_t> pwdVerifier(const std::vector<std::uint8_t>& i);
// redp1 hashes x to a curve point by try-and-increment: k = SHA-256(x); until fromNum(
// SHA-256(bin(k)), 0) is valid, k = k + 1. The loop has no bound (each try succeeds with
// probability about 1/2).
TESSEL_API Curve25519::Point redp1(const Curve25519& curve, const std::vector<std::uint8_t>& x);

}  // namespace tessel
