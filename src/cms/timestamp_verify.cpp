// verifyTimeStamp: does a time-stamp response answer its request, signed by a time-stamping
// authority?
#include "cms/tsp.h"
#include "tessel/oids.h"
#include "tessel/timestamp.h"

namespace tessel {

namespace {

using asn1::blob;

TimeStampCheck failure(TimeStampCheck& check, unsigned code, std::string reason) {
  check.code = code;
  check.reason = std::move(reason);
  check.signer.reset();
  return std::move(check);
}

// signatureCode maps a SignedData failure: a signer that cannot be found or counted is the
// signer's fault, anything else the signature's.
unsigned signatureCode(unsigned cmsCode) {
  return cmsCode == cmsNoSigners || cmsCode == cmsSignerNotFound ? tsBadSigner : tsBadSignature;
}

}  // namespace

TimeStampCheck verifyTimeStamp(const TimeStampResponse& response, const TimeStampRequest& request,
                               const CmsVerifyOptions& options) {
  TimeStampCheck check;
  if (response.status > 1) return failure(check, tsRefused, "the authority refused the request");
  const PKCS7SignedData* token = response.token.get();
  if (!token || token->detached || !asn1::oid::idCtTstInfo.is(blob(token->contentType)))
    return failure(check, tsNoToken, "the response carries no TSTInfo token");
  if (!check.info.parse(blob(token->content))) return failure(check, tsBadTstInfo, "the TSTInfo does not parse");
  if (token->signerInfos.size() != 1) return failure(check, tsBadSigner, "the token has not exactly one signer");
  // The signature first: what the token says counts only once it is known to be signed.
  const CmsVerifyResult signature = token->verify(options);
  if (!signature) return failure(check, signatureCode(signature.code), "token: " + signature.reason);
  if (signature.signerCertificates.empty() || !signature.signerCertificates[0])
    return failure(check, tsBadSigner, "no certificate for the signer");
  check.signer = signature.signerCertificates[0];
  if (!tsp::isTimeStampingCertificate(*check.signer))
    return failure(check, tsNotTsaCertificate, "the signer certificate lacks the critical timeStamping purpose");
  if (!tsp::namesSigner(token->signerInfos[0], *check.signer))
    return failure(check, tsSigningCertMismatch, "the signing-certificate attribute is missing or names another");
  if (check.info.hash != request.hash || check.info.digest != request.digest)
    return failure(check, tsImprintMismatch, "the message imprint differs from the request's");
  if (!request.nonce.empty() && check.info.nonce != request.nonce)
    return failure(check, tsNonceMismatch, "the nonce differs from the request's");
  if (!request.policy.empty() && check.info.policy != request.policy)
    return failure(check, tsPolicyMismatch, "the policy differs from the one requested");
  return check;
}

}  // namespace tessel
