// Reads arbitrary bytes as a UTCTime/GeneralizedTime element; a time that parses must write
// out and read back to the same instant.
#include <cstdint>

#include "quiet_stdout.h"
#include "tessel/timepoint.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tessel::asn1::parser p(tessel::asn1::blob(data, size));
  tessel::TimePoint t;
  if (!t.parse(p)) return 0;
  (void)t.toString();
  auto [tag, text] = t.toAsn1Time();
  if (text == "99991231235959Z") return 0;  // also what unrepresentable instants write
  // Carried fields can push the year past 9999 or below 0, which have no four-digit form to
  // read back.
  if (text.size() != (tag == 23 ? 13u : 15u) || text.find_first_not_of("0123456789") != text.size() - 1) return 0;
  tessel::DerEncoder e;
  e.addPrimitive(tag, tessel::asn1::blob(std::string_view(text)));
  tessel::asn1::parser again{tessel::asn1::blob(e.data)};
  tessel::TimePoint back;
  if (!back.parse(again) || back != t) __builtin_trap();
  return 0;
}
