// MS-CHAPv2 responses and MPPE keys.
#include "tessel/mschapv2.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "tessel/block.h"
#include "tessel/hash.h"

namespace tessel {

namespace {

constexpr std::string_view kMagicServer = "Magic server to client signing constant";
constexpr std::string_view kMagicPad = "Pad to make it do more than one iteration";
constexpr std::string_view kMagicMaster = "This is the MPPE Master Key";
constexpr std::string_view kReceiveLabel =
    "On the client side, this is the receive key; on the server side, it is the send key.";
constexpr std::string_view kSendLabel =
    "On the client side, this is the send key; on the server side, it is the receive key.";

std::string asString(const std::vector<unsigned char>& v) { return std::string(v.begin(), v.end()); }

// sha1Pads is SHA-1(prefix... || 40 x 00 || label || 40 x F2), cut to 16 bytes: the shape of
// every MPPE derivation.
std::string sha1Pads(std::initializer_list<std::string_view> prefix, std::string_view label) {
  static const unsigned char zeros[40] = {};
  unsigned char f2[40];
  std::memset(f2, 0xf2, sizeof f2);
  SHA1 sha;
  for (std::string_view p : prefix) sha.update(p.data(), static_cast<unsigned>(p.size()));
  sha.update(zeros, 40).update(label.data(), static_cast<unsigned>(label.size())).update(f2, 40);
  return asString(sha.digest()).substr(0, 16);
}

std::string_view view(const std::vector<std::uint8_t>& v) {
  return {reinterpret_cast<const char*>(v.data()), v.size()};
}

}  // namespace

MSCHAPv2::MSCHAPv2(const std::string& user, const std::string& password,
                   const std::vector<std::uint8_t>& authenticatorChallenge, const std::vector<std::uint8_t>& peerChallenge)
    : ntResponse(24) {
  SHA1 sha;
  sha.update(peerChallenge).update(authenticatorChallenge).update(user.data(), static_cast<unsigned>(user.size()));
  challenge_ = asString(sha.digest()).substr(0, 8);

  std::vector<unsigned char> wide;
  for (char c : password) wide.insert(wide.end(), {static_cast<unsigned char>(c), 0});
  if (wide.size() > 512) wide.resize(512);
  MD4 md4;
  std::vector<unsigned char> z = md4.update(wide).digest();
  passwordHashHash_ = asString(md4.update(z).digest());

  z.resize(21);  // the password hash, zero-padded to three 7-byte DES keys
  for (unsigned k = 0; k < 3; ++k) {
    const unsigned char* s = z.data() + 7 * k;
    unsigned char key[8];
    key[0] = s[0];
    for (unsigned i = 1; i < 7; ++i) key[i] = static_cast<unsigned char>(s[i - 1] << (8 - i) | s[i] >> i);
    key[7] = static_cast<unsigned char>(s[6] << 1);
    DES(key).encrypt(reinterpret_cast<const unsigned char*>(challenge_.data()), ntResponse.data() + 8 * k);
  }
}

std::string MSCHAPv2::getReply() const {
  SHA1 sha;
  sha.update(passwordHashHash_.data(), 16).update(ntResponse).update(kMagicServer.data(), static_cast<unsigned>(kMagicServer.size()));
  std::vector<unsigned char> d = sha.digest();
  sha.update(d).update(challenge_.data(), 8).update(kMagicPad.data(), static_cast<unsigned>(kMagicPad.size()));
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string reply = "S=";
  for (unsigned char b : sha.digest()) reply += {digits[b >> 4], digits[b & 15]};
  return reply;
}

std::string MSCHAPv2::getMasterKey() const {
  SHA1 sha;
  sha.update(passwordHashHash_.data(), 16).update(ntResponse).update(kMagicMaster.data(), static_cast<unsigned>(kMagicMaster.size()));
  return asString(sha.digest()).substr(0, 16);
}

std::string makeSessionKey(const std::string& masterKey, bool isSend, bool isServer) {
  return sha1Pads({masterKey}, isSend == isServer ? kReceiveLabel : kSendLabel);
}

std::vector<std::uint8_t> makeChallenge(const std::string& key, const std::vector<std::uint8_t>& data, bool peer) {
  std::string c = sha1Pads({key, view(data)}, peer ? "This is for peer challenge" : "This is for auther challenge");
  return {c.begin(), c.end()};
}

}  // namespace tessel
