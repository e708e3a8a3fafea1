// DER reading (asn1::parser, a cursor over one nesting level) and writing (DerEncoder, which
// back-patches the lengths of constructed elements), plus the hex and OID text renderings used
// in dumps.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tessel/bignum.h"
#include "tessel/blob.h"

namespace tessel {

namespace asn1 {

// Sentinel tags of asn1::parser.
inline constexpr std::uint32_t tagEnd = 256;    // the level has no further element
inline constexpr std::uint32_t tagError = 257;  // malformed input; sticky
inline constexpr std::uint32_t tagUnread = 0xFFFFFFFF;

// Universal tags as their identifier bytes (constructed ones with the 0x20 bit set).
inline constexpr std::uint32_t tagBoolean = 0x01;
inline constexpr std::uint32_t tagInteger = 0x02;
inline constexpr std::uint32_t tagBitString = 0x03;
inline constexpr std::uint32_t tagOctetString = 0x04;
inline constexpr std::uint32_t tagNull = 0x05;
inline constexpr std::uint32_t tagOid = 0x06;
inline constexpr std::uint32_t tagEnumerated = 0x0A;
inline constexpr std::uint32_t tagUtf8String = 0x0C;
inline constexpr std::uint32_t tagPrintableString = 0x13;
inline constexpr std::uint32_t tagT61String = 0x14;
inline constexpr std::uint32_t tagIa5String = 0x16;
inline constexpr std::uint32_t tagUtcTime = 0x17;
inline constexpr std::uint32_t tagGeneralizedTime = 0x18;
inline constexpr std::uint32_t tagUniversalString = 0x1C;
inline constexpr std::uint32_t tagBmpString = 0x1E;
inline constexpr std::uint32_t tagSequence = 0x30;  // SEQUENCE and SEQUENCE OF
inline constexpr std::uint32_t tagSet = 0x31;       // SET and SET OF

// explicitTag is the tag of `[n] EXPLICIT` (context-specific, constructed: 0xA0|n), n < 31.
constexpr std::uint32_t explicitTag(unsigned n) { return 0xA0 | n; }
// implicitTag is the tag of `[n] IMPLICIT` over a primitive type (0x80|n), n < 31.
constexpr std::uint32_t implicitTag(unsigned n) { return 0x80 | n; }
// implicitConstructedTag is the tag of `[n] IMPLICIT` over a constructed type such as a
// SEQUENCE (0xA0|n), n < 31.
constexpr std::uint32_t implicitConstructedTag(unsigned n) { return 0xA0 | n; }

// Presence is what parser::readOptional found for an OPTIONAL element.
enum class Presence { absent, present, malformed };

// parser walks the elements of one DER level. Everything it returns points into the input,
// which must outlive the parser and its results. It never reads outside its input: any
// malformation sets the sticky error tag 257 and empties all views, so a caller that expects a
// tag simply finds another one.
//
// Tags are the identifier bytes as read: 0x02 INTEGER, 0x30 SEQUENCE, 0x80+n and 0xA0+n for
// context tags. High tag numbers keep their identifier bytes concatenated with the
// continuation bits stripped (BF 1F reads as 0xBF1F).
struct TESSEL_API parser {
  std::uint32_t tag = tagUnread;
  blob rest;                                 // bytes after the current element, to the level's end
  const unsigned char* elemStart = nullptr;  // first byte of the current element
  blob content;                              // the current element's content

  // parser reads the first element of `input` (tag 256 if it is empty, 257 if malformed).
  explicit parser(blob input) : rest(input) { next(); }
  // A default parser is at the end of an empty level, ready to be assigned.
  parser() : parser(blob()) {}

  // next reads the element after the current one. It returns true for an element or for the
  // first arrival at the end (tag 256), false on malformed input or when stepping past the end
  // (tag 257 from then on). Non-minimal long length forms are accepted; indefinite lengths
  // and lengths over four bytes are not.
  bool next();
  // enter descends into the current SEQUENCE (tag 0x30) and reads its first element. The outer
  // level is left behind. Any other tag sets the error state and returns false.
  bool enter();
  // takeContent returns the current element's content and steps on; empty if stepping fails.
  blob takeContent();
  // takeElement returns the whole current element (tag, length, content) and steps on; empty
  // if stepping fails.
  blob takeElement();
  // skipIf steps over the current element if its tag is `t` and returns next()'s result;
  // otherwise it stays and returns false.
  bool skipIf(std::uint32_t t);
  // takeUInt reads the content as an unsigned big-endian number of at most four bytes (empty
  // reads 0, longer reads 0) and steps on.
  std::uint32_t takeUInt();
  // takeBool reads a BOOLEAN: 0xFF true, 0x00 false, a content that is not one byte false; any
  // other single byte sets the error state and gives false.
  bool takeBool();
  // takeString returns the content bytes as text and steps on.
  std::string takeString();

