// Path building and validation over the scenario table of tests/data/chains, each scenario
// cross-checked with `openssl verify` where OpenSSL's rules and ours agree; name-constraint and
// host-matching corner cases; RSA PKCS#1 v1.5 signature checks against Wycheproof.
#include "tessel/x509_path.h"

#include <set>
#include <string>

#include "issuing_support.h"
#include "tessel/pem.h"

namespace tessel {
namespace {

using test::Bytes;
using Chain = std::vector<std::shared_ptr<X509Certificate>>;

const std::string kDir = std::string(TESSEL_SOURCE_DIR) + "/tests/data/chains/";

const nlohmann::json& table() {
  static const nlohmann::json t = test::dataFile("chains/scenarios.json");
  return t;
}

Chain load(const nlohmann::json& names) {
  Chain chain;
  for (const auto& name : names) chain.push_back(readCertFromFile(kDir + name.get<std::string>() + ".pem"));
  EXPECT_TRUE(std::find(chain.begin(), chain.end(), nullptr) == chain.end()) << names;
  return chain;
}

std::vector<Bytes> tbsOf(const Chain& chain) {
  std::vector<Bytes> out;
  for (const auto& c : chain) out.push_back(c->tbs);
  return out;
}

TEST(X509Path, ScenarioTable) {
  const nlohmann::json& t = table();
  const bool haveOpenssl = std::system("openssl version >/dev/null 2>&1") == 0;
  if (!haveOpenssl) std::cout << "no openssl tool: the openssl verify cross-check is left out\n";
  for (const auto& s : t.at("scenarios")) {
    SCOPED_TRACE(s["name"].get<std::string>());
    CertificateMemoryStore store;
    for (const auto& name : s["store"])  // the PEM reader names each block
      test::said(
          [&] { ASSERT_TRUE(store.loadFromStr(test::fixtureText("chains/" + name.get<std::string>() + ".pem"))); });
    for (const auto& name : s.value("crls", nlohmann::json::array()))
      store.crls.push_back(readCrlFromFile(kDir + name.get<std::string>() + ".crl"));
    ASSERT_TRUE(std::find(store.crls.begin(), store.crls.end(), nullptr) == store.crls.end());
    const Chain expected = load(s["chain"]);
    ol::IPAddr6 ip;
    ASSERT_TRUE(!s.contains("ip") || ip.parse(s["ip"].get<std::string>()));
    std::string wantOut;
    for (const auto& line : s.value("stdout", nlohmann::json::array())) wantOut += line.get<std::string>() + "\n";

    const bool build = s.value("build", false);
    Chain chain = build ? Chain{expected[0]} : expected;
    std::string error = "untouched";
    bool built = false;
    unsigned code = 0;
    EXPECT_EQ(test::said([&] {
                built = build && x509BuildPath(store, chain, nullptr);
                code = x509ValidatePath(
                    chain, store, TimePoint::fromSeconds(s.value("time", t["time"].get<std::int64_t>())),
                    s.value("host", ""), ip, s.value("email", ""), s.value("checkCrl", false), &error);
              }),
              wantOut);
    EXPECT_EQ(built, build);
    EXPECT_EQ(code, s["code"].get<unsigned>());
    EXPECT_EQ(error, s.value("error", "untouched"));
    EXPECT_EQ(tbsOf(chain), tbsOf(expected));
    if (build) {  // the same path from an explicit start, which is itself not appended
      Chain above;
      EXPECT_EQ(test::said([&] { EXPECT_EQ(x509BuildPath(store, above, expected[0]), expected.size() > 1); }), wantOut);
      EXPECT_EQ(tbsOf(above), tbsOf(Chain(expected.begin() + 1, expected.end())));
    }
    if (!s.contains("openssl") || !haveOpenssl) continue;
    const std::string says = s["openssl"][1];
    auto [status, out] = test::runCli("cd " + kDir + " && openssl verify " + s["openssl"][0].get<std::string>());
    EXPECT_NE(out.find(says), std::string::npos) << out;
    EXPECT_EQ(status == 0, says.ends_with(": OK")) << out;
    EXPECT_EQ(status == 0, s["code"] == 0) << "openssl and the table disagree";
  }
  CertificateMemoryStore empty;  // building from nothing fails quietly
  Chain none;
  EXPECT_EQ(test::said([&] { EXPECT_FALSE(x509BuildPath(empty, none, nullptr)); }), "");
  EXPECT_TRUE(none.empty());
}

GeneralName generalName(int type, const std::string& data) {
  GeneralName n;
  n.type = static_cast<std::uint8_t>(type);
  n.data.assign(data.begin(), data.end());
  return n;
}

TEST(X509Path, MatchNameConstraintTable) {
  for (const auto& row : table()["nameConstraints"]) {
    SCOPED_TRACE(row.dump());
    EXPECT_EQ(matchNameConstraint(generalName(row[0], row[1]), generalName(row[2], row[3])), row[4].get<bool>());
  }
}

// A host match lets validation of a lone, unanchored certificate reach the anchor step (6);
// a miss stops it at the name check (2).
TEST(X509Path, HostMatchingTable) {
  for (const auto& row : table()["hosts"]) {
    SCOPED_TRACE(row.dump());
    auto cert = std::make_shared<X509Certificate>();
    if (row[0] == "cn") {
      cert->subject.CN = row[1];
    } else {
      cert->subject.CN = "unrelated";
      cert->subjectAltNames.push_back(generalName(GeneralName::dNSName, row[1]));
    }
    CertificateMemoryStore store;
    std::string error;
    EXPECT_EQ(x509ValidatePath({cert}, store, TimePoint(), row[2].get<std::string>(), ol::IPAddr6(), "", false, &error),
              row[3].get<bool>() ? pathNoAnchor : pathNameMismatch);
  }
}

// verifies runs verifySignature over `msg` standing in for the signed object's to-be-signed bytes.
bool verifies(const Bytes& sigAlg, const Bytes& key, const Bytes& msg, const Bytes& sig) {
  X509Base object;
  object.tbs = msg;
  object.sigAlg = sigAlg;
  object.signature = sig;
  PathRes res;
  bool ok = false;
  test::said([&] { ok = verifySignature(&object, asn1::blob(key), &res); });  // DigestInfo rejections are named
  EXPECT_EQ(res.code, unsigned{pathBadSignature});
  return ok;
}

// Wycheproof PKCS#1 v1.5 cases through verifySignature: the message stands in for the signed
// object's to-be-signed bytes. Cases whose verdict differs from the file's are listed by id in
// the table's "wycheproof" section with the reason, and so is our verdict on each
// "acceptable" case.
TEST(X509Path, WycheproofRsaSignatures) {
  for (const auto& [file, info] : table()["wycheproof"].items()) {
    SCOPED_TRACE(file);
    LOAD_VECTORS(vectors, "wycheproof/" + file);
    const Bytes sigAlg = test::fromHex(info["sigAlg"].get<std::string>());
    std::set<std::string> differs, listed;
    nlohmann::json acceptable = nlohmann::json::object();
    const int count = test::forEachWycheproofTest(vectors, [&](const nlohmann::json& group, const nlohmann::json& c) {
      const bool ok =
          verifies(sigAlg, *test::field(group, "publicKeyDer"), *test::field(c, "msg"), *test::field(c, "sig"));
      const std::string id = std::to_string(c["tcId"].get<int>());
      if (c["result"] == "acceptable") {
        acceptable[id] = ok;
      } else if (ok != (c["result"] == "valid")) {
        differs.insert(id);
      }
    });
    for (const auto& [id, reason] : info["differs"].items()) listed.insert(id);
    EXPECT_GT(count, 200);
    EXPECT_EQ(differs, listed);
    EXPECT_EQ(acceptable, info["acceptable"]);
  }
}

// With e = 3, bytes the verifier skips inside the DigestInfo give a forger room to take a plain
// cube root (made by gen_rsa_forgery.py); the genuine signature of the same key must still pass.
TEST(X509Path, RsaForgeryWithSkippedBytesFails) {
  const nlohmann::json v = test::dataFile("chains/forgery-e3.json");
  const Bytes key = test::fromHex(v["publicKeyDer"].get<std::string>());
  const Bytes sha256WithRsa = test::fromHex("300d06092a864886f70d01010b0500");
  for (const char* sig : {"genuine", "forged"})
    EXPECT_EQ(verifies(sha256WithRsa, key, test::hexField(v, "msg"), test::hexField(v, sig)),
              std::string(sig) == "genuine")
        << sig;
}

}  // namespace
}  // namespace tessel
