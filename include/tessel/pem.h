// PEM armour: finding "-----BEGIN LABEL-----" blocks, Base64 bodies, the legacy encrypted
// (Proc-Type/DEK-Info) private keys, and readers that take PEM or raw DER.
#pragma once

#include "tessel/export.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tessel/crl.h"
#include "tessel/keys.h"
#include "tessel/req.h"
#include "tessel/x509.h"

namespace tessel {

// nextLine takes the text up to the next line feed off `in` into `line` (without the line
// feed and one carriage return before it); false when `in` is empty.
TESSEL_API bool nextLine(std::string_view& in, std::string_view* line);
// parsePem finds the first block of `in`: `label` is the BEGIN line's label, `body` the text
// up to "-----END ". On success `in` is advanced past the END line; the END label is not
// compared. Views point into `in`'s text.
TESSEL_API bool parsePem(std::string_view& in, std::string_view* label, std::string_view* body);
// pemDecode joins the lines of `body` and Base64-decodes them into `out`; false on malformed
// Base64.
TESSEL_API bool pemDecode(std::string_view body, std::vector<unsigned char>* out);
// pemDecrypt decrypts a legacy encrypted body (Proc-Type and DEK-Info headers, MD5-derived
// key, DES-EDE3/AES-128/192/256-CBC) into `out`; false for an unknown cipher, malformed text
// or a wrong password (seen as bad padding).
TESSEL_API bool pemDecrypt(std::string_view body, std::vector<unsigned char>* out, const std::string& password);

// encodePemType armours `der` under `label` in 64-character lines; empty for empty `der`.
TESSEL_API std::string encodePemType(const std::string& label, const std::vector<unsigned char>& der);
TESSEL_API std::string encodePemCertificate(const X509Certificate& cert);
TESSEL_API std::string encodePemCrl(const X509Crl& crl);
TESSEL_API std::string encodePemPkcs8PrivateKey(const PrivateKey& key);
// encodePemPkcs8PublicKey armours encodePkcs8PublicKey (the object's own DER, see there).
TESSEL_API std::string encodePemPkcs8PublicKey(const PublicKey& key);
// encodePemPublicKey armours encodeSubjectPublicKeyInfo: the public part only, whatever object
// it is handed.
TESSEL_API std::string encodePemPublicKey(const PublicKey& key);
// encodePemPkcs8EncryptedPrivateKey uses PBES2 with 2048 PBKDF2 iterations.
TESSEL_API std::string encodePemPkcs8EncryptedPrivateKey(const PrivateKey& key, const std::string& password);

// readCertFromStr parses the first PEM block (which must be a CERTIFICATE) or, without a
// block, the whole input as DER; null on any failure. The result owns its data.
TESSEL_API std::unique_ptr<X509Certificate> readCertFromStr(std::string_view in);
TESSEL_API std::unique_ptr<X509Certificate> readCertFromFile(std::string_view path);
// readCrl and readReq work like readCertFromStr for "X509 CRL" and "CERTIFICATE REQUEST".
TESSEL_API std::unique_ptr<X509Crl> readCrl(std::string_view in);
TESSEL_API std::unique_ptr<X509Crl> readCrlFromFile(std::string_view path);
TESSEL_API std::unique_ptr<X509Req> readReq(std::string_view in);
TESSEL_API std::unique_ptr<X509Req> readReqFromFile(std::string_view path);
// readCertChain returns every CERTIFICATE block in order (printing "LABEL: x" for each block
// seen), or a single DER certificate when there is none; empty when any certificate block
// fails.
TESSEL_API std::vector<std::shared_ptr<X509Certificate>> readCertChain(std::string_view in);
TESSEL_API std::vector<std::shared_ptr<X509Certificate>> readCertChainFromFile(std::string_view path);
// readPrivateKey reads the first key block (PKCS#8, encrypted PKCS#8, PKCS#1 RSA or EC,
// optionally legacy-encrypted with `password`) or DER PKCS#8; null on failure.
TESSEL_API std::shared_ptr<PrivateKey> readPrivateKey(std::string_view in, const std::string& password);
TESSEL_API std::shared_ptr<PrivateKey> readPrivateKeyFromFile(std::string_view path, const std::string& password);
// readOneAssimetricKey parses the first "PRIVATE KEY" block with parseOneAssimetricKey.
TESSEL_API std::pair<std::shared_ptr<PrivateKey>, std::shared_ptr<PublicKey>> readOneAssimetricKey(std::string_view in);
// readPublicKey reads a PUBLIC KEY, RSA PUBLIC KEY or EC PUBLIC KEY block, or DER
// SubjectPublicKeyInfo; null on failure.
TESSEL_API std::shared_ptr<PublicKey> readPublicKey(std::string_view in);
TESSEL_API std::shared_ptr<PublicKey> readPublicKeyFromFile(std::string_view path);

}  // namespace tessel
