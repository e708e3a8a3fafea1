// RFC 3161 time-stamps: the request and response messages, the TSTInfo a token signs, the
// authority that grants tokens and the checks a client makes on a response.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tessel/algorithm_id.h"
#include "tessel/asn1.h"
#include "tessel/cms.h"
#include "tessel/hash.h"
#include "tessel/timepoint.h"
#include "tessel/x509.h"

namespace tessel {

// TimeStampRequest is a TimeStampReq. The certReq BOOLEAN is required and always written, even
// when false: the peers this was written for always send it, and a request without it is
// refused. Extensions are refused too.
class TESSEL_API TimeStampRequest {
 public:
  std::uint32_t version = 1;
  HashID hash = hashNone;             // the message imprint's digest
  std::vector<unsigned char> digest;  // the message imprint's digest value
  std::vector<unsigned char> policy;  // requested policy OID content; empty when absent
  std::vector<unsigned char> nonce;   // nonce INTEGER content exactly as encoded; empty when absent
  bool certReq = false;

  // parse reads a DER TimeStampReq; false on any deviation (the fields read so far stay set).
  bool parse(asn1::blob der);
  // save writes the request: version, message imprint, policy and nonce when present, certReq.
  void save(DerEncoder& out) const;
  // dump prints the fields to standard output, one line each.
  void dump() const;
};

// TimeStampResponse is a TimeStampResp: the status and, when granted, the token.
class TESSEL_API TimeStampResponse {
 public:
  std::uint32_t status = 0;                // PKIStatus: 0 granted, 1 with modifications, 2+ refused
  std::unique_ptr<PKCS7SignedData> token;  // empty when the response carries none

  // parse reads a DER TimeStampResp. The status text and failure information are ignored. A
  // refusal must carry no token; a grant must carry one, which PKCS7SignedData::parse reads.
  bool parse(asn1::blob der);
  // dump prints "status: " and the number, then the token's dump when granted.
  void dump() const;
};

// TimeStampFailure are the PKIFailureInfo bits an authority refuses a request with.
enum TimeStampFailure : unsigned {
  tsBadAlg = 0,         // unrecognised or unsupported digest
  tsBadRequest = 2,     // transaction not permitted or supported
  tsBadDataFormat = 5,  // the imprint's length does not fit its digest
  tsTimeNotAvailable = 14,
  tsUnacceptedPolicy = 15,
  tsUnacceptedExtension = 16,
  tsSystemFailure = 25,
};

// TSTInfo is the content a time-stamp token signs.
struct TESSEL_API TSTInfo {
  std::uint32_t version = 1;
  std::vector<unsigned char> policy;         // OID content
  HashID hash = hashNone;                    // message imprint digest
  std::vector<unsigned char> hashAlgorithm;  // whole AlgorithmIdentifier element as found
  std::vector<unsigned char> digest;
  std::vector<unsigned char> serial;  // INTEGER content as encoded
  TimePoint genTime;                  // whole seconds
  std::string genTimeText;            // the GeneralizedTime as found, fraction included
  // accuracy in seconds, milliseconds and microseconds; all -1 when absent
  std::int32_t accuracySeconds = -1, accuracyMillis = -1, accuracyMicros = -1;
  bool ordering = false;
  std::vector<unsigned char> nonce;    // INTEGER content as encoded; empty when absent
  std::vector<unsigned char> tsaName;  // whole [0] element; empty when absent

  // parse reads a DER TSTInfo; false on any structural fault or an extension (none is
  // understood, so none is accepted).
  bool parse(asn1::blob der);
  // encode writes the TSTInfo; genTime is written from genTime (whole seconds, "Z").
  std::vector<unsigned char> encode() const;
  // dump writes one field a line.
  void dump(std::ostream& os) const;
};

// TimeStampAuthority grants time-stamp requests with tokens signed by its key. Its certificate
// must carry the extended key usage timeStamping, critical, and no other purpose.
struct TESSEL_API TimeStampAuthority {
  const PrivateKey* key = nullptr;
  std::shared_ptr<X509Certificate> certificate;
  std::vector<std::shared_ptr<X509Certificate>> chain;  // included after the certificate
  SignatureParams params{hashSha256};
  std::vector<unsigned char> policy;                         // default policy OID content
  std::vector<std::vector<unsigned char>> acceptedPolicies;  // besides `policy`
  std::int32_t accuracySeconds = 1;                          // -1 leaves accuracy out

  // grant answers `request` at `now` with token serial number `serial` (INTEGER content,
  // positive and at most 20 bytes). A request the authority cannot serve (a version other than
  // 1, a digest other than SHA-256/384/512, an imprint of the wrong length, a policy it does not
  // issue under) is refused with status 2 and the failure bit; the DER of the TimeStampResp is
  // returned either way. The certificate (and chain) go into the token only when the request's
  // certReq asks for them. Empty only when the authority itself is unusable (no key or policy, a
  // key that is not the certificate's, a certificate without the critical timeStamping purpose
  // or not valid at `now`, a serial out of range).
  std::vector<unsigned char> grant(const TimeStampRequest& request, TimePoint now, asn1::blob serial) const;
};

// TimeStampCode says why a response does not answer its request; tsValid is success.
enum TimeStampCode : unsigned {
  tsValid = 0,
  tsRefused = 1,          // status 2 or higher
  tsNoToken = 2,          // the token is missing or is not a TSTInfo
  tsBadTstInfo = 3,       // the TSTInfo does not parse
  tsImprintMismatch = 4,  // digest or digest algorithm differs from the request
  tsNonceMismatch = 5,
  tsPolicyMismatch = 6,        // the request asked for a policy and the token has another
  tsBadSignature = 7,          // the token's SignedData does not verify (see reason)
  tsBadSigner = 8,             // not exactly one signer, or no certificate for it
  tsNotTsaCertificate = 9,     // the signer certificate lacks the critical timeStamping purpose
  tsSigningCertMismatch = 10,  // the ESS signing certificate attribute is missing or names another
};

// TimeStampCheck is the outcome of verifyTimeStamp: a TimeStampCode, a one-line reason for
// anything but success and, on success, the token's TSTInfo and signer certificate.
struct TESSEL_API TimeStampCheck {
  unsigned code = tsValid;
  std::string reason;
  TSTInfo info;
  std::shared_ptr<X509Certificate> signer;
  explicit operator bool() const { return code == tsValid; }
};

// verifyTimeStamp checks that `response` answers `request`: granted, a TSTInfo token whose
// imprint, nonce and (when asked) policy match, signed by one signer whose certificate (in the
// token or `options.store`) is a time-stamping certificate named by the token's ESS signing
// certificate attribute (v1 or v2), with a valid signature. `options` is handed to the
// SignedData check (a store and path validation).
TESSEL_API TimeStampCheck verifyTimeStamp(const TimeStampResponse& response, const TimeStampRequest& request,
                                          const CmsVerifyOptions& options = {});

}  // namespace tessel
