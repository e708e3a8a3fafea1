// CertificateMemoryStore loads (PEM text, directories, Debian's CA set) and lookups, and the
// validation of a real site's chain against that CA set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support.h"
#include "tessel/cert_store.h"
#include "tessel/pem.h"
#include "tessel/x509_path.h"

namespace tessel {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using test::fixtureText;
const char* const kMozillaRoots = "/usr/share/ca-certificates/mozilla";

TEST(CertStore, LoadFromStrAppendsTheWholeChainOrFailsAndFindsIssuers) {
  CertificateMemoryStore store;
  const std::string chain = fixtureText("certs/chain.pem");
  test::said([&] {
    EXPECT_FALSE(store.loadFromStr("no certificate here"));
    EXPECT_FALSE(store.loadFromStr(fixtureText("certs/crl.pem")));
    EXPECT_TRUE(store.certificates.empty());
    ASSERT_TRUE(store.loadFromStr(chain));
    ASSERT_TRUE(store.loadFromStr(chain));  // duplicates are kept
  });
  const auto certs = readCertChain(chain);
  ASSERT_EQ(store.certificates.size(), 2 * certs.size());
  for (size_t i = 0; i < store.certificates.size(); ++i)
    EXPECT_EQ(store.certificates[i]->serialize(), certs[i % certs.size()]->serialize());

  const auto& leaf = *store.certificates.front();
  const auto issuer = store.findIssuer(leaf.issuer, asn1::blob(leaf.authorityKeyId));
  ASSERT_TRUE(issuer);
  EXPECT_TRUE(issuer->subject == leaf.issuer);
  EXPECT_EQ(issuer->subjectKeyId, leaf.authorityKeyId);
  EXPECT_FALSE(store.findIssuer(leaf.issuer, asn1::blob(Bytes(leaf.authorityKeyId.size(), 0x5A))));
  EXPECT_EQ(store.findIssuer(leaf.issuer, asn1::blob()), issuer);  // no identifier: name alone
  DistinguishedName stranger;
  stranger.CN = "nobody";
  EXPECT_FALSE(store.findIssuer(stranger, asn1::blob()));
}

TEST(CertStore, LoadFromDirTakesCertificatesFirstAndCrlsOnlyWhenAsked) {
  test::TempRoot dir;  // only for its folder: loadFromDir takes a real path
  const std::string root = dir.path("/store");
  dir.write("/store/leaf.pem", test::readFixture("certs/leaf.pem"));
  dir.write("/store/list.crl", test::readFixture("certs/crl.pem"));
  dir.write("/store/junk.txt", test::bytesOf("neither"));
  fs::create_directory(root + "/sub");
  CertificateMemoryStore without, with;
  ASSERT_TRUE(without.loadFromDir(root, false));
  EXPECT_EQ(without.certificates.size(), 1u);
  EXPECT_TRUE(without.crls.empty());
  ASSERT_TRUE(with.loadFromDir(root, true));
  EXPECT_EQ(with.certificates.size(), 1u);
  EXPECT_EQ(with.crls.size(), 1u);
  EXPECT_EQ(test::said([&] { EXPECT_FALSE(with.loadFromDir(root + "/missing", true)); }),
            "[ERR] opendir: No such file or directory\n");
  EXPECT_EQ(with.certificates.size(), 1u);
}

TEST(CertStore, FindCrlPrefersTheNewestListOfTheIssuer) {
  CertificateMemoryStore store;
  auto older = readCrl(fixtureText("certs/crl.pem"));
  auto newer = readCrl(fixtureText("certs/crl.pem"));
  ASSERT_TRUE(older && newer);
  newer->thisUpdate = TimePoint::fromSeconds(older->thisUpdate.seconds() + 1);
  store.crls.push_back(std::move(older));
  store.crls.push_back(std::move(newer));
  X509Certificate cert;
  cert.issuer = store.crls[0]->issuer;
  EXPECT_EQ(store.findCrlUnverified(cert), store.crls[1]);
  cert.issuer.CN += "x";
  EXPECT_FALSE(store.findCrlUnverified(cert));
}

// Every root of Debian's CA set loads, and each one's self-signature verifies with its own key.
TEST(CertStore, DebianCaSetLoadsAndEveryRootSelfVerifies) {
  if (!fs::is_directory(kMozillaRoots)) GTEST_SKIP() << "ca-certificates is not installed";
  size_t files = 0;
  for (const auto& entry : fs::directory_iterator(kMozillaRoots)) files += entry.is_regular_file();
  CertificateMemoryStore store;
  test::said([&] { ASSERT_TRUE(store.loadFromDir(kMozillaRoots, true)); });  // unknown extensions are named
  EXPECT_EQ(store.certificates.size(), files);
  EXPECT_TRUE(store.crls.empty());
  for (const auto& root : store.certificates) {
    PathRes res;
    EXPECT_TRUE(verifySignature(root.get(), asn1::blob(root->publicKeyInfo), &res)) << root->subject.str();
    EXPECT_EQ(res.code, pathBadSignature);  // left in place on success
  }
}

// A real site's chain (leaf and Let's Encrypt R3, as the server sent them) against Debian's
// roots, at a time inside and after the leaf's validity. OpenSSL gives the same verdicts.
TEST(CertStore, RealSiteChainValidatesAgainstDebianRoots) {
  if (!fs::is_directory(kMozillaRoots)) GTEST_SKIP() << "ca-certificates is not installed";
  CertificateMemoryStore store;
  test::said([&] { ASSERT_TRUE(store.loadFromDir(kMozillaRoots, false)); });
  std::vector<std::shared_ptr<X509Certificate>> chain;
  EXPECT_EQ(test::said([&] {
              chain = readCertChain(fixtureText("../../examples/site-chain.pem"));
              EXPECT_TRUE(x509BuildPath(store, chain, nullptr));
            }),
            "LABEL: CERTIFICATE\nLABEL: CERTIFICATE\n");
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[2]->subject.CN, "ISRG Root X1");

