// Signing and checking the envelope every signed X.509 object shares.
#include "tessel/x509.h"

namespace tessel {

bool X509Base::updateTbs(const PrivateKey&, HashID) { return false; }

std::vector<unsigned char> X509Base::signatureAlgorithmFor(const PrivateKey& key, HashID hash) {
  KeyType keyType = keyRsa;
  SignatureParams params;
  // sign leaves the identifier of its params here (PSS among them); anything else is replaced.
  if (!parseSignatureAlgorithm(asn1::blob(sigAlg), &keyType, &params) || keyType != key.getKeyType() ||
      params.hash != hash)
    sigAlg = encodeSignatureAlgorithm(key.getKeyType(), SignatureParams{hash});
  return sigAlg;
}

bool X509Base::sign(const PrivateKey& key, const SignatureParams& params) {
  signature.clear();
  sigAlg = encodeSignatureAlgorithm(key.getKeyType(), params);
  if (!sigAlg.empty() && updateTbs(key, params.hash)) signature = key.sign(asn1::blob(tbs), params);
  if (signature.empty()) sigAlg.clear();
  return !signature.empty();
}

bool X509Base::verify(const PublicKey& key) const {
  KeyType keyType = keyRsa;
  SignatureParams params;
  return parseSignatureAlgorithm(asn1::blob(sigAlg), &keyType, &params) && keyType == key.getKeyType() &&
         key.verify(asn1::blob(tbs), asn1::blob(signature), params);
}

}  // namespace tessel
