// asn1::blob: a non-owning view of bytes, the currency of every DER parse and encode.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "tessel/assert.h"

namespace tessel::asn1 {

// blob is the byte range [start, finish). It owns nothing: the bytes must outlive it. A default
// blob is empty with both pointers null.
struct TESSEL_API blob {
  const unsigned char* start = nullptr;
  const unsigned char* finish = nullptr;

  blob() = default;
  blob(const unsigned char* s, const unsigned char* f) : start(s), finish(f) {}
  blob(const unsigned char* s, std::size_t n) : start(s), finish(s + n) {}
  blob(std::span<const unsigned char> s) : start(s.data()), finish(s.data() + s.size()) {}
  blob(const std::vector<unsigned char>& v) : start(v.data()), finish(v.data() + v.size()) {}
  explicit blob(std::string_view s)
      : start(reinterpret_cast<const unsigned char*>(s.data())), finish(start + s.size()) {}

  std::size_t size() const { return static_cast<std::size_t>(finish - start); }
  bool empty() const { return start == finish; }
  const unsigned char* begin() const { return start; }
  const unsigned char* end() const { return finish; }
  const unsigned char* data() const { return start; }
  unsigned char operator[](std::size_t i) const { return start[i]; }
  std::span<const unsigned char> span() const { return {start, size()}; }
  std::vector<unsigned char> vec() const { return {start, finish}; }

  // pop_front returns the first byte and advances past it. Popping from an empty blob is a
  // programming error: callers check the size first.
  unsigned char pop_front() {
    TESSEL_ASSERT_LINE(start < finish, 56);
    return *start++;
  }

  // pop_front returns the first `sz` bytes and advances past them; `sz` must not exceed size().
  blob pop_front(std::size_t sz) {
    TESSEL_ASSERT_TEXT_LINE(sz <= size(), "start + sz <= finish", 63);
    blob head(start, sz);
    start += sz;
    return head;
  }

  // Two blobs are equal when they hold the same bytes, wherever they point.
  friend bool operator==(const blob& a, const blob& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.start, b.start, a.size()) == 0);
  }
  // Ordered by length, then bytes.
  friend bool operator<(const blob& a, const blob& b) {
    if (a.size() != b.size()) return a.size() < b.size();
    return !a.empty() && std::memcmp(a.start, b.start, a.size()) < 0;
  }
};

}  // namespace tessel::asn1
