// MS-CHAPv2 (RFC 2759) for the peer, with the MPPE keys of RFC 3079, and the challenge
// derivation used by the EC-SRP login exchange.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel {

// MSCHAPv2 computes, in its constructor, the peer's NT-Response to an authenticator challenge.
// The password is widened byte by byte to UTF-16LE (each byte b becomes b, 0), and cut to 512
// bytes (256 characters). The user name is used as given.
class TESSEL_API MSCHAPv2 {
 public:
  MSCHAPv2(const std::string& user, const std::string& password,
           const std::vector<std::uint8_t>& authenticatorChallenge, const std::vector<std::uint8_t>& peerChallenge);

  // getReply returns the authenticator response the server must send: "S=" and 40 upper-case
  // hexadecimal digits.
  std::string getReply() const;
  // getMasterKey returns the 16-byte MPPE master key.
  std::string getMasterKey() const;

 private:
  std::string challenge_;         // the 8-byte ChallengeHash
  std::string passwordHashHash_;  // MD4(MD4(password))

 public:
  std::vector<std::uint8_t> ntResponse;  // 24 bytes
};

// makeSessionKey returns the 16-byte MPPE start key (RFC 3079 GetAsymmetricStartKey) for the
// given direction and side; (send, server) equals (receive, client) and vice versa.
TESSEL_API std::string makeSessionKey(const std::string& masterKey, bool isSend, bool isServer);

// makeChallenge derives a 16-byte challenge from a shared key and `data`, for the peer or for
// the authenticator.
TESSEL_API std::vector<std::uint8_t> makeChallenge(const std::string& key, const std::vector<std::uint8_t>& data,
                                                   bool peer);

}  // namespace tessel
