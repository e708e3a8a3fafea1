// Threads sharing the library's objects as a multi-threaded host does: one certificate store
// (its lookup index built lazily, by whichever thread comes first) validated against from every
// thread, keys signing with the default random source, and factory objects made side by side.
// Each answer must match the tables (or the single-threaded answer); scripts/test.sh tsan runs
// these under ThreadSanitizer, which must stay silent.
#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support.h"
#include "tessel/factory.h"
#include "tessel/keys.h"
#include "tessel/pem.h"
#include "tessel/rng.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

using test::Bytes;
using Chain = std::vector<std::shared_ptr<X509Certificate>>;

constexpr int kThreads = 4;

// onThreads runs body(t) for t = 0..kThreads-1, each on its own thread, started together.
void onThreads(const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(body, t);
  for (auto& t : threads) t.join();
}

std::vector<Bytes> tbsOf(const Chain& chain) {
  std::vector<Bytes> out;
  for (const auto& c : chain) out.push_back(c->tbs);
  return out;
}

// One scenario of tests/data/chains/scenarios.json, its store and chain shared by all threads.
struct Scenario {
  nlohmann::json row;
  CertificateMemoryStore store;
  Chain chain;
};

// Scenarios that print nothing (path building reports dead ends on stdout, which the threads
// would interleave), with every certificate of the chains loaded once and shared between them.
std::vector<std::unique_ptr<Scenario>> quietScenarios(const nlohmann::json& table) {
  const std::string dir = std::string(TESSEL_SOURCE_DIR) + "/tests/data/chains/";
  std::map<std::string, std::shared_ptr<X509Certificate>> certs;
  std::vector<std::unique_ptr<Scenario>> out;
  for (const auto& row : table.at("scenarios")) {
    if (row.contains("stdout")) continue;
    auto s = std::make_unique<Scenario>();
    s->row = row;
    for (const auto& name : row["store"])
      EXPECT_TRUE(s->store.loadFromStr(test::fixtureText("chains/" + name.get<std::string>() + ".pem")));
    for (const auto& name : row.value("crls", nlohmann::json::array()))
      s->store.crls.push_back(readCrlFromFile(dir + name.get<std::string>() + ".crl"));
    for (const auto& name : row["chain"]) {
      auto& cert = certs[name];
      if (!cert) cert = readCertFromFile(dir + name.get<std::string>() + ".pem");
      EXPECT_TRUE(cert) << name;
      s->chain.push_back(cert);
    }
    out.push_back(std::move(s));
  }
  return out;
}

// Every thread validates (or builds, then validates) every scenario against its shared store;
// the stores are first looked up from the threads, so their indexes are built under contention.
TEST(Threads, SharedStoresValidateChains) {
  const nlohmann::json table = test::dataFile("chains/scenarios.json");
  const auto scenarios = quietScenarios(table);
  ASSERT_GE(scenarios.size(), 20u);
  const std::int64_t defaultTime = table.at("time");
  onThreads([&](int t) {
    for (int round = 0; round < 2; ++round) {
      // Each thread walks the table from another starting point, so different threads meet in
      // the same store at different moments.
      for (std::size_t i = 0; i < scenarios.size(); ++i) {
        const Scenario& s = *scenarios[(i + static_cast<std::size_t>(t) * 7) % scenarios.size()];
        const nlohmann::json& row = s.row;
        ol::IPAddr6 ip;
        if (row.contains("ip")) {
          EXPECT_TRUE(ip.parse(row["ip"].get<std::string>()));
        }
        const bool build = row.value("build", false);
        Chain chain = build ? Chain{s.chain[0]} : s.chain;
        if (build) {
          EXPECT_TRUE(x509BuildPath(s.store, chain, nullptr)) << row["name"];
        }
        std::string error = "untouched";
        const unsigned code =
            x509ValidatePath(chain, s.store, TimePoint::fromSeconds(row.value("time", defaultTime)),
                             row.value("host", ""), ip, row.value("email", ""), row.value("checkCrl", false), &error);
        EXPECT_EQ(code, row["code"].get<unsigned>()) << row["name"];
        EXPECT_EQ(error, row.value("error", "untouched")) << row["name"];
        EXPECT_EQ(tbsOf(chain), tbsOf(s.chain)) << row["name"];
      }
    }
  });
}

