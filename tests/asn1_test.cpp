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

// walk renders every element of one level as "tag:content-hex" joined by spaces, ending in
// "end" or "error" — the whole observable result of a parse.
std::string walk(const Bytes& der) {
  parser p{blob(der)};
  std::string out;
  while (p.tag != asn1::tagEnd && p.tag != asn1::tagError) {
    char tag[16];
    std::snprintf(tag, sizeof tag, "%x:", p.tag);
    out += tag + test::toHex(p.content.vec()) + " ";
    p.next();
  }
  return out + (p.tag == asn1::tagEnd ? "end" : "error");
}

TEST(DerParser, ElementsAndMalformations) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "end"},
      {"020101", "2:01 end"},
      {"0500", "5: end"},
      {"3003020105040100", "30:020105 4:00 end"},
      {"308103020105", "30:020105 end"},                  // non-minimal long form accepted
      {"30820003020105", "30:020105 end"},
      {"3080020105", "error"},                            // indefinite length
      {"3085000000000302", "error"},                      // five length bytes
      {"0201", "error"},                                  // length larger than what remains
      {"020201", "error"},
      {"02", "error"},                                    // no length byte
      {"3081", "error"},                                  // long form without its bytes
      {"0201050201", "2:05 error"},                       // good element, then truncation
      {"bf1f0100", "bf1f:00 end"},                        // high tag number: identifier bytes kept
      {"9f8101020a0b", "9f0101:0a0b end"},
      {"1f", "error"},                                    // high tag form cut short
      {"1fffffffff7f00", "error"},                        // identifier longer than 32 bits
      {"048401000000", "error"},                          // 16 MiB claimed, nothing there
      {"0484ff00000000", "error"},                        // length beyond 32 bits' worth
  };
  for (auto [hex, expected] : rows) EXPECT_EQ(walk(fromHex(hex)), expected) << hex;
}

TEST(DerParser, EndIsReportedOnceThenSticksAsError) {
  Bytes der = fromHex("0500");
  parser p{blob(der)};
  EXPECT_EQ(p.tag, 5u);
  EXPECT_TRUE(p.next());
  EXPECT_EQ(p.tag, asn1::tagEnd);
  EXPECT_FALSE(p.next());
  EXPECT_EQ(p.tag, asn1::tagError);
  EXPECT_FALSE(p.next());
  EXPECT_EQ(p.tag, asn1::tagError);
  EXPECT_TRUE(p.content.empty() && p.rest.empty() && p.elemStart == nullptr);
}

TEST(DerParser, TakersAndEnter) {
  Bytes der = fromHex("3010" "020500ffffffff" "02020080" "010101" "0500");
  parser p{blob(der)};
  ASSERT_TRUE(p.enter());
  EXPECT_EQ(p.takeUInt(), 0u);    // five content bytes read as 0
  EXPECT_EQ(p.takeUInt(), 128u);  // 00 80
  EXPECT_FALSE(p.takeBool());     // content 01: error state
  EXPECT_EQ(p.tag, asn1::tagError);

  Bytes bools = fromHex("0101ff" "010100" "01020000" "0100" "0500");
  parser b{blob(bools)};
  EXPECT_TRUE(b.takeBool());
  EXPECT_FALSE(b.takeBool());
  EXPECT_FALSE(b.takeBool());  // two bytes: false, no error
  EXPECT_FALSE(b.takeBool());  // empty: false, no error
  EXPECT_EQ(b.tag, 5u);
  EXPECT_FALSE(b.skipIf(4));
  EXPECT_TRUE(b.skipIf(5));
  EXPECT_EQ(b.tag, asn1::tagEnd);

  Bytes seq = fromHex("300302010504026869");
  parser s{blob(seq)};
  EXPECT_EQ(test::toHex(s.takeElement().vec()), "3003020105");
  EXPECT_EQ(s.takeString(), "hi");
  EXPECT_TRUE(s.takeContent().empty());  // at the end: the step fails
  parser notSeq{blob(seq.data() + 5, seq.data() + seq.size())};
  EXPECT_FALSE(notSeq.enter());
  EXPECT_EQ(notSeq.tag, asn1::tagError);
}

