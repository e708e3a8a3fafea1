#include "ol/store.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "core/diag.h"
#include "ol/file.h"
#include "tessel/assert.h"

namespace ol {

namespace {

constexpr unsigned char kMagic[4] = {'o', 'l', 'm', '1'};
constexpr std::size_t kHeaderSize = 12, kTrailerSize = 4;
constexpr const char* kStateFile = "state";
constexpr std::uint32_t kStateId = 0xFFFFFFFF;
constexpr u32_id kStateField{0};

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
  std::array<std::uint32_t, 256> t{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    t[i] = c;
  }
  return t;
}
constexpr std::array<std::uint32_t, 256> kCrcTable = makeCrcTable();

std::uint32_t crc32(std::span<const unsigned char> data) {
  std::uint32_t c = 0xFFFFFFFF;
  for (unsigned char b : data) c = kCrcTable[(c ^ b) & 0xFF] ^ (c >> 8);
  return ~c;
}

void putU32(std::vector<unsigned char>& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

void putBytes(std::vector<unsigned char>& out, std::span<const unsigned char> b) {
  TESSEL_ASSERT(static_cast<std::uint64_t>(b.size()) <= 0xFFFFFFFFu);
  putU32(out, static_cast<std::uint32_t>(b.size()));
  out.insert(out.end(), b.begin(), b.end());
}

std::span<const unsigned char> bytesOf(std::string_view s) {
  return {reinterpret_cast<const unsigned char*>(s.data()), s.size()};
}

// Reader is a cursor over untrusted bytes; every read checks the remaining length first.
class Reader {
 public:
  explicit Reader(std::span<const unsigned char> b) : rest_(b) {}
  bool empty() const { return rest_.empty(); }
  bool u8(unsigned char& v) {
    if (rest_.empty()) return false;
    v = rest_[0];
    rest_ = rest_.subspan(1);
    return true;
  }
  bool u32(std::uint32_t& v) {
    if (rest_.size() < 4) return false;
    v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | rest_[static_cast<std::size_t>(i)];
    rest_ = rest_.subspan(4);
    return true;
  }
  bool bytes(std::size_t n, std::span<const unsigned char>& out) {
    if (rest_.size() < n) return false;
    out = rest_.first(n);
    rest_ = rest_.subspan(n);
    return true;
  }
  // sized reads a u32 length and that many bytes.
  bool sized(std::span<const unsigned char>& out) {
    std::uint32_t n;
    return u32(n) && bytes(n, out);
  }

 private:
  std::span<const unsigned char> rest_;
};

struct ValueEncoder {
  std::vector<unsigned char>& out;
  void operator()(bool v) const {
    const unsigned char b = v ? 1 : 0;
    putBytes(out, std::span<const unsigned char>(&b, 1));
  }
  void operator()(std::uint32_t v) const {
    std::vector<unsigned char> le;
    putU32(le, v);
    putBytes(out, le);
  }
  void operator()(const std::vector<unsigned char>& v) const { putBytes(out, v); }
  void operator()(const std::string& v) const { putBytes(out, bytesOf(v)); }
  void operator()(const std::vector<std::string>& v) const {
    std::vector<unsigned char> items;
    for (const std::string& s : v) putBytes(items, bytesOf(s));
    putBytes(out, items);
  }
};

// decodeValue turns the value bytes of a field of `kind` into `out`; false when malformed.
bool decodeValue(unsigned char kind, std::span<const unsigned char> v, message::value& out) {
  switch (kind) {
    case 1:
      if (v.size() != 1 || v[0] > 1) return false;
      out = v[0] == 1;
      return true;
    case 2: {
      Reader r(v);
      std::uint32_t x;
      if (!r.u32(x) || !r.empty()) return false;
      out = x;
      return true;
    }
    case 3: out = std::vector<unsigned char>(v.begin(), v.end()); return true;
    case 4: out = std::string(v.begin(), v.end()); return true;
    case 5: {
      std::vector<std::string> items;
      Reader r(v);
      while (!r.empty()) {
        std::span<const unsigned char> item;
        if (!r.sized(item)) return false;
        items.emplace_back(item.begin(), item.end());
      }
      out = std::move(items);
      return true;
    }
    default: return false;
  }
}

// entryId reads a file name of exactly eight lower-case hex digits.
bool entryId(std::string_view name, std::uint32_t& id) {
  if (name.size() != 8) return false;
  id = 0;
  for (char c : name) {
    int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (d < 0) return false;
    id = (id << 4) | static_cast<std::uint32_t>(d);
  }
  return true;
}

std::string entryName(std::uint32_t id) {
  static const char digits[] = "0123456789abcdef";
  std::string s(8, '0');
  for (int i = 7; i >= 0; --i, id >>= 4) s[static_cast<std::size_t>(i)] = digits[id & 0xF];
  return s;
}

// validName refuses names that would leave the store's folder or alias another one.
bool validName(std::string_view name) {
  if (name.empty()) return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t slash = name.find('/', start);
    if (slash == std::string_view::npos) slash = name.size();
    std::string_view part = name.substr(start, slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = slash + 1;
  }
  return true;
}

bool writeAll(int fd, const std::vector<unsigned char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// syncDir flushes the folder so that a rename or unlink in it survives a crash.
bool syncDir(const std::string& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

// makeDirs creates `dir` and any missing parents. Each folder it creates is flushed into its
// parent, so that a new store's first entries do not vanish with their folder in a power cut.
// The flush is best effort, as is the one after a rename.
bool makeDirs(const std::string& dir) {
  for (std::size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    std::string part = dir.substr(0, slash);
    if (::mkdir(part.c_str(), 0755) == 0) {
      std::size_t up = part.rfind('/');
      syncDir(up == 0 ? std::string("/") : part.substr(0, up));
    } else if (errno != EEXIST) {
      return false;
    }
    if (slash == std::string::npos) return true;
  }
}

// digits reads a run of decimal digits at the front of `s` into `v`, consuming them; false when
// there is none or the value does not fit an int.
bool digits(std::string_view& s, long long& v) {
  std::size_t n = 0;
  v = 0;
  while (n < s.size() && s[n] >= '0' && s[n] <= '9') {
    v = v * 10 + (s[n] - '0');
    if (++n > 10 || v > 0x7FFFFFFF) return false;
  }
  s.remove_prefix(n);
  return n > 0;
}

// temporaryWriter reads the name of one of this store's temporary files, "<file>.<pid>.tmp"
// (older firmware) or "<file>.<pid>.<tid>.<n>.tmp" with <file> an entry name or "state", and
// returns its writer's process id; 0 for any other name.
long long temporaryWriter(std::string_view name) {
  std::uint32_t id;
  if (name.starts_with(kStateFile) && name.substr(5).starts_with('.')) name.remove_prefix(6);
  else if (name.size() > 9 && entryId(name.substr(0, 8), id) && name[8] == '.') name.remove_prefix(9);
  else return 0;
  long long pid, part;
  if (!digits(name, pid) || pid <= 0) return 0;
  if (name.starts_with('.') && name.size() > 1 && name[1] != 't') {
    name.remove_prefix(1);
    if (!digits(name, part) || !name.starts_with('.')) return 0;
    name.remove_prefix(1);
    if (!digits(name, part)) return 0;
  }
  return name == ".tmp" ? pid : 0;
}

// temporaryName returns a name for a new temporary of `file` that no other write, in this
// process or another, uses: the pid tells processes apart, the counter the writes of one
// process, and the thread id says who wrote it when one is found. The counter is a machine
// word so that it is lock-free everywhere: a 64-bit atomic needs libatomic on 32-bit MIPS.
std::string temporaryName(const std::string& file) {
  static std::atomic<unsigned long> writes{0};
  const long tid = ::syscall(SYS_gettid);
  return file + "." + std::to_string(::getpid()) + "." + std::to_string(tid) + "." +
         std::to_string(writes.fetch_add(1, std::memory_order_relaxed)) + ".tmp";
}

}  // namespace

std::vector<unsigned char> message::serialize() const {
  std::vector<unsigned char> out;
  for (const auto& [id, v] : fields_) {
    putU32(out, id);
    out.push_back(static_cast<unsigned char>(v.index() + 1));
    std::visit(ValueEncoder{out}, v);
  }
  return out;
}

bool message::parse(std::span<const unsigned char> payload) {
  fields_.clear();
  Reader r(payload);
  bool first = true;
  std::uint32_t last = 0;
  while (!r.empty()) {
    std::uint32_t id;
    unsigned char kind;
    std::span<const unsigned char> bytes;
    message::value v;
    // Ids strictly ascending: one encoding per message, and no field given twice.
    if (!r.u32(id) || (!first && id <= last) || !r.u8(kind) || !r.sized(bytes) || !decodeValue(kind, bytes, v)) {
      fields_.clear();
      return false;
    }
    fields_.emplace_hint(fields_.end(), id, std::move(v));
    first = false;
    last = id;
  }
  return true;
}

std::vector<unsigned char> encodeEntry(std::uint32_t id, const message& m) {
  std::vector<unsigned char> payload = m.serialize();
  std::vector<unsigned char> out(kMagic, kMagic + sizeof kMagic);
  out.reserve(kHeaderSize + payload.size() + kTrailerSize);
  putU32(out, id);
  putBytes(out, payload);
  putU32(out, crc32(out));
  return out;
}

const char* decodeEntry(std::span<const unsigned char> file, std::uint32_t& id, message& m) {
  m = message();
  Reader r(file);
  std::span<const unsigned char> magic, payload;
  std::uint32_t size, crc;
  if (!r.bytes(sizeof kMagic, magic) || std::memcmp(magic.data(), kMagic, sizeof kMagic) != 0)
    return file.size() < sizeof kMagic ? "truncated" : "bad magic";
  if (!r.u32(id) || !r.u32(size)) return "truncated";
  if (!r.bytes(size, payload) || !r.u32(crc)) return "truncated";
  if (!r.empty()) return "bad length";
  if (crc32(file.first(kHeaderSize + size)) != crc) return "bad checksum";
  if (!m.parse(payload)) return "bad fields";
  return nullptr;
}

Store::Store(std::string_view name) : name_(name) {
  if (!validName(name)) return;
  dir_ = rootPath("/rw/store/" + name_);
  load();
}

void Store::load() {
  DIR* d = ::opendir(dir_.c_str());
  if (!d) {
    // The reason is taken before the line is built, which may allocate.
    const int err = errno;
    if (err != ENOENT) tessel::diag() << "[ERR] store " << name_ << ": " << std::strerror(err);
    return;
  }
  while (const dirent* e = ::readdir(d)) {
    std::string_view file = e->d_name;
    std::uint32_t wanted;
    bool isState = file == kStateFile;
    if (!isState && !entryId(file, wanted)) {
      removeStaleTemporary(::dirfd(d), e->d_name);
      continue;  // temporary files, other stores
    }
    if (isState) wanted = kStateId;
    std::string bytes;
    std::uint32_t id = 0;
    message m;
    // Store files are only ever created by rename as regular files, so a link is foreign too.
    const char* fault = readRegularFile(bytes, dir_ + "/" + std::string(file), maxEntryFile, false);
    if (!fault && (fault = decodeEntry(bytesOf(bytes), id, m)) == nullptr && id != wanted) fault = "wrong id";
    else if (!fault && isState && !m.has(kStateField)) fault = "bad fields";
    if (fault) {
      tessel::diag() << "[ERR] store " << name_ << ": skipped " << file << ": " << fault;
      if (isState) statePresence_ = Presence::damaged;
      else damaged_.insert(wanted);
      continue;
    }
    if (isState) {
      state_ = *m.get(kStateField);
      statePresence_ = Presence::present;
    } else {
      entries_.insert_or_assign(id, std::move(m));
    }
  }
  ::closedir(d);
}

void Store::removeStaleTemporary(int dirFd, const char* file) {
  const long long pid = temporaryWriter(file);
  if (pid == 0) return;
  struct stat st;
  if (::fstatat(dirFd, file, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) return;
  // A process id that names no process proves its writes are over (the writers of one store
  // share a pid namespace on the appliance). A live id may be a reused one, or a writer in
  // another namespace: those temporaries wait until they are old enough that no write can be
  // running on them.
  const bool writerGone = pid != ::getpid() && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
  const bool old = std::time(nullptr) - st.st_mtime > staleTemporaryAge;
  if (writerGone || old) ::unlinkat(dirFd, file, 0);
}

const message& Store::get(std::uint32_t id) const {
  static const message none;
  auto it = entries_.find(id);
  return it == entries_.end() ? none : it->second;
}

Presence Store::lookup(std::uint32_t id) const {
  if (entries_.count(id) != 0) return Presence::present;
  return damaged_.count(id) != 0 ? Presence::damaged : Presence::absent;
}

bool Store::writeFile(const std::string& file, const std::vector<unsigned char>& bytes) {
  if (bytes.size() > maxEntryFile || dir_.empty() || !makeDirs(dir_)) return false;
  std::string path = dir_ + "/" + file;
  std::string tmp = dir_ + "/" + temporaryName(file);
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(tmp.c_str());
    return false;
  }
  // The new entry is in place and complete whatever happens now; flushing the folder only
  // makes the rename itself survive a power cut.
  syncDir(dir_);
  return true;
}

bool Store::put(std::uint32_t id, const message& m) {
  if (!writeFile(entryName(id), encodeEntry(id, m))) return false;
  entries_.insert_or_assign(id, m);
  damaged_.erase(id);
  return true;
}

bool Store::remove(std::uint32_t id) {
  if (dir_.empty()) return false;
  std::string path = dir_ + "/" + entryName(id);
  if (::unlink(path.c_str()) == 0) syncDir(dir_);
  else if (errno != ENOENT) return false;
  entries_.erase(id);
  damaged_.erase(id);
  return true;
}

bool Store::setState(std::uint32_t w) {
  message m;
  m.set(kStateField, w);
  if (!writeFile(kStateFile, encodeEntry(kStateId, m))) return false;
  state_ = w;
  statePresence_ = Presence::present;
  return true;
}

}  // namespace ol
