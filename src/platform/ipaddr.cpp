#include "ol/ipaddr.h"

#include <cstdio>

namespace ol {

namespace {

constexpr std::uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// parseV4 reads exactly "d.d.d.d" with decimal octets 0..255 and no leading zeros.
bool parseV4(std::string_view t, std::uint8_t out[4]) {
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (t.empty() || t.front() != '.') return false;
      t.remove_prefix(1);
    }
    unsigned value = 0, digits = 0;
    while (!t.empty() && t.front() >= '0' && t.front() <= '9' && digits < 4) {
      value = value * 10 + static_cast<unsigned>(t.front() - '0');
      t.remove_prefix(1);
      ++digits;
    }
    if (digits == 0 || digits > 3 || value > 255) return false;
    if (digits > 1 && value < (digits == 2 ? 10u : 100u)) return false;  // leading zero
    out[part] = static_cast<std::uint8_t>(value);
  }
  return t.empty();
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// parseV6 reads RFC 4291 text: up to eight hex groups, at most one "::", and an optional
// dotted-quad tail standing for the last two groups.
bool parseV6(std::string_view t, std::uint8_t out[16]) {
  std::uint16_t groups[8] = {};
  int count = 0, gap = -1;
  if (t.starts_with("::")) {
    gap = 0;
    t.remove_prefix(2);
  } else if (t.starts_with(":")) {
    return false;
  }
  while (!t.empty()) {
    if (count == 8) return false;
    // A dotted quad may stand in for the last 32 bits.
    auto dot = t.find('.');
    if (dot != std::string_view::npos && t.find(':') == std::string_view::npos) {
      std::uint8_t v4[4];
      if (count > 6 || !parseV4(t, v4)) return false;
      groups[count++] = static_cast<std::uint16_t>(v4[0] << 8 | v4[1]);
      groups[count++] = static_cast<std::uint16_t>(v4[2] << 8 | v4[3]);
      t = {};
      break;
    }
    unsigned value = 0;
    int digits = 0;
    while (!t.empty() && hexValue(t.front()) >= 0) {
      if (++digits > 4) return false;
      value = value << 4 | static_cast<unsigned>(hexValue(t.front()));
      t.remove_prefix(1);
    }
    if (digits == 0) return false;
    groups[count++] = static_cast<std::uint16_t>(value);
    if (t.empty()) break;
    if (t.front() != ':') return false;
    t.remove_prefix(1);
    if (!t.empty() && t.front() == ':') {
      if (gap >= 0) return false;
      gap = count;
      t.remove_prefix(1);
    } else if (t.empty()) {
      return false;  // trailing single ':'
    }
  }
  if (gap < 0 && count != 8) return false;
  if (gap >= 0 && count > 7) return false;
  std::uint16_t full[8] = {};
  if (gap < 0) {
    for (int i = 0; i < 8; ++i) full[i] = groups[i];
  } else {
    for (int i = 0; i < gap; ++i) full[i] = groups[i];
    int tail = count - gap;
    for (int i = 0; i < tail; ++i) full[8 - tail + i] = groups[gap + i];
  }
  for (int i = 0; i < 8; ++i) {
    out[2 * i] = static_cast<std::uint8_t>(full[i] >> 8);
    out[2 * i + 1] = static_cast<std::uint8_t>(full[i]);
  }
  return true;
}

std::string v4Text(const std::uint8_t* b) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return buf;
}

}  // namespace

IPAddr6 IPAddr6::fromV4(const std::uint8_t b[4]) {
  IPAddr6 a;
  for (int i = 0; i < 12; ++i) a.bytes_[i] = kMappedPrefix[i];
  for (int i = 0; i < 4; ++i) a.bytes_[12 + i] = b[i];
  return a;
}

IPAddr6 IPAddr6::fromBytes(std::span<const std::uint8_t> bytes) {
  if (bytes.size() == 4) return fromV4(bytes.data());
  IPAddr6 a;
  if (bytes.size() == 16)
    for (int i = 0; i < 16; ++i) a.bytes_[i] = bytes[i];
  return a;
}

bool IPAddr6::parse(std::string_view text) {
  std::uint8_t v4[4];
  if (text.find(':') == std::string_view::npos) {
    if (!parseV4(text, v4)) return false;
    *this = fromV4(v4);
    return true;
  }
  std::uint8_t v6[16];
  if (!parseV6(text, v6)) return false;
  for (int i = 0; i < 16; ++i) bytes_[i] = v6[i];
  return true;
}

bool IPAddr6::isV4() const {
  for (int i = 0; i < 12; ++i)
    if (bytes_[i] != kMappedPrefix[i]) return false;
  return true;
}

bool IPAddr6::isZero() const {
  for (auto b : bytes_)
    if (b) return false;
  return true;
}

std::array<std::uint8_t, 4> IPAddr6::v4Bytes() const {
  return {bytes_[12], bytes_[13], bytes_[14], bytes_[15]};
}

std::string IPAddr6::str(bool v4Plain) const {
  if (isV4()) return (v4Plain ? "" : "::ffff:") + v4Text(bytes_.data() + 12);
  unsigned groups[8];
  for (int i = 0; i < 8; ++i) groups[i] = unsigned{bytes_[2 * i]} << 8 | bytes_[2 * i + 1];
  // Longest run of at least two zero groups, the first one on a tie.
  int bestStart = -1, bestLen = 0;
  for (int i = 0; i < 8;) {
    if (groups[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && groups[j] == 0) ++j;
    if (j - i > bestLen && j - i >= 2) bestStart = i, bestLen = j - i;
    i = j;
  }
  std::string out;
  char buf[8];
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(buf, sizeof buf, "%x", groups[i]);
    out += buf;
  }
  return out;
}

}  // namespace ol
