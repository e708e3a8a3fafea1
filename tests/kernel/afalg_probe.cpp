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

Bytes fromHex(const std::string& hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

std::string toHex(const Bytes& b) {
  std::string s;
  for (uint8_t v : b) {
    s += "0123456789abcdef"[v >> 4];
    s += "0123456789abcdef"[v & 15];
  }
  return s;
}

std::string errnoText(const char* call) { return std::string(call) + " failed: " + std::strerror(errno); }

void onAlarm(int) {}  // only there to interrupt the blocked call with EINTR

// Owns one file descriptor.
struct Fd {
  int fd;
  explicit Fd(int f) : fd(f) {}
  Fd(const Fd&) = delete;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// One request on a fresh operation socket (the IV chains across requests on one socket). The
// hex fields are the published answers; an empty `want` means the kernel must refuse with EBADMSG.
struct Check {
  const char *what, *type, *name, *key, *iv;
  int assocLen;  // -1 leaves out the AEAD control messages
  int direction;
  const char *in, *want;
};

// The GCM test case 4 of McGrew and Viega, "The Galois/Counter Mode of Operation" (AES-128, 20
// bytes of associated data, 60 bytes of plaintext): the kernel takes AAD||PT, gives AAD||CT||TAG.
#define GCM_AAD "feedfacedeadbeeffeedfacedeadbeefabaddad2"
#define GCM_PT                                                                                                    \
  "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de" \
  "657ba637b39"
#define GCM_CT                                                                                                    \
  "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84aa051ba30b396a0aa" \
  "c973d58e091"
#define GCM_KEY "feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888", 20
#define CBC_KEY "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f", -1
const Check kChecks[] = {
    // FIPS 180-2, appendix B.1: SHA-256("abc").
    {"hash sha256(\"abc\")", "hash", "sha256", "", "", -1, 0, "616263",
     "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    // NIST SP 800-38A, F.2.1 (CBC-AES128.Encrypt), first block, and back.
    {"skcipher cbc(aes) encrypt", "skcipher", "cbc(aes)", CBC_KEY, ALG_OP_ENCRYPT, "6bc1bee22e409f96e93d7e117393172a",
     "7649abac8119b246cee98e9b12e9197d"},
    {"skcipher cbc(aes) decrypt", "skcipher", "cbc(aes)", CBC_KEY, ALG_OP_DECRYPT, "7649abac8119b246cee98e9b12e9197d",
     "6bc1bee22e409f96e93d7e117393172a"},
    {"aead gcm(aes) encrypt", "aead", "gcm(aes)", GCM_KEY, ALG_OP_ENCRYPT, GCM_AAD GCM_PT,
     GCM_AAD GCM_CT "5bc94fbc3221a5db94fae95ae7121a47"},
    {"aead gcm(aes) decrypt", "aead", "gcm(aes)", GCM_KEY, ALG_OP_DECRYPT,
     GCM_AAD GCM_CT "5bc94fbc3221a5db94fae95ae7121a47", GCM_AAD GCM_PT},
    // A tag with one bit flipped must be refused with EBADMSG, not decrypted.
    {"aead gcm(aes) refuses a forged tag", "aead", "gcm(aes)", GCM_KEY, ALG_OP_DECRYPT,
     GCM_AAD GCM_CT "5bc94fbc3221a5db94fae95ae7121a46", ""}};

// cmsg adds one control message to `msg` after `prev` (null: the first).
cmsghdr* cmsg(msghdr* msg, cmsghdr* prev, int type, const Bytes& data) {
  cmsghdr* c = prev ? CMSG_NXTHDR(msg, prev) : CMSG_FIRSTHDR(msg);
  c->cmsg_level = SOL_ALG;
  c->cmsg_type = type;
  c->cmsg_len = CMSG_LEN(data.size());
  std::memcpy(CMSG_DATA(c), data.data(), data.size());
  return c;
}

Bytes u32(uint32_t v) { return Bytes(reinterpret_cast<uint8_t*>(&v), reinterpret_cast<uint8_t*>(&v) + 4); }

// run performs one check; it returns "" when it passed, else what went wrong.
std::string run(const Check& c) {
  const Bytes key = fromHex(c.key), iv = fromHex(c.iv), in = fromHex(c.in), want = fromHex(c.want);
  Fd tfm(socket(AF_ALG, SOCK_SEQPACKET, 0));
  if (tfm.fd < 0) return errnoText("socket(AF_ALG)");
  sockaddr_alg sa{};
  sa.salg_family = AF_ALG;
  std::strncpy(reinterpret_cast<char*>(sa.salg_type), c.type, sizeof sa.salg_type - 1);
  std::strncpy(reinterpret_cast<char*>(sa.salg_name), c.name, sizeof sa.salg_name - 1);
  if (bind(tfm.fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return errnoText("bind");
  if (!key.empty() && setsockopt(tfm.fd, SOL_ALG, ALG_SET_KEY, key.data(), key.size()) != 0)
    return errnoText("setsockopt(ALG_SET_KEY)");
  if (c.assocLen >= 0 && setsockopt(tfm.fd, SOL_ALG, ALG_SET_AEAD_AUTHSIZE, nullptr, 16) != 0)
    return errnoText("setsockopt(ALG_SET_AEAD_AUTHSIZE)");
  alarm(kCallSeconds);
  Fd op(accept(tfm.fd, nullptr, nullptr));
  alarm(0);
  if (op.fd < 0) return errnoText("accept");
  // The operation, the IV and the associated-data length go as control messages; a hash takes none.
  Bytes control(iv.empty() ? 0
                           : CMSG_SPACE(4) + CMSG_SPACE(sizeof(af_alg_iv) + iv.size()) +
                                 (c.assocLen >= 0 ? CMSG_SPACE(4) : 0));
  iovec io{const_cast<uint8_t*>(in.data()), in.size()};
  msghdr msg{};
  msg.msg_iov = &io;
  msg.msg_iovlen = 1;
  msg.msg_control = control.empty() ? nullptr : control.data();
  msg.msg_controllen = control.size();
  if (!iv.empty()) {
    Bytes ivData = u32(static_cast<uint32_t>(iv.size()));  // struct af_alg_iv: the length, then the IV
    ivData.insert(ivData.end(), iv.begin(), iv.end());
    cmsghdr* ivMsg = cmsg(&msg, cmsg(&msg, nullptr, ALG_SET_OP, u32(c.direction)), ALG_SET_IV, ivData);
    if (c.assocLen >= 0) cmsg(&msg, ivMsg, ALG_SET_AEAD_ASSOCLEN, u32(c.assocLen));
  }
  alarm(kCallSeconds);
  ssize_t n = sendmsg(op.fd, &msg, 0);
  alarm(0);
  if (n != static_cast<ssize_t>(in.size())) return n < 0 ? errnoText("sendmsg") : "sendmsg took " + std::to_string(n);
  Bytes got(c.want[0] ? want.size() : in.size());
  alarm(kCallSeconds);
  n = read(op.fd, got.data(), got.size());
  const int readErrno = errno;
  alarm(0);
  if (!c.want[0])
    return n < 0 && readErrno == EBADMSG ? ""
           : n >= 0                      ? "read returned " + std::to_string(n) + " bytes"
                                         : "read failed: " + std::string(std::strerror(readErrno));
  if (n < 0) return "read failed: " + std::string(std::strerror(readErrno));
  got.resize(static_cast<size_t>(n));
  return got == want ? "" : "got " + toHex(got) + ", want " + toHex(want);
}

}  // namespace

int main() {
  // The alarm handler goes in without SA_RESTART, so an expired alarm ends the blocked call.
  struct sigaction sa {};
  sa.sa_handler = onAlarm;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGALRM, &sa, nullptr);
  int passes = 0, failures = 0;
  for (const Check& c : kChecks) {
    const std::string problem = run(c);
    std::printf("%s %s%s%s\n", problem.empty() ? "PASS" : "FAIL", c.what, problem.empty() ? "" : ": ", problem.c_str());
    std::fflush(stdout);
    problem.empty() ? ++passes : ++failures;
  }
  std::printf("afalg_probe: %d passed, %d failed\n", passes, failures);
  return failures == 0 && passes > 0 ? 0 : 1;
}
