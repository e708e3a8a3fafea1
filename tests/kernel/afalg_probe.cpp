// Checks that the kernel's crypto API answers through AF_ALG sockets with published answers:
// SHA-256, AES-CBC and AES-GCM. It proves the guest harness (tests/kernel/run-guest.sh): the
// right modules are loaded, a static program runs, and its verdict comes back to the host.
// Prints one PASS/FAIL line per check; exits 0 only if every check passed.
//
// Every call that can block is bounded by alarm(): a read on an operation socket with nothing
// queued waits forever, and SO_RCVTIMEO does not help there.

#include <linux/if_alg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr unsigned kCallSeconds = 10;  // generous: TCG is slow, but no single call takes this long

int g_failures = 0;
int g_passes = 0;

void report(bool ok, const std::string& what, const std::string& detail = {}) {
  std::printf("%s %s%s%s\n", ok ? "PASS" : "FAIL", what.c_str(), detail.empty() ? "" : ": ",
              detail.c_str());
  std::fflush(stdout);
  ok ? ++g_passes : ++g_failures;
}

std::string errnoText(const char* call) { return std::string(call) + " failed: " + std::strerror(errno); }

Bytes fromHex(const char* hex) {
  Bytes out;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
    out.push_back(static_cast<uint8_t>(nibble(hex[i]) << 4 | nibble(hex[i + 1])));
  }
  return out;
}

std::string toHex(const Bytes& b) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (uint8_t v : b) {
    s += digits[v >> 4];
    s += digits[v & 15];
  }
  return s;
}

std::string mismatch(const Bytes& got, const Bytes& want) {
  return "got " + toHex(got) + ", want " + toHex(want);
}

void onAlarm(int) {}  // only there to interrupt the blocked call with EINTR

// Installs the alarm handler without SA_RESTART, so an expired alarm ends the blocked call.
void installAlarm() {
  struct sigaction sa {};
  sa.sa_handler = onAlarm;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;
  sigaction(SIGALRM, &sa, nullptr);
}

// Owns one file descriptor.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

// Creates a transform socket bound to TYPE/NAME; on failure sets ERROR and returns -1.
int bindTransform(const char* type, const char* name, std::string* error) {
  int fd = socket(AF_ALG, SOCK_SEQPACKET, 0);
  if (fd < 0) {
    *error = errnoText("socket(AF_ALG)");
    return -1;
  }
  sockaddr_alg sa{};
  sa.salg_family = AF_ALG;
  std::strncpy(reinterpret_cast<char*>(sa.salg_type), type, sizeof sa.salg_type - 1);
  std::strncpy(reinterpret_cast<char*>(sa.salg_name), name, sizeof sa.salg_name - 1);
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
    *error = errnoText("bind") + " (" + type + "/" + name + ")";
    close(fd);
    return -1;
  }
  return fd;
}

int acceptOp(int tfm, std::string* error) {
  alarm(kCallSeconds);
  int op = accept(tfm, nullptr, nullptr);
  alarm(0);
  if (op < 0) *error = errnoText("accept");
  return op;
}

// Sends DATA as one request with the given operation, IV and AEAD associated-data length
// (-1 leaves out the control message). Returns false with ERROR on failure.
bool sendRequest(int op, const Bytes& data, int direction, const Bytes* iv, int assocLen,
                 std::string* error) {
  std::vector<uint8_t> control(CMSG_SPACE(sizeof(uint32_t)) +
                               (iv ? CMSG_SPACE(sizeof(af_alg_iv) + iv->size()) : 0) +
                               (assocLen >= 0 ? CMSG_SPACE(sizeof(uint32_t)) : 0));
  iovec io{const_cast<uint8_t*>(data.data()), data.size()};
  msghdr msg{};
  msg.msg_iov = &io;
  msg.msg_iovlen = 1;
  msg.msg_control = control.data();
  msg.msg_controllen = control.size();

  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_ALG;
  c->cmsg_type = ALG_SET_OP;
  c->cmsg_len = CMSG_LEN(sizeof(uint32_t));
  uint32_t opValue = static_cast<uint32_t>(direction);
  std::memcpy(CMSG_DATA(c), &opValue, sizeof opValue);
  if (iv) {
    c = CMSG_NXTHDR(&msg, c);
    c->cmsg_level = SOL_ALG;
    c->cmsg_type = ALG_SET_IV;
    c->cmsg_len = CMSG_LEN(sizeof(af_alg_iv) + iv->size());
    af_alg_iv head{};
    head.ivlen = static_cast<uint32_t>(iv->size());
    std::memcpy(CMSG_DATA(c), &head, sizeof head);
    std::memcpy(CMSG_DATA(c) + sizeof head, iv->data(), iv->size());
  }
  if (assocLen >= 0) {
    c = CMSG_NXTHDR(&msg, c);
    c->cmsg_level = SOL_ALG;
    c->cmsg_type = ALG_SET_AEAD_ASSOCLEN;
    c->cmsg_len = CMSG_LEN(sizeof(uint32_t));
    uint32_t len = static_cast<uint32_t>(assocLen);
    std::memcpy(CMSG_DATA(c), &len, sizeof len);
  }

  alarm(kCallSeconds);
  ssize_t n = sendmsg(op, &msg, 0);
  alarm(0);
  if (n != static_cast<ssize_t>(data.size())) {
    *error = n < 0 ? errnoText("sendmsg") : "sendmsg took " + std::to_string(n) + " bytes";
    return false;
  }
  return true;
}

