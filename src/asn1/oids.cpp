#include "tessel/oids.h"

namespace tessel::asn1 {

namespace {

const SignatureAlgorithm kSignatureAlgorithms[] = {
    {&oid::md5WithRsaEncryption, "MD5+RSA", keyRsa, hashMd5, true},
    {&oid::sha1WithRsaEncryption, "SHA1+RSA", keyRsa, hashSha1, true},
    {&oid::sha256WithRsaEncryption, "SHA256+RSA", keyRsa, hashSha256, true},
    {&oid::sha384WithRsaEncryption, "SHA384+RSA", keyRsa, hashSha384, true},
    {&oid::sha512WithRsaEncryption, "SHA512+RSA", keyRsa, hashSha512, true},
    {&oid::ecdsaWithSha1, "SHA1+ECDSA", keyEc, hashSha1, true},
    {&oid::ecdsaWithSha224, "SHA224+ECDSA", keyEc, hashNone, false},  // hash unused
    {&oid::ecdsaWithSha256, "SHA256+ECDSA", keyEc, hashSha256, true},
    {&oid::ecdsaWithSha384, "SHA384+ECDSA", keyEc, hashSha384, true},
    {&oid::ecdsaWithSha512, "SHA512+ECDSA", keyEc, hashSha512, true},
    {&oid::ed25519, "ED25519", keyEd25519, hashNone, true},
    {&oid::ed448, "ED448", keyEd25519, hashNone, false},  // key and hash unused
    // X25519 has no dump name; parseAlgosFromKeyInfo has always accepted it.
    {&oid::x25519, nullptr, keyX25519, hashNone, true},
    // RSASSA-PSS carries its digest in its parameters: only the signature-algorithm reader that
    // understands them accepts it, and dumps show it dotted.
    {&oid::rsassaPss, nullptr, keyRsa, hashNone, false},
};

const HmacAlgorithm kHmacAlgorithms[] = {
    {&oid::hmacWithSha1, hashSha1},
    {&oid::hmacWithSha256, hashSha256},
    {&oid::hmacWithSha512, hashSha512},
};

}  // namespace

std::span<const SignatureAlgorithm> signatureAlgorithms() { return kSignatureAlgorithms; }

const SignatureAlgorithm* findSignatureAlgorithm(blob oid) {
  for (const SignatureAlgorithm& a : kSignatureAlgorithms)
    if (a.oid->is(oid)) return &a;
  return nullptr;
}

std::span<const HmacAlgorithm> hmacAlgorithms() { return kHmacAlgorithms; }

HashID hmacHash(blob oid) {
  for (const HmacAlgorithm& h : kHmacAlgorithms)
    if (h.oid->is(oid)) return h.hash;
  return hashNone;
}

}  // namespace tessel::asn1
