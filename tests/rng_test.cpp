#include <algorithm>
#include <set>

#include "support.h"
#include "tessel/rng.h"

namespace {

// Large requests are answered by getrandom in several pieces: every byte must be written (about
// 1/256 zero bytes expected; a gap of untouched bytes would show), and small ones never repeat.
TEST(Rng, FillsWholeBuffersOfAnySize) {
  std::vector<unsigned char> big(1 << 20, 0), small(16);
  ASSERT_TRUE(tessel::getDefaultRng().generate(big.data(), static_cast<unsigned>(big.size())));
  EXPECT_LT(std::count(big.begin(), big.end(), 0), static_cast<long>(big.size() / 128));
  EXPECT_TRUE(tessel::getDefaultRng().generateInsecure(small.data(), 16));
  EXPECT_TRUE(tessel::kernelRand(nullptr, 0, false));
  std::set<std::vector<unsigned char>> seen;
  for (int i = 0; i < 64; ++i) {
    tessel::kernelRand(small.data(), 16, false);
    seen.insert(small);
  }
  EXPECT_EQ(seen.size(), 64u);
}

}  // namespace
