// Constant-time fixed-width Montgomery arithmetic (not a public header), for the operations that
// take secrets: the RSA private exponentiation and the NIST-curve scalar multiplications.
//
// A MontModulus fixes an odd, public modulus n of `limbs()` limbs. Every residue is an array of
// exactly that many limbs, least significant first, holding a value below n in Montgomery form
// (x·R mod n, R = 2^(limbBits·limbs())). Every operation reads and writes all limbs and takes the
// same path whatever the values: no branch and no memory index depends on them. Only n, the limb
// count and the bit length of exponents are public.
//
// Limbs are 64-bit where the compiler has a 128-bit product (64-bit targets) and 32-bit otherwise,
// so that the 32-bit build runs the same code on its own word size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tessel/bignum.h"

namespace tessel::ct {

#if defined(__SIZEOF_INT128__)
using Limb = std::uint64_t;
#else
using Limb = std::uint32_t;
#endif
inline constexpr unsigned limbBits = 8 * sizeof(Limb);

// SecretModulus tags the constructor for a modulus that is itself secret (an RSA prime).
struct SecretModulus {};

class MontModulus {
 public:
  // MontModulus prepares arithmetic modulo the odd number n (asserted), which is public.
  explicit MontModulus(const BigNum& n);
  // MontModulus(n, SecretModulus) does the same for a secret odd n without looking at its value:
  // nothing asserts that n is odd (a caller that cannot vouch for it checks its results), and
  // only its digit count is public. bits() is then secret too.
  MontModulus(const BigNum& n, SecretModulus);

  // limbs is the fixed width of every residue; bits is the bit length of n.
  std::size_t limbs() const { return n_.size(); }
  unsigned bits() const { return bits_; }
  const Limb* modulus() const { return n_.data(); }

  // mul sets r = a·b·R⁻¹ mod n, fully reduced; r may alias a or b. sqr is mul(r, a, a).
  void mul(Limb* r, const Limb* a, const Limb* b) const;
  void sqr(Limb* r, const Limb* a) const { mul(r, a, a); }
  // add and sub set r = a ± b mod n for a, b below n; r may alias either.
  void add(Limb* r, const Limb* a, const Limb* b) const;
  void sub(Limb* r, const Limb* a, const Limb* b) const;

  // toMont sets r = a·R mod n for a plain a below n; fromMont undoes it. one sets r = R mod n.
  void toMont(Limb* r, const Limb* a) const;
  void fromMont(Limb* r, const Limb* a) const;
  void one(Limb* r) const;
  // toMontWide sets r = a·R mod n for a plain a of `aLimbs` limbs and any size, reducing it on
  // the way: for taking a number modulo a smaller, secret modulus (an RSA prime).
  void toMontWide(Limb* r, const Limb* a, std::size_t aLimbs) const;

  // exp sets r = a^e in Montgomery form (a in Montgomery form too) for a secret exponent `e` of
  // `eLen` big-endian bytes, by a fixed window whose table is read with a full constant-time scan.
  // Only eLen is public. r may alias a.
  void exp(Limb* r, const Limb* a, const unsigned char* e, std::size_t eLen) const;
  // expPublic_vartime is exp for a public exponent (a prime's n − 2 for inversion, e = 65537):
  // it may skip zero bits, but still runs the constant-time products, so `a` may be secret.
  void expPublic_vartime(Limb* r, const Limb* a, const BigNum& e) const;
  // invPrime sets r = a⁻¹ (Montgomery form in and out) for a prime modulus, by Fermat: a^(n−2).
  void invPrime(Limb* r, const Limb* a) const;
  // inv_vartime sets r = a⁻¹ mod n (plain form in and out) by the binary extended Euclidean
  // algorithm, whose time depends on a: for public or randomly blinded values only. False, with
  // r unspecified, when a shares a factor with n.
  bool inv_vartime(Limb* r, const Limb* a) const;

  // fromBytes reads `len` big-endian bytes into r (plain form, not reduced: the value must be below
  // n, which the caller guarantees); toBytes writes r (plain form) as exactly `len` big-endian bytes.
  void fromBytes(Limb* r, const unsigned char* in, std::size_t len) const;
  void toBytes(unsigned char* out, std::size_t len, const Limb* r) const;
  // fromBigNum and toBigNum convert plain values; toBigNum's clamping is a public-data step, for
  // results that are public (a signature) or about to be handed to public-data code.
  void fromBigNum(Limb* r, const BigNum& x) const;
  BigNum toBigNum_vartime(const Limb* r) const;

 private:
  void fromDigits(Limb* r, const BigNum& x) const;
  void computeRR();

  std::vector<Limb> n_;   // the modulus
  std::vector<Limb> rr_;  // R² mod n, for toMont
  Limb nPrime_;           // −n⁻¹ mod 2^limbBits
  unsigned bits_;
};

// select copies entry `index` of a table of `entries` residues of `width` limbs each into r,
// reading every entry, so that a secret index leaves no trace in the memory accesses.
void select(Limb* r, const Limb* table, std::size_t entries, std::size_t width, std::size_t index);

// subLimbs sets r = a − b over n limbs and returns the borrow (0 or 1); r may alias a or b.
Limb subLimbs(Limb* r, const Limb* a, const Limb* b, std::size_t n);
// conditionalCopy copies `width` limbs of a into r when `mask` is all ones and leaves r when zero.
void conditionalCopy(Limb* r, const Limb* a, std::size_t width, Limb mask);

}  // namespace tessel::ct
