// Host platform: a 16-byte IP address value holding either IPv4 or IPv6.
#pragma once

#include "tessel/export.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace ol {

// IPAddr6 holds an IPv6 address in network byte order. An IPv4 address a.b.c.d is held in
// its IPv4-mapped form ::ffff:a.b.c.d. The default value is the all-zero address "::".
class TESSEL_API IPAddr6 {
 public:
  IPAddr6() = default;
  explicit IPAddr6(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

  // fromV4 returns the mapped form of the IPv4 address whose four bytes are `b`.
  static IPAddr6 fromV4(const std::uint8_t b[4]);
  // fromBytes builds an address from 4 (IPv4) or 16 (IPv6) bytes; any other length gives "::".
  static IPAddr6 fromBytes(std::span<const std::uint8_t> bytes);

  // parse reads dotted-quad IPv4 ("192.0.2.1") or IPv6 text ("2001:db8::1",
  // "::ffff:192.0.2.1"). It returns false, leaving *this unchanged, on anything else
  // (including zone suffixes, leading zeros in IPv4 octets and surrounding spaces).
  bool parse(std::string_view text);

  // str renders the address. IPv6 follows RFC 5952 (lower case, longest run of two or more
  // zero groups shortened to "::"). A mapped IPv4 address renders as dotted quad when
  // `v4Plain` is true and as "::ffff:a.b.c.d" when false.
  std::string str(bool v4Plain = true) const;

  bool isV4() const;    // true for the IPv4-mapped range ::ffff:0:0/96
  bool isZero() const;  // true for "::"
  // v4Bytes returns the last four bytes (meaningful when isV4()).
  std::array<std::uint8_t, 4> v4Bytes() const;
  const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

  friend bool operator==(const IPAddr6&, const IPAddr6&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace ol
