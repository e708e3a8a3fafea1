// AES key wrap (RFC 3394) and key wrap with padding (RFC 5649): how CMS recipients and PKCS#11
// style stores carry one key under another.
#pragma once

#include "tessel/export.h"

#include <vector>

#include "tessel/blob.h"

namespace tessel {

// aesKeyWrap wraps `key` (a multiple of 8 bytes, at least 16) under the AES key `kek` (16, 24 or
// 32 bytes): 8 bytes longer than `key`. Empty for any other length.
TESSEL_API std::vector<unsigned char> aesKeyWrap(asn1::blob kek, asn1::blob key);
// aesKeyUnwrap undoes aesKeyWrap; empty when `kek` or the length is wrong or the integrity check
// fails. The check runs in constant time: nothing tells how close a forgery came.
TESSEL_API std::vector<unsigned char> aesKeyUnwrap(asn1::blob kek, asn1::blob wrapped);
// aesKeyWrapPad wraps a key of any length from 1 byte (RFC 5649): the result is the length
// rounded up to 8 bytes, plus 8. Empty for an empty key or a bad `kek`.
TESSEL_API std::vector<unsigned char> aesKeyWrapPad(asn1::blob kek, asn1::blob key);
// aesKeyUnwrapPad undoes aesKeyWrapPad; empty on a wrong `kek`, length, integrity value, length
// indicator or non-zero padding, all checked before the verdict is taken.
TESSEL_API std::vector<unsigned char> aesKeyUnwrapPad(asn1::blob kek, asn1::blob wrapped);

}  // namespace tessel
