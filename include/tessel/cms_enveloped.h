// CMS EnvelopedData and AuthEnvelopedData (RFC 5652 section 6, RFC 5083): content encrypted
// once under a random content-encryption key, and that key handed to each recipient by key
// transport (RSA), key agreement (ECDH on P-256/384/521, X25519) or a password (PWRI).
//
// One class reads and writes both content types: `authenticated` selects AuthEnvelopedData,
// which carries AES-GCM content and its tag; EnvelopedData carries AES-CBC content. Only DER is
// read (no indefinite lengths, no constructed OCTET STRINGs).
#pragma once

#include "tessel/export.h"

#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tessel/algorithm_id.h"
#include "tessel/asn1.h"
#include "tessel/keys.h"
#include "tessel/rng.h"
#include "tessel/x509.h"

namespace tessel {

// CmsRecipientKind says which RecipientInfo choice a recipient is.
enum class CmsRecipientKind { keyTransport, keyAgreement, kek, password, other };

// CmsRecipientKey is one recipientEncryptedKey of a key agreement recipient.
struct TESSEL_API CmsRecipientKey {
  std::vector<unsigned char> issuer;        // whole issuer Name element; empty when by key id
  std::vector<unsigned char> serial;        // serialNumber INTEGER content
  std::vector<unsigned char> subjectKeyId;  // when named by [0] RecipientKeyIdentifier
  std::vector<unsigned char> encryptedKey;
};

// CmsRecipientInfo is one RecipientInfo: its kind, its DER exactly as found or written, and the
// fields the kinds we can open carry. Kinds we cannot open (kek, other) keep only the DER.
struct TESSEL_API CmsRecipientInfo {
  CmsRecipientKind kind = CmsRecipientKind::other;
  std::vector<unsigned char> der;  // the whole RecipientInfo element
  unsigned version = 0;
  // Key transport: who (issuer and serial, or subject key id), how, and the encrypted key.
  std::vector<unsigned char> issuer, serial, subjectKeyId;
  std::vector<unsigned char> keyEncryptionAlgorithm;  // whole AlgorithmIdentifier element
  std::vector<unsigned char> encryptedKey;            // key transport and password recipients
  // Key agreement: the originator's public key (whole AlgorithmIdentifier, BIT STRING bytes),
  // the user keying material and one encrypted key per recipient.
  std::vector<unsigned char> originatorAlgorithm, originatorKey, ukm;
  std::vector<CmsRecipientKey> recipientKeys;
  // Password: the whole key derivation AlgorithmIdentifier ([0] retagged as SEQUENCE).
  std::vector<unsigned char> keyDerivationAlgorithm;

  // parse reads one RecipientInfo element; false on a structural fault in a kind we read.
  bool parse(asn1::blob whole);
};

// CmsContentCipher is the content encryption of a new message; the GCM ones make an
// AuthEnvelopedData (12-byte nonce, 16-byte tag).
enum class CmsContentCipher { aes128Cbc, aes256Cbc, aes128Gcm, aes256Gcm };

// CmsRecipient is one recipient of a new message: a certificate (RSA: key transport with
// `rsaParams`; EC or X25519: ephemeral-static key agreement), or, without a certificate, a
// password with its PBKDF2-HMAC-SHA-256 iteration count.
struct TESSEL_API CmsRecipient {
  std::shared_ptr<X509Certificate> certificate;
  EncryptionParams rsaParams;   // PKCS#1 v1.5 unless oaep is set
  bool bySubjectKeyId = false;  // name the certificate by its subject key id
  std::string password;
  unsigned iterations = 2048;
};

// CmsDecryptResult is a decryption's outcome: the content on success, otherwise a one-line
// reason and no content.
struct TESSEL_API CmsDecryptResult {
  bool ok = false;
  std::string reason;
  std::vector<unsigned char> content;
  explicit operator bool() const { return ok; }
};

// PKCS7EnvelopedData is a ContentInfo of type enveloped-data or authEnveloped-data.
class TESSEL_API PKCS7EnvelopedData {
 public:
  bool authenticated = false;  // AuthEnvelopedData (GCM) rather than EnvelopedData
  unsigned version = 0;
  std::vector<unsigned char> originatorInfo;  // whole [0] element, kept unread; empty when absent
  std::vector<CmsRecipientInfo> recipientInfos;
  std::vector<unsigned char> contentType;                 // OID content
  std::vector<unsigned char> contentEncryptionAlgorithm;  // whole AlgorithmIdentifier element
  bool contentPresent = false;                            // encryptedContent is there (not detached)
  std::vector<unsigned char> encryptedContent;            // without the tag, for AuthEnvelopedData
  std::vector<unsigned char> authAttrs;                   // whole [1] element (authenticated only)
  std::vector<unsigned char> unprotectedAttrs;            // whole [1] (enveloped) or [2] element
  std::vector<unsigned char> mac;                         // the GCM tag (authenticated only)

  // parse reads a ContentInfo SEQUENCE { id-envelopedData or id-ct-authEnvelopedData,
  // [0] EXPLICIT body }. False on any structural fault; the object must then not be used.
  bool parse(asn1::blob der);
  // encode writes the ContentInfo back from the fields (recipients as held in their `der`).
  std::vector<unsigned char> encode() const;
  // dump writes the diagnostic text: type, version, each recipient, the content algorithm.
  void dump(std::ostream& os) const;

  // encrypt fills this object with a new message holding `content` for every one of
  // `recipients`. False, with the object cleared, when there is no recipient, a certificate's
  // key cannot receive a key, or randomness fails.
  bool encrypt(asn1::blob content, const std::vector<CmsRecipient>& recipients, CmsContentCipher cipher,
               Rng& rng = getDefaultRng());
  // decrypt opens the message with `key`, trying every recipient that names `certificate`
  // (issuer and serial number, or subject key id). The content is released only when the
  // content decrypts with a valid padding or tag; otherwise the result holds a reason.
  CmsDecryptResult decrypt(const PrivateKey& key, const X509Certificate& certificate) const;
  // decrypt opens the message with a password, trying every password recipient.
  CmsDecryptResult decrypt(std::string_view password) const;

 private:
  void clear();
  CmsDecryptResult decryptContent(asn1::blob cek) const;
  std::size_t contentKeyLength() const;
};

}  // namespace tessel
