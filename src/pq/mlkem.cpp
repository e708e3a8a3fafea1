// ML-KEM-768 (FIPS 203) with its own Keccak; see mlkem.h.
#include "tessel/mlkem.h"

#include <array>
#include <cstring>

namespace tessel {

namespace {

using Bytes = std::vector<std::uint8_t>;
using u8span = std::span<const std::uint8_t>;

// ---- Keccak-f[1600] and the sponges FIPS 202 defines on it ----

constexpr std::uint64_t kRoundConstants[24] = {
    0x0000000000000001, 0x0000000000008082, 0x800000000000808A, 0x8000000080008000, 0x000000000000808B,
    0x0000000080000001, 0x8000000080008081, 0x8000000000008009, 0x000000000000008A, 0x0000000000000088,
    0x0000000080008009, 0x000000008000000A, 0x000000008000808B, 0x800000000000008B, 0x8000000000008089,
    0x8000000000008003, 0x8000000000008002, 0x8000000000000080, 0x000000000000800A, 0x800000008000000A,
    0x8000000080008081, 0x8000000000008080, 0x0000000080000001, 0x8000000080008008};
constexpr unsigned kRotations[24] = {1, 3, 6, 10, 15, 21, 28, 36, 45, 55, 2, 14, 27, 41, 56, 8, 25, 43, 62, 18, 39, 61, 20, 44};
constexpr unsigned kPiLanes[24] = {10, 7, 11, 17, 18, 3, 5, 16, 8, 21, 24, 4, 15, 23, 19, 13, 12, 2, 20, 14, 22, 9, 6, 1};

std::uint64_t rotl(std::uint64_t x, unsigned n) { return (x << n) | (x >> (64 - n)); }

void keccakF(std::uint64_t s[25]) {
  for (std::uint64_t rc : kRoundConstants) {
    std::uint64_t bc[5];
    for (int i = 0; i < 5; ++i) bc[i] = s[i] ^ s[i + 5] ^ s[i + 10] ^ s[i + 15] ^ s[i + 20];
    for (int i = 0; i < 5; ++i) {
      const std::uint64_t t = bc[(i + 4) % 5] ^ rotl(bc[(i + 1) % 5], 1);
      for (int j = 0; j < 25; j += 5) s[j + i] ^= t;
    }
    std::uint64_t t = s[1];
    for (int i = 0; i < 24; ++i) {
      const unsigned j = kPiLanes[i];
      const std::uint64_t next = s[j];
      s[j] = rotl(t, kRotations[i]);
      t = next;
    }
    for (int j = 0; j < 25; j += 5) {
      for (int i = 0; i < 5; ++i) bc[i] = s[j + i];
      for (int i = 0; i < 5; ++i) s[j + i] ^= ~bc[(i + 1) % 5] & bc[(i + 2) % 5];
    }
    s[0] ^= rc;
  }
}

// Sponge absorbs, pads with the domain byte (0x06 SHA-3, 0x1F SHAKE) and squeezes.
class Sponge {
 public:
  Sponge(std::size_t rate, std::uint8_t domain) : rate_(rate), domain_(domain) {}
  ~Sponge() { std::memset(s_, 0, sizeof s_); }
  Sponge& absorb(u8span data) {
    for (std::uint8_t b : data) {
      s_[pos_ / 8] ^= std::uint64_t{b} << (8 * (pos_ % 8));
      if (++pos_ == rate_) {
        keccakF(s_);
        pos_ = 0;
      }
    }
    return *this;
  }
  Sponge& finish() {
    s_[pos_ / 8] ^= std::uint64_t{domain_} << (8 * (pos_ % 8));
    s_[(rate_ - 1) / 8] ^= std::uint64_t{0x80} << (8 * ((rate_ - 1) % 8));
    keccakF(s_);
    pos_ = 0;
    return *this;
  }
  void squeeze(std::uint8_t* out, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      if (pos_ == rate_) {
        keccakF(s_);
        pos_ = 0;
      }
      out[i] = static_cast<std::uint8_t>(s_[pos_ / 8] >> (8 * (pos_ % 8)));
      ++pos_;
    }
  }
  Bytes squeeze(std::size_t n) {
    Bytes out(n);
    squeeze(out.data(), n);
    return out;
  }

