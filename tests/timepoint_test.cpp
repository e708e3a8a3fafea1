#include "tessel/timepoint.h"

#include <cstdlib>

#if TESSEL_HAVE_OPENSSL
#include <openssl/asn1.h>
#endif

#include "support.h"

namespace tessel {
namespace {

using test::Bytes;

// parseTime runs TimePoint::parse over one element with the given tag and text.
std::optional<std::int64_t> parseTime(unsigned tag, const std::string& text) {
  DerEncoder e;
  e.addPrimitive(tag, asn1::blob(std::string_view(text)));
  asn1::parser p{asn1::blob(e.data)};
  TimePoint t;
  if (!t.parse(p)) return std::nullopt;
  EXPECT_EQ(p.tag, asn1::tagEnd) << "parse must advance past the element";
  return t.seconds();
}

TEST(TimePoint, ParsesTheAcceptedForms) {
  // Seconds computed with Python's calendar (tests/data/gen_parse_cases.py); null: refused.
  for (const auto& r : test::parseCases("timeParse")) {
    auto got = parseTime(r[0], r[1]);
    ASSERT_EQ(got.has_value(), !r[2].is_null()) << r[1];
    if (got) {
      EXPECT_EQ(*got, r[2].get<std::int64_t>()) << r[1];
    }
  }
  // A wrong tag is refused without advancing.
  Bytes der = test::fromHex("0403313233");
  asn1::parser p{asn1::blob(der)};
  TimePoint t;
  EXPECT_FALSE(t.parse(p));
  EXPECT_EQ(p.tag, 4u);
}

TEST(TimePoint, WritesUtcTimeOnlyFor1950To2049) {
  for (const auto& r : test::parseCases("timeWrite")) {
    auto [gotTag, gotText] = TimePoint::fromSeconds(r[0].get<std::int64_t>()).toAsn1Time();
    EXPECT_EQ(gotTag, r[1].get<unsigned>()) << r[0];
    EXPECT_EQ(gotText, r[2].get<std::string>()) << r[0];
  }
  EXPECT_EQ(TimePoint::fromSeconds(0).toString(), "Thu Jan  1 00:00:00 1970");
  EXPECT_EQ(TimePoint::fromSeconds(4102444800).toString(), "Fri Jan  1 00:00:00 2100");
}

TEST(TimePoint, SetCarriesOutOfRangeFields) {
  // Seconds of the time Python's timegm carries the fields into (tests/data/gen_parse_cases.py).
  auto at = [](const nlohmann::json& f) {
    std::tm t{};
    t.tm_year = f[0].get<int>() - 1900, t.tm_mon = f[1], t.tm_mday = f[2], t.tm_hour = f[3], t.tm_min = f[4];
    t.tm_sec = f[5];
    t.tm_isdst = 1, t.tm_wday = 6, t.tm_yday = 300;  // ignored
    TimePoint p;
    p.set(&t);
    return p.seconds();
  };
  for (const auto& r : test::parseCases("timeCarries")) EXPECT_EQ(at(r[0]), r[1].get<std::int64_t>()) << r[0];
}

TEST(TimePoint, LocalTimeIsStoredAsIfUtc) {
  const char* old = std::getenv("TZ");
  std::string saved = old ? old : "";
  setenv("TZ", "UTC0", 1);
  tzset();
  EXPECT_EQ(TimePoint(1700000000LL).seconds(), 1700000000);
  setenv("TZ", "EET-2", 1);  // two hours east, no daylight saving
  tzset();
  EXPECT_EQ(TimePoint(1700000000LL).seconds(), 1700000000 + 7200);
  if (old) setenv("TZ", saved.c_str(), 1);
  else unsetenv("TZ");
  tzset();
}

#if TESSEL_HAVE_OPENSSL
// Random instants from 1900 to 9999 written by us and read by OpenSSL, and the other way round.
TEST(TimePoint, AgreesWithOpenSslBothWays) {
  test::TestRng rng(1950);
  const std::int64_t lo = -2208988800, hi = 253402300798;  // 1900-01-01 .. 9999-12-31
  for (int i = 0; i < 3000; ++i) {
    std::int64_t s = lo + static_cast<std::int64_t>((std::uint64_t{rng.next()} << 32 | rng.next()) %
                                                    static_cast<std::uint64_t>(hi - lo));
    auto [tag, text] = TimePoint::fromSeconds(s).toAsn1Time();
    ASN1_TIME* t = ASN1_TIME_new();
    ASSERT_TRUE(ASN1_TIME_set_string_X509(t, text.c_str())) << text;  // RFC 5280 choice of type
    EXPECT_EQ(static_cast<unsigned>(ASN1_STRING_type(t)), tag) << text;
    std::tm tm{};
    ASSERT_TRUE(ASN1_TIME_to_tm(t, &tm));
    TimePoint back;
    back.set(&tm);
    EXPECT_EQ(back.seconds(), s) << text;
    EXPECT_EQ(parseTime(tag, text), s) << text;
    ASN1_TIME_free(t);
  }
}
#endif

}  // namespace
}  // namespace tessel
