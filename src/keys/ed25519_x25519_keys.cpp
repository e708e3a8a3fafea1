// RFC 8410 key classes for Ed25519 and X25519.
#include "tessel/ed25519_x25519_keys.h"

#include <cstring>

#include "tessel/eddsa.h"
#include "tessel/hash.h"
#include "tessel/x25519.h"

namespace tessel {

namespace {

void writeHex(std::ostream& out, const std::array<unsigned char, 32>& bytes) {
  static const char digits[] = "0123456789abcdef";
  for (unsigned char b : bytes) out << digits[b >> 4] << digits[b & 15];
}

const char* label(KeyType type) { return type == keyEd25519 ? "ED25519" : "X25519"; }

}  // namespace

bool Key25519Public::parseFromDerEncoded(asn1::blob key, asn1::blob params) {
  if (!params.empty() || key.size() != publicKey.size()) return false;
  std::memcpy(publicKey.data(), key.data(), publicKey.size());
  return true;
}

std::vector<unsigned char> Key25519Public::encodeToDerEncoded() const { return {publicKey.begin(), publicKey.end()}; }

bool Key25519Public::equals(const PublicKey& other) const {
  if (other.getKeyType() != getKeyType()) return false;
  const auto* k = dynamic_cast<const Key25519Public*>(&other);
  return k && k->publicKey == publicKey;
}

void Key25519Public::dump(std::ostream& out) const {
  out << "[" << label(getKeyType()) << "-PUBLIC]\npublicKey: ";
  writeHex(out, publicKey);
  out << "\n";
}

Key25519Private::~Key25519Private() { std::memset(privateKey.data(), 0, privateKey.size()); }

bool Key25519Private::parseFromDerEncoded(asn1::blob key, asn1::blob params) {
  if (!params.empty()) return false;
  asn1::parser der(key);
  asn1::blob inner;
  if (!der.read(asn1::tagOctetString, &inner) || !der.atEnd()) return false;
  if (inner.size() != privateKey.size()) return false;
  setPrivateKey(inner.data());
  return true;
}

std::vector<unsigned char> Key25519Private::encodeToDerEncoded() const {
  DerEncoder enc;
  enc.addOctetString(asn1::blob(privateKey.data(), privateKey.size()));
  return std::move(enc.data);
}

void Key25519Private::dump(std::ostream& out) const {
  out << "[" << label(getKeyType()) << "-PRIVATE]\npublicKey: ";
  writeHex(out, publicKey);
  out << "\nprivateKey: ";
  writeHex(out, privateKey);
  out << "\n";
}

void Key25519Private::setPrivateKey(const unsigned char key[32]) {
  std::memcpy(privateKey.data(), key, privateKey.size());
  derivePublic();
}

bool Ed25519PublicKey::verify(asn1::blob message, asn1::blob signature) const {
  return eddsa::verify(signature.span(), message.span(), publicKey);
}

bool Ed25519PublicKey::verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const {
  return params == SignatureParams{} && verify(message, signature);
}

void Ed25519PrivateKey::derivePublic() { eddsa::publicKeyFromSeed(publicKey.data(), privateKey.data()); }

std::vector<unsigned char> Ed25519PrivateKey::sign(asn1::blob message) const {
  std::vector<unsigned char> sig(eddsa::signatureSize);
  eddsa::sign(sig.data(), message.span(), privateKey.data(), publicKey.data());
  return sig;
}

std::vector<unsigned char> Ed25519PrivateKey::signHashed(unsigned hashId, asn1::blob hash) const {
  if (hashId != hashNone) return {};
  return sign(hash);
}

void X25519PrivateKey::derivePublic() { x25519::publicKey(publicKey.data(), privateKey.data()); }

std::vector<unsigned char> X25519PrivateKey::agree(const PublicKey& peer) const {
  // PublicKey is a virtual base, so only dynamic_cast can find the X25519 part of the peer.
  const auto* x = peer.getKeyType() == keyX25519 ? dynamic_cast<const X25519PublicKey*>(&peer) : nullptr;
  return x ? deriveSharedSecret(*x) : std::vector<unsigned char>();
}

std::vector<unsigned char> X25519PrivateKey::deriveSharedSecret(const X25519PublicKey& peer) const {
  std::vector<unsigned char> secret(x25519::keySize);
  if (!x25519::scalarMult(secret.data(), privateKey.data(), peer.publicKey.data())) return {};
  return secret;
}

}  // namespace tessel
