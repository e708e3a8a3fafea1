// Signature checks of signed objects.
#include "tessel/x509_path.h"

#include <string>

#include "support.h"

namespace tessel {
namespace {

using test::Bytes;

// With e = 3, bytes the verifier skips inside the DigestInfo give a forger room to take a plain
// cube root (made by gen_rsa_forgery.py); the genuine signature of the same key must still pass.
TEST(X509Path, RsaForgeryWithSkippedBytesFails) {
  const nlohmann::json v = test::dataFile("chains/forgery-e3.json");
  const Bytes key = test::fromHex(v["publicKeyDer"].get<std::string>());
  for (const char* sig : {"genuine", "forged"}) {
    SCOPED_TRACE(sig);
    X509Base object;
    object.tbs = test::fromHex(v["msg"].get<std::string>());
    object.sigAlg = test::fromHex("300d06092a864886f70d01010b0500");  // sha256WithRSAEncryption
    object.signature = test::fromHex(v[sig].get<std::string>());
    PathRes res;
    testing::internal::CaptureStdout();
    const bool ok = verifySignature(&object, asn1::blob(key), &res);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, std::string(sig) == "genuine");
  }
}

}  // namespace
}  // namespace tessel
