// The path search of verifyChain: depth-first over every candidate issuer (the anchors' and the
// peer's, by name and key id), backtracking out of dead ends, never taking a certificate twice,
// and bounded in signature checks, candidates per certificate and depth, so that a hostile
// pool of intermediates costs a bounded amount of work.
#include <algorithm>

#include "trust/verify_internal.h"

namespace tessel::verify {

namespace {

bool keyIdsAgree(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
  return a.empty() || b.empty() || a == b;
}

class PathSearch {
 public:
  PathSearch(const Chain& intermediates, const CertificateStore& anchors, const VerifyOptions& options)
      : intermediates_(intermediates), anchors_(anchors), options_(options) {}

  SearchOutcome run(const std::shared_ptr<X509Certificate>& leaf) {
    Chain path{leaf};
    if (extend(path)) {
      out_.failure = {};
    } else if (!out_.failure) {
      out_.chain.clear();
      // Without a complete chain, the likeliest cause is named: the budget, the depth, an issuer
      // whose signature did not verify, or no issuer at all.
      if (exhausted_) {
        out_.failure = {VerifyCode::searchLimit, deepest_};
      } else if (tooDeep_) {
        out_.failure = {VerifyCode::tooDeep, tooDeepAt_};
      } else if (badSignature_) {
        out_.failure = {VerifyCode::badSignature, badSignatureAt_};
      } else {
        out_.failure = {VerifyCode::noPath, deepest_};
      }
    }
    out_.signatureChecks = checks_;
    return out_;
  }

 private:
  // anchorFor returns the anchor a certificate stands for, when the store holds one.
  std::shared_ptr<X509Certificate> anchorFor(const X509Certificate& cert) const {
    for (const auto& a : anchors_.findIssuers(cert.subject, asn1::blob(), options_.maxCandidates))
      if (sameCertificate(*a, cert)) return a;
    return nullptr;
  }

  // candidates lists the anchors' issuers of `cert` first, then the peer's, each certificate once
  // (a copy would only repeat a signature check), at most maxCandidates. Copies of one key with
  // other validity periods all stay: only one of them may be current.
  Chain candidates(const X509Certificate& cert) const {
    Chain out = anchors_.findIssuers(cert.issuer, asn1::blob(cert.authorityKeyId), options_.maxCandidates);
    for (const auto& c : intermediates_) {
      if (out.size() >= options_.maxCandidates) break;
      if (!c || !(c->subject == cert.issuer) || !keyIdsAgree(c->subjectKeyId, cert.authorityKeyId)) continue;
      if (std::none_of(out.begin(), out.end(), [&](const auto& o) { return o->tbs == c->tbs; })) out.push_back(c);
    }
    return out;
  }

  bool onPath(const Chain& path, const X509Certificate& cert) const {
    return std::any_of(path.begin(), path.end(), [&](const auto& p) { return sameCertificate(*p, cert); });
  }

  // finish judges a complete chain; the first failure is kept for the report.
  bool finish(const Chain& chain) {
    const Failure f = checkChain(chain, anchors_, options_);
    if (!f) {
      out_.chain = chain;
      return true;
    }
    if (!out_.failure) {
      out_.chain = chain;
      out_.failure = f;
    }
    return false;
  }

  bool extend(Chain& path) {
    deepest_ = std::max(deepest_, path.size() - 1);
    if (auto anchor = anchorFor(*path.back())) {
      const std::shared_ptr<X509Certificate> was = path.back();
      path.back() = anchor;  // the store's copy, never the peer's
      const bool good = finish(path);
      path.back() = was;
      return good;
    }
    // Everything above the leaf that is not an anchor is an intermediate.
    if (path.size() - 1 > options_.maxDepth) {
      if (!tooDeep_) tooDeepAt_ = path.size() - 1;
      tooDeep_ = true;
      return false;
    }
    const X509Certificate& cert = *path.back();
    for (const auto& candidate : candidates(cert)) {
      if (onPath(path, *candidate)) continue;
      if (checks_ >= options_.maxSignatureChecks) {
        exhausted_ = true;
        return false;
      }
      ++checks_;
      const auto key = candidate->parsePublicKey();
      if (!key || !cert.verify(*key)) {
        if (!badSignature_) badSignatureAt_ = path.size() - 1;
        badSignature_ = true;
        continue;
      }
      path.push_back(candidate);
      if (extend(path)) return true;
      path.pop_back();
      if (exhausted_) return false;
    }
    return false;
  }

  const Chain& intermediates_;
  const CertificateStore& anchors_;
  const VerifyOptions& options_;
  SearchOutcome out_;
  unsigned checks_ = 0;
  bool exhausted_ = false;
  bool tooDeep_ = false;
  bool badSignature_ = false;
  std::size_t badSignatureAt_ = 0;
  std::size_t tooDeepAt_ = 0;
  std::size_t deepest_ = 0;
};

}  // namespace

bool sameCertificate(const X509Certificate& a, const X509Certificate& b) {
  return (a.tbs == b.tbs && a.signature == b.signature) ||
         (a.subject == b.subject && a.publicKeyInfo == b.publicKeyInfo);
}

SearchOutcome searchPaths(const std::shared_ptr<X509Certificate>& leaf, const Chain& intermediates,
                          const CertificateStore& anchors, const VerifyOptions& options) {
  return PathSearch(intermediates, anchors, options).run(leaf);
}

}  // namespace tessel::verify
