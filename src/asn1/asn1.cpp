#include "tessel/asn1.h"

#include <cstdio>

#include "tessel/oids.h"

namespace tessel {

namespace asn1 {

namespace {

// lengthBytes is how many bytes a long-form length needs: 4 minus the leading zero bytes.
unsigned lengthBytes(unsigned len) {
  unsigned n = 4;
  while (n > 1 && (len >> (8 * (n - 1))) == 0) --n;
  return n;
}

}  // namespace

bool parser::next() {
  auto fail = [this] {
    tag = tagError;
    rest = {};
    elemStart = nullptr;
    content = {};
    return false;
  };
  if (tag == tagError) return false;
  if (tag == tagEnd) return fail();
  elemStart = nullptr;
  content = {};
  if (rest.empty()) {
    tag = tagEnd;
    return true;
  }
  elemStart = rest.start;
  std::uint32_t t = rest.pop_front();
  // X.690 8.1.2.4: tag numbers of 31 and more follow in base-128 bytes. A leading 0x80 byte
  // (not minimal, X.690 8.1.2.4.2 c) is let through as stored data has it; at most four
  // identifier bytes fit the tag word.
  if ((t & 0x1F) == 0x1F) {
    unsigned char b;
    do {
      if (rest.empty() || t > 0xFFFFFF) return fail();
      b = rest.pop_front();
      t = (t << 8) + (b & 0x7F);
    } while (b & 0x80);
  }
  if (rest.empty()) return fail();
  std::uint32_t len = rest.pop_front();
  // X.690 8.1.3.4: a first length byte below 0x80 is the short form, the length itself.
  if (len >= 0x80) {
    // X.690 8.1.3.5: the long form gives the count of length bytes that follow. A count of 0
    // is the indefinite form (X.690 8.1.3.6), which DER forbids (X.690 10.1) and we refuse;
    // counts over four (0xFF among them, reserved by X.690 8.1.3.5 c) exceed our lengths and
    // are refused. Long forms that a shorter form could say (leading zero bytes, or values
    // below 0x80, both against X.690 10.1) are accepted: stored objects have them.
    const unsigned n = len & 0x7F;
    if (n == 0 || n > 4 || rest.size() < n) return fail();
    len = 0;
    for (unsigned i = 0; i < n; ++i) {
      if (len > 0xFFFFFF) return fail();
      len = (len << 8) | rest.pop_front();
    }
  }
  // A length beyond the bytes of this level is malformed: nothing is read past the end.
  if (rest.size() < len) return fail();
  tag = t;
  content = rest.pop_front(len);
  return true;
}

bool parser::enter() {
  if (tag != tagSequence) {
    tag = tagError;
    rest = {};
    elemStart = nullptr;
    content = {};
    return false;
  }
  rest = content;
  return next();
}

blob parser::takeContent() {
  blob c = content;
  return next() ? c : blob();
}

blob parser::takeElement() {
  blob whole(elemStart, content.finish);
  if (!elemStart) whole = {};
  return next() ? whole : blob();
}

bool parser::skipIf(std::uint32_t t) { return tag == t ? next() : false; }

bool parser::read(std::uint32_t t, blob* out) {
  if (tag != t) return false;
  const blob c = content;
  if (!next()) return false;
  if (out) *out = c;
  return true;
}

bool parser::read(std::uint32_t t, parser* child) {
  blob c;
  if (!read(t, &c)) return false;
  *child = parser(c);
  return true;
}

bool parser::readElement(std::uint32_t t, blob* whole) {
  if (tag != t) return false;
  const blob w(elemStart, content.finish);
  if (!next()) return false;
  *whole = w;
  return true;
}

Presence parser::readOptional(std::uint32_t t, blob* out) {
  if (tag == tagError) return Presence::malformed;
  if (tag != t) return Presence::absent;
  return read(t, out) ? Presence::present : Presence::malformed;
}

Presence parser::readOptional(std::uint32_t t, parser* child) {
  blob c;
  const Presence found = readOptional(t, &c);
  if (found == Presence::present) *child = parser(c);
  return found;
}

bool readOnly(blob der, std::uint32_t t, parser* child) {
  parser p(der);
  return p.read(t, child) && p.atEnd();
}

// takeUInt and takeString read the value before stepping, so a malformed element after the
// current one still leaves the value read (the step's failure shows in the parser's state).
std::uint32_t parser::takeUInt() {
  const blob c = content;
  next();
  if (c.size() > 4) return 0;
  std::uint32_t v = 0;
  for (unsigned char b : c) v = (v << 8) | b;
  return v;
}

bool parser::takeBool() {
  blob c = takeContent();
  if (c.size() != 1) return false;
  if (c[0] == 0xFF) return true;
  if (c[0] != 0x00) {
    tag = tagError;
    rest = {};
    elemStart = nullptr;
    content = {};
  }
  return false;
}

std::string parser::takeString() {
  const blob c = content;
  next();
  return std::string(c.begin(), c.end());
}

blob bitStringContent(blob content) {
  if (content.empty()) return {};
  unsigned unused = content.pop_front();
  return unused < 8 ? content : blob();
}

std::vector<unsigned char> toDerInt(unsigned v) {
  std::vector<unsigned char> out;
  for (int shift = 24; shift >= 0; shift -= 8) {
    unsigned char b = static_cast<unsigned char>(v >> shift);
    if (out.empty() && b == 0) continue;
    if (out.empty() && (b & 0x80)) out.push_back(0);
    out.push_back(b);
  }
  if (out.empty()) out.push_back(0);
  return out;
}

std::string str(const blob& b) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(b.size() * 3);
  for (unsigned char c : b) {
    if (!out.empty()) out += ':';
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string oidStr(blob oid) {
  if (oid.empty()) return "()";
  const unsigned first = oid.pop_front();
  std::string out = std::to_string(first / 40);
  out += '.';
  out += std::to_string(first % 40);
  unsigned long long arc = 0;
  for (unsigned char b : oid) {
    arc = (arc << 7) | (b & 0x7F);
    if (!(b & 0x80)) {
      out += '.';
      out += std::to_string(arc);
      arc = 0;
    }
  }
  return out;
}

std::string oid2name(blob oid) {
  const SignatureAlgorithm* a = findSignatureAlgorithm(oid);
  return a && a->name ? a->name : oidStr(oid);
}

}  // namespace asn1

DerScope& DerScope::operator=(DerScope&& other) noexcept {
  if (this != &other) {
    close();
    encoder_ = other.encoder_;
    pos_ = std::exchange(other.pos_, closed);
  }
  return *this;
}

void DerScope::close() {
  if (pos_ == closed) return;
  encoder_->updateLen(std::exchange(pos_, closed));
}

void DerEncoder::addTag(unsigned tag, unsigned len) {
  data.push_back(static_cast<unsigned char>(tag));
  if (len < 0x80) {
    data.push_back(static_cast<unsigned char>(len));
    return;
  }
  const unsigned n = asn1::lengthBytes(len);
  data.push_back(static_cast<unsigned char>(0x80 + n));
  for (unsigned i = n; i-- > 0;) data.push_back(static_cast<unsigned char>(len >> (8 * i)));
}

void DerEncoder::addPrimitive(unsigned tag, asn1::blob content) {
  addTag(tag, static_cast<unsigned>(content.size()));
  addBytes(content);
}

void DerEncoder::addBitString(asn1::blob bits) {
  addTag(asn1::tagBitString, static_cast<unsigned>(bits.size() + 1));
  data.push_back(0);
  addBytes(bits);
}

void DerEncoder::addBool(unsigned tag, bool v) {
  addTag(tag, 1);
  data.push_back(v ? 0xFF : 0x00);
}

void DerEncoder::addInt(unsigned tag, unsigned v) {
  auto content = asn1::toDerInt(v);
  addPrimitive(tag, content);
}

void DerEncoder::addInt(unsigned tag, const BigNum& v) {
  std::vector<unsigned char> content = v.bin();
  if (v.bits() % 8 == 0) content.insert(content.begin(), 0);  // zero, or the top bit set
  addPrimitive(tag, asn1::blob(content));
}

DerScope DerEncoder::beginElement(unsigned tag) {
  const unsigned pos = static_cast<unsigned>(data.size());
  addTag(tag, 0);
  return DerScope(*this, pos);
}

void DerEncoder::updateLen(unsigned pos) {
  const unsigned len = static_cast<unsigned>(data.size() - pos - 2);
  if (len < 0x80) {
    data[pos + 1] = static_cast<unsigned char>(len);
    return;
  }
  const unsigned n = asn1::lengthBytes(len);
  data.insert(data.begin() + pos + 2, n, 0);
  data[pos + 1] = static_cast<unsigned char>(0x80 + n);
  for (unsigned i = 0; i < n; ++i) data[pos + 2 + i] = static_cast<unsigned char>(len >> (8 * (n - 1 - i)));
}

}  // namespace tessel
