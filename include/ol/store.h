// Host platform: the persistent keyed message store.
//
// A store is a named collection ("cerm", "cert/settings", "cert/crl") of messages keyed by
// unsigned 32-bit entry ids, plus one 32-bit state word whose meaning belongs to the host. A
// message is a set of typed fields addressed by numeric id; each id holds one value of one kind.
//
// On-disk format. A store named N lives in the folder rootPath("/rw/store/" + N) (a '/' in N
// makes subfolders). Every entry is one file named by its id as exactly eight lower-case hex
// digits ("0000002a"); the state word is the file "state", encoded like an entry with id
// 0xFFFFFFFF whose message holds the word as u32 field 0 (no file: the word is 0xFFFFFFFF).
// Any other name in the folder (the temporary files of unfinished writes and the subfolders of
// other stores) is ignored. An entry file is
//
//   offset 0   4 bytes   magic "olm1"
//   offset 4   u32       entry id (must match the file name)
//   offset 8   u32       payload length n
//   offset 12  n bytes   payload: the message's fields in strictly ascending id order
//   offset 12+n u32      CRC-32 (IEEE 802.3, as zlib's crc32) of bytes [0, 12+n)
//
// and nothing after. All integers are little-endian. A field is u32 id, u8 kind, u32 length
// and `length` value bytes; the kinds are 1 bool (one byte, 0 or 1), 2 u32 (four bytes),
// 3 raw (any bytes), 4 string (any bytes) and 5 string array (a sequence of u32 length +
// bytes items filling the value exactly). Any other form is corrupt. Lengths are 32-bit: a
// longer field is a programming error and aborts.
//
// Writes are atomic: the new file is written beside the old one under a temporary name,
// flushed to disk, renamed over the old one and the folder flushed, so a crash leaves the old
// entry or the new one. The temporary name is unique to the write, "<file>.<pid>.<tid>.<n>.tmp"
// (n counts the process's writes), so that writers never share one; older firmware wrote
// "<file>.<pid>.tmp". A folder created for a store is flushed into its parent before the
// first entry is written into it.
//
// Loading reads only regular files of at most maxEntryFile bytes: a FIFO, device, socket,
// folder or symbolic link named like an entry is never opened for reading. Whatever cannot be
// read as a sound entry is reported on one line on standard output ("[ERR] store N: skipped
// <file>: <fault>"), left out and remembered as damaged, never stopping the others from
// loading. Opening a store also deletes the temporary files that no write will ever finish
// (see Store::Store).
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace ol {

// field_id names a field of a message together with the kind of value it holds.
template <class T>
struct TESSEL_API field_id {
  std::uint32_t id;
};
using bool_id = field_id<bool>;
using u32_id = field_id<std::uint32_t>;
using raw_id = field_id<std::vector<unsigned char>>;
using string_id = field_id<std::string>;
using string_array_id = field_id<std::vector<std::string>>;

// message is a set of typed fields, at most one per id.
class TESSEL_API message {
 public:
  // The variant's alternatives are in the order of the on-disk kinds 1 to 5.
  using value = std::variant<bool, std::uint32_t, std::vector<unsigned char>, std::string, std::vector<std::string>>;

  // has is true when field `f.id` exists and holds a value of f's kind.
  template <class T>
  bool has(field_id<T> f) const {
    return get(f) != nullptr;
  }
  // get returns the value of field `f.id`, or null when it is absent or of another kind. The
  // pointer stays valid until the message is changed.
  template <class T>
  const T* get(field_id<T> f) const {
    auto it = fields_.find(f.id);
    return it == fields_.end() ? nullptr : std::get_if<T>(&it->second);
  }
  // get returns a copy of the value of field `f.id`, or `fallback` when get(f) is null.
  template <class T>
  T get(field_id<T> f, std::type_identity_t<T> fallback) const {
    const T* v = get(f);
    return v ? *v : std::move(fallback);
  }
  // set stores `v` as field `f.id`, replacing any value of whatever kind it held.
  template <class T>
  void set(field_id<T> f, std::type_identity_t<T> v) {
    fields_.insert_or_assign(f.id, value(std::in_place_type<T>, std::move(v)));
  }
  // erase removes field `id` whatever its kind; erasing an absent field does nothing.
  void erase(std::uint32_t id) { fields_.erase(id); }
  template <class T>
  void erase(field_id<T> f) {
    erase(f.id);
  }
  // empty is true when the message has no fields.
  bool empty() const { return fields_.empty(); }
  // size is the number of fields.
  std::size_t size() const { return fields_.size(); }

  // serialize returns the payload encoding of the fields (see the file comment).
  std::vector<unsigned char> serialize() const;
  // parse replaces the fields with those encoded in `payload`. It returns false, leaving the
  // message empty, when the bytes are not exactly a well-formed field list.
  bool parse(std::span<const unsigned char> payload);

  friend bool operator==(const message&, const message&) = default;

 private:
  std::map<std::uint32_t, value> fields_;
};

// encodeEntry returns the complete file bytes of entry `id` holding `m`.
TESSEL_API std::vector<unsigned char> encodeEntry(std::uint32_t id, const message& m);

// decodeEntry reads the file bytes of one entry into `id` and `m`. It returns null on success;
// otherwise a short static text naming the fault ("bad magic", "truncated", "bad checksum",
// ...), with `m` left empty.
TESSEL_API const char* decodeEntry(std::span<const unsigned char> file, std::uint32_t& id, message& m);

// Allocator is the id space of a store: it iterates over the ids in use in ascending order.
// It is a view: it stays valid while its store lives and sees the store's later changes.
class TESSEL_API Allocator {
 public:
  using entries = std::map<std::uint32_t, message>;

  class iterator {
   public:
    using value_type = std::uint32_t;
    using difference_type = std::ptrdiff_t;
    iterator() = default;
    explicit iterator(entries::const_iterator it) : it_(it) {}
    std::uint32_t operator*() const { return it_->first; }
    iterator& operator++() {
      ++it_;
      return *this;
    }
    iterator operator++(int) {
      iterator old = *this;
      ++it_;
      return old;
    }
    friend bool operator==(const iterator&, const iterator&) = default;

   private:
    entries::const_iterator it_;
  };

  explicit Allocator(const entries& e) : entries_(&e) {}
  iterator begin() const { return iterator(entries_->begin()); }
  iterator end() const { return iterator(entries_->end()); }
  // size is the number of ids in use.
  std::size_t size() const { return entries_->size(); }
  // contains is true when entry `id` exists.
  bool contains(std::uint32_t id) const { return entries_->count(id) != 0; }

 private:
  const entries* entries_;
};

// Presence tells an entry that was never written (or was removed) from one whose file exists but
// could not be loaded. Callers that decide security settings from an entry must treat a damaged
// one as hostile, not as the default an absent one stands for.
enum class Presence { absent, present, damaged };

// Store is one named store, read whole when constructed. Reads see the snapshot taken then
// plus this object's own writes. Not synchronised: one thread at a time.
class TESSEL_API Store {
 public:
  // initialState is the state word of a store that was never given one.
  static constexpr std::uint32_t initialState = 0xFFFFFFFF;
  // maxEntryFile bounds an entry file (and the state file): larger ones are damaged and put
  // refuses to write them. Entries hold settings, certificates and their CRL addresses, a few
  // KB each; 4 MiB leaves room for any of them and keeps a hostile file from filling the
  // memory of a small appliance.
  static constexpr std::size_t maxEntryFile = std::size_t{4} << 20;
  // staleTemporaryAge is the age in seconds past which a temporary file is deleted whoever
  // wrote it. A write keeps its temporary for milliseconds, so an hour-old one is abandoned
  // even when its writer's process id is alive (reused, or in another pid namespace).
  static constexpr long staleTemporaryAge = 3600;

  // Store opens the store `name` and loads every sound entry; a store that does not exist is
  // simply empty. A name with an empty, "." or ".." component is refused: the store stays
  // empty and every write fails. Opening deletes the store's temporary files that no write can
  // still finish: those whose writer process is provably gone (its process id names no process)
  // and those older than staleTemporaryAge. Only regular files named exactly like a temporary
  // of this store are considered.
  explicit Store(std::string_view name);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // name is the store's name as given.
  const std::string& name() const { return name_; }
  // state returns the state word, initialState when none was ever written.
  std::uint32_t state() const { return state_; }
  // allocator returns the view over the ids in use (begin/end in ascending order).
  const Allocator& allocator() const { return allocator_; }
  // get returns entry `id`, or an empty message when there is none (absent or damaged).
  const message& get(std::uint32_t id) const;
  // lookup tells whether entry `id` is present, absent or damaged (its file was skipped when
  // the store was loaded). A successful put or remove of the entry ends the damage.
  Presence lookup(std::uint32_t id) const;
  // stateLookup tells the same of the state word: damaged when its file was skipped, and
  // state() is then initialState.
  Presence stateLookup() const { return statePresence_; }
  // damaged returns the ids of the damaged entries in ascending order (the state file is not
  // among them).
  const std::set<std::uint32_t>& damaged() const { return damaged_; }

  // put stores `m` as entry `id`, replacing any old one, atomically on disk. False when the
  // disk write fails or the entry file would exceed maxEntryFile; the entry (on disk and here)
  // is then unchanged.
  bool put(std::uint32_t id, const message& m);
  // remove deletes entry `id`; true when it is gone afterwards (also when it never existed).
  bool remove(std::uint32_t id);
  // setState stores the state word atomically; false, with the old word kept, on failure.
  bool setState(std::uint32_t w);

 private:
  void load();
  void removeStaleTemporary(int dirFd, const char* file);
  bool writeFile(const std::string& file, const std::vector<unsigned char>& bytes);

  std::string name_;
  std::string dir_;  // empty when the name is refused
  std::uint32_t state_ = initialState;
  Presence statePresence_ = Presence::absent;
  Allocator::entries entries_;
  std::set<std::uint32_t> damaged_;
  Allocator allocator_{entries_};
};

}  // namespace ol
