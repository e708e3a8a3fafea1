// TimePoint: seconds since 1970-01-01 00:00:00 UTC, 64-bit everywhere (also on 32-bit hosts,
// where dates past 2038 must keep working), with the ASN.1 UTCTime/GeneralizedTime forms.
#pragma once

#include "tessel/export.h"

#include <compare>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "tessel/asn1.h"

namespace tessel {

class TESSEL_API TimePoint {
 public:
  // The time with no well-defined expiration, written "99991231235959Z".
  static constexpr std::int64_t kNoExpiry = 0x7FFFFFFFFFFFFFFF;

  TimePoint() = default;
  // TimePoint breaks `t` down as local time and stores that wall-clock time as if it were UTC.
  // On a host whose time zone is UTC (as appliances run) the value equals `t`. Kept so times
  // compare consistently with those the host writes into its configuration.
  explicit TimePoint(long long t);
  // now is TimePoint(current system time).
  static TimePoint now();
  // fromSeconds makes a TimePoint holding exactly `seconds`, with no time-zone step.
  static TimePoint fromSeconds(std::int64_t seconds) {
    TimePoint p;
    p.seconds_ = seconds;
    return p;
  }

  // set computes the value from broken-down UTC fields. Months outside 0..11 carry into the
  // year; day, hour, minute and second carry arithmetically; daylight-saving, weekday and
  // year-day fields are ignored.
  void set(const std::tm* t);
  // toAsn1Time returns (23, "YYMMDDhhmmssZ") for the years 1950..2049, otherwise (24,
  // "YYYYMMDDhhmmssZ"); the no-expiry value and unrepresentable times give
  // (24, "99991231235959Z").
  std::pair<unsigned, std::string> toAsn1Time() const;
  // toString renders the UTC time as asctime does, without the newline
  // ("Thu Jan  1 00:00:00 1970").
  std::string toString() const;
  // parse reads a UTCTime (tag 23) or GeneralizedTime (24) at the parser's current element and
  // advances past it. Seconds are mandatory and the zone must be "Z"; a GeneralizedTime may
  // carry fractional seconds, which are dropped. UTCTime years below 50 are 20yy. False, without
  // advancing, for any other tag; false after advancing for malformed text.
  bool parse(asn1::parser& p);

  std::int64_t seconds() const { return seconds_; }
  friend auto operator<=>(const TimePoint&, const TimePoint&) = default;

 private:
  std::int64_t seconds_ = 0;
};

}  // namespace tessel
