#include "keys/rsa_private.h"

#include <vector>

#include "core/secret.h"
#include "tessel/factory.h"
#include "tessel/rng.h"

namespace tessel::rsa {

namespace {

using ct::Limb;
using ct::MontModulus;
using Limbs = std::vector<Limb>;

// Residues is a set of scratch residues of one modulus, wiped when done.
class Residues {
 public:
  Residues(const MontModulus& m, std::size_t count) : width_(m.limbs()), data_(count * width_) {}
  Residues(const Residues&) = delete;
  Residues& operator=(const Residues&) = delete;
  ~Residues() { ct::wipe(data_.data(), data_.size() * sizeof(Limb)); }
  Limb* operator[](std::size_t i) { return data_.data() + i * width_; }

 private:
  std::size_t width_;
  Limbs data_;
};

// exponentBytes writes every digit of a secret exponent as four big-endian bytes, without the
// value-dependent trimming of BigNum::bin: only the digit count is public.
std::vector<unsigned char> exponentBytes(const BigNum& x) {
  std::vector<unsigned char> out(4 * x.size());
  for (unsigned i = 0; i < x.size(); ++i)
    for (unsigned b = 0; b < 4; ++b) out[out.size() - 1 - 4 * i - b] = static_cast<unsigned char>(x[i] >> (8 * b));
  return out;
}

// fits says whether x's digits fit in m's limbs; a public test on digit counts.
bool fits(const BigNum& x, const MontModulus& m) { return x.size() * 32 <= m.limbs() * ct::limbBits; }

// Blinding holds a random r (Montgomery form of r^e, and of r⁻¹) for one private operation.
struct Blinding {
  Limbs rE, rInv;
};

// drawBlinding picks r from [1, n) with the library's random source (a limb more than n, reduced,
// so that it is all but uniform) and prepares r^e and r⁻¹. r is random and independent of the
// key, so the variable-time inverse may see it: what must stay hidden (d, p, q, and the
// blinded result) never meets it. False only when no invertible r turned up, which for an RSA
// modulus means the key is broken.
bool drawBlinding(const RsaPrivateKey& key, const MontModulus& mn, Blinding* b) {
  const std::size_t s = mn.limbs();
  Limbs raw(s + 1), r(s);
  b->rE.assign(s, 0);
  b->rInv.assign(s, 0);
  bool ok = false;
  for (int attempt = 0; attempt < 8 && !ok; ++attempt) {
    getDefaultRng().generate(reinterpret_cast<unsigned char*>(raw.data()),
                             static_cast<unsigned>(raw.size() * sizeof(Limb)));
    mn.toMontWide(b->rE.data(), raw.data(), raw.size());
    mn.fromMont(r.data(), b->rE.data());
    ok = mn.inv_vartime(b->rInv.data(), r.data());
  }
  mn.expPublic_vartime(b->rE.data(), b->rE.data(), key.e);
  mn.toMont(b->rInv.data(), b->rInv.data());
  ct::wipe(raw.data(), raw.size() * sizeof(Limb));
  ct::wipe(r.data(), r.size() * sizeof(Limb));
  return ok;
}

// hasCrt says whether the key carries CRT values of sizes the CRT path can take; otherwise the
// private operation goes through d. Only digit counts are looked at.
bool hasCrt(const RsaPrivateKey& key) {
  for (const BigNum* v : {&key.p, &key.q, &key.dP, &key.dQ, &key.qInv})
    if (v->isZero()) return false;
  return key.p.size() <= key.n.size() && key.q.size() <= key.n.size() && key.qInv.size() <= key.p.size();
}

// crt sets m = b^d mod n (plain, n's width) from b (plain, n's width) by the two half-size
// exponentiations and Garner's recombination m = m2 + q·((m1 − m2)·qInv mod p), all in
// constant time. p and q are secret moduli, so their Montgomery setups look at no value.
void crt(const RsaPrivateKey& key, const MontModulus& mn, const Limb* b, Limb* m) {
  const MontModulus mp(key.p, ct::SecretModulus{});
  const MontModulus mq(key.q, ct::SecretModulus{});
  Residues p(mp, 3), q(mq, 2), w(mn, 2);
  std::vector<unsigned char> dP = exponentBytes(key.dP), dQ = exponentBytes(key.dQ);
  // m1 = b^dP mod p and m2 = b^dQ mod q, in Montgomery form.
  mp.toMontWide(p[0], b, mn.limbs());
  mp.exp(p[0], p[0], dP.data(), dP.size());
  mq.toMontWide(q[0], b, mn.limbs());
  mq.exp(q[0], q[0], dQ.data(), dQ.size());
  mq.fromMont(q[1], q[0]);  // m2, plain
  // h = (m1 − m2)·qInv mod p: a Montgomery form times a plain value gives the plain product.
  mp.toMontWide(p[1], q[1], mq.limbs());
  mp.sub(p[0], p[0], p[1]);
  mp.fromBigNum(p[2], key.qInv);
  mp.mul(p[1], p[0], p[2]);
  // m = m2 + q·h mod n; q·h·R⁻¹ brought back by R², then added.
  Limbs hN(mn.limbs(), 0), m2N(mn.limbs(), 0);
  std::copy(p[1], p[1] + mp.limbs(), hN.begin());
  std::copy(q[1], q[1] + mq.limbs(), m2N.begin());
  mn.fromBigNum(w[0], key.q);
  mn.mul(w[1], w[0], hN.data());
  mn.toMont(w[1], w[1]);
  mn.add(m, m2N.data(), w[1]);
  ct::wipe(dP.data(), dP.size());
  ct::wipe(dQ.data(), dQ.size());
  ct::wipe(hN.data(), hN.size() * sizeof(Limb));
  ct::wipe(m2N.data(), m2N.size() * sizeof(Limb));
}

}  // namespace

Limb privateOperationMasked(const RsaPrivateKey& key, const BigNum& c, unsigned char* out, std::size_t k) {
  const MontModulus mn(key.n);
  Blinding blinding;
  if (!fits(c, mn) || !drawBlinding(key, mn, &blinding)) return 0;
  Residues x(mn, 4);
  Limb* const in = x[0];
  Limb* const t = x[1];
  Limb* const m = x[2];
  Limb* const check = x[3];
  // t = c·r^e, the blinded input (plain: Montgomery form times Montgomery form, then out).
  mn.fromBigNum(in, c);
  mn.mul(t, in, blinding.rE.data());
  if (hasCrt(key) && fits(key.p, mn)) {
    crt(key, mn, t, m);
  } else {
    std::vector<unsigned char> d = exponentBytes(key.d);
    mn.toMont(t, t);
    mn.exp(m, t, d.data(), d.size());
    mn.fromMont(m, m);
    ct::wipe(d.data(), d.size());
  }
  // Unblind: (c·r^e)^d · r⁻¹ = c^d.
  mn.mul(m, m, blinding.rInv.data());
  // Check m^e = c, so that a fault in any step (or CRT values that do not belong to n) never
  // releases a result that could give away a prime.
  mn.toMont(check, m);
  mn.expPublic_vartime(check, check, key.e);
  mn.fromMont(check, check);
  // m itself must also be below n: a key whose parts do not belong together could leave it
  // unreduced yet congruent.
  Limb diff = 0, borrow = 0;
  for (std::size_t i = 0; i < mn.limbs(); ++i) {
    diff |= check[i] ^ in[i];
    const Limb n = mn.modulus()[i];
    borrow = (ct::lessThanMask<Limb>(m[i], n) | (ct::equalMask<Limb>(m[i], n) & borrow)) & 1;
  }
  mn.toBytes(out, k, m);
  return ct::isZeroMask<Limb>(diff) & ct::maskFromBit<Limb>(borrow);
}

// mgf1 is the mask generation function of RFC 8017 appendix B.2.1 with the digest `hash`.
std::vector<unsigned char> mgf1(unsigned hash, asn1::blob seed, std::size_t length) {
  std::unique_ptr<Hash> h = createHash(hash);
  if (!h) return {};
  std::vector<unsigned char> mask;
  mask.reserve(length + h->digestLength());
  for (std::uint32_t counter = 0; mask.size() < length; ++counter) {
    const unsigned char c[4] = {static_cast<unsigned char>(counter >> 24), static_cast<unsigned char>(counter >> 16),
                                static_cast<unsigned char>(counter >> 8), static_cast<unsigned char>(counter)};
    h->update(seed.span());
    h->update(c, 4);
    const std::vector<unsigned char> block = h->digest();
    mask.insert(mask.end(), block.begin(), block.end());
  }
  mask.resize(length);
  return mask;
}

void publicOperationSecretInput(const RsaPublicKey& key, const unsigned char* m, unsigned char* out, std::size_t k) {
  const MontModulus mn(key.n);
  Residues r(mn, 2);
  mn.fromBytes(r[0], m, k);
  mn.toMont(r[1], r[0]);
  mn.expPublic_vartime(r[0], r[1], key.e);
  mn.fromMont(r[1], r[0]);
  mn.toBytes(out, k, r[1]);
}

}  // namespace tessel::rsa