  // read checks that the current element has tag `t`, hands out its content in `*out` (when
  // `out` is not null) and steps past it. It returns false, leaving the parser and `*out` as they
  // were, when the tag differs; and false in the error state when the element after it is
  // malformed.
  bool read(std::uint32_t t, blob* out = nullptr);
  // read with a child parser: as above, `*child` becomes a parser over the content (reading its
  // first element), as `parser(content)` would.
  bool read(std::uint32_t t, parser* child);
  // readElement is read handing out the whole element (tag, length and content).
  bool readElement(std::uint32_t t, blob* whole);
  // readOptional reads an `OPTIONAL` element of tag `t`: present (content in `*out`, stepped
  // past), absent (another tag or the level's end; nothing moves), or malformed (the parser is,
  // or by stepping comes into, the error state).
  Presence readOptional(std::uint32_t t, blob* out = nullptr);
  Presence readOptional(std::uint32_t t, parser* child);
  // isAt checks that the current element has tag `t` and hands out its content in `*out` (when
  // not null) without stepping: what follows it is not looked at.
  bool isAt(std::uint32_t t, blob* out = nullptr) const {
    if (tag != t) return false;
    if (out) *out = content;
    return true;
  }
  // atEnd says the level has no further element (and nothing was malformed).
  bool atEnd() const { return tag == tagEnd; }
  // failed says the input was malformed; the state is sticky.
  bool failed() const { return tag == tagError; }
};

// readOnly reads `der` as exactly one element of tag `t` and gives a parser over its content;
// false when the tag differs, the element is malformed or anything follows it.
TESSEL_API bool readOnly(blob der, std::uint32_t t, parser* child);

// bitStringContent drops the unused-bits byte of a BIT STRING content; empty when the content
// is empty or that count is 8 or more. The count is not otherwise applied.
TESSEL_API blob bitStringContent(blob content);

// toDerInt returns the minimal two's-complement content of the non-negative `v` (0 -> 00,
// 128 -> 00 80, 0xFFFFFFFF -> 00 FF FF FF FF).
TESSEL_API std::vector<unsigned char> toDerInt(unsigned v);

// str renders bytes as lower-case hex pairs joined by ':' ("01:ab:ff"); empty for no bytes.
TESSEL_API std::string str(const blob& b);
// oidStr renders OID content bytes in dotted decimal; "()" for an empty blob. The first byte
// alone gives the first two arcs (byte / 40 and byte % 40), as our dumps always have.
TESSEL_API std::string oidStr(blob oid);
// oid2name gives the signature-algorithm name of an OID ("SHA256+RSA", "ED25519", ...), or its
// oidStr when it has none.
TESSEL_API std::string oid2name(blob oid);

}  // namespace asn1

class DerEncoder;

// DerScope is an open constructed element of a DerEncoder. Closing it (close() or destruction)
// writes the element's final length. Moving hands the element over; a moved-from scope closes
// nothing.
class TESSEL_API DerScope {
 public:
  static constexpr unsigned closed = 0xFFFFFFFF;
  DerScope(DerEncoder& encoder, unsigned pos) : encoder_(&encoder), pos_(pos) {}
  DerScope(DerScope&& other) noexcept : encoder_(other.encoder_), pos_(std::exchange(other.pos_, closed)) {}
  DerScope& operator=(DerScope&& other) noexcept;
  DerScope(const DerScope&) = delete;
  DerScope& operator=(const DerScope&) = delete;
  ~DerScope() { close(); }
  // close finishes the element; later calls do nothing.
  void close();

 private:
  DerEncoder* encoder_;
  unsigned pos_;
};

// DerScopeStack keeps open scopes and closes them innermost first.
class TESSEL_API DerScopeStack {
 public:
  DerScopeStack() = default;
  DerScopeStack(const DerScopeStack&) = delete;
  DerScopeStack& operator=(const DerScopeStack&) = delete;
  ~DerScopeStack() { closeAll(); }
  void push(DerScope&& scope) { scopes_.push_back(std::move(scope)); }
  // pop closes the innermost scope.
  void pop() { scopes_.pop_back(); }
  void closeAll() {
    while (!scopes_.empty()) scopes_.pop_back();
  }
  std::size_t size() const { return scopes_.size(); }

 private:
  std::vector<DerScope> scopes_;
};

// DerEncoder appends DER elements front to back into a byte vector. Only single-byte tags are
// written. It cannot fail other than by running out of memory.
class TESSEL_API DerEncoder {
 public:
  std::vector<unsigned char> data;

  // addTag appends the tag byte (low 8 bits of `tag`) and the DER length `len`; the caller
  // appends the content.
  void addTag(unsigned tag, unsigned len);
  void addPrimitive(unsigned tag, asn1::blob content);
  void addBitString(asn1::blob bits);  // with a 00 unused-bits byte
  void addOctetString(asn1::blob bytes) { addPrimitive(asn1::tagOctetString, bytes); }
  void addOid(asn1::blob oidContent) { addPrimitive(asn1::tagOid, oidContent); }
  void addNull() { addTag(asn1::tagNull, 0); }
  void addBool(unsigned tag, bool v);
  void addInt(unsigned tag, unsigned v);
  // addInt writes a non-negative big number as a minimal INTEGER content: a 00 byte goes in
  // front when the top bit would be set, and zero is the single byte 00.
  void addInt(unsigned tag, const BigNum& v);
  // addBytes appends raw bytes (an element encoded elsewhere).
  void addBytes(asn1::blob bytes) { data.insert(data.end(), bytes.begin(), bytes.end()); }

  // beginElement opens a constructed element with a one-byte placeholder length; the returned
  // scope closes it. beginSequence opens 0x30, beginContext0 opens [0] (0xA0).
  DerScope beginElement(unsigned tag);
  DerScope beginSequence() { return beginElement(asn1::tagSequence); }
  DerScope beginContext0() { return beginElement(asn1::explicitTag(0)); }
  // element writes `tag` around whatever `body(*this)` appends.
  template <class Body>
  void element(unsigned tag, Body&& body) {
    DerScope scope = beginElement(tag);
    body(*this);
  }
  template <class Body>
  void sequence(Body&& body) {
    element(asn1::tagSequence, std::forward<Body>(body));
  }

  // updateLen closes the element whose tag byte is at `pos`, widening its length field when
  // the content turned out longer than 127 bytes.
  void updateLen(unsigned pos);
};

}  // namespace tessel
