// Loading a certificate store from the certificate manager's stores, written here through the
// store's own writing side under a temporary platform root (cases in tests/data/pki_cerm.json).
#include <string>
#include <vector>

#include "ol/store.h"
#include "support.h"
#include "tessel/cert_store.h"

namespace {

using nlohmann::json;
using tessel::test::Bytes;
using Names = std::vector<std::string>;

const json& data() {
  static const json d = tessel::test::dataFile("pki_cerm.json");
  return d;
}

// number reads a JSON number or hex text ("0x22B90").
std::uint32_t number(const json& v) {
  return v.is_string() ? static_cast<std::uint32_t>(std::stoul(v.get<std::string>(), nullptr, 0))
                       : v.get<std::uint32_t>();
}

// bytesOf resolves "cert:NAME", "crl:NAME" (the DER of a named fixture), "file:PATH" (a fixture as it is) or hex.
Bytes bytesOf(const std::string& v) {
  const auto colon = v.find(':');
  const std::string kind = v.substr(0, colon == std::string::npos ? 0 : colon), rest = v.substr(colon + 1);
  if (kind == "file") return tessel::test::readFixture(rest);
  if (kind == "cert" || kind == "crl") return tessel::test::fixtureDer(data()[kind + "s"].at(rest));
  return tessel::test::fromHex(v);
}

// messageOf builds a message from {"kind:hex-id": value}.
ol::message messageOf(const json& fields) {
  ol::message m;
  for (const auto& [key, v] : fields.items()) {
    const std::string kind = key.substr(0, key.find(':'));
    const auto id = static_cast<std::uint32_t>(std::stoul(key.substr(key.find(':') + 1), nullptr, 16));
    if (kind == "bool") m.set(ol::bool_id{id}, v.get<bool>());
    if (kind == "u32") m.set(ol::u32_id{id}, number(v));
    if (kind == "raw") m.set(ol::raw_id{id}, bytesOf(v));
    if (kind == "string") m.set(ol::string_id{id}, v.get<std::string>());
    if (kind == "strings") m.set(ol::string_array_id{id}, v.get<std::vector<std::string>>());
  }
  return m;
}

// namesOf names each loaded object by the fixture it serializes to.
template <class T>
Names namesOf(const std::vector<std::shared_ptr<T>>& objs, const char* table) {
  Names names;
  for (const auto& o : objs) {
    names.push_back("?");
    for (const auto& [name, file] : data()[table].items())
      if (o->serialize() == tessel::test::fixtureDer(file)) names.back() = name;
  }
  return names;
}

// Env is one platform root with the built-in CA directory holding "builtin".
struct Env {
  tessel::test::TempRoot root;
  Env() {
    root.write("/orlin/etc/ca/builtin.pem", tessel::test::readFixture("certs/nc-dns.pem"));
    tessel::CertificateMemoryStore::cloudSuffixes = data()["cloudSuffixes"].get<std::array<std::string, 2>>();
  }
  ~Env() { tessel::CertificateMemoryStore::cloudSuffixes = {}; }
};

TEST(CermLoad, TrustMaskEntriesAndCrls) {
  for (const auto& c : data()["cases"]) {
    SCOPED_TRACE(c["name"].get<std::string>());
    Env env;
    ASSERT_TRUE(!c.contains("settings") || ol::Store("cert/settings").put(0, messageOf(c["settings"])));
    ASSERT_TRUE(!c.contains("state") || ol::Store("cerm").setState(number(c["state"])));
    for (const auto& e : c.value("cerm", json::array()))
      ASSERT_TRUE(ol::Store("cerm").put(number(e[0]), messageOf(e[1])));
    for (const auto& e : c.value("crlStore", json::array()))
      ASSERT_TRUE(ol::Store("cert/crl").put(number(e[0]), messageOf(e[1])));
    for (const auto& f : c.value("files", json::array())) env.root.write(f[0], bytesOf(f[1]));
    for (const auto& l : c["loads"]) {
      tessel::CertificateMemoryStore store;
      const std::string out =
          tessel::test::said([&] { EXPECT_TRUE(store.loadFromCerm(number(l["use"]), l.value("all", false))); });
      EXPECT_EQ(out.find("[ERR] opendir"), std::string::npos) << out;
      EXPECT_EQ(namesOf(store.certificates, "certs"), l.value("certs", Names{})) << l;
      EXPECT_EQ(namesOf(store.crls, "crls"), l.value("crls", Names{})) << l;
    }
  }
}

TEST(CermLoad, CorruptEntryDoesNotStopTheOthers) {
  Env env;
  const auto entry = [](const char* cert) { return messageOf({{"bool:0C", true}, {"raw:81", cert}}); };
  ASSERT_TRUE(ol::Store("cerm").put(1, entry("cert:ca")));
  ASSERT_TRUE(ol::Store("cerm").put(3, entry("cert:nopathlen")));
  Bytes bad = ol::encodeEntry(2, entry("cert:serial20"));
  bad[40] ^= 0xFF;
  env.root.write("/rw/store/cerm/00000002", bad);
  tessel::CertificateMemoryStore store;
  EXPECT_EQ(tessel::test::said([&] { EXPECT_TRUE(store.loadFromCerm(0x1, false)); }),
            "[ERR] store cerm: skipped 00000002: bad checksum\n");
  EXPECT_EQ(namesOf(store.certificates, "certs"), (Names{"ca", "nopathlen"}));
}

TEST(CermLoad, NothingInstalled) {
  tessel::test::TempRoot root;  // not even the built-in directory
  tessel::CertificateMemoryStore store;
  EXPECT_EQ(tessel::test::said([&] { EXPECT_TRUE(store.loadFromCerm(0xFFFFFFFF, false)); }).rfind("[ERR] opendir: ", 0),
            0u);
  EXPECT_TRUE(store.certificates.empty() && store.crls.empty());
}

}  // namespace
