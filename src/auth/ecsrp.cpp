// EC-SRP client over curve25519.
#include "tessel/ecsrp.h"

#include "tessel/hash.h"
#include "tessel/mschapv2.h"

namespace tessel {

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes sha256(std::initializer_list<asn1::blob> parts) {
  SHA256 h;
  for (asn1::blob part : parts) h.update(part.span());
  return h.digest();
}

asn1::blob text(const std::string& s) {
  return asn1::blob(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}

BigNum mod(const BigNum& a, const BigNum& m) {
  BigNum r;
  div(a, m, nullptr, &r);
  return r;
}

std::string asString(const Bytes& b) { return std::string(b.begin(), b.end()); }

}  // namespace

const Curve25519& curve25519Instance() {
  static const Curve25519 curve;
  return curve;
}

Bytes pwdHash(const std::string& user, const std::string& password, const Bytes& salt) {
  const Bytes inner = sha256({text(user), text(":"), text(password)});
  return sha256({asn1::blob(salt), asn1::blob(inner)});
}

Bytes pwdVerifier(const Bytes& i) {
  const Curve25519& c = curve25519Instance();
  return c.toBin(c.mul(BigNum(asn1::blob(i)), c.generator()));
}

Curve25519::Point redp1(const Curve25519& curve, const Bytes& x) {
  BigNum k(asn1::blob(sha256({asn1::blob(x)})));
  for (;;) {
    const BigNum m(asn1::blob(sha256({asn1::blob(k.bin(0))})));
    Curve25519::Point P = curve.fromNum(m, 0);
    if (curve.isValid(P)) return P;
    k += 1u;
  }
}

ECSRP::ECSRP(const std::string& user, const std::string& password, const Bytes& privateKey)
    : user_(user), password_(password), privateKey_(asn1::blob(privateKey)) {
  const Curve25519& c = curve25519Instance();
  publicKey_ = c.toBin(c.mul(privateKey_, c.generator()));
}

Bytes ECSRP::getChallenge() const {
  Bytes out = publicKey_;
  out.insert(out.end(), user_.begin(), user_.end());
  out.push_back(0);
  return out;
}

Bytes ECSRP::generateResponse(const Bytes& serverMessage) {
  if (serverMessage.size() == Curve25519::encodedSize) return generateMSCHAPResponse(serverMessage);
  if (serverMessage.size() == Curve25519::encodedSize + 16) {
    const Bytes B(serverMessage.begin(), serverMessage.begin() + Curve25519::encodedSize);
    const Bytes salt(serverMessage.begin() + Curve25519::encodedSize, serverMessage.end());
    return generateSRPResponse(B, salt);
  }
  return {};
}

Bytes ECSRP::generateSRPResponse(const Bytes& B, const Bytes& salt) {
  const Curve25519& c = curve25519Instance();
  const Bytes h = sha256({asn1::blob(Curve25519::getX(publicKey_)), asn1::blob(Curve25519::getX(B))});
  const Bytes i = pwdHash(user_, password_, salt);
  const Bytes V = pwdVerifier(i);
  const Curve25519::Point PB = c.fromBin(asn1::blob(B));
  if (!c.isValid(PB)) return {};
  // W is the server's key with the password blinding removed.
  const Curve25519::Point W = c.add(PB, c.negate(redp1(c, Curve25519::getX(V))));
  const BigNum e = mod(privateKey_ + BigNum(asn1::blob(h)) * BigNum(asn1::blob(i)), c.getOrder());
  const Bytes z = c.toNum(c.mul(e, W), nullptr).bin(0);
  sessionKey_ = asString(sha256({asn1::blob(z)}));
  const Bytes proof = sha256({asn1::blob(h), asn1::blob(z)});
  expectedReply_ = asString(sha256({asn1::blob(h), asn1::blob(proof), asn1::blob(z)}));
  srpMode_ = true;
  return proof;
}

Bytes ECSRP::generateMSCHAPResponse(const Bytes& B) {
  const Curve25519& c = curve25519Instance();
  const Curve25519::Point PB = c.fromBin(asn1::blob(B));
  if (!c.isValid(PB)) return {};
  sessionKey_ = asString(c.toNum(c.mul(privateKey_, PB), nullptr).bin(0));
  const MSCHAPv2 chap(user_, password_, makeChallenge(sessionKey_, publicKey_, false),
                      makeChallenge(sessionKey_, B, true));
  expectedReply_ = chap.getReply();
  return chap.ntResponse;
}

bool ECSRP::verifyReply(const Bytes& reply) const {
  if (expectedReply_.empty()) return false;
  if (srpMode_) return asString(reply) == expectedReply_;
  if (reply.size() != expectedReply_.size() + 1) return false;
  return std::string(reply.begin() + 1, reply.end()) == expectedReply_;
}

}  // namespace tessel