// Reads exactly SIZE result bytes; returns -1 with errno set on failure.
ssize_t readResult(int op, Bytes* out, size_t size) {
  out->assign(size, 0);
  alarm(kCallSeconds);
  ssize_t n = read(op, out->data(), size);
  int saved = errno;
  alarm(0);
  errno = saved;
  return n;
}

void checkSocket() {
  int fd = socket(AF_ALG, SOCK_SEQPACKET, 0);
  if (fd < 0) {
    report(false, "socket(AF_ALG)", errnoText("socket"));
    return;
  }
  close(fd);
  report(true, "socket(AF_ALG)");
}

// FIPS 180-2, appendix B.1: SHA-256("abc").
void checkSha256() {
  const char* what = "hash sha256(\"abc\")";
  const Bytes want =
      fromHex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::string error;
  Fd tfm(bindTransform("hash", "sha256", &error));
  if (!tfm.ok()) return report(false, what, error);
  Fd op(acceptOp(tfm.get(), &error));
  if (!op.ok()) return report(false, what, error);
  alarm(kCallSeconds);
  ssize_t sent = send(op.get(), "abc", 3, 0);
  alarm(0);
  if (sent != 3) return report(false, what, errnoText("send"));
  Bytes got;
  ssize_t n = readResult(op.get(), &got, 32);
  if (n != 32) return report(false, what, n < 0 ? errnoText("read") : "short digest");
  report(got == want, what, got == want ? "" : mismatch(got, want));
}

// NIST SP 800-38A, F.2.1 (CBC-AES128.Encrypt), first block; decrypted back as well.
void checkCbcAes() {
  const Bytes key = fromHex("2b7e151628aed2a6abf7158809cf4f3c");
  const Bytes iv = fromHex("000102030405060708090a0b0c0d0e0f");
  const Bytes plain = fromHex("6bc1bee22e409f96e93d7e117393172a");
  const Bytes cipher = fromHex("7649abac8119b246cee98e9b12e9197d");
  std::string error;
  Fd tfm(bindTransform("skcipher", "cbc(aes)", &error));
  if (!tfm.ok()) return report(false, "skcipher cbc(aes)", error);
  if (setsockopt(tfm.get(), SOL_ALG, ALG_SET_KEY, key.data(), key.size()) != 0) {
    return report(false, "skcipher cbc(aes)", errnoText("setsockopt(ALG_SET_KEY)"));
  }
  struct Case {
    const char* what;
    int direction;
    const Bytes& in;
    const Bytes& want;
  };
  for (const Case& c : {Case{"skcipher cbc(aes) encrypt", ALG_OP_ENCRYPT, plain, cipher},
                        Case{"skcipher cbc(aes) decrypt", ALG_OP_DECRYPT, cipher, plain}}) {
    // A fresh operation socket per request: the IV chains across requests on one socket.
    Fd op(acceptOp(tfm.get(), &error));
    if (!op.ok()) {
      report(false, c.what, error);
      continue;
    }
    if (!sendRequest(op.get(), c.in, c.direction, &iv, -1, &error)) {
      report(false, c.what, error);
      continue;
    }
    Bytes got;
    ssize_t n = readResult(op.get(), &got, c.want.size());
    if (n != static_cast<ssize_t>(c.want.size())) {
      report(false, c.what, n < 0 ? errnoText("read") : "short result");
      continue;
    }
    report(got == c.want, c.what, got == c.want ? "" : mismatch(got, c.want));
  }
}