  const TimePoint inside = TimePoint::fromSeconds(1680307200);  // 2023-04-01
  const TimePoint after = TimePoint::fromSeconds(1767225600);   // 2026-01-01
  std::string error;
  EXPECT_EQ(x509ValidatePath(chain, store, inside, "certauth.cryptomix.com", {}, "", false, &error), 0u) << error;
  EXPECT_EQ(x509ValidatePath(chain, store, inside, "CertAuth.CryptoMix.com", {}, "", false, &error), 0u) << error;
  EXPECT_EQ(x509ValidatePath(chain, store, inside, "www.cryptomix.com", {}, "", false, &error), pathNameMismatch);
  EXPECT_EQ(error, "name verification failed for: \"CN=certauth.cryptomix.com\"");
  EXPECT_EQ(x509ValidatePath(chain, store, after, "", {}, "", false, &error), pathExpired);
  EXPECT_EQ(error,
            "cert not valid (after: Tue Jun  6 02:07:23 2023 < now: Thu Jan  1 00:00:00 2026) - "
            "\"CN=certauth.cryptomix.com\"");
  // The validator sees only what the peer sent: without the intermediate no anchor is reached.
  EXPECT_EQ(x509ValidatePath({chain[0]}, store, inside, "", {}, "", false, &error), pathNoAnchor);

  if (std::system("openssl version >/dev/null 2>&1") != 0) return;
  const std::string base = std::string("openssl verify -CApath /etc/ssl/certs -untrusted ") + TESSEL_SOURCE_DIR +
                           "/examples/site-chain.pem -verify_hostname certauth.cryptomix.com ";
  const std::string leaf = std::string(" <(openssl x509 -in ") + TESSEL_SOURCE_DIR + "/examples/site-chain.pem)";
  auto openssl = [&](const char* at) {
    return std::system(("bash -c '" + base + "-attime " + at + leaf + "' >/dev/null 2>&1").c_str());
  };
  EXPECT_EQ(openssl("1680307200"), 0);
  EXPECT_NE(openssl("1767225600"), 0);
}

}  // namespace
}  // namespace tessel
