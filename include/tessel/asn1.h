// DER reading (asn1::parser, a cursor over one nesting level) and writing (DerEncoder, which
// back-patches the lengths of constructed elements), plus the hex and OID text renderings used
// in dumps.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tessel/bignum.h"
#include "tessel/blob.h"

namespace tessel {

namespace asn1 {

// Sentinel tags of asn1::parser.
inline constexpr std::uint32_t tagEnd = 256;      // the level has no further element
inline constexpr std::uint32_t tagError = 257;    // malformed input; sticky
inline constexpr std::uint32_t tagUnread = 0xFFFFFFFF;

// parser walks the elements of one DER level. Everything it returns points into the input,
// which must outlive the parser and its results. It never reads outside its input: any
// malformation sets the sticky error tag 257 and empties all views, so a caller that expects a
// tag simply finds another one.
//
// Tags are the identifier bytes as read: 0x02 INTEGER, 0x30 SEQUENCE, 0x80+n and 0xA0+n for
// context tags. High tag numbers keep their identifier bytes concatenated with the
// continuation bits stripped (BF 1F reads as 0xBF1F).
struct parser {
  std::uint32_t tag = tagUnread;
  blob rest;                               // bytes after the current element, to the level's end
  const unsigned char* elemStart = nullptr;  // first byte of the current element
  blob content;                            // the current element's content

  // parser reads the first element of `input` (tag 256 if it is empty, 257 if malformed).
  explicit parser(blob input) : rest(input) { next(); }

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
};

// bitStringContent drops the unused-bits byte of a BIT STRING content; empty when the content
// is empty or that count is 8 or more. The count is not otherwise applied.
blob bitStringContent(blob content);

// toDerInt returns the minimal two's-complement content of the non-negative `v` (0 -> 00,
// 128 -> 00 80, 0xFFFFFFFF -> 00 FF FF FF FF).
std::vector<unsigned char> toDerInt(unsigned v);

// str renders bytes as lower-case hex pairs joined by ':' ("01:ab:ff"); empty for no bytes.
std::string str(const blob& b);
// oidStr renders OID content bytes in dotted decimal; "()" for an empty blob. The first byte
// alone gives the first two arcs (byte / 40 and byte % 40), as our dumps always have.
std::string oidStr(blob oid);
// oid2name gives the signature-algorithm name of an OID ("SHA256+RSA", "ED25519", ...), or its
// oidStr when it has none.
std::string oid2name(blob oid);

}  // namespace asn1

class DerEncoder;

// DerScope is an open constructed element of a DerEncoder. Closing it (close() or destruction)
// writes the element's final length. Moving hands the element over; a moved-from scope closes
// nothing.
class DerScope {
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
class DerScopeStack {
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
class DerEncoder {
 public:
  std::vector<unsigned char> data;

  // addTag appends the tag byte (low 8 bits of `tag`) and the DER length `len`; the caller
  // appends the content.
  void addTag(unsigned tag, unsigned len);
  void addPrimitive(unsigned tag, asn1::blob content);
  void addBitString(asn1::blob bits);  // with a 00 unused-bits byte
  void addOctetString(asn1::blob bytes) { addPrimitive(0x04, bytes); }
  void addOid(asn1::blob oidContent) { addPrimitive(0x06, oidContent); }
  void addNull() { addTag(0x05, 0); }
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
  DerScope beginSequence() { return beginElement(0x30); }
  DerScope beginContext0() { return beginElement(0xA0); }
  // element writes `tag` around whatever `body(*this)` appends.
  template <class Body>
  void element(unsigned tag, Body&& body) {
    DerScope scope = beginElement(tag);
    body(*this);
  }
  template <class Body>
  void sequence(Body&& body) {
    element(0x30, std::forward<Body>(body));
  }

  // updateLen closes the element whose tag byte is at `pos`, widening its length field when
  // the content turned out longer than 127 bytes.
  void updateLen(unsigned pos);
};

}  // namespace tessel