// Shared keys sign from every thread with the default random source (RSA blinding and PSS
// salts draw from it). Deterministic schemes must give the single-threaded signature; every
// signature must verify, and not over another thread's message.
TEST(Threads, SharedKeysSignWithTheDefaultRng) {
  struct Signer {
    const char* file;
    SignatureParams params;
    bool deterministic;
  };
  const Signer signers[] = {{"keys/rsa2048.pkcs8.pem", {hashSha256}, true},
                            {"keys/rsa2048.pkcs8.pem", {hashSha256, true}, false},
                            {"keys/ec256.pkcs8.pem", {hashSha256}, true},
                            {"keys/ed25519.pkcs8.pem", {hashNone}, true}};
  std::vector<std::shared_ptr<PrivateKey>> keys;
  std::vector<Bytes> alone;  // the signature of "message 0", made before the threads start
  for (const Signer& s : signers) {
    keys.push_back(readPrivateKey(test::fixtureText(s.file), ""));
    ASSERT_TRUE(keys.back()) << s.file;
    alone.push_back(keys.back()->sign(asn1::blob(test::bytesOf("message 0")), s.params));
    ASSERT_FALSE(alone.back().empty()) << s.file;
  }
  onThreads([&](int t) {
    const Bytes mine = test::bytesOf("message " + std::to_string(t)),
                other = test::bytesOf("message " + std::to_string(t + 1));
    for (std::size_t k = 0; k < keys.size(); ++k) {
      SCOPED_TRACE(signers[k].file);
      const Bytes sig = keys[k]->sign(asn1::blob(mine), signers[k].params);
      EXPECT_TRUE(keys[k]->verify(asn1::blob(mine), asn1::blob(sig), signers[k].params));
      EXPECT_FALSE(keys[k]->verify(asn1::blob(other), asn1::blob(sig), signers[k].params));
      if (t != 0) continue;
      if (signers[k].deterministic) {
        EXPECT_EQ(sig, alone[k]);
      } else {
        EXPECT_NE(sig, alone[k]);  // a fresh salt each time
      }
    }
  });
}

const nlohmann::json& factoryCases() {
  static const nlohmann::json all = test::dataFile("factory_cases.json");
  return all;
}

// The factory from every thread: digests, HMACs and ciphers built and run side by side must
// agree with the ones built before the threads started, and the driver choice read from a
// (faked) "/proc/crypto" must follow its table while the AF_ALG probe runs for the first time.
TEST(Threads, FactoryObjectsMadeConcurrently) {
  const Bytes msg = test::bytesOf("shared between threads"), key(32, 0x5a), iv(16, 0x1f), block(48, 0x3c);
  std::map<unsigned, Bytes> digests, macs;
  for (unsigned id = 1; id <= 7; ++id) {
    digests[id] = createHash(id)->update(msg.data(), msg.size()).digest();
    macs[id] = createHMAC(id, key)->update(msg.data(), msg.size()).digest();
  }
  struct CipherRow {
    unsigned id;
    std::size_t keyLen;
    Bytes out;
  };
  std::vector<CipherRow> ciphers;
  for (const auto& r : factoryCases().at("cipherTable")) {
    if (r[2].get<std::string>().empty() || r[2] == "GCM") continue;
    CipherRow row{r[0], r[1], Bytes(block.size())};
    auto c = createCipher(row.id, Bytes(row.keyLen, 0x4b), 0);
    ASSERT_TRUE(c) << r.dump();
    c->setIV(iv.data(), 16);
    c->encrypt(block.data(), block.size(), nullptr, 0, row.out.data());
    ciphers.push_back(std::move(row));
  }
  ASSERT_FALSE(ciphers.empty());

  // Driver names only: no kernel object is made, since offload stays off.
  const std::string procName = "accelerated";
  test::FakeProcCrypto fake(factoryCases().at("procCrypto").at(procName));
  std::vector<nlohmann::json> choices;
  for (const auto& r : factoryCases().at("driverChoice"))
    if (r[0] == procName) choices.push_back(r);
  ASSERT_FALSE(choices.empty());

  onThreads([&](int t) {
    for (int round = 0; round < 4; ++round) {
      EXPECT_EQ(detail::afAlgAvailable(), detail::afAlgAvailable());
      for (const auto& r : choices) {
        const unsigned id = r[2];
        EXPECT_EQ(r[1] == "hash" ? detail::hashDriverName(id) : detail::cipherDriverName(id, r[3].get<std::size_t>()),
                  r[4].get<std::string>())
            << r.dump();
      }
      for (unsigned id = 1; id <= 7; ++id) {
        EXPECT_EQ(createHash(id)->update(msg.data(), msg.size()).digest(), digests.at(id)) << id;
        EXPECT_EQ(createHMAC(id, key)->update(msg.data(), msg.size()).digest(), macs.at(id)) << id;
      }
      for (std::size_t i = 0; i < ciphers.size(); ++i) {
        const CipherRow& row = ciphers[(i + static_cast<std::size_t>(t)) % ciphers.size()];
        Bytes out(block.size());
        auto c = createCipher(row.id, Bytes(row.keyLen, 0x4b), 0);
        ASSERT_TRUE(c);
        c->setIV(iv.data(), 16);
        c->encrypt(block.data(), block.size(), nullptr, 0, out.data());
        EXPECT_EQ(out, row.out) << row.id << "/" << row.keyLen;
      }
    }
  });
}

}  // namespace
}  // namespace tessel