// McGrew and Viega, "The Galois/Counter Mode of Operation", test case 4 (AES-128, 20 bytes of
// associated data, 60 bytes of plaintext). The kernel takes AAD||PT and gives AAD||CT||TAG.
void checkGcmAes() {
  const Bytes key = fromHex("feffe9928665731c6d6a8f9467308308");
  const Bytes iv = fromHex("cafebabefacedbaddecaf888");
  const Bytes aad = fromHex("feedfacedeadbeeffeedfacedeadbeefabaddad2");
  const Bytes plain = fromHex(
      "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
      "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39");
  const Bytes cipher = fromHex(
      "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e"
      "21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac973d58e091");
  const Bytes tag = fromHex("5bc94fbc3221a5db94fae95ae7121a47");
  const int aadLen = static_cast<int>(aad.size());

  std::string error;
  Fd tfm(bindTransform("aead", "gcm(aes)", &error));
  if (!tfm.ok()) return report(false, "aead gcm(aes)", error);
  if (setsockopt(tfm.get(), SOL_ALG, ALG_SET_KEY, key.data(), key.size()) != 0 ||
      setsockopt(tfm.get(), SOL_ALG, ALG_SET_AEAD_AUTHSIZE, nullptr, tag.size()) != 0) {
    return report(false, "aead gcm(aes)", errnoText("setsockopt"));
  }

  auto concat = [](std::initializer_list<const Bytes*> parts) {
    Bytes out;
    for (const Bytes* p : parts) out.insert(out.end(), p->begin(), p->end());
    return out;
  };
  // Runs one request on a fresh operation socket; returns the read's result, and on failure
  // leaves the read's errno in readErrno (0 if an earlier step failed).
  int readErrno = 0;
  auto run = [&](int direction, const Bytes& in, size_t outSize, Bytes* out) -> ssize_t {
    readErrno = 0;
    Fd op(acceptOp(tfm.get(), &error));
    if (!op.ok()) return -1;
    if (!sendRequest(op.get(), in, direction, &iv, aadLen, &error)) return -1;
    ssize_t n = readResult(op.get(), out, outSize);
    if (n < 0) {
      readErrno = errno;
      error = errnoText("read");
    }
    return n;
  };

  const Bytes sealed = concat({&aad, &cipher, &tag});
  Bytes got;
  ssize_t n = run(ALG_OP_ENCRYPT, concat({&aad, &plain}), sealed.size(), &got);
  if (n < 0) {
    report(false, "aead gcm(aes) encrypt", error);
  } else {
    got.resize(static_cast<size_t>(n));
    report(got == sealed, "aead gcm(aes) encrypt", got == sealed ? "" : mismatch(got, sealed));
  }

  const Bytes opened = concat({&aad, &plain});
  n = run(ALG_OP_DECRYPT, sealed, opened.size(), &got);
  if (n < 0) {
    report(false, "aead gcm(aes) decrypt", error);
  } else {
    got.resize(static_cast<size_t>(n));
    report(got == opened, "aead gcm(aes) decrypt", got == opened ? "" : mismatch(got, opened));
  }

  // A tag with one bit flipped must be refused with EBADMSG, not decrypted.
  Bytes forged = sealed;
  forged.back() ^= 0x01;
  error.clear();
  n = run(ALG_OP_DECRYPT, forged, opened.size(), &got);
  bool refused = n < 0 && readErrno == EBADMSG;
  report(refused, "aead gcm(aes) refuses a forged tag",
         refused ? "" : (n >= 0 ? "read returned " + std::to_string(n) + " bytes" : error));
}

}  // namespace

int main() {
  installAlarm();
  checkSocket();
  checkSha256();
  checkCbcAes();
  checkGcmAes();
  std::printf("afalg_probe: %d passed, %d failed\n", g_passes, g_failures);
  return g_failures == 0 && g_passes > 0 ? 0 : 1;
}
