// What every key shares: signing a whole message through signHashed, and the public part of a
// private key as an object of its own.
#include "tessel/keys.h"

#include "tessel/pkcs8.h"

namespace tessel {

bool PublicKey::verify(asn1::blob, asn1::blob, const SignatureParams&) const { return false; }

std::vector<unsigned char> PrivateKey::sign(asn1::blob message, const SignatureParams& params) const {
  if (params.pss) return {};
  if (params.hash == hashNone) return signHashed(hashNone, message);
  const std::vector<unsigned char> digest = calcDigest(params.hash, message);
  if (digest.empty()) return {};
  return signHashed(params.hash, asn1::blob(digest));
}

std::shared_ptr<PublicKey> PrivateKey::publicPart() const {
  const std::vector<unsigned char> body = encodePublicKey();
  const std::vector<unsigned char> params = encodeParams();
  std::shared_ptr<PublicKey> key = makePublicKey(getKeyType());
  if (body.empty() || !key || !key->parseFromDerEncoded(asn1::blob(body), asn1::blob(params))) return nullptr;
  return key;
}

}  // namespace tessel
