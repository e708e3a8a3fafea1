// RC2 against the answers published with it in RFC 2268 (section 5), both directions.
#include "support.h"
#include "tessel/block.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

TEST(Rc2, PublishedAnswers) {
  const struct {
    unsigned effectiveBits;
    const char *key, *plain, *cipher;
  } cases[] = {
      {63, "0000000000000000", "0000000000000000", "ebb773f993278eff"},
      {64, "ffffffffffffffff", "ffffffffffffffff", "278b27e42e2f0d49"},
      {64, "3000000000000000", "1000000000000001", "30649edf9be7d2c2"},
      {64, "88", "0000000000000000", "61a8a244adacccf0"},
      {64, "88bca90e90875a", "0000000000000000", "6ccf4308974c267f"},
      {64, "88bca90e90875a7f0f79c384627bafb2", "0000000000000000", "1a807d272bbe5db1"},
      {128, "88bca90e90875a7f0f79c384627bafb2", "0000000000000000", "2269552ab0f85ca6"},
      {129, "88bca90e90875a7f0f79c384627bafb216f80a6f85920584c42fceb0be255daf1e", "0000000000000000",
       "5b78d3a43dfff1f1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    const Bytes key = fromHex(c.key), plain = fromHex(c.plain), cipher = fromHex(c.cipher);
    const RC2 rc2(key.data(), static_cast<unsigned>(key.size()), c.effectiveBits);
    Bytes out(8);
    rc2.encrypt(plain.data(), out.data());
    EXPECT_EQ(toHex(out), c.cipher);
    rc2.decrypt(cipher.data(), out.data());
    EXPECT_EQ(toHex(out), c.plain);
  }
}

}  // namespace
}  // namespace tessel
