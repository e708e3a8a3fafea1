// curve25519 in Weierstrass form, checked against the independent X25519 ladder, and the EC-SRP
// client against a server written here from the same mathematics, in both modes.
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
using test::fromHex;
using test::toHex;

const Curve25519& curve() { return curve25519Instance(); }

// The Weierstrass arithmetic agrees with the Montgomery ladder of x25519.h on u-coordinates.
TEST(Curve25519, AgreesWithX25519Ladder) {
  test::TestRng rng(7748);
  for (int i = 0; i < 8; ++i) {
    Bytes k = rng.bytes(32), ours(32);
    x25519::publicKey(ours.data(), k.data());
    // The ladder clamps; do the same to the big-endian number.
    k[0] &= 248;
    k[31] = static_cast<unsigned char>((k[31] & 127) | 64);
    Bytes be(k.rbegin(), k.rend());
    Bytes u = curve().toNum(curve().mul(BigNum(asn1::blob(be)), curve().generator()), nullptr).bin(32);
    std::reverse(u.begin(), u.end());
    EXPECT_EQ(toHex(u), toHex(ours));
  }
}

TEST(Curve25519, EncodingAndGroupOrder) {
  const Curve25519& c = curve();
  EXPECT_EQ(Curve25519::getMod().str(), "7fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffed");
  EXPECT_EQ(&Curve25519::getMod(), &Mod25519Reducer().mod()) << "one modulus object for every reducer";
  const auto G = c.generator();
  ASSERT_TRUE(c.isValid(G));
  Bytes g = c.toBin(G);
  ASSERT_EQ(g.size(), 33u);
  EXPECT_EQ(toHex(Curve25519::getX(g)), "0000000000000000000000000000000000000000000000000000000000000009");
  EXPECT_EQ(g[32], 0) << "selector 0 is the even y";
  EXPECT_EQ(toHex(c.toBin(c.fromBin(asn1::blob(g)))), toHex(g));
  Bytes odd = g;
  odd[32] = 1;
  unsigned selector = 0;
  EXPECT_EQ(c.toNum(c.fromBin(asn1::blob(odd)), &selector), BigNum(9u));
  EXPECT_EQ(selector, 1u);
  const auto minusG = c.fromBin(asn1::blob(odd));
  EXPECT_TRUE(c.add(G, minusG).isInfinity()) << "G + (-G)";
  EXPECT_EQ(toHex(c.toBin(c.negate(minusG))), toHex(g));
  EXPECT_EQ(toHex(c.toBin(c.add(c.mul(BigNum(5u), G), c.negate(c.mul(BigNum(3u), G))))),
            toHex(c.toBin(c.mul(BigNum(2u), G))));
  EXPECT_TRUE(c.mul(c.getOrder(), G).isInfinity());
  EXPECT_EQ(c.getOrder().str(), "1000000000000000000000000000000014def9dea2f79cd65812631a5cf5d3ed");
  Bytes bad = g;
  bad[32] = 2;
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
  Bytes salt = fromHex("000102030405060708090a0b0c0d0e0f");
  BigNum b = BigNum(asn1::blob(fromHex("5151515151515151515151515151515151515151515151515151515151515151")));
  Bytes verifier;
  Bytes B;
  SrpServer(const std::string& user, const std::string& password) {
    verifier = pwdVerifier(pwdHash(user, password, salt));
    const Curve25519& c = curve();
    B = c.toBin(c.add(c.mul(b, c.generator()), redp1(c, Curve25519::getX(verifier))));
  }
  Bytes message() const {
    Bytes m = B;
    m.insert(m.end(), salt.begin(), salt.end());
    return m;
  }
  // finish returns z = u(b·(A + h·V)), the server's view of the shared value.
  Bytes z(const Bytes& A) const {
    const Curve25519& c = curve();
    const BigNum h(asn1::blob(sha256({Curve25519::getX(A), Curve25519::getX(B)})));
    const auto sum = c.add(c.fromBin(asn1::blob(A)), c.mul(h, c.fromBin(asn1::blob(verifier))));
    return c.toNum(c.mul(b, sum), nullptr).bin(0);
  }
};

const Bytes kClientKey = fromHex("2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a2a");

