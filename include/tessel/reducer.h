// Modular arithmetic: reducers (plain, Montgomery, 2^255 − 19), residues bound to them,
// modular exponentiation and inversion, and uniform random numbers below a bound.
//
// Nothing here is constant-time: exponentiation and inversion take value-dependent paths.
#pragma once

#include "tessel/export.h"

#include "tessel/bignum.h"
#include "tessel/rng.h"

namespace tessel {

class RedNum;

// Reducer reduces numbers modulo a modulus it borrows (the modulus must outlive the reducer
// and every residue bound to it). The base class keeps plain representatives and reduces
// only where an operation needs it; subclasses choose their own representation.
class TESSEL_API Reducer {
 public:
  constexpr explicit Reducer(const BigNum& mod) : mod_(&mod) {}

  // reduce brings x into the residue range; the base does nothing.
  virtual void reduce(BigNum& x) const;
  // mul sets r = a·b and reduces it through reduce(). r must differ from a and b.
  virtual void mul(BigNum& r, const BigNum& a, const BigNum& b) const;
  // mul(r, k) sets r = r·k, then subtracts the modulus while it is strictly below r: a product
  // of exactly the modulus is left as the modulus, which callers tolerate.
  virtual void mul(BigNum& r, unsigned k) const;
  // sqr sets r = a² and reduces it. r must differ from a.
  virtual void sqr(BigNum& r, const BigNum& a) const;
  virtual ~Reducer() = default;
  // fromBigNum returns the residue of x (which must be below the modulus) bound to this
  // reducer; the rvalue overload copies as well.
  virtual RedNum fromBigNum(const BigNum& x) const;
  virtual RedNum fromBigNum(BigNum&& x) const;
  // toBigNum returns the plain value of x, consuming it.
  virtual BigNum toBigNum(RedNum&& x) const;

  // mod returns the borrowed modulus.
  const BigNum& mod() const { return *mod_; }

 private:
  const BigNum* mod_;
};

// RedNum is a residue: a value in its reducer's representation and the borrowed reducer.
class TESSEL_API RedNum {
 public:
  // RedNum() is zero bound to emptyReducer, the state of a residue not yet given a reducer.
  RedNum() : reducer(&emptyReducer) {}
  RedNum(BigNum v, const Reducer* r) : value(std::move(v)), reducer(r) {}

  // operator+= adds y and subtracts the modulus if the sum is strictly above it: a sum equal
  // to the modulus stays as it is.
  RedNum& operator+=(const RedNum& y);
  // operator-= subtracts y, adding the modulus first when the value is below y.
  RedNum& operator-=(const RedNum& y);
  bool isZero() const { return value.isZero(); }
  const BigNum& mod() const { return reducer->mod(); }

  BigNum value;
  const Reducer* reducer;

  // mod1 is the number 1 and emptyReducer a plain reducer modulo mod1, both set up when the
  // library is loaded and alive until it is unloaded.
  static BigNum mod1;
  static Reducer emptyReducer;
};

// MontgomeryReducer represents x as x·R mod n with R = 2^(32·k), k the digit count of the odd
// modulus n (an even modulus silently gives wrong results). Its products come out fully
// reduced.
class TESSEL_API MontgomeryReducer : public Reducer {
 public:
  explicit MontgomeryReducer(const BigNum& n);

  // reduce is Montgomery reduction: x (below n·R) becomes x·R⁻¹ mod n, fully reduced.
  void reduce(BigNum& x) const override;
  // mul and sqr give a·b·R⁻¹ mod n, exactly what the product followed by reduce() gives, but
  // interleave the two steps for operands of at most k digits.
  void mul(BigNum& r, const BigNum& a, const BigNum& b) const override;
  void sqr(BigNum& r, const BigNum& a) const override;
  using Reducer::mul;
  // fromBigNum returns x·R mod n; x need not be below n.
  RedNum fromBigNum(const BigNum& x) const override;
  RedNum fromBigNum(BigNum&& x) const override;
  // toBigNum leaves Montgomery form and returns the plain value.
  BigNum toBigNum(RedNum&& x) const override;

  // nPrime returns −n⁻¹ mod 2^32; one returns R mod n, the Montgomery form of 1.
  BigNum::Digit nPrime() const { return nPrime_; }
  const BigNum& one() const { return one_; }

 private:
  BigNum::Digit nPrime_;
  BigNum one_;
};

// Mod25519Reducer works modulo 2^255 − 19 on plain values, using the unrolled 8-digit products
// and a fold by 38 (2^256 ≡ 38). Its results are congruent and below 2^256 but only partially
// reduced: they may reach slightly above the modulus, so canonical output needs a full
// reduction first.
class TESSEL_API Mod25519Reducer : public Reducer {
 public:
  Mod25519Reducer();

  void reduce(BigNum& x) const override;
  void mul(BigNum& r, const BigNum& a, const BigNum& b) const override;
  void mul(BigNum& r, unsigned k) const override;
  void sqr(BigNum& r, const BigNum& a) const override;
};

// mul sets r = a·b through a's reducer, which r takes on.
TESSEL_API void mul(RedNum& r, const RedNum& a, const RedNum& b);
// mul_redbn sets r = a·b for a factor b already in a's representation.
TESSEL_API void mul_redbn(RedNum& r, const RedNum& a, const BigNum& b);
// mul sets r = r·k through r's reducer.
TESSEL_API void mul(RedNum& r, unsigned k);
// sqr sets r = a² through a's reducer, which r takes on.
TESSEL_API void sqr(RedNum& r, const RedNum& a);
// inv returns the inverse of the unit x by the binary extended gcd; a non-unit gives a wrong
// value without any report.
TESSEL_API RedNum inv(RedNum&& x);

// expByMod returns base^e in red's representation by a fixed window whose width grows with
// the length of e. Its sequence of operations depends on e.
TESSEL_API RedNum expByMod(const RedNum& base, const BigNum& e, const Reducer& red);
// expByMod returns a^e mod m for an odd m, through a Montgomery reducer for m.
TESSEL_API BigNum expByMod(const BigNum& a, const BigNum& e, const BigNum& m);

// randomBigNum draws *out uniformly from [1, max] by rejection, up to 100 draws. It returns
// false when `rng` fails (at once) or when every draw was rejected (*out holds the last one).
// The source is taken by const reference, as hosts' callers pass it; drawing from it is still
// a call of its (non-const) generate.
TESSEL_API bool randomBigNum(BigNum* out, const BigNum& max, const Rng& rng);

}  // namespace tessel
