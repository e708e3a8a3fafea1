// Loading a certificate store from the certificate manager's stores, written here through the
// store's own writing side under a temporary platform root.
#include <optional>
#include <string>
#include <vector>

#include "ol/store.h"
#include "support.h"
#include "tessel/cert_store.h"

namespace {

using tessel::test::Bytes;
using tessel::test::pemBody;
using tessel::test::readFixture;

// Entry contents, named so a loaded store can be read back as a list of names.
struct Named {
  const char* name;
  Bytes der;
};
const std::vector<Named>& certDers() {
  static const std::vector<Named> v = {
      {"builtin", pemBody(readFixture("certs/nc-dns.pem"))},
      {"ca", pemBody(readFixture("certs/ca.pem"))},
      {"leaf", readFixture("certs/leaf.der")},
      {"serial20", pemBody(readFixture("certs/serial20.pem"))},
      {"nopathlen", pemBody(readFixture("certs/ca-nopathlen.pem"))},
  };
  return v;
}
const std::vector<Named>& crlDers() {
  static const std::vector<Named> v = {
      {"crl", readFixture("certs/crl.der")},
      {"empty", pemBody(readFixture("certs/crl-empty.pem"))},
      {"nonext", readFixture("certs/crl-nonext.der")},
  };
  return v;
}
const Bytes& der(const std::vector<Named>& table, std::string_view name) {
  for (const Named& n : table)
    if (name == n.name) return n.der;
  ADD_FAILURE() << "no fixture " << name;
  static const Bytes none;
  return none;
}

template <class T>
std::vector<std::string> namesOf(const std::vector<std::shared_ptr<T>>& objs, const std::vector<Named>& table) {
  std::vector<std::string> names;
  for (const auto& o : objs) {
    names.push_back("?");
    for (const Named& n : table)
      if (o->serialize() == n.der) names.back() = n.name;
  }
  return names;
}
using Names = std::vector<std::string>;

constexpr const char* kCloudA = ".devices.example.net";
constexpr const char* kCloudB = ".remote.example.info";

// Env is one platform root with the built-in CA directory holding "builtin".
struct Env {
  tessel::test::TempRoot root;
  Env() {
    root.write("/orlin/etc/ca/builtin.pem", readFixture("certs/nc-dns.pem"));
    tessel::CertificateMemoryStore::cloudSuffixes = {kCloudA, kCloudB};
  }
  ~Env() { tessel::CertificateMemoryStore::cloudSuffixes = {}; }
  void settings(const ol::message& s) const { ASSERT_TRUE(ol::Store("cert/settings").put(0, s)); }
  void cerm(std::uint32_t id, const ol::message& m) const { ASSERT_TRUE(ol::Store("cerm").put(id, m)); }
  tessel::CertificateMemoryStore load(unsigned useMask, bool all) const {
    tessel::CertificateMemoryStore store;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(store.loadFromCerm(useMask, all));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("[ERR] opendir"), std::string::npos) << out;
    return store;
  }
  Names certs(unsigned useMask, bool all = false) const { return namesOf(load(useMask, all).certificates, certDers()); }
};

// A usable entry holding `cert` (preferred field), with an optional use mask.
ol::message entry(std::string_view cert, std::optional<std::uint32_t> uses = std::nullopt) {
  ol::message m;
  m.set(ol::bool_id{0x0C}, true);
  m.set(ol::raw_id{0x81}, der(certDers(), cert));
  if (uses) m.set(ol::u32_id{0x2D}, *uses);
  return m;
}

ol::message letsEncrypt(const std::string& name, const std::string& host) {
  ol::message m;
  m.set(ol::string_id{0xFE0010}, name);
  m.set(ol::string_id{0x71}, host);
  return m;
}

