// TimeStampAuthority: answering RFC 3161 requests with signed TSTInfo tokens.
#include <algorithm>
#include <string_view>

#include "cms/tsp.h"
#include "tessel/oids.h"
#include "tessel/pkcs8.h"
#include "tessel/timestamp.h"

namespace tessel {

namespace {

using asn1::blob;
using Bytes = std::vector<unsigned char>;

constexpr unsigned kGranted = 0, kRejection = 2;  // PKIStatus values
constexpr std::size_t kMaxSerialBytes = 20;

// positiveInteger says whether `content` is a minimal positive INTEGER of at most 20 bytes.
bool positiveInteger(blob content) {
  if (content.empty() || content.size() > kMaxSerialBytes || (content[0] & 0x80)) return false;
  if (content[0] != 0) return true;
  return content.size() > 1 && (content[1] & 0x80);
}

// An imprint under MD5 or SHA-1 is weak evidence (collisions can be made), so only the SHA-2
// digests are stamped.
bool stampsDigest(HashID hash) { return hash == hashSha256 || hash == hashSha384 || hash == hashSha512; }

// refusal writes TimeStampResp { PKIStatusInfo { rejection, statusString, failInfo } }. The
// failure is a named-bit BIT STRING, so DER leaves out the zero bits after it.
Bytes refusal(TimeStampFailure failure, std::string_view text) {
  const unsigned bit = failure;
  Bytes bits(bit / 8 + 2, 0);
  bits[0] = static_cast<unsigned char>(7 - bit % 8);  // unused bits in the last byte
  bits.back() = static_cast<unsigned char>(0x80 >> (bit % 8));
  DerEncoder e;
  {
    DerScope response = e.beginSequence();
    DerScope statusInfo = e.beginSequence();
    e.addInt(asn1::tagInteger, kRejection);
    {
      DerScope freeText = e.beginSequence();
      e.addPrimitive(asn1::tagUtf8String, blob(text));
    }
    e.addPrimitive(asn1::tagBitString, blob(bits));
  }
  return std::move(e.data);
}

Bytes granted(const PKCS7SignedData& token) {
  DerEncoder e;
  {
    DerScope response = e.beginSequence();
    {
      DerScope statusInfo = e.beginSequence();
      e.addInt(asn1::tagInteger, kGranted);
    }
    e.addBytes(blob(token.encode()));
  }
  return std::move(e.data);
}

}  // namespace

std::vector<unsigned char> TimeStampAuthority::grant(const TimeStampRequest& request, TimePoint now,
                                                     asn1::blob serial) const {
  if (!key || !certificate || policy.empty() || !positiveInteger(serial)) return {};
  if (!tsp::isTimeStampingCertificate(*certificate) || encodeSubjectPublicKeyInfo(*key) != certificate->publicKeyInfo)
    return {};
  if (now < certificate->notBefore || now > certificate->notAfter) return {};
  if (request.version != 1) return refusal(tsBadRequest, "only version 1 requests are served");
  if (!stampsDigest(request.hash)) return refusal(tsBadAlg, "the digest is not accepted");
  if (request.digest.size() != getHashLength(request.hash))
    return refusal(tsBadDataFormat, "the imprint's length does not fit its digest");
  const bool knownPolicy =
      request.policy.empty() || request.policy == policy ||
      std::find(acceptedPolicies.begin(), acceptedPolicies.end(), request.policy) != acceptedPolicies.end();
  if (!knownPolicy) return refusal(tsUnacceptedPolicy, "the policy is not served");

  TSTInfo info;
  info.policy = request.policy.empty() ? policy : request.policy;
  info.hash = request.hash;
  info.digest = request.digest;
  info.serial = serial.vec();
  info.genTime = TimePoint::fromSeconds(now.seconds());
  info.accuracySeconds = accuracySeconds;
  info.nonce = request.nonce;  // byte for byte, so the client's comparison holds
  CmsSigner signer;
  signer.key = key;
  signer.certificate = certificate;
  signer.chain = chain;
  signer.params = params;
  signer.extraSignedAttributes.push_back(tsp::signingCertificateV2(*certificate));
  CmsSignOptions options;
  options.contentType = asn1::oid::idCtTstInfo.content().vec();
  options.signingTime = info.genTime;
  options.withCertificates = request.certReq;  // certificates travel only when asked for
  PKCS7SignedData token;
  if (!token.sign(blob(info.encode()), {signer}, options)) return refusal(tsSystemFailure, "signing failed");
  return granted(token);
}

}  // namespace tessel
