// asn1::blob, the non-owning byte range that parsers, number conversions and encoders share.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "tessel/assert.h"

namespace tessel::asn1 {

// blob views the bytes [start, finish) of a buffer it does not own; the buffer must outlive
// it. A default blob has both pointers null and is empty.
struct blob {
  const unsigned char* start = nullptr;
  const unsigned char* finish = nullptr;

  blob() = default;
  blob(const unsigned char* s, const unsigned char* f) : start(s), finish(f) {}
  blob(const unsigned char* s, std::size_t len) : start(s), finish(s + len) {}
  blob(const std::vector<unsigned char>& v) : start(v.data()), finish(v.data() + v.size()) {}
  blob(std::span<const unsigned char> s) : start(s.data()), finish(s.data() + s.size()) {}

  std::size_t size() const { return static_cast<std::size_t>(finish - start); }
  bool empty() const { return start == finish; }
  const unsigned char* begin() const { return start; }
  const unsigned char* end() const { return finish; }
  unsigned char operator[](std::size_t i) const { return start[i]; }

  // pop_front returns the first byte and steps past it. Callers check the size first; popping
  // from an empty blob is a programming error and aborts.
  unsigned char pop_front() {
    TESSEL_ASSERT(start < finish);
    return *start++;
  }

  // pop_front(sz) returns the first `sz` bytes as a blob and steps past them; asking for more
  // bytes than remain aborts.
  blob pop_front(std::size_t sz) {
    TESSEL_ASSERT(start + sz <= finish);
    blob head(start, sz);
    start += sz;
    return head;
  }
};

// Two blobs are equal when they have the same length and the same bytes.
inline bool operator==(const blob& a, const blob& b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.start, b.start, a.size()) == 0);
}

}  // namespace tessel::asn1
