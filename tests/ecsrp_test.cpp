// MS-CHAPv2 against the RFC 2759 / RFC 3079 samples; curve25519 in Weierstrass form, checked
// against the independent X25519 ladder; and the EC-SRP client against a server written here
// from the same mathematics, in both modes.
#include <algorithm>
#include <string>

#include "support.h"
#include "tessel/ecsrp.h"
#include "tessel/hash.h"
#include "tessel/mschapv2.h"
#include "tessel/x25519.h"

namespace tessel {
namespace {

using test::Bytes;
using test::field;
using test::fromHex;
using test::toHex;

std::string str(const Bytes& b) { return std::string(b.begin(), b.end()); }
std::string hexOf(const std::string& s) { return toHex(test::bytesOf(s)); }

TEST(MsChapV2, Rfc2759AndRfc3079) {
  LOAD_VECTORS(cases, "kat/mschapv2.json");
  for (const auto& c : cases) {
    SCOPED_TRACE(c["id"].get<std::string>());
    if (c.contains("peer_challenge")) {
      MSCHAPv2 m(str(*field(c, "user_name")), str(*field(c, "password")), *field(c, "authenticator_challenge"),
                 *field(c, "peer_challenge"));
      EXPECT_EQ(toHex(m.ntResponse), c["nt_response"]);
      EXPECT_EQ(m.getReply(), c["authenticator_response_string"]);
      EXPECT_EQ(hexOf(m.getMasterKey()), "fdece3717a8c838cb388e527ae3cdd31");  // RFC 3079 3.5.3
      continue;
    }
    // (The RC4 samples beside the session keys are RC4 known answers, checked in block_test.cpp.)
    const std::string master = str(*field(c, "master_key"));
    // The server's send key is the client's receive key; 40- and 56-bit samples give the first
    // 8 bytes of the same start key.
    const bool full = c.contains("server_send_start_key_128");
    for (bool server : {true, false}) {
      const std::string send = hexOf(makeSessionKey(master, server, server));
      const std::string receive = hexOf(makeSessionKey(master, !server, server));
      EXPECT_EQ(full ? send : send.substr(0, 16), c[full ? "server_send_start_key_128" : "server_send_start_key_64"]);
      EXPECT_EQ(receive, c.value("server_receive_start_key_128", receive));
    }
  }
}

TEST(MsChapV2, LongPasswordsAreCutTo256Characters) {
  std::string password(300, 'p');
  for (std::size_t i = 0; i < password.size(); ++i) password[i] = static_cast<char>('a' + i % 26);
  const Bytes auth(16, 1), peer(16, 2);
  const MSCHAPv2 full("user", password, auth, peer), cut("user", password.substr(0, 256), auth, peer);
  EXPECT_EQ(full.ntResponse, cut.ntResponse);
  EXPECT_EQ(full.getReply(), cut.getReply());
  EXPECT_NE(full.ntResponse, MSCHAPv2("user", password.substr(0, 255), auth, peer).ntResponse);
}

// Values from Python's hashlib (tests/data/gen_num_auth.py), labels spelled as the protocol has them.
TEST(MsChapV2, MakeChallengeLabels) {
  const nlohmann::json cases = test::dataFile("num_auth.json");
  for (const auto& c : cases["makeChallenge"])
    EXPECT_EQ(toHex(makeChallenge(str(test::hexField(c, "key")), test::hexField(c, "data"), c["peer"])), c["challenge"])
        << c;
}

const Curve25519& curve() { return curve25519Instance(); }

// The Weierstrass arithmetic agrees with the Montgomery ladder of x25519.h on u-coordinates.
TEST(Curve25519, AgreesWithX25519Ladder) {
  test::TestRng rng(7748);
  for (int i = 0; i < 8; ++i) {
    Bytes k = rng.bytes(32), ours(32);
    x25519::publicKey(ours.data(), k.data());
    k[0] &= 248;  // the ladder clamps; do the same to the big-endian number
    k[31] = static_cast<unsigned char>((k[31] & 127) | 64);
    Bytes u = curve()
                  .toNum(curve().mul(BigNum(asn1::blob(Bytes(k.rbegin(), k.rend()))), curve().generator()), nullptr)
                  .bin(32);
    std::reverse(u.begin(), u.end());
    EXPECT_EQ(toHex(u), toHex(ours));
  }
}

TEST(Curve25519, EncodingAndGroupOrder) {
  const Curve25519& c = curve();
  EXPECT_EQ(Curve25519::getMod().str(), "7fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffed");
  EXPECT_EQ(&Curve25519::getMod(), &Mod25519Reducer().mod()) << "one modulus object for every reducer";
  EXPECT_EQ(c.getOrder().str(), "1000000000000000000000000000000014def9dea2f79cd65812631a5cf5d3ed");
  const auto G = c.generator();
  ASSERT_TRUE(c.isValid(G));
  const Bytes g = c.toBin(G);
  EXPECT_EQ(toHex(g), std::string(62, '0') + "0900") << "u = 9, selector 0 for the even y";
  EXPECT_EQ(toHex(c.toBin(c.fromBin(asn1::blob(g)))), toHex(g));
  Bytes odd = g, bad = g;
  odd[32] = 1;
  bad[32] = 2;
  unsigned selector = 0;
  EXPECT_EQ(c.toNum(c.fromBin(asn1::blob(odd)), &selector), BigNum(9u));
  EXPECT_EQ(selector, 1u);
  const auto minusG = c.fromBin(asn1::blob(odd));
  EXPECT_TRUE(c.add(G, minusG).isInfinity()) << "G + (-G)";
  EXPECT_EQ(toHex(c.toBin(c.negate(minusG))), toHex(g));
  EXPECT_EQ(toHex(c.toBin(c.add(c.mul(BigNum(5u), G), c.negate(c.mul(BigNum(3u), G))))),
            toHex(c.toBin(c.mul(BigNum(2u), G))));
  EXPECT_TRUE(c.mul(c.getOrder(), G).isInfinity());
  EXPECT_FALSE(c.isValid(c.fromBin(asn1::blob(bad))));
  EXPECT_FALSE(c.isValid(c.fromBin(asn1::blob(Bytes(g.begin(), g.end() - 1)))));
}

Bytes sha256(std::initializer_list<Bytes> parts) {
  SHA256 h;
  for (const Bytes& p : parts) h.update(std::span<const unsigned char>(p));
  return h.digest();
}

// The server's side: it knows the verifier V = i·G and its own scalar b.
struct SrpServer {
  Bytes salt = fromHex("000102030405060708090a0b0c0d0e0f"), verifier, B;
  BigNum b = BigNum(asn1::blob(Bytes(32, 0x51)));
  SrpServer(const std::string& user, const std::string& password) {
    verifier = pwdVerifier(pwdHash(user, password, salt));
    B = curve().toBin(curve().add(curve().mul(b, curve().generator()), redp1(curve(), Curve25519::getX(verifier))));
  }
  Bytes message() const {
    Bytes m = B;
    m.insert(m.end(), salt.begin(), salt.end());
    return m;
  }
  Bytes h(const Bytes& A) const { return sha256({Curve25519::getX(A), Curve25519::getX(B)}); }
  // z returns u(b·(A + h·V)), the server's view of the shared value.
  Bytes z(const Bytes& A) const {
    const auto sum = curve().add(curve().fromBin(asn1::blob(A)),
                                 curve().mul(BigNum(asn1::blob(h(A))), curve().fromBin(asn1::blob(verifier))));
    return curve().toNum(curve().mul(b, sum), nullptr).bin(0);
  }
};

const Bytes kClientKey(32, 0x2a);

TEST(ECSRP, SrpModeCompletes) {
  SrpServer server("alice", "secret");
  ECSRP client("alice", "secret", kClientKey);
  const Bytes challenge = client.getChallenge();
  ASSERT_EQ(challenge.size(), 33u + 5 + 1);
  EXPECT_EQ(toHex(Bytes(challenge.begin() + 33, challenge.end())), toHex(Bytes{'a', 'l', 'i', 'c', 'e', 0}));
  const Bytes A(challenge.begin(), challenge.begin() + 33);
  EXPECT_FALSE(client.verifyReply({})) << "no response yet";
  const Bytes proof = client.generateResponse(server.message()), z = server.z(A), h = server.h(A);
  EXPECT_EQ(toHex(proof), toHex(sha256({h, z}))) << "the server accepts the proof";
  EXPECT_EQ(client.getSessionKey(), str(sha256({z})));
  const Bytes reply = sha256({h, proof, z});
  Bytes longer = reply, flipped = reply;
  longer.insert(longer.begin(), 0);
  flipped[0] ^= 1;
  EXPECT_TRUE(client.verifyReply(reply));
  EXPECT_FALSE(client.verifyReply(longer));
  EXPECT_FALSE(client.verifyReply(flipped));
  // A wrong password gives a proof the server refuses, and its reply is refused in turn.
  ECSRP wrong("alice", "Secret", kClientKey);
  const Bytes A2 = wrong.getPublicKey(), badProof = wrong.generateResponse(server.message());
  ASSERT_EQ(badProof.size(), 32u);
  EXPECT_NE(toHex(badProof), toHex(sha256({server.h(A2), server.z(A2)})));
  EXPECT_FALSE(wrong.verifyReply(sha256({server.h(A2), badProof, server.z(A2)})));
}

TEST(ECSRP, MsChapModeCompletes) {
  const BigNum b(asn1::blob(fromHex("07" + std::string(62, '7'))));
  const Bytes B = curve().toBin(curve().mul(b, curve().generator()));
  ECSRP client("bob", "hunter2", kClientKey);
  const Bytes A = client.getPublicKey(), nt = client.generateResponse(B);
  const std::string key = str(curve().toNum(curve().mul(b, curve().fromBin(asn1::blob(A))), nullptr).bin(0));
  EXPECT_EQ(client.getSessionKey(), key);
  const MSCHAPv2 server("bob", "hunter2", makeChallenge(key, A, false), makeChallenge(key, B, true));
  EXPECT_EQ(toHex(nt), toHex(server.ntResponse));
  Bytes reply = test::bytesOf(server.getReply());
  EXPECT_FALSE(client.verifyReply(reply)) << "the leading byte is required";
  reply.insert(reply.begin(), 0x03);
  EXPECT_TRUE(client.verifyReply(reply));
  EXPECT_NE(toHex(ECSRP("bob", "hunter3", kClientKey).generateResponse(B)), toHex(server.ntResponse));
}

TEST(ECSRP, BadMessagesLeaveStateAlone) {
  SrpServer server("alice", "secret");
  ECSRP client("alice", "secret", kClientKey);
  ASSERT_EQ(client.generateResponse(server.message()).size(), 32u);
  const std::string key = client.getSessionKey();
  Bytes m = server.message();
  EXPECT_TRUE(client.generateResponse(Bytes(m.begin(), m.end() - 1)).empty()) << "48 bytes";
  m.push_back(0);
  EXPECT_TRUE(client.generateResponse(m).empty()) << "50 bytes";
  unsigned u = 2;  // a u with no point on the curve
  while (curve().isValid(curve().fromNum(BigNum(u), 0))) ++u;
  Bytes off = BigNum(u).bin(32);
  off.push_back(0);
  EXPECT_TRUE(client.generateResponse(off).empty());
  off.insert(off.end(), server.salt.begin(), server.salt.end());
  EXPECT_TRUE(client.generateResponse(off).empty());
  EXPECT_EQ(client.getSessionKey(), key);
}

// SHA-256(salt || SHA-256("a:b")), as Python's hashlib computes it: the separator and the salt
// both count, so "ab"/"c" and "a"/"bc" differ.
TEST(ECSRP, PasswordHashSeparatesFields) {
  for (const Bytes& salt : {Bytes{1}, Bytes{2}})
    EXPECT_EQ(toHex(pwdHash("a", "b", salt)), toHex(sha256({salt, sha256({test::bytesOf("a:b")})})));
}

}  // namespace
}  // namespace tessel