 private:
  std::uint64_t s_[25] = {};
  std::size_t rate_, pos_ = 0;
  std::uint8_t domain_;
};

Bytes hashH(u8span a) { return Sponge(136, 0x06).absorb(a).finish().squeeze(32); }                 // SHA3-256
Bytes hashG(u8span a, u8span b) { return Sponge(72, 0x06).absorb(a).absorb(b).finish().squeeze(64); }  // SHA3-512
Bytes shake256(u8span a, u8span b, std::size_t n) { return Sponge(136, 0x1F).absorb(a).absorb(b).finish().squeeze(n); }

// ---- the ring Z_q[X]/(X^256 + 1) ----

constexpr std::uint32_t q = 3329;
constexpr int k = 3, du = 10, dv = 4;
constexpr std::size_t polyBytes = 384, pkeKeyBytes = k * polyBytes;

using Poly = std::array<std::uint16_t, 256>;
using Vec = std::array<Poly, k>;

struct Tables {
  std::uint16_t zetas[128], gammas[128];
  Tables() {
    auto power = [](unsigned e) {
      std::uint32_t r = 1;
      for (unsigned i = 0; i < e; ++i) r = r * 17 % q;
      return static_cast<std::uint16_t>(r);
    };
    for (unsigned i = 0; i < 128; ++i) {
      unsigned rev = 0;
      for (unsigned b = 0; b < 7; ++b) rev |= ((i >> b) & 1) << (6 - b);
      zetas[i] = power(rev);
      gammas[i] = power(2 * rev + 1);
    }
  }
};

const Tables& tables() {
  static const Tables t;
  return t;
}

std::uint16_t addq(std::uint32_t a, std::uint32_t b) { return static_cast<std::uint16_t>((a + b) % q); }
std::uint16_t subq(std::uint32_t a, std::uint32_t b) { return static_cast<std::uint16_t>((a + q - b) % q); }
std::uint16_t mulq(std::uint32_t a, std::uint32_t b) { return static_cast<std::uint16_t>(a * b % q); }

void ntt(Poly& f) {
  const Tables& t = tables();
  unsigned i = 1;
  for (unsigned len = 128; len >= 2; len /= 2)
    for (unsigned start = 0; start < 256; start += 2 * len) {
      const std::uint32_t zeta = t.zetas[i++];
      for (unsigned j = start; j < start + len; ++j) {
        const std::uint16_t x = mulq(zeta, f[j + len]);
        f[j + len] = subq(f[j], x);
        f[j] = addq(f[j], x);
      }
    }
}

void invNtt(Poly& f) {
  const Tables& t = tables();
  unsigned i = 127;
  for (unsigned len = 2; len <= 128; len *= 2)
    for (unsigned start = 0; start < 256; start += 2 * len) {
      const std::uint32_t zeta = t.zetas[i--];
      for (unsigned j = start; j < start + len; ++j) {
        const std::uint16_t x = f[j];
        f[j] = addq(x, f[j + len]);
        f[j + len] = mulq(zeta, subq(f[j + len], x));
      }
    }
  for (auto& c : f) c = mulq(c, 3303);  // 128^-1 mod q
}

// mulAcc adds the NTT-domain product f ∘ g to acc.
void mulAcc(Poly& acc, const Poly& f, const Poly& g) {
  const Tables& t = tables();
  for (unsigned i = 0; i < 128; ++i) {
    const std::uint32_t a0 = f[2 * i], a1 = f[2 * i + 1], b0 = g[2 * i], b1 = g[2 * i + 1];
    acc[2 * i] = addq(acc[2 * i], addq(mulq(a0, b0), mulq(mulq(a1, b1), t.gammas[i])));
    acc[2 * i + 1] = addq(acc[2 * i + 1], addq(mulq(a0, b1), mulq(a1, b0)));
  }
}

void addTo(Poly& a, const Poly& b) {
  for (unsigned i = 0; i < 256; ++i) a[i] = addq(a[i], b[i]);
}

// ---- encodings and sampling ----

void byteEncode(std::uint8_t* out, const Poly& f, unsigned d) {
  std::memset(out, 0, 32 * d);
  for (unsigned i = 0; i < 256; ++i)
    for (unsigned j = 0; j < d; ++j) {
      const unsigned bit = i * d + j;
      out[bit / 8] |= static_cast<std::uint8_t>(((f[i] >> j) & 1) << (bit % 8));
    }
}

// byteDecode reads 32·d bytes; for d = 12 the values are left unreduced so callers can check them.
Poly byteDecode(const std::uint8_t* in, unsigned d) {
  Poly f{};
  for (unsigned i = 0; i < 256; ++i)
    for (unsigned j = 0; j < d; ++j) {
      const unsigned bit = i * d + j;
      f[i] = static_cast<std::uint16_t>(f[i] | (((in[bit / 8] >> (bit % 8)) & 1) << j));
    }
  return f;
}

Poly decode12(const std::uint8_t* in) {
  Poly f = byteDecode(in, 12);
  for (auto& c : f) c = static_cast<std::uint16_t>(c % q);
  return f;
}

Poly compress(const Poly& f, unsigned d) {
  Poly r;
  for (unsigned i = 0; i < 256; ++i)
    r[i] = static_cast<std::uint16_t>((((std::uint32_t{f[i]} << (d + 1)) + q) / (2 * q)) & ((1u << d) - 1));
  return r;
}

Poly decompress(const Poly& f, unsigned d) {
  Poly r;
  for (unsigned i = 0; i < 256; ++i) r[i] = static_cast<std::uint16_t>((q * f[i] + (1u << (d - 1))) >> d);
  return r;
}

// sampleNtt draws a uniform NTT-domain polynomial from SHAKE128(rho ‖ j ‖ i) by rejection; the
// input is public.
Poly sampleNtt(u8span rho, std::uint8_t j, std::uint8_t i) {
  Sponge xof(168, 0x1F);
  const std::uint8_t idx[2] = {j, i};
  xof.absorb(rho).absorb(idx).finish();
  Poly a{};
  unsigned n = 0;
  while (n < 256) {
    std::uint8_t b[3];
    xof.squeeze(b, 3);
    const std::uint32_t d1 = b[0] + 256u * (b[1] & 15), d2 = (b[1] >> 4) + 16u * b[2];
    if (d1 < q) a[n++] = static_cast<std::uint16_t>(d1);
    if (d2 < q && n < 256) a[n++] = static_cast<std::uint16_t>(d2);
  }
  return a;
}

// sampleCbd draws a centred binomial polynomial (eta = 2) from PRF(seed, nonce).
Poly sampleCbd(u8span seed, std::uint8_t nonce) {
  const std::uint8_t b[1] = {nonce};
  const Bytes bytes = shake256(seed, b, 64 * 2);
  Poly f;
  for (unsigned i = 0; i < 256; ++i) {
    const unsigned bits = (bytes[i / 2] >> (4 * (i % 2))) & 15;
    const unsigned x = (bits & 1) + ((bits >> 1) & 1), y = ((bits >> 2) & 1) + ((bits >> 3) & 1);
    f[i] = subq(x, y);
  }
  return f;
}

using Matrix = std::array<Vec, k>;

Matrix expandA(u8span rho) {
  Matrix a;
  for (int i = 0; i < k; ++i)
    for (int j = 0; j < k; ++j) a[i][j] = sampleNtt(rho, static_cast<std::uint8_t>(j), static_cast<std::uint8_t>(i));
  return a;
}

// ---- K-PKE ----

Bytes pkeEncrypt(u8span ek, u8span m, u8span r) {
  Vec t;
  for (int i = 0; i < k; ++i) t[i] = decode12(ek.data() + i * polyBytes);
  const Matrix a = expandA(ek.subspan(pkeKeyBytes, 32));
  std::uint8_t nonce = 0;
  Vec y, e1;
  for (auto& p : y) p = sampleCbd(r, nonce++);
  for (auto& p : e1) p = sampleCbd(r, nonce++);
  const Poly e2 = sampleCbd(r, nonce++);
  for (auto& p : y) ntt(p);

  Bytes c(mlkem768::ciphertextSize);
  for (int i = 0; i < k; ++i) {
    Poly u{};
    for (int j = 0; j < k; ++j) mulAcc(u, a[j][i], y[j]);
    invNtt(u);
    addTo(u, e1[i]);
    byteEncode(c.data() + i * 32 * du, compress(u, du), du);
  }
  Poly v{};
  for (int i = 0; i < k; ++i) mulAcc(v, t[i], y[i]);
  invNtt(v);
  addTo(v, e2);
  addTo(v, decompress(byteDecode(m.data(), 1), 1));
  byteEncode(c.data() + k * 32 * du, compress(v, dv), dv);
  return c;
}

Bytes pkeDecrypt(u8span dkPke, u8span c) {
  Poly w{};
  for (int i = 0; i < k; ++i) {
    Poly u = decompress(byteDecode(c.data() + i * 32 * du, du), du);
    ntt(u);
    mulAcc(w, decode12(dkPke.data() + i * polyBytes), u);
  }
  invNtt(w);
  Poly v = decompress(byteDecode(c.data() + k * 32 * du, dv), dv);
  for (unsigned i = 0; i < 256; ++i) v[i] = subq(v[i], w[i]);
  Bytes m(32);
  byteEncode(m.data(), compress(v, 1), 1);
  return m;
}

// encapsulationKeyValid is the FIPS 203 modulus check: every 12-bit value below q.
bool encapsulationKeyValid(u8span ek) {
  if (ek.size() != mlkem768::encapsulationKeySize) return false;
  for (int i = 0; i < k; ++i) {
    const Poly f = byteDecode(ek.data() + i * polyBytes, 12);
    for (std::uint16_t c : f)
      if (c >= q) return false;
  }
  return true;
}

}  // namespace

