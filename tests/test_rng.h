// The one random source the tests hand to the library where it asks for an Rng.
#pragma once

#include <cstdint>
#include <optional>

#include "support.h"
#include "tessel/rng.h"

namespace tessel::test {

// ScriptedRng gives reproducible bytes: a seeded pseudo-random stream, or one fixed byte (to tell
// which key an operation answered with). It fails every request once `budget` bytes have been
// drawn, and counts the requests.
class ScriptedRng : public Rng {
 public:
  static ScriptedRng seeded(std::uint64_t seed, std::size_t budget = SIZE_MAX) { return {seed, std::nullopt, budget}; }
  static ScriptedRng filled(unsigned char byte, std::size_t budget = SIZE_MAX) { return {0, byte, budget}; }

  bool generate(unsigned char* buf, unsigned len) override {
    ++calls;
    if (len > budget_) return false;
    budget_ -= len;
    for (unsigned i = 0; i < len; ++i) buf[i] = fixed_ ? *fixed_ : static_cast<unsigned char>(gen_.next());
    return true;
  }
  bool generateInsecure(unsigned char* buf, unsigned len) override { return generate(buf, len); }

  int calls = 0;

 private:
  ScriptedRng(std::uint64_t seed, std::optional<unsigned char> fixed, std::size_t budget)
      : gen_(seed), fixed_(fixed), budget_(budget) {}
  TestRng gen_;
  std::optional<unsigned char> fixed_;
  std::size_t budget_;
};

}  // namespace tessel::test