TEST(CermLoad, BuiltInTrustMask) {
  struct Case {
    const char* name;
    std::optional<std::uint32_t> f7, f5, switchAlone;
    std::optional<bool> useBuiltIn;
    bool otherSettings;  // an unrelated field, so the settings are not empty
    std::optional<std::uint32_t> state;
    std::vector<std::pair<std::uint32_t, ol::message>> entries;
    unsigned useMask;
    bool builtIn;
  };
  const std::string cloud = "host" + std::string(kCloudA), cloud2 = "a" + std::string(kCloudB);
  const auto le = [](const std::string& host) { return letsEncrypt("Lets encrypt", host); };
  const Case cases[] = {
      {"no settings, default use", {}, {}, {}, {}, false, {}, {}, 0x100000, true},
      {"no settings, use outside the default", {}, {}, {}, {}, false, {}, {}, 0x1, false},
      {"field 7 default marker", 0x7FFFFFFF, {}, {}, {}, false, {}, {}, 0x100000, true},
      {"field 7 old default kept", 0x22B90, {}, {}, {}, false, {}, {}, 0x100000, false},
      {"field 7 old default, its own bit", 0x22B90, {}, {}, {}, false, {}, {}, 0x10, true},
      {"field 5 old default upgraded", {}, 0x22B90, {}, {}, false, {}, {}, 0x100000, true},
      {"field 5 other value", {}, 0x1, {}, {}, false, {}, {}, 0x1, true},
      {"field 5 other value, other use", {}, 0x1, {}, {}, false, {}, {}, 0x10, false},
      {"field 7 before field 5", 0, 0x22B90, {}, {}, false, {}, {}, 0x100000, false},
      {"mask 0 but use 0x800000", 0, {}, {}, {}, false, {}, {}, 0x800000, true},
      {"mask 0 and use 0x800001", 0, {}, {}, {}, false, {}, {}, 0x800001, true},
      {"old switch alone, on by default", {}, {}, 1, {}, true, {}, {}, 0x10, true},
      {"old switch alone, off", {}, {}, 1, false, true, {}, {}, 0x10, false},
      {"old switch alone, on", {}, {}, 7, true, false, 0, {}, 0x10, true},
      {"state unset (complement 0)", {}, {}, 0, false, false, {}, {}, 0x10, true},
      {"complement 1", {}, {}, {}, {}, true, 0xFFFFFFFE, {}, 0x10, true},
      {"complement 5", {}, {}, {}, {}, true, 0xFFFFFFFA, {{1, le(cloud)}}, 0x10, false},
      {"state 0", {}, {}, {}, {}, true, 0, {}, 0x10, false},
      {"complement 2, no entries", {}, {}, {}, {}, true, 0xFFFFFFFD, {}, 0x10, false},
      {"complement 2, cloud entry", {}, {}, {}, {}, true, 0xFFFFFFFD, {{1, le(cloud)}}, 0x10, true},
      {"complement 4, second suffix", {}, {}, {}, {}, true, 0xFFFFFFFB, {{9, le(cloud2)}}, 0x10, true},
      {"complement 3, host is the suffix", {}, {}, {}, {}, true, 0xFFFFFFFC, {{2, le(kCloudA)}}, 0x10, true},
      {"complement 2, other host", {}, {}, {}, {}, true, 0xFFFFFFFD, {{1, le("le.example.com")}}, 0x10, false},
      {"complement 2, suffix not at the end", {}, {}, {}, {}, true, 0xFFFFFFFD, {{1, le(cloud + ".x")}}, 0x10, false},
      {"complement 2, any cloud entry sets it", {}, {}, {}, {}, true, 0xFFFFFFFD,
       {{1, le("le.example.com")}, {2, le(cloud)}}, 0x10, true},
      {"complement 2, another name stops the scan", {}, {}, {}, {}, true, 0xFFFFFFFD,
       {{1, le(cloud)}, {2, letsEncrypt("Let's Encrypt", cloud)}}, 0x10, false},
      {"complement 2, entries 0 and 0xFFFFFFFB ignored", {}, {}, {}, {}, true, 0xFFFFFFFD,
       {{0, letsEncrypt("settings", "")}, {5, le(cloud)}, {0xFFFFFFFB, ol::message()}}, 0x10, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Env env;
    ol::message s;
    if (c.f7) s.set(ol::u32_id{7}, *c.f7);
    if (c.f5) s.set(ol::u32_id{5}, *c.f5);
    if (c.switchAlone) s.set(ol::u32_id{0xFE0012}, *c.switchAlone);
    if (c.useBuiltIn) s.set(ol::bool_id{4}, *c.useBuiltIn);
    if (c.otherSettings) s.set(ol::u32_id{3}, 0u);
    if (!s.empty()) env.settings(s);
    if (c.state) {
      ASSERT_TRUE(ol::Store("cerm").setState(*c.state));
    }
    for (const auto& [id, m] : c.entries) env.cerm(id, m);
    EXPECT_EQ(env.certs(c.useMask), c.builtIn ? Names{"builtin"} : Names{});
  }
}

// Entry rules, with built-in anchors off: which entries are loaded, in id order.
TEST(CermLoad, EntriesByUseAndContent) {
  Env env;
  ol::message s;
  s.set(ol::u32_id{7}, 0u);
  env.settings(s);
  ol::message m;
  env.cerm(0, entry("nopathlen"));            // entry 0 is never a certificate
  env.cerm(1, entry("ca"));                   // no mask: every use
  env.cerm(2, entry("leaf", 0x4));            // another use
  m = entry("serial20");
  m.set(ol::bool_id{0x0C}, false);
  env.cerm(3, m);                             // not usable
  m.erase(0x0C);
  env.cerm(4, m);                             // usable flag missing
  m.set(ol::u32_id{0x0C}, 1u);
  env.cerm(5, m);                             // usable flag of the wrong kind
  m = entry("serial20");
  m.set(ol::u32_id{0x87}, 2u);
  m.set(ol::raw_id{0x0B}, der(certDers(), "ca"));
  env.cerm(6, m);                             // preferred bytes excluded: no fallback
  m.set(ol::u32_id{0x87}, 1u);
  env.cerm(7, m);                             // preferred bytes taken
  m = entry("ca", 0x6);
  m.erase(0x81);
  m.set(ol::raw_id{0x0B}, der(certDers(), "leaf"));
  env.cerm(8, m);                             // fallback bytes
  m.erase(0x0B);
  env.cerm(9, m);                             // no bytes
  m.set(ol::raw_id{0x81}, Bytes{0x30, 0x03, 0x02, 0x01, 0x01});
  env.cerm(10, m);                            // bytes that do not parse
  m.set(ol::raw_id{0x81}, der(certDers(), "ca"));
  m.set(ol::u32_id{0x2D}, 0u);
  env.cerm(0x10000, m);                       // no use at all

  EXPECT_EQ(env.certs(0x2), (Names{"ca", "serial20", "leaf"}));
  EXPECT_EQ(env.certs(0x4), (Names{"ca", "leaf", "serial20", "leaf"}));
  EXPECT_EQ(env.certs(0x800000), (Names{"builtin", "ca", "serial20"}));
  EXPECT_EQ(env.certs(0, true), (Names{"builtin", "ca", "leaf", "serial20", "leaf", "ca"}));
}

TEST(CermLoad, CrlsFromTheirFolderAndCaCrls) {
  for (bool inRam : {false, true}) {
    SCOPED_TRACE(inRam ? "/ram/crl" : "/rw/cm/crl");
    Env env;
    ol::message s;
    s.set(ol::u32_id{7}, 0u);
    s.set(ol::u32_id{3}, inRam ? 2u : 0u);
    env.settings(s);
    std::string used = inRam ? "/ram/crl/" : "/rw/cm/crl/", other = inRam ? "/rw/cm/crl/" : "/ram/crl/";
    ol::Store crl("cert/crl");
    ol::message uses;
    ASSERT_TRUE(crl.put(0, uses));  // no mask: every use
    env.root.write(used + "0", der(crlDers(), "empty"));
    env.root.write(other + "0", der(crlDers(), "nonext"));
    uses.set(ol::u32_id{0x0C}, 0x4);
    ASSERT_TRUE(crl.put(12, uses));
    env.root.write(used + "12", der(crlDers(), "nonext"));
    uses.set(ol::u32_id{0x0C}, 0x3);
    ASSERT_TRUE(crl.put(11, uses));
    env.root.write(used + "11", readFixture("certs/crl.pem"));
    ASSERT_TRUE(crl.put(13, uses));  // its file is missing
    uses.set(ol::bool_id{0x0C}, false);
    ASSERT_TRUE(crl.put(14, uses));  // a mask of the wrong kind counts as absent: every use
    env.root.write(used + "14", der(crlDers(), "empty"));

    // Entries announcing a CRL of their own CA, whether or not their certificate loads.
    ol::message holder = entry("leaf");
    holder.set(ol::u32_id{0x7B}, 0x41u);
    holder.set(ol::raw_id{0x8F}, Bytes{1});
    holder.set(ol::string_array_id{0x20}, {"http://crl.example.com/ca.crl"});
    holder.set(ol::raw_id{0x81}, Bytes{0x05, 0x00});
    env.cerm(30, holder);
    env.root.write("/rw/cm/ca_crl/30.crl", der(crlDers(), "crl"));
    ol::message partial = holder;
    partial.erase(0x20);
    env.cerm(21, partial);
    env.root.write("/rw/cm/ca_crl/21.crl", der(crlDers(), "nonext"));
    partial = holder;
    partial.erase(0x8F);
    env.cerm(22, partial);
    env.root.write("/rw/cm/ca_crl/22.crl", der(crlDers(), "nonext"));
    partial = holder;
    partial.set(ol::u32_id{0x7B}, 0xBFu);
    env.cerm(23, partial);
    env.root.write("/rw/cm/ca_crl/23.crl", der(crlDers(), "nonext"));
    partial = holder;
    partial.set(ol::u32_id{0x2D}, 0x8u);
    env.cerm(24, partial);  // not used for the asked uses
    env.root.write("/rw/cm/ca_crl/24.crl", der(crlDers(), "nonext"));
    env.cerm(20, holder);   // its file is missing

    tessel::CertificateMemoryStore store = env.load(0x2, false);
    EXPECT_EQ(namesOf(store.crls, crlDers()), (Names{"empty", "crl", "empty", "crl"}));
    EXPECT_TRUE(store.certificates.empty());
    EXPECT_EQ(namesOf(env.load(0x4, false).crls, crlDers()), (Names{"empty", "nonext", "empty", "crl"}));
    EXPECT_TRUE(env.load(0x2, true).crls.empty()) << "no CRLs when loading everything";
  }
}

TEST(CermLoad, CorruptEntryDoesNotStopTheOthers) {
  Env env;
  env.cerm(1, entry("ca"));
  env.cerm(3, entry("nopathlen"));
  Bytes bad = ol::encodeEntry(2, entry("serial20"));
  bad[40] ^= 0xFF;
  env.root.write("/rw/store/cerm/00000002", bad);
  tessel::CertificateMemoryStore store;
  testing::internal::CaptureStdout();
  EXPECT_TRUE(store.loadFromCerm(0x1, false));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[ERR] store cerm: skipped 00000002: bad checksum\n");
  EXPECT_EQ(namesOf(store.certificates, certDers()), (Names{"ca", "nopathlen"}));
}

TEST(CermLoad, NothingInstalled) {
  tessel::test::TempRoot root;  // not even the built-in directory
  tessel::CertificateMemoryStore store;
  testing::internal::CaptureStdout();
  EXPECT_TRUE(store.loadFromCerm(0xFFFFFFFF, false));
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("[ERR] opendir: ", 0), 0u);
  EXPECT_TRUE(store.certificates.empty());
  EXPECT_TRUE(store.crls.empty());
}

}  // namespace
