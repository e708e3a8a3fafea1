// The tag-checked reads of asn1::parser (read, readElement, readOptional, isAt, readOnly), the
// named tags against OpenSSL's numbering, and the OID table against OpenSSL's encoder.
#include <gtest/gtest.h>

#include <set>

#include "support.h"
#include "tessel/asn1.h"
#include "tessel/oids.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/asn1.h>
#include <openssl/objects.h>
#endif

namespace tessel {
namespace {

using asn1::blob;
using asn1::Presence;
using test::Bytes;
using test::fromHex;

// state renders where a parser stands: its current tag in hex, "end" or "error".
std::string state(const asn1::parser& p) {
  if (p.atEnd()) return "end";
  if (p.failed()) return "error";
  char tag[16];
  std::snprintf(tag, sizeof tag, "%x", p.tag);
  return tag;
}

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("pki_der_read.json");
  return all.at(table);
}

TEST(DerRead, ChecksTheTagAndStepsOnlyOnSuccess) {
  for (const auto& c : cases("reads")) {
    const Bytes der = fromHex(c[0].get<std::string>());
    asn1::parser p{blob(der)};
    blob content;
    EXPECT_EQ(p.read(std::stoul(c[1].get<std::string>(), nullptr, 16), &content), c[2].get<bool>()) << c;
    EXPECT_EQ(test::toHex(content.vec()), c[3]) << c;
    EXPECT_EQ(state(p), c[4]) << c;
  }
}

TEST(DerRead, ChildParserAndWholeElement) {
  const Bytes der = fromHex("30060201050201060500");
  asn1::parser p{blob(der)};
  blob whole;
  ASSERT_TRUE(asn1::parser{blob(der)}.readElement(asn1::tagSequence, &whole));
  EXPECT_EQ(test::toHex(whole.vec()), "3006020105020106");
  asn1::parser child;
  ASSERT_TRUE(p.read(asn1::tagSequence, &child));
  EXPECT_EQ(state(child), "2");
  blob first, second;
  EXPECT_TRUE(child.read(asn1::tagInteger, &first) && child.read(asn1::tagInteger, &second) && child.atEnd());
  EXPECT_EQ(test::toHex(second.vec()), "06");
  EXPECT_TRUE(p.isAt(asn1::tagNull));
  EXPECT_FALSE(p.readElement(asn1::tagSequence, &whole));
  EXPECT_EQ(state(p), "5");
}

TEST(DerRead, OptionalElementPresentAbsentOrMalformed) {
  for (const auto& c : cases("optionals")) {
    const Bytes der = fromHex(c[0].get<std::string>());
    asn1::parser p{blob(der)};
    blob content;
    const Presence found = p.readOptional(asn1::explicitTag(0), &content);
    EXPECT_EQ(found == Presence::present ? "present" : found == Presence::absent ? "absent" : "malformed", c[1]) << c;
    EXPECT_EQ(test::toHex(content.vec()), c[2]) << c;
    EXPECT_EQ(state(p), c[3]) << c;
  }
}

TEST(DerRead, ReadOnlyWantsExactlyOneElement) {
  for (const auto& c : cases("readOnly")) {
    asn1::parser child;
    EXPECT_EQ(asn1::readOnly(blob(fromHex(c[0].get<std::string>())), asn1::tagSequence, &child), c[1].get<bool>()) << c;
  }
}

#if TESSEL_HAVE_OPENSSL
TEST(DerRead, NamedTagsMatchOpenSsl) {
  const std::pair<std::uint32_t, int> tags[] = {
      {asn1::tagBoolean, V_ASN1_BOOLEAN},
      {asn1::tagInteger, V_ASN1_INTEGER},
      {asn1::tagBitString, V_ASN1_BIT_STRING},
      {asn1::tagOctetString, V_ASN1_OCTET_STRING},
      {asn1::tagNull, V_ASN1_NULL},
      {asn1::tagOid, V_ASN1_OBJECT},
      {asn1::tagEnumerated, V_ASN1_ENUMERATED},
      {asn1::tagUtf8String, V_ASN1_UTF8STRING},
      {asn1::tagPrintableString, V_ASN1_PRINTABLESTRING},
      {asn1::tagT61String, V_ASN1_T61STRING},
      {asn1::tagIa5String, V_ASN1_IA5STRING},
      {asn1::tagUtcTime, V_ASN1_UTCTIME},
      {asn1::tagGeneralizedTime, V_ASN1_GENERALIZEDTIME},
      {asn1::tagUniversalString, V_ASN1_UNIVERSALSTRING},
      {asn1::tagBmpString, V_ASN1_BMPSTRING},
      {asn1::tagSequence, V_ASN1_CONSTRUCTED | V_ASN1_SEQUENCE},
      {asn1::tagSet, V_ASN1_CONSTRUCTED | V_ASN1_SET},
      {asn1::explicitTag(3), V_ASN1_CONTEXT_SPECIFIC | V_ASN1_CONSTRUCTED | 3},
      {asn1::implicitTag(2), V_ASN1_CONTEXT_SPECIFIC | 2},
      {asn1::implicitConstructedTag(1), V_ASN1_CONTEXT_SPECIFIC | V_ASN1_CONSTRUCTED | 1}};
  for (auto [ours, theirs] : tags) EXPECT_EQ(ours, static_cast<std::uint32_t>(theirs));
}

TEST(OidTable, EveryEntryIsOpenSslsEncodingOfItsDottedText) {
  std::set<blob> seen;
  for (const asn1::Oid* o : asn1::kAllOids) {
    ASN1_OBJECT* obj = OBJ_txt2obj(o->dotted, 1);
    ASSERT_TRUE(obj) << o->dotted;
    const blob theirs(OBJ_get0_data(obj), static_cast<std::size_t>(OBJ_length(obj)));
    EXPECT_TRUE(o->is(theirs)) << o->dotted;
    EXPECT_EQ(asn1::oidStr(o->content()), o->dotted);
    ASN1_OBJECT_free(obj);
    EXPECT_TRUE(seen.insert(o->content()).second) << "listed twice: " << o->dotted;
  }
}
#endif

TEST(OidTable, PrefixesAddsExactlyOneSmallArc) {
  const asn1::Oid& kp = asn1::oid::idKp;  // 1.3.6.1.5.5.7.3
  EXPECT_TRUE(kp.prefixes(blob(fromHex("2b06010505070301"))));
  EXPECT_FALSE(kp.prefixes(kp.content()));
  EXPECT_FALSE(kp.prefixes(blob(fromHex("2b0601050507038101"))));
  EXPECT_FALSE(kp.prefixes(blob(fromHex("2b06010505070401"))));
}

}  // namespace
}  // namespace tessel
