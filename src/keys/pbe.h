// Password-based encryption shared by encrypted PKCS#8 keys and PKCS#12 files: CBC with PKCS#5
// padding, the PKCS#12 key derivation (RFC 7292 appendix B) and the PKCS#12 PBE schemes
// (appendix C). Not a public header.
#pragma once

#include <string_view>
#include <vector>

#include "tessel/algorithm_id.h"
#include "tessel/block.h"
#include "tessel/hash.h"
#include "tessel/oids.h"

namespace tessel::pbe {

using Bytes = std::vector<unsigned char>;

// iterationsOk refuses a count of 0 or above `max` and says why on one line
// ("PKCS8: unsupported iteration count: <n>").
bool iterationsOk(unsigned iterations, unsigned max);

// padAndEncrypt appends PKCS#5 padding to `plaintext` and encrypts it in CBC mode from `iv`.
Bytes padAndEncrypt(BlockCipher& cipher, Bytes iv, asn1::blob plaintext);
// decryptAndUnpad decrypts whole CBC blocks into `out` and removes the PKCS#5 padding, judged
// in constant time; false (and `out` wiped and emptied) when the input is not whole blocks or
// the padding is wrong, which is how a wrong password shows.
bool decryptAndUnpad(BlockCipher& cipher, Bytes iv, asn1::blob data, Bytes& out);

// bmpPassword turns a UTF-8 password into the big-endian UTF-16 string with two trailing zero
// bytes that the PKCS#12 key derivation hashes. Bytes that are not valid UTF-8 are taken one
// for one. (An absent password, unlike this, is no bytes at all.)
Bytes bmpPassword(std::string_view password);

// pkcs12Kdf derives `n` bytes for purpose `id` (1 key, 2 IV, 3 MAC key) from the password bytes
// as hashed (bmpPassword's, or none), `salt` and `iterations` (at least 1) with the digest `h`,
// which must be at a message boundary and is left at one.
Bytes pkcs12Kdf(Hash& h, unsigned char id, asn1::blob password, asn1::blob salt, unsigned iterations, unsigned n);

// Pkcs12Scheme is one of the PKCS#12 PBEs: SHA-1 derives the key and IV for a CBC cipher.
struct Pkcs12Scheme {
  const asn1::Oid* oid;
  unsigned keyBytes;
  unsigned rc2Bits;  // RC2's effective key length; 0 for triple DES
};
// findPkcs12Scheme is the scheme of a PBE OID (content bytes): pbeWithSHAAnd3-KeyTripleDES-CBC,
// pbeWithSHAAnd2-KeyTripleDES-CBC, pbeWithSHAAnd128BitRC2-CBC or pbeWithSHAAnd40BitRC2-CBC;
// null for anything else.
const Pkcs12Scheme* findPkcs12Scheme(asn1::blob oid);
// pkcs12Crypt runs a PKCS#12 PBE in either direction; `params` is the whole parameters element
// SEQUENCE { salt, iterations }, `password` the bytes hashed (see pkcs12Kdf). Counts above
// `maxIterations` are refused. False on any failure.
bool pkcs12Crypt(const Pkcs12Scheme& scheme, asn1::blob params, asn1::blob password, asn1::blob data, Bytes& out,
                 bool encrypt, unsigned maxIterations);
// iterationCount reads the iteration count of a PKCS#12 PBE's or PBES2's parameters, without
// deriving anything; 0 when they cannot be read or the scheme is another.
unsigned iterationCount(const AlgorithmIdentifier& alg);

}  // namespace tessel::pbe
