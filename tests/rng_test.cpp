#include <set>

#include "support.h"
#include "tessel/rng.h"

namespace {

TEST(Rng, FillsWholeBuffersOfAnySize) {
  // Large requests are answered by getrandom in several pieces; every byte must be written.
  std::vector<unsigned char> big(1 << 20, 0);
  ASSERT_TRUE(tessel::getDefaultRng().generate(big.data(), static_cast<unsigned>(big.size())));
  std::size_t zeros = 0;
  for (auto b : big) zeros += b == 0;
  EXPECT_LT(zeros, big.size() / 128);  // about 1/256 expected; a gap of untouched bytes would show
  unsigned char small[16] = {};
  EXPECT_TRUE(tessel::getDefaultRng().generateInsecure(small, sizeof small));
  EXPECT_TRUE(tessel::kernelRand(nullptr, 0, false));
  std::set<std::vector<unsigned char>> seen;
  for (int i = 0; i < 64; ++i) {
    std::vector<unsigned char> v(16);
    tessel::kernelRand(v.data(), 16, false);
    seen.insert(v);
  }
  EXPECT_EQ(seen.size(), 64u);
}

}  // namespace
