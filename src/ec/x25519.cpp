// X25519 with the Montgomery ladder of RFC 7748 section 5.
#include "tessel/x25519.h"

#include "ec/edwards25519.h"
#include "ec/fe25519.h"

namespace tessel::x25519 {

using namespace fe25519;

bool scalarMult(unsigned char out[32], const unsigned char scalar[32], const unsigned char u[32]) {
  unsigned char k[32];
  for (int i = 0; i < 32; ++i) k[i] = scalar[i];
  k[0] &= 248;
  k[31] &= 127;
  k[31] |= 64;

  const Fe x1 = fromBytes(u);
  Fe x2 = one(), z2 = zero(), x3 = x1, z3 = one();
  std::uint32_t swap = 0;
  for (int t = 254; t >= 0; --t) {
    const std::uint32_t bit = (k[t >> 3] >> (t & 7)) & 1;
    swap ^= bit;
    cswap(x2, x3, swap);
    cswap(z2, z3, swap);
    swap = bit;

    const Fe a = add(x2, z2), aa = sqr(a);
    const Fe b = sub(x2, z2), bb = sqr(b);
    const Fe e = sub(aa, bb);
    const Fe c = add(x3, z3), d = sub(x3, z3);
    const Fe da = mul(d, a), cb = mul(c, b);
    x3 = sqr(add(da, cb));
    z3 = mul(x1, sqr(sub(da, cb)));
    x2 = mul(aa, bb);
    z2 = mul(e, add(aa, mulSmall(e, 121665)));
  }
  cswap(x2, x3, swap);
  cswap(z2, z3, swap);
  toBytes(out, mul(x2, invert(z2)));

  unsigned char acc = 0;
  for (int i = 0; i < 32; ++i) acc |= out[i];
  for (auto& b : k) b = 0;
  return acc != 0;  // the result is public by now: it is the shared secret's zero check
}

void publicKey(unsigned char out[32], const unsigned char privateKey[32]) {
  // The same value as the ladder from u = 9, from the Edwards base-point table in a quarter of
  // the time.
  unsigned char k[32];
  for (int i = 0; i < 32; ++i) k[i] = privateKey[i];
  k[0] &= 248;
  k[31] &= 127;
  k[31] |= 64;
  edwards25519::baseMultU(out, k);
  for (auto& b : k) b = 0;
}

}  // namespace tessel::x25519
