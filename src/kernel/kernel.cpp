#include "tessel/kernel.h"
#include "core/diag.h"

#include <linux/if_alg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#ifndef SOL_ALG
#define SOL_ALG 279  // older libc headers lack it; the kernel's value
#endif

namespace tessel {

namespace {

// printError writes `what` and the text of the current errno as one line.
void printError(const char* what) {
  const int err = errno;
  diag() << what << std::strerror(err);
}

template <class Call>
auto retryOnEintr(Call call) {
  auto r = call();
  while (r < 0 && errno == EINTR) r = call();
  return r;
}

void put32(unsigned char* p, std::uint32_t v) { std::memcpy(p, &v, 4); }

}  // namespace

KernelAlg::~KernelAlg() { closeSockets(); }

void KernelAlg::closeSockets() {
  if (operation_ >= 0) ::close(operation_);
  if (transform_ >= 0) ::close(transform_);
  operation_ = transform_ = -1;
}

bool KernelAlg::kernelOpen(std::string_view type, std::string_view name) {
  if (transform_ >= 0) return false;
  const int fd = ::socket(AF_ALG, SOCK_SEQPACKET, 0);
  if (fd < 0) {
    printError("alg socket failed: ");
    return false;
  }
  if (!readSockmem(fd)) {
    ::close(fd);
    return false;
  }
  // The copies cut texts that do not fit (a name of 64 bytes or more); bind then fails.
  sockaddr_alg sa{};
  sa.salg_family = AF_ALG;
  std::snprintf(reinterpret_cast<char*>(sa.salg_type), sizeof sa.salg_type, "%.*s", static_cast<int>(type.size()),
                type.data());
  std::snprintf(reinterpret_cast<char*>(sa.salg_name), sizeof sa.salg_name, "%.*s", static_cast<int>(name.size()),
                name.data());
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0) {
    const int err = errno;
    diag() << "alg bind failed: " << std::strerror(err) << " for type:" << type << " name:" << name;
    ::close(fd);
    return false;
  }
  transform_ = fd;
  name_ = name;
  return true;
}

bool KernelAlg::kernelSetKey(std::span<const unsigned char> key, std::span<const unsigned char> key2) {
  int rc;
  if (key2.empty()) {
    rc = ::setsockopt(transform_, SOL_ALG, ALG_SET_KEY, key.data(), static_cast<socklen_t>(key.size()));
  } else {
    // The authenc key blob: a routing attribute (length 8, type 1) in host order, the length of
    // `key` big-endian, then `key` and `key2`. The kernel reads the MAC key first and the cipher
    // key last, so with the factory's order (cipher key, MAC key) it takes the MAC key from the
    // front of the cipher key and the cipher key from the tail of the MAC key. The order is
    // kept: data already sealed by this library's kernel path must still open.
    std::vector<unsigned char> blob(8 + key.size() + key2.size());
    put32(blob.data(), 0x00010008);
    const auto n = static_cast<std::uint32_t>(key.size());
    const unsigned char bigEndian[4] = {static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                                        static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    std::memcpy(blob.data() + 4, bigEndian, 4);
    std::copy(key.begin(), key.end(), blob.begin() + 8);
    std::copy(key2.begin(), key2.end(), blob.begin() + 8 + static_cast<std::ptrdiff_t>(key.size()));
    rc = ::setsockopt(transform_, SOL_ALG, ALG_SET_KEY, blob.data(), static_cast<socklen_t>(blob.size()));
    std::fill(blob.begin(), blob.end(), 0);
  }
  if (rc != 0) printError("alg setkey failed: ");
  return rc == 0;
}

bool KernelAlg::kernelSetTag(unsigned size) {
  tagLength_ = size;
  if (size == 0) return true;
  if (::setsockopt(transform_, SOL_ALG, ALG_SET_AEAD_AUTHSIZE, nullptr, size) != 0) {
    printError("alg authsize failed: ");
    return false;
  }
  return true;
}

int KernelAlg::operationSocket() {
  if (transform_ < 0) return -1;
  if (operation_ >= 0) return operation_;
  operation_ = ::accept(transform_, nullptr, nullptr);
  if (operation_ < 0) printError("alg accept failed: ");
  return operation_;
}

bool KernelAlg::setSockmem(int bytes) {
  const int op = operationSocket();
  if (op < 0) return false;
  if (::setsockopt(op, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0 ||
      ::setsockopt(op, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
    printError("alg setsockopt failed: ");
    return false;
  }
  return readSockmem(op);
}

bool KernelAlg::readSockmem(int fd) {
  int sndbuf = 0;
  socklen_t size = sizeof sndbuf;
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, &size) != 0) {
    printError("alg getsockopt failed: ");
    return false;
  }
  sockmem = static_cast<unsigned>(sndbuf) / 2;
  return true;
}

bool KernelAlg::kernelSend(iovec* iov, unsigned count, bool encrypt, unsigned flags) {
  const int op = operationSocket();
  if (op < 0) return false;
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(4) + CMSG_SPACE(4 + sizeof iv) + CMSG_SPACE(4)] = {};
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = count;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;

  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_ALG;
  c->cmsg_type = ALG_SET_OP;
  c->cmsg_len = CMSG_LEN(4);
  put32(CMSG_DATA(c), encrypt ? ALG_OP_ENCRYPT : ALG_OP_DECRYPT);
  auto next = [&](int type, std::size_t len) {
    c = CMSG_NXTHDR(&msg, c);
    if (!c || reinterpret_cast<unsigned char*>(c) + len > control + sizeof control) return false;
    c->cmsg_level = SOL_ALG;
    c->cmsg_type = type;
    c->cmsg_len = len;
    return true;
  };
  if (ivPending_) {
    // The header, then the IV length word and the IV rounded up to 4 bytes: 12 + ((ivlen + 7)
    // & ~3) on the 32-bit appliance.
    if (!next(ALG_SET_IV, CMSG_LEN(0) + ((ivPending_ + 7) & ~3u))) return false;
    put32(CMSG_DATA(c), ivPending_);
    std::memcpy(CMSG_DATA(c) + 4, iv, ivPending_);
    ivPending_ = 0;  // the IV goes with the first message after setIV only
  }
  if (tagLength_ && !next(ALG_SET_AEAD_ASSOCLEN, CMSG_LEN(4))) return false;
  if (tagLength_) put32(CMSG_DATA(c), assocLength_);
  msg.msg_controllen =
      static_cast<std::size_t>(reinterpret_cast<unsigned char*>(c) - control) + CMSG_ALIGN(c->cmsg_len);

  if (retryOnEintr([&] { return ::sendmsg(op, &msg, static_cast<int>(flags)); }) < 0) {
    printError("alg: sendmsg error:");
    return false;
  }
  return true;
}