bool mlkem768::keyGen(u8span d, u8span z, Bytes& ek, Bytes& dk) {
  if (d.size() != 32 || z.size() != 32) return false;
  const std::uint8_t kByte[1] = {k};
  const Bytes g = hashG(d, kByte);
  const u8span rho(g.data(), 32), sigma(g.data() + 32, 32);
  const Matrix a = expandA(rho);
  std::uint8_t nonce = 0;
  Vec s, e;
  for (auto& p : s) p = sampleCbd(sigma, nonce++);
  for (auto& p : e) p = sampleCbd(sigma, nonce++);
  for (auto& p : s) ntt(p);
  for (auto& p : e) ntt(p);
  ek.assign(encapsulationKeySize, 0);
  dk.assign(decapsulationKeySize, 0);
  for (int i = 0; i < k; ++i) {
    Poly t = e[i];
    for (int j = 0; j < k; ++j) mulAcc(t, a[i][j], s[j]);
    byteEncode(ek.data() + i * polyBytes, t, 12);
    byteEncode(dk.data() + i * polyBytes, s[i], 12);
  }
  std::memcpy(ek.data() + pkeKeyBytes, rho.data(), 32);
  std::memcpy(dk.data() + pkeKeyBytes, ek.data(), encapsulationKeySize);
  const Bytes h = hashH(ek);
  std::memcpy(dk.data() + pkeKeyBytes + encapsulationKeySize, h.data(), 32);
  std::memcpy(dk.data() + pkeKeyBytes + encapsulationKeySize + 32, z.data(), 32);
  return true;
}