TEST(DerParser, BitStringContent) {
  EXPECT_TRUE(asn1::bitStringContent({}).empty());
  Bytes ok = fromHex("03abcd"), bad = fromHex("08ab");
  EXPECT_EQ(test::toHex(asn1::bitStringContent(blob(ok)).vec()), "abcd");
  EXPECT_TRUE(asn1::bitStringContent(blob(bad)).empty());
}

TEST(DerEncoder, LengthsOfClosedScopes) {
  const std::pair<unsigned, const char*> rows[] = {{0, "3000"},       {127, "307f"},     {128, "308180"},
                                                   {200, "3081c8"},   {255, "3081ff"},   {256, "30820100"},
                                                   {300, "3082012c"}, {65536, "3083010000"}};
  for (auto [len, header] : rows) {
    DerEncoder e;
    {
      DerScope s = e.beginSequence();
      e.data.insert(e.data.end(), len, 0x55);
    }
    std::string h = header;
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
  EXPECT_EQ(test::toHex(e.data), "301b" "a019" "02017f" "0101ff" "0500" "04026162" "03020063" "3107020500ffffffff");
  DerEncoder f;
  f.sequence([](DerEncoder& in) { in.element(0xA3, [](DerEncoder& x) { x.addInt(0x02, 0); }); });
  EXPECT_EQ(test::toHex(f.data), "3005a303020100");
}

TEST(DerEncoder, MinimalIntegers) {
  const std::pair<unsigned, const char*> rows[] = {{0, "00"},       {1, "01"},         {127, "7f"},
                                                   {128, "0080"},   {255, "00ff"},     {256, "0100"},
                                                   {0x1234, "1234"}, {0x800000, "00800000"}, {0xFFFFFFFF, "00ffffffff"}};
  for (auto [v, hex] : rows) EXPECT_EQ(test::toHex(asn1::toDerInt(v)), hex) << v;
}

TEST(DerEncoder, BigIntegers) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "020100"}, {"01", "020101"}, {"7f", "02017f"}, {"80", "02020080"},
      {"0100", "02020100"}, {"ffffffffff", "020600ffffffffff"}, {"00000080", "02020080"}};
  for (auto [value, der] : rows) {
    DerEncoder e;
    e.addInt(0x02, BigNum(asn1::blob(fromHex(value))));
    EXPECT_EQ(test::toHex(e.data), der) << value;
  }
}

TEST(Asn1Text, HexAndOids) {
  EXPECT_EQ(asn1::str({}), "");
  Bytes b = fromHex("01abff");
  EXPECT_EQ(asn1::str(blob(b)), "01:ab:ff");
  EXPECT_EQ(asn1::oidStr({}), "()");
  const std::pair<const char*, const char*> rows[] = {
      {"2a864886f70d01010b", "SHA256+RSA"}, {"2a864886f70d010104", "MD5+RSA"},
      {"2a8648ce3d040302", "SHA256+ECDSA"}, {"2a8648ce3d0401", "SHA1+ECDSA"},
      {"2b6570", "ED25519"},                {"2b6571", "ED448"},
      {"2a864886f70d01010e", "1.2.840.113549.1.1.14"},  // SHA-224 with RSA has no name, on purpose
      {"550403", "2.5.4.3"},                {"8837", "3.16.55"},  // first byte divided as it stands
      {"2a864886f70d01010b00", "1.2.840.113549.1.1.11.0"}};
  for (auto [hex, name] : rows) EXPECT_EQ(asn1::oid2name(blob(fromHex(hex))), name) << hex;
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
  EXPECT_DEATH(b.pop_front(), "assertion \"start < finish\" failed: file \"../include/tessel/blob.h\", line [0-9]+, function: pop_front");
  blob c(two);
  EXPECT_DEATH(c.pop_front(3), "assertion \"start \\+ sz <= finish\" failed: file \"../include/tessel/blob.h\", line [0-9]+, function: pop_front");
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
