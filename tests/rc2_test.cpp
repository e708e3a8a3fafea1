// RC2 against the answers published with it in RFC 2268 (section 5, tests/data/rc2_rfc2268.json),
// both directions.
#include "support.h"
#include "tessel/block.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

TEST(Rc2, PublishedAnswers) {
  const nlohmann::json cases = test::dataFile("rc2_rfc2268.json")["cases"];
  ASSERT_EQ(cases.size(), 8u);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dump());
    const Bytes key = fromHex(c[1].get<std::string>()), plain = fromHex(c[2].get<std::string>());
    const Bytes cipher = fromHex(c[3].get<std::string>());
    const RC2 rc2(key.data(), static_cast<unsigned>(key.size()), c[0].get<unsigned>());
    Bytes out(8);
    rc2.encrypt(plain.data(), out.data());
    EXPECT_EQ(toHex(out), c[3]);
    rc2.decrypt(cipher.data(), out.data());
    EXPECT_EQ(toHex(out), c[2]);
  }
}

}  // namespace
}  // namespace tessel
