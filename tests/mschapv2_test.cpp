#include "support.h"
#include "tessel/block.h"
#include "tessel/hash.h"
#include "tessel/mschapv2.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

std::string str(const Bytes& b) { return std::string(b.begin(), b.end()); }
Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

TEST(MsChapV2, Rfc2759AndRfc3079) {
  LOAD_VECTORS(cases, "kat/mschapv2.json");
  for (const auto& c : cases) {
    SCOPED_TRACE(c["id"].get<std::string>());
    if (c.contains("peer_challenge")) {
      MSCHAPv2 m(str(*test::field(c, "user_name")), str(*test::field(c, "password")),
                 *test::field(c, "authenticator_challenge"), *test::field(c, "peer_challenge"));
      EXPECT_EQ(toHex(m.ntResponse), c["nt_response"].get<std::string>());
      EXPECT_EQ(m.getReply(), c["authenticator_response_string"].get<std::string>());
      EXPECT_EQ(toHex(bytes(m.getMasterKey())), "fdece3717a8c838cb388e527ae3cdd31");  // RFC 3079 3.5.3
      continue;
    }
    std::string master = str(*test::field(c, "master_key"));
    // The sample message is RC4 under the session key printed beside it.
    for (const char* name : {"send_session_key_128", "send_session_key_40", "send_session_key_56"}) {
      if (!c.contains(name)) continue;
      Bytes key = *test::field(c, name), msg = *test::field(c, "sample_message"), out(msg.size());
      RC4 rc4;
      rc4.setKey(key.data(), static_cast<unsigned>(key.size()));
      rc4.encrypt(msg.data(), out.data(), static_cast<unsigned>(msg.size()));
      EXPECT_EQ(toHex(out), c["sample_encrypted_message"].get<std::string>()) << name;
    }
    if (c.contains("server_send_start_key_128")) {
      EXPECT_EQ(toHex(bytes(makeSessionKey(master, true, true))), c["server_send_start_key_128"].get<std::string>());
      EXPECT_EQ(toHex(bytes(makeSessionKey(master, false, false))), c["server_send_start_key_128"].get<std::string>());
      EXPECT_EQ(toHex(bytes(makeSessionKey(master, false, true))), c["server_receive_start_key_128"].get<std::string>());
      EXPECT_EQ(toHex(bytes(makeSessionKey(master, true, false))), c["server_receive_start_key_128"].get<std::string>());
    } else {
      // 40- and 56-bit samples: the first 8 bytes of the same start key.
      EXPECT_EQ(toHex(bytes(makeSessionKey(master, true, true))).substr(0, 16),
                c["server_send_start_key_64"].get<std::string>());
    }
  }
}

TEST(MsChapV2, LongPasswordsAreCutTo256Characters) {
  std::string password(300, 'p');
  for (std::size_t i = 0; i < password.size(); ++i) password[i] = static_cast<char>('a' + i % 26);
  Bytes auth(16, 1), peer(16, 2);
  MSCHAPv2 full(std::string("user"), password, auth, peer), cut(std::string("user"), password.substr(0, 256), auth, peer);
  EXPECT_EQ(full.ntResponse, cut.ntResponse);
  EXPECT_EQ(full.getReply(), cut.getReply());
  MSCHAPv2 shorter(std::string("user"), password.substr(0, 255), auth, peer);
  EXPECT_NE(full.ntResponse, shorter.ntResponse);
}

TEST(MsChapV2, MakeChallengeLabels) {
  std::string key = "shared key";
  Bytes data = {1, 2, 3};
  auto expected = [&](const std::string& label) {
    SHA1 sha;
    Bytes zeros(40, 0), f2(40, 0xf2);
    sha.update(key.data(), static_cast<unsigned>(key.size())).update(data).update(zeros);
    sha.update(label.data(), static_cast<unsigned>(label.size())).update(f2);
    Bytes d = sha.digest();
    return Bytes(d.begin(), d.begin() + 16);
  };
  EXPECT_EQ(makeChallenge(key, data, true), expected("This is for peer challenge"));
  EXPECT_EQ(makeChallenge(key, data, false), expected("This is for auther challenge"));
}

}  // namespace
}  // namespace tessel
