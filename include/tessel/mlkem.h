// ML-KEM-768 (FIPS 203): key generation from the seeds (d, z), encapsulation from the message m,
// decapsulation with implicit rejection.
//
// This is the library's own implementation, kept behind this narrow interface (byte strings in,
// byte strings out) so that an installed implementation can take its place. Secret-dependent
// work (sampling, NTT arithmetic, the re-encryption check of decapsulation) has no branch or
// table index on secret data.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tessel {

namespace mlkem768 {
constexpr std::size_t encapsulationKeySize = 1184;
constexpr std::size_t decapsulationKeySize = 2400;
constexpr std::size_t ciphertextSize = 1088;
constexpr std::size_t sharedSecretSize = 32;

// keyGen derives (ek, dk) from the 32-byte seeds d and z (ML-KEM.KeyGen_internal). Both outputs
// are filled; false only when d or z has the wrong length.
TESSEL_API bool keyGen(std::span<const std::uint8_t> d, std::span<const std::uint8_t> z, std::vector<std::uint8_t>& ek,
                       std::vector<std::uint8_t>& dk);
}  // namespace mlkem768

// MLKEMEncap encapsulates to an ML-KEM-768 encapsulation key.
class TESSEL_API MLKEMEncap {
 public:
  // MLKEMEncap takes a copy of `ek`. isValid() tells whether it passed the FIPS 203 input
  // checks (1184 bytes, every coefficient below q).
  explicit MLKEMEncap(std::span<const std::uint8_t> ek);
  bool isValid() const { return valid_; }
  // encapsulate computes the ciphertext and the 32-byte shared secret from the 32-byte message
  // m (ML-KEM.Encaps_internal; the caller draws m from its RNG). False, with both outputs
  // cleared, for an invalid key or a wrong m length.
  bool encapsulate(std::span<const std::uint8_t> m, std::vector<std::uint8_t>& ciphertext,
                   std::vector<std::uint8_t>& sharedSecret) const;

 private:
  std::vector<std::uint8_t> ek_;
  bool valid_;
};

// MLKEMDecap decapsulates with an ML-KEM-768 decapsulation key.
class TESSEL_API MLKEMDecap {
 public:
  // MLKEMDecap takes a copy of `dk`. isValid() tells whether it passed the FIPS 203 input
  // checks (2400 bytes, the embedded hash H(ek) matching the embedded ek).
  explicit MLKEMDecap(std::span<const std::uint8_t> dk);
  ~MLKEMDecap();
  bool isValid() const { return valid_; }
  // decapsulate writes the 32-byte shared secret. A well-formed but wrong ciphertext gives the
  // implicit-rejection secret J(z ‖ c), not an error. False, with the output cleared, only for
  // an invalid key or a ciphertext that is not 1088 bytes.
  bool decapsulate(std::span<const std::uint8_t> ciphertext, std::vector<std::uint8_t>& sharedSecret) const;

 private:
  std::vector<std::uint8_t> dk_;
  bool valid_;
};

}  // namespace tessel
