#include "tessel/asn1.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/asn1.h>
#include <openssl/objects.h>
#endif

#include "support.h"

namespace tessel {
namespace {

using asn1::blob;
using asn1::parser;
using test::Bytes;
using test::fromHex;

// tagText is a tag in hex, or "end" or "error".
std::string tagText(std::uint32_t tag) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", tag);
  return tag == asn1::tagEnd ? "end" : tag == asn1::tagError ? "error" : text;
}

// walk renders every element of one level as "tag:content-hex" joined by spaces, ending in
// "end" or "error" — the whole observable result of a parse.
std::string walk(const Bytes& der) {
  parser p{blob(der)};
  std::string out;
  for (; p.tag != asn1::tagEnd && p.tag != asn1::tagError; p.next())
    out += tagText(p.tag) + ":" + test::toHex(p.content.vec()) + " ";
  return out + tagText(p.tag);
}

// The tables of this file are in tests/data/parse_cases.json (see gen_parse_cases.py beside it).
using test::parseCases;

TEST(DerParser, ElementsAndMalformations) {
  for (const auto& r : parseCases("derWalk")) EXPECT_EQ(walk(fromHex(r[0].get<std::string>())), r[1]) << r[0];
}

TEST(DerParser, StepsAndTakers) {
  const nlohmann::json rows = test::dataFile("pki_asn1.json")["scripts"];  // a copy: the file's object is a temporary
  for (const auto& script : rows) {
    const Bytes der = fromHex(script["der"].get<std::string>());
    parser p{blob(der)};
    for (const auto& op : script["ops"]) {
      const std::string name = op[0];
      nlohmann::json got;
      if (name == "tag") got = tagText(p.tag);
      if (name == "next") got = p.next();
      if (name == "enter") got = p.enter();
      if (name == "takeUInt") got = p.takeUInt();
      if (name == "takeBool") got = p.takeBool();
      if (name == "skipIf") got = p.skipIf(op[1].get<unsigned>());
      if (name == "takeElement") got = test::toHex(p.takeElement().vec());
      if (name == "takeContent") got = test::toHex(p.takeContent().vec());
      if (name == "takeString") got = p.takeString();
      if (name == "cleared") got = p.content.empty() && p.rest.empty() && p.elemStart == nullptr;
      EXPECT_EQ(got, op.back()) << script["der"] << " " << op;
    }
  }
}

TEST(DerParser, BitStringContent) {
  for (const auto& r : parseCases("bitStrings"))
    EXPECT_EQ(test::toHex(asn1::bitStringContent(blob(fromHex(r[0].get<std::string>()))).vec()), r[1]) << r[0];
}

TEST(DerEncoder, LengthsOfClosedScopes) {
  for (const auto& r : parseCases("derLengths")) {
    const unsigned len = r[0];
    const std::string h = r[1];
    DerEncoder e;
    {
      DerScope s = e.beginSequence();
      e.data.insert(e.data.end(), len, 0x55);
    }
    ASSERT_EQ(e.data.size(), h.size() / 2 + len) << len;
    EXPECT_EQ(test::toHex(Bytes(e.data.begin(), e.data.begin() + h.size() / 2)), h) << len;
    DerEncoder direct;
    direct.addTag(0x30, len);
    EXPECT_EQ(test::toHex(direct.data), h) << "addTag " << len;
  }
}

TEST(DerEncoder, NestedScopesMovesAndStacks) {
  DerEncoder e;
  {
    DerScopeStack stack;
    stack.push(e.beginSequence());
    stack.push(e.beginContext0());
    e.addInt(0x02, 127);
    e.addBool(0x01, true);
    e.addNull();
    e.addOctetString(blob(std::string_view("ab")));
    e.addBitString(blob(std::string_view("c")));
    DerScope moved = e.beginElement(0x31);
    DerScope target = std::move(moved);  // the moved-from scope closes nothing
    e.addInt(0x02, 0xFFFFFFFF);
  }
  EXPECT_EQ(test::toHex(e.data), "301ba01902017f0101ff050004026162030200633107020500ffffffff");
  DerEncoder f;
  f.sequence([](DerEncoder& in) { in.element(0xA3, [](DerEncoder& x) { x.addInt(0x02, 0); }); });
  EXPECT_EQ(test::toHex(f.data), "3005a303020100");
}

TEST(DerEncoder, MinimalIntegers) {
  for (const auto& r : parseCases("derUInt"))
    EXPECT_EQ(test::toHex(asn1::toDerInt(r[0].get<unsigned>())), r[1]) << r[0];
  for (const auto& r : parseCases("derBigInt")) {
    DerEncoder e;
    e.addInt(0x02, BigNum(asn1::blob(fromHex(r[0].get<std::string>()))));
    EXPECT_EQ(test::toHex(e.data), r[1]) << r[0];
  }
}

TEST(Asn1Text, HexAndOids) {
  EXPECT_EQ(asn1::str({}), "");
  Bytes b = fromHex("01abff");
  EXPECT_EQ(asn1::str(blob(b)), "01:ab:ff");
  EXPECT_EQ(asn1::oidStr({}), "()");
  for (const auto& r : parseCases("oidNames"))
    EXPECT_EQ(asn1::oid2name(blob(fromHex(r[0].get<std::string>()))), r[1]) << r[0];
}

#if TESSEL_HAVE_OPENSSL
// oidStr against OpenSSL's rendering for random OIDs whose first two arcs fit in one byte.
TEST(Asn1Text, OidsMatchOpenSsl) {
  test::TestRng rng(6);
  for (int i = 0; i < 2000; ++i) {
    std::string text = std::to_string(rng.below(3)) + "." + std::to_string(rng.below(40));
    for (std::size_t n = rng.below(8); n > 0; --n)
      text += "." + std::to_string(rng.below(4) == 0 ? rng.next() : rng.below(300));
    ASN1_OBJECT* obj = OBJ_txt2obj(text.c_str(), 1);
    ASSERT_TRUE(obj) << text;
    blob content(OBJ_get0_data(obj), OBJ_length(obj));
    EXPECT_EQ(asn1::oidStr(content), text);
    ASN1_OBJECT_free(obj);
  }
}
#endif

TEST(BlobDeathTest, PoppingPastTheEndAborts) {
  Bytes two = fromHex("0102");
  blob b(two);
  EXPECT_EQ(b.pop_front(2).size(), 2u);
  EXPECT_DEATH(b.pop_front(),
               "assertion \"start < finish\" failed: file \"../include/tessel/blob.h\", line 56, function: pop_front");
  blob c(two);
  EXPECT_DEATH(
      c.pop_front(3),
      "assertion \"start \\+ sz <= finish\" failed: file \"../include/tessel/blob.h\", line 63, function: pop_front");
}

}  // namespace
}  // namespace tessel
