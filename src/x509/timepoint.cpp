#include "tessel/timepoint.h"

#include <cstdio>
#include <cstring>

namespace tessel {

namespace {

// floorDiv divides rounding towards minus infinity.
std::int64_t floorDiv(std::int64_t a, std::int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// daysFromCivil counts days from 1970-01-01 to the proleptic Gregorian date y-m-d (m 1..12).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = floorDiv(y, 400);
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

const char kNoExpiryText[] = "99991231235959Z";

// breakDownUtc fills `out` from a seconds value; false when the C library cannot represent it.
bool breakDownUtc(std::int64_t seconds, std::tm& out) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  if (static_cast<std::int64_t>(t) != seconds) return false;
  return gmtime_r(&t, &out) != nullptr;
}

}  // namespace

TimePoint::TimePoint(long long t) {
  const std::time_t tt = static_cast<std::time_t>(t);
  std::tm local{};
  if (localtime_r(&tt, &local)) set(&local);
}

TimePoint TimePoint::now() { return TimePoint(static_cast<long long>(std::time(nullptr))); }

void TimePoint::set(const std::tm* t) {
  const std::int64_t months = static_cast<std::int64_t>(t->tm_mon);
  const std::int64_t year = static_cast<std::int64_t>(t->tm_year) + 1900 + floorDiv(months, 12);
  const unsigned month = static_cast<unsigned>(months - floorDiv(months, 12) * 12) + 1;
  std::int64_t days = daysFromCivil(year, month, 1) + t->tm_mday - 1;
  seconds_ = days * 86400 + std::int64_t{t->tm_hour} * 3600 + std::int64_t{t->tm_min} * 60 + t->tm_sec;
}

std::pair<unsigned, std::string> TimePoint::toAsn1Time() const {
  std::tm t{};
  if (seconds_ == kNoExpiry || !breakDownUtc(seconds_, t)) return {asn1::tagGeneralizedTime, kNoExpiryText};
  const int year = t.tm_year + 1900;
  char buf[64];
  if (year >= 1950 && year <= 2049) {
    std::snprintf(buf, sizeof buf, "%02d%02d%02d%02d%02d%02dZ", year % 100, t.tm_mon + 1, t.tm_mday, t.tm_hour,
                  t.tm_min, t.tm_sec);
    return {asn1::tagUtcTime, buf};
  }
  std::snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02dZ", year, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
                t.tm_sec);
  return {asn1::tagGeneralizedTime, buf};
}

std::string TimePoint::toString() const {
  std::tm t{};
  if (!breakDownUtc(seconds_, t)) return "";
  char buf[64];
  if (!asctime_r(&t, buf)) return "";
  std::string s(buf);
  if (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

bool TimePoint::parse(asn1::parser& p) {
  const bool generalized = p.isAt(asn1::tagGeneralizedTime);
  if (!generalized && !p.isAt(asn1::tagUtcTime)) return false;
  const std::string text = p.takeString();
  if (generalized && text == kNoExpiryText) {
    seconds_ = kNoExpiry;
    return true;
  }
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  int pairs[8];
  std::size_t count = 0, at = 0;
  while (at + 1 < text.size() && isDigit(text[at]) && isDigit(text[at + 1])) {
    const int value = (text[at] - '0') * 10 + (text[at + 1] - '0');
    if (count < 8) pairs[count] = value;
    ++count;
    at += 2;
  }
  std::string_view suffix = std::string_view(text).substr(at);
  int century = 0, first = 0;
  if (generalized && count == 7) {
    century = pairs[0] * 100;
    first = 1;
    --count;
  }
  if (count != 6 || suffix.empty()) return false;
  if (generalized && suffix.size() > 1 && suffix[0] == '.' && isDigit(suffix[1])) {
    std::size_t end = 1;
    while (end < suffix.size() && isDigit(suffix[end])) ++end;
    suffix.remove_prefix(end);
  }
  if (suffix != "Z") return false;
  const int* f = pairs + first;
  std::tm t{};
  t.tm_year = (generalized ? century + f[0] : (f[0] < 50 ? 2000 + f[0] : 1900 + f[0])) - 1900;
  t.tm_mon = f[1] - 1;
  t.tm_mday = f[2];
  t.tm_hour = f[3];
  t.tm_min = f[4];
  t.tm_sec = f[5];
  set(&t);
  return true;
}

}  // namespace tessel
