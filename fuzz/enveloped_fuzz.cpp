// Reads arbitrary bytes as an encrypted CMS message. One that parses must print without
// trouble, write back to bytes that parse again and write the same, and must survive decryption with a fixed P-256 key
// (named by the subject key id the seeds use) and with the fixed password "fuzz". Password
// recipients with more than 4096 PBKDF2 iterations are not tried, to keep each input fast.
#include <cstdint>
#include <sstream>

#include "quiet_stdout.h"
#include "tessel/cms_enveloped.h"
#include "tessel/pkcs8.h"

namespace {

const unsigned char kKey[] = {
    0x30, 0x81, 0x87, 0x02, 0x01, 0x00, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01, 0x06,
    0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07, 0x04, 0x6d, 0x30, 0x6b, 0x02, 0x01, 0x01, 0x04, 0x20,
    0xdd, 0x6c, 0xe1, 0x78, 0xf0, 0xfd, 0xe3, 0x66, 0xd1, 0x16, 0x62, 0xb4, 0x79, 0x19, 0x6e, 0x97, 0xc9, 0x6b,
    0xfe, 0xa7, 0x76, 0x6a, 0xa0, 0x11, 0x75, 0xa5, 0xdf, 0x87, 0xb8, 0x15, 0x74, 0xdd, 0xa1, 0x44, 0x03, 0x42,
    0x00, 0x04, 0x7c, 0x6d, 0xe8, 0x3b, 0x96, 0x4a, 0xe8, 0x72, 0xb2, 0xaa, 0xc8, 0x8b, 0xb5, 0x86, 0x6b, 0x7a,
    0x7d, 0x88, 0x6c, 0x57, 0x3f, 0x15, 0x2e, 0xfe, 0x04, 0x22, 0x67, 0xa6, 0x30, 0x29, 0xcb, 0xfb, 0x67, 0x90,
    0xe4, 0x23, 0x7f, 0x33, 0xca, 0xd0, 0x89, 0x51, 0xfd, 0xaf, 0x8b, 0x3b, 0xda, 0xe0, 0x56, 0x01, 0xb5, 0xfa,
    0x6e, 0xbe, 0x40, 0x5b, 0x74, 0x49, 0xfa, 0x8e, 0xf3, 0x84, 0x8f, 0xe3,
};
// The subject key id of the seeds' recipient certificate (fuzz/make_enveloped_seeds.sh).
const unsigned char kSubjectKeyId[] = {0x7e, 0x55, 0x5e, 0xed, 0x01, 0x02, 0x03, 0x04};

// cheapPasswords says whether every password recipient asks for few PBKDF2 iterations.
bool cheapPasswords(const tessel::PKCS7EnvelopedData& env) {
  for (const tessel::CmsRecipientInfo& r : env.recipientInfos) {
    if (r.keyDerivationAlgorithm.empty()) continue;
    tessel::asn1::parser p(tessel::asn1::blob(r.keyDerivationAlgorithm));
    tessel::asn1::parser alg(p.content);  // { pbkdf2, { salt, iterations, ... } }
    alg.next();
    tessel::asn1::parser params(alg.content);
    params.next();
    tessel::asn1::blob iterations;
    if (params.isAt(tessel::asn1::tagInteger, &iterations) && iterations.size() > 2) return false;
    if (params.takeUInt() > 4096) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::shared_ptr<tessel::PrivateKey> key =
      tessel::parseOneAssimetricKey(tessel::asn1::blob(kKey, sizeof kKey)).first;
  static const tessel::X509Certificate cert = [] {
    tessel::X509Certificate c;
    c.subjectKeyId.assign(kSubjectKeyId, kSubjectKeyId + sizeof kSubjectKeyId);
    return c;
  }();
  tessel::PKCS7EnvelopedData env;
  if (!env.parse(tessel::asn1::blob(data, size))) return 0;
  std::ostringstream os;
  env.dump(os);
  const std::vector<unsigned char> der = env.encode();
  tessel::PKCS7EnvelopedData again;
  if (!again.parse(tessel::asn1::blob(der)) || again.encode() != der) __builtin_trap();
  const tessel::CmsDecryptResult byKey = env.decrypt(*key, cert);
  if (byKey.reason.empty() != byKey.ok || (!byKey.ok && !byKey.content.empty())) __builtin_trap();
  if (cheapPasswords(env)) {
    const tessel::CmsDecryptResult byPassword = env.decrypt("fuzz");
    if (byPassword.reason.empty() != byPassword.ok || (!byPassword.ok && !byPassword.content.empty())) __builtin_trap();
  }
  return 0;
}
