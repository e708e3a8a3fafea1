// EC keys over the NIST prime curves P-192 to P-521 (KeyType 2): SEC 1 points in
// SubjectPublicKeyInfo, RFC 5915 ECPrivateKey bodies, ECDSA with RFC 6979 deterministic nonces
// and ECDH.
//
// The AlgorithmIdentifier parameters are the namedCurve OID; any other parameters (another
// OID, explicit curve parameters, implicitCA) are refused with one line "[ERR] unknown ec id "
// and the parameters' text on standard output. ECDSA signatures are the DER SEQUENCE
// { INTEGER r, INTEGER s }, read with the library's DER reader, which accepts the non-minimal
// length forms; (r, s) must still be in [1, n-1]. Signing, ECDH and the derivation of the public
// key run in constant time in the private scalar and the nonce (complete formulas over
// fixed-width arithmetic); verification uses ec.h's variable-time arithmetic on public data.
#pragma once

#include "tessel/export.h"

#include "tessel/ec.h"
#include "tessel/keys.h"
#include "tessel/rng.h"

namespace tessel {

// getCurveOid returns the namedCurve OID content bytes of a curve, empty for an unknown one.
TESSEL_API asn1::blob getCurveOid(Curve c);
// getCurveName returns "P-192" ... "P-521", or "unknown".
TESSEL_API const char* getCurveName(Curve c);

class TESSEL_API EcPublicKey : public virtual PublicKey {
 public:
  Curve curve = Curve::p256;
  ECPoint Q;  // the public point

  // parseFromDerEncoded reads a SEC 1 point (uncompressed 04 or compressed 02/03) whose
  // coordinates are below p and which lies on the curve named by `params` (the DER of the OID).
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded writes the uncompressed point.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // encodeParams writes the namedCurve OID element.
  std::vector<unsigned char> encodeParams() const override;
  bool equals(const PublicKey& other) const override;
  KeyType getKeyType() const override { return keyEc; }
  // dump writes "[EC-PUBLIC]", "\ncurve: " and the curve name, "\npoint: " and the hex of the
  // uncompressed point, then end of line.
  void dump(std::ostream& out) const override;

  std::vector<unsigned char> encodePublicKey() const override { return EcPublicKey::encodeToDerEncoded(); }
  // verify digests `message` with SHA-1 to SHA-512 and checks the ECDSA signature, which must
  // be DER to the letter (minimal lengths, minimal positive INTEGERs); false for any other
  // digest or for PSS.
  bool verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const override;
  // verifyLenient is verify with verifyHashed's reading of the signature (non-minimal lengths
  // accepted), as stored certificates have always been checked.
  bool verifyLenient(asn1::blob message, asn1::blob signature, const SignatureParams& params) const override;
  // verifyHashed checks the DER ECDSA signature `signature` of the digest `hash` (truncated to
  // the order's bit length as ECDSA does). Public data only.
  bool verifyHashed(asn1::blob hash, asn1::blob signature) const;

 protected:
  // parseCurveParams sets `curve` from the OID element in `params`, printing the unknown-id line
  // when it names no supported curve.
  bool parseCurveParams(asn1::blob params);
};

class TESSEL_API EcPrivateKey : public EcPublicKey, public PrivateKey {
 public:
  BigNum d;  // the private scalar, in [1, n-1]

  ~EcPrivateKey() override;
  // parseFromDerEncoded reads an RFC 5915 ECPrivateKey: version 1, the scalar, an optional
  // [0] namedCurve and an optional [1] public key. The curve comes from `params` when present
  // (as inside PKCS#8), otherwise from [0]; if both are there they must agree. The public point
  // is computed from d and must match [1] when it is given.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded writes version 1, d in the curve's byte length and [1] the public point;
  // the curve stays in the enclosing AlgorithmIdentifier, as PKCS#8 has it.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // dump writes the public dump with "[EC-PRIVATE]" and a "\nprivateKey: " line (d in hex).
  void dump(std::ostream& out) const override;
  // signHashed returns the DER ECDSA signature of the digest `hash`, computed with the RFC 6979
  // nonce over HMAC with the digest `hashId` (SHA-1 to SHA-512). Empty for another hashId.
  std::vector<unsigned char> signHashed(unsigned hashId, asn1::blob hash) const override;
  // deriveSharedSecret returns the ECDH secret, the x-coordinate of d·Q as the curve's byte
  // length; empty when `peer` is on another curve or its point Q does not lie on the curve.
  std::vector<unsigned char> deriveSharedSecret(const EcPublicKey& peer) const;
  // agree is deriveSharedSecret for a peer that is an EC key; empty for any other.
  std::vector<unsigned char> agree(const PublicKey& peer) const override;
  // setPrivateKey installs d on `c` and computes Q; false when d is not in [1, n-1].
  bool setPrivateKey(Curve c, const BigNum& scalar);
  // generate installs a scalar drawn uniformly from [1, n-1] on `c` with `rng` (by rejection) and
  // computes Q. False for an unknown curve or when rng fails; the key is then unspecified.
  bool generate(Curve c, Rng& rng);
};

}  // namespace tessel
