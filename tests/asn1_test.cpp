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
  EXPECT_TRUE(asn1::bitStringContent({}).empty());
  Bytes ok = fromHex("03abcd"), bad = fromHex("08ab");
  EXPECT_EQ(test::toHex(asn1::bitStringContent(blob(ok)).vec()), "abcd");
  EXPECT_TRUE(asn1::bitStringContent(blob(bad)).empty());
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

// Random trees written by DerEncoder, walked by OpenSSL's ASN1_get_object and by our parser.
struct Node {
  unsigned tag;
  Bytes leaf;
  std::vector<Node> kids;
};

Node randomTree(test::TestRng& rng, int depth) {
  Node n{0x30, {}, {}};
  if (depth == 0 || rng.below(3) == 0) {
    const std::size_t sizes[] = {0, 1, 127, 128, 255, 256, 70000};
    n.tag = 0x04;
    n.leaf = rng.bytes(rng.below(2) ? rng.below(300) : sizes[rng.below(7)]);
    return n;
  }
  n.tag = rng.below(2) ? 0x30 : 0xA0 + static_cast<unsigned>(rng.below(4));
  for (std::size_t k = rng.below(5); k > 0; --k) n.kids.push_back(randomTree(rng, depth - 1));
  return n;
}

void encode(DerEncoder& e, const Node& n) {
  if (n.kids.empty() && n.tag == 0x04) return e.addOctetString(blob(n.leaf));
  DerScope s = e.beginElement(n.tag);
  for (const Node& k : n.kids) encode(e, k);
}

void checkWithOpenSsl(const unsigned char*& p, long avail, const Node& n) {
  long len;
  int tag, cls;
  const unsigned char* start = p;
  int r = ASN1_get_object(&p, &len, &tag, &cls, avail);
  ASSERT_EQ(r & 0x80, 0) << "OpenSSL rejected the encoding";
  ASSERT_EQ(static_cast<unsigned>(*start), n.tag);
  if (n.kids.empty() && n.tag == 0x04) {
    ASSERT_EQ(static_cast<std::size_t>(len), n.leaf.size());
    p += len;
    return;
  }
  const unsigned char* end = p + len;
  for (const Node& k : n.kids) checkWithOpenSsl(p, end - p, k);
  ASSERT_EQ(p, end);
}

TEST(DerEncoder, RandomTreesReadBackByOpenSslAndOurParser) {
  test::TestRng rng(0xde7);
  for (int i = 0; i < 300; ++i) {
    Node root = randomTree(rng, 4);
    DerEncoder e;
    encode(e, root);
    const unsigned char* p = e.data.data();
    checkWithOpenSsl(p, static_cast<long>(e.data.size()), root);
    ASSERT_EQ(p, e.data.data() + e.data.size());
    parser ours{blob(e.data)};
    EXPECT_EQ(ours.tag, root.tag);
    EXPECT_EQ(ours.takeElement().size(), e.data.size());
    EXPECT_EQ(ours.tag, asn1::tagEnd);
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

TEST(Blob, EqualityAndOrder) {
  Bytes a = fromHex("0102"), a2 = fromHex("0102"), b = fromHex("0103"), c = fromHex("01");
  EXPECT_TRUE(blob(a) == blob(a2));
  EXPECT_FALSE(blob(a) == blob(b));
  EXPECT_TRUE(blob(c) < blob(a));  // shorter first
  EXPECT_TRUE(blob(a) < blob(b));
  EXPECT_TRUE(blob() == blob(a.data(), std::size_t{0}));
}

}  // namespace
}  // namespace tessel
