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
  auto at = [](int year, int mon, int mday, int hour = 0, int min = 0, int sec = 0) {
    std::tm t{};
    t.tm_year = year - 1900, t.tm_mon = mon, t.tm_mday = mday, t.tm_hour = hour, t.tm_min = min, t.tm_sec = sec;
    t.tm_isdst = 1, t.tm_wday = 6, t.tm_yday = 300;  // ignored
    TimePoint p;
    p.set(&t);
    return p.seconds();
  };
  EXPECT_EQ(at(2024, 0, 32), at(2024, 1, 1));       // 31 January plus one day
  EXPECT_EQ(at(2024, 12, 1), at(2025, 0, 1));       // month 12 carries into the year
  EXPECT_EQ(at(2024, -1, 1), at(2023, 11, 1));      // and month -1 borrows
  EXPECT_EQ(at(2024, 1, 29), at(2024, 2, 0));       // 2024 is a leap year
  EXPECT_EQ(at(2100, 1, 29), at(2100, 2, 1));       // 2100 is not
  EXPECT_EQ(at(2000, 1, 29) + 86400, at(2000, 2, 1));  // 2000 is
  EXPECT_EQ(at(1970, 0, 1, 0, 0, 86400), 86400);
  EXPECT_EQ(at(1970, 0, 1, -1), -3600);
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
  EXPECT_LT(TimePoint::fromSeconds(1) , TimePoint::fromSeconds(2));
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