bool KernelAlg::kernelRecv(unsigned char* buf, unsigned len) {
  const int op = operationSocket();
  if (op < 0) return false;
  const ssize_t n = retryOnEintr([&] { return ::recv(op, buf, len, 0); });
  if (n == static_cast<ssize_t>(len)) return true;
  printError("alg recv failed: ");
  return false;
}

bool KernelAlg::kernelRecvmsg(iovec* iov) {
  const int op = operationSocket();
  if (op < 0) return false;
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = 2;
  if (retryOnEintr([&] { return ::recvmsg(op, &msg, 0); }) >= 0) return true;
  printError("alg recvmsg failed: ");
  return false;
}

void KernelAlg::notPadded(unsigned len) { diag() << "alg cipher failed: data not padded: " << len; }

bool KernelAlg::transfer(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned asize,
                         unsigned char* out, bool encrypt) {
  assocLength_ = asize;
  std::vector<unsigned char> aadCopy;  // the kernel's echo of the associated data, not needed
  for (unsigned left = len; left;) {
    const unsigned chunk = std::min(left, sockmem);
    const bool last = left <= sockmem;
    iovec send[2] = {{const_cast<unsigned char*>(aad), asize}, {const_cast<unsigned char*>(in), chunk}};
    if (!kernelSend(send, 2, encrypt, last ? 0 : MSG_MORE)) return false;
    const unsigned outLen = !last ? chunk : encrypt ? chunk + tagLength_ : chunk - tagLength_;
    bool received;
    if (asize) {
      aadCopy.resize(asize);
      iovec recv[2] = {{aadCopy.data(), asize}, {out, outLen}};
      received = kernelRecvmsg(recv);
    } else {
      received = kernelRecv(out, outLen);
    }
    if (!received) return false;
    in += chunk;
    out += chunk;
    left -= chunk;
    asize = 0;
  }
  return true;
}

bool KernelAead::tooMuchData(unsigned len, unsigned aadLen) {
  const std::uint64_t total = std::uint64_t{len} + aadLen;
  if (total <= sockmemSize()) return false;
  diag() << "alg aead failed: too much data: " << total;
  return true;
}

Hash& KernelHash::update(const void* data, unsigned len) {
  const int op = operationSocket();
  if (op < 0) {
    error_ = true;
    return *this;
  }
  const ssize_t n = retryOnEintr([&] { return ::send(op, data, len, MSG_MORE); });
  if (n < static_cast<ssize_t>(len)) {
    printError("alg send failed: ");
    error_ = true;
  }
  return *this;
}

unsigned KernelHash::blockLength() const {
  if (id_ >= hashMd5 && id_ <= hashSha256) return 64;
  if (id_ == hashSha384 || id_ == hashSha512) return 128;
  return 0;
}

unsigned KernelHash::digestLengthOf(unsigned id) {
  switch (id) {
    case hashMd5: return 16;
    case hashSha1: return 20;
    case hashSha256: return 32;
    case hashSha384: return 48;
    case hashSha512: return 64;
    default: return 0;
  }
}

unsigned KernelHash::digestLength() const { return digestLengthOf(id_); }

void KernelHash::digest(unsigned char* out) {
  if (kernelRecv(out, digestLength())) return;
  error_ = true;
  std::memset(out, 0, digestLength());
}

}  // namespace tessel