MLKEMEncap::MLKEMEncap(u8span ek) : ek_(ek.begin(), ek.end()), valid_(encapsulationKeyValid(ek)) {}

bool MLKEMEncap::encapsulate(u8span m, Bytes& ciphertext, Bytes& sharedSecret) const {
  ciphertext.clear();
  sharedSecret.clear();
  if (!valid_ || m.size() != 32) return false;
  const Bytes kr = hashG(m, hashH(ek_));
  ciphertext = pkeEncrypt(ek_, m, u8span(kr.data() + 32, 32));
  sharedSecret.assign(kr.begin(), kr.begin() + 32);
  return true;
}

MLKEMDecap::MLKEMDecap(u8span dk) : dk_(dk.begin(), dk.end()), valid_(false) {
  if (dk.size() != mlkem768::decapsulationKeySize) return;
  const Bytes h = hashH(dk.subspan(pkeKeyBytes, mlkem768::encapsulationKeySize));
  valid_ = std::memcmp(h.data(), dk.data() + pkeKeyBytes + mlkem768::encapsulationKeySize, 32) == 0;
}

MLKEMDecap::~MLKEMDecap() { std::memset(dk_.data(), 0, dk_.size()); }

bool MLKEMDecap::decapsulate(u8span ciphertext, Bytes& sharedSecret) const {
  sharedSecret.clear();
  if (!valid_ || ciphertext.size() != mlkem768::ciphertextSize) return false;
  const u8span dk(dk_);
  const u8span dkPke = dk.first(pkeKeyBytes), ek = dk.subspan(pkeKeyBytes, mlkem768::encapsulationKeySize);
  const u8span h = dk.subspan(pkeKeyBytes + mlkem768::encapsulationKeySize, 32), z = dk.last(32);
  const Bytes m = pkeDecrypt(dkPke, ciphertext);
  const Bytes kr = hashG(m, h);
  const Bytes rejected = shake256(z, ciphertext, 32);
  const Bytes again = pkeEncrypt(ek, m, u8span(kr.data() + 32, 32));
  // Implicit rejection without a branch: mask is all ones when the ciphertexts differ.
  std::uint8_t diff = 0;
  for (std::size_t i = 0; i < again.size(); ++i) diff |= static_cast<std::uint8_t>(again[i] ^ ciphertext[i]);
  const std::uint8_t mask = static_cast<std::uint8_t>(-static_cast<std::uint32_t>((diff + 0xFFu) >> 8));
  sharedSecret.resize(32);
  for (int i = 0; i < 32; ++i) sharedSecret[i] = static_cast<std::uint8_t>((kr[i] & ~mask) | (rejected[i] & mask));
  return true;
}

}  // namespace tessel