TEST(ECSRP, SrpModeCompletes) {
  SrpServer server("alice", "secret");
  ECSRP client("alice", "secret", kClientKey);
  const Bytes challenge = client.getChallenge();
  ASSERT_EQ(challenge.size(), 33u + 5 + 1);
  EXPECT_EQ(toHex(Bytes(challenge.begin() + 33, challenge.end())), toHex(Bytes{'a', 'l', 'i', 'c', 'e', 0}));
  const Bytes A(challenge.begin(), challenge.begin() + 33);
  EXPECT_FALSE(client.verifyReply({})) << "no response yet";

  const Bytes proof = client.generateResponse(server.message());
  ASSERT_EQ(proof.size(), 32u);
  const Bytes z = server.z(A);
  const Bytes h = sha256({Curve25519::getX(A), Curve25519::getX(server.B)});
  EXPECT_EQ(toHex(proof), toHex(sha256({h, z}))) << "the server accepts the proof";
  const Bytes key = sha256({z});
  EXPECT_EQ(client.getSessionKey(), std::string(key.begin(), key.end()));
  const Bytes reply = sha256({h, proof, z});
  EXPECT_TRUE(client.verifyReply(reply));
  Bytes longer = reply;
  longer.insert(longer.begin(), 0);
  EXPECT_FALSE(client.verifyReply(longer));
  Bytes flipped = reply;
  flipped[0] ^= 1;
  EXPECT_FALSE(client.verifyReply(flipped));
  // A wrong password gives a proof the server refuses, and its reply is refused in turn.
  ECSRP wrong("alice", "Secret", kClientKey);
  const Bytes A2 = wrong.getPublicKey(), badProof = wrong.generateResponse(server.message());
  ASSERT_EQ(badProof.size(), 32u);
  const Bytes z2 = server.z(A2), h2 = sha256({Curve25519::getX(A2), Curve25519::getX(server.B)});
  EXPECT_NE(toHex(badProof), toHex(sha256({h2, z2})));
  EXPECT_FALSE(wrong.verifyReply(sha256({h2, badProof, z2})));
}

TEST(ECSRP, MsChapModeCompletes) {
  const Curve25519& c = curve();
  const BigNum b(asn1::blob(fromHex("0777777777777777777777777777777777777777777777777777777777777777")));
  const Bytes B = c.toBin(c.mul(b, c.generator()));
  ECSRP client("bob", "hunter2", kClientKey);
  const Bytes A = client.getPublicKey();
  const Bytes nt = client.generateResponse(B);
  ASSERT_EQ(nt.size(), 24u);
  const Bytes z = c.toNum(c.mul(b, c.fromBin(asn1::blob(A))), nullptr).bin(0);
  const std::string key(z.begin(), z.end());
  EXPECT_EQ(client.getSessionKey(), key);
  const MSCHAPv2 server("bob", "hunter2", makeChallenge(key, A, false), makeChallenge(key, B, true));
  EXPECT_EQ(toHex(nt), toHex(server.ntResponse));
  const std::string s = server.getReply();
  Bytes reply(s.begin(), s.end());
  EXPECT_FALSE(client.verifyReply(reply)) << "the leading byte is required";
  reply.insert(reply.begin(), 0x03);
  EXPECT_TRUE(client.verifyReply(reply));
  // A wrong password gives another NT-Response.
  ECSRP wrong("bob", "hunter3", kClientKey);
  EXPECT_NE(toHex(wrong.generateResponse(B)), toHex(server.ntResponse));
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
  // A u with no point on the curve.
  unsigned u = 2;
  while (curve().isValid(curve().fromNum(BigNum(u), 0))) ++u;
  Bytes off = BigNum(u).bin(32);
  off.push_back(0);
  EXPECT_TRUE(client.generateResponse(off).empty());
  off.insert(off.end(), server.salt.begin(), server.salt.end());
  EXPECT_TRUE(client.generateResponse(off).empty());
  EXPECT_EQ(client.getSessionKey(), key);
}

TEST(ECSRP, PasswordHashSeparatesFields) {
  const Bytes s1 = fromHex("01"), s2 = fromHex("02");
  // SHA-256(salt || SHA-256("a:b")), as Python's hashlib computes it: the separator and the salt
  // both count, so "ab"/"c" and "a"/"bc" differ.
  for (const Bytes& salt : {s1, s2})
    EXPECT_EQ(toHex(pwdHash("a", "b", salt)), toHex(sha256({salt, sha256({test::bytesOf("a:b")})})));
}

}  // namespace
}  // namespace tessel
