// Pieces of the enveloped-data code shared between its files (not a public header).
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/hash.h"
#include "tessel/rng.h"

namespace tessel::cms {

// ContentAlgorithm is what a content-encryption AlgorithmIdentifier says: AES-CBC with its IV,
// or AES-GCM with its nonce and tag length.
struct ContentAlgorithm {
  bool gcm = false;
  std::size_t keyLength = 0;
  std::vector<unsigned char> iv;  // the CBC IV or the GCM nonce
  unsigned tagLength = 0;         // GCM only
};

// parseContentAlgorithm reads a whole AES-CBC or AES-GCM AlgorithmIdentifier; false for any
// other algorithm, an IV that is not 16 bytes, a nonce that is not 12 bytes or a GCM tag
// length other than 16.
bool parseContentAlgorithm(asn1::blob der, ContentAlgorithm* out);

// pkcs7Unpad returns the unpadded length of the `length` bytes at `data` (a whole number of
// 16-byte blocks), or -1 when the padding is malformed. The padding is checked without a branch
// or an index that depends on it: only the verdict and, on success, the length leave.
long pkcs7Unpad(const unsigned char* data, std::size_t length);

// pwriWrap and pwriUnwrap are RFC 3211's key wrap over AES-CBC with `kek` and `iv`: a length
// byte, three check bytes and random padding to at least two blocks, encrypted twice. Unwrap
// returns a key of exactly `keyLength` bytes, empty on any failure (wrong password included).
std::vector<unsigned char> pwriWrap(asn1::blob kek, asn1::blob iv, asn1::blob cek, Rng& rng);
std::vector<unsigned char> pwriUnwrap(asn1::blob kek, asn1::blob iv, asn1::blob wrapped, std::size_t keyLength);

// eccSharedInfo writes ECC-CMS-SharedInfo { keyInfo, [0] ukm OPTIONAL, [2] key bits }.
std::vector<unsigned char> eccSharedInfo(asn1::blob wrapAlgorithm, asn1::blob ukm, std::size_t kekLength);

// wrapKeyLength is the key length of the AES key wrap a whole AlgorithmIdentifier names; 0
// for anything else.
std::size_t wrapKeyLength(asn1::blob wrapAlgorithm);

}  // namespace tessel::cms
