// Pieces the time-stamp authority and the time-stamp check share: the time-stamping purpose and the ESS
// signing-certificate attributes (RFC 2634, RFC 5035).
#pragma once

#include <vector>

#include "tessel/cms.h"
#include "tessel/x509.h"

namespace tessel::tsp {

// isTimeStampingCertificate says whether `cert` carries extendedKeyUsage, critical, naming
// id-kp-timeStamping and nothing else (RFC 3161, 2.3).
bool isTimeStampingCertificate(const X509Certificate& cert);

// signingCertificateV2 is the signed attribute naming `cert`: one ESSCertIDv2 with the SHA-256
// of the certificate (the default digest, so left out) and its issuer and serial number.
PKCS7Attribute signingCertificateV2(const X509Certificate& cert);

// namesSigner says whether the signer's ESS signing-certificate attribute (v2 preferred, else
// v1) is present, single-valued and names `cert` as its first certificate; false otherwise.
bool namesSigner(const PKCS7SignerInfo& signer, const X509Certificate& cert);

}  // namespace tessel::tsp
