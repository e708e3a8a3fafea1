#include "tessel/hash.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

#include "core/endian.h"
#include "core/secret.h"
#include "tessel/assert.h"

namespace tessel {

std::string getHashName(unsigned id) {
  switch (id) {
    case hashMd5: return "MD5";
    case hashSha1: return "SHA1";
    case hashSha256: return "SHA256";
    case hashSha384: return "SHA384";
    case hashSha512: return "SHA512";
    default: return "unknown";  // MD4 and MD5+SHA-1 have no name: they never appear in certificates
  }
}

std::vector<unsigned char> Hash::digest() {
  std::vector<unsigned char> out(digestLength());
  digest(out.data());
  return out;
}

Hash& Hash::update(std::span<const unsigned char> data) {
  constexpr std::size_t kPiece = 1u << 30;
  do {
    std::size_t n = std::min(data.size(), kPiece);
    update(data.data(), static_cast<unsigned>(n));
    data = data.subspan(n);
  } while (!data.empty());
  return *this;
}

Hash& HashImpl::update(const void* data, unsigned len) {
  if (counter_ == 0) init();
  const auto* p = static_cast<const unsigned char*>(data);
  const unsigned block = blockLength();
  const unsigned mask = block - 1;
  while (len > 0) {
    unsigned used = static_cast<unsigned>(counter_ & mask);
    if (used == 0 && len >= block) {
      // Whole blocks go straight from the caller's buffer: same result as buffering each.
      std::size_t blocks = len / block;
      compressBlocks(p, blocks);
      std::size_t bytes = blocks * block;
      counter_ += bytes;
      p += bytes;
      len -= static_cast<unsigned>(bytes);
      continue;
    }
    unsigned take = std::min(block - used, len);
    std::memcpy(buffer_ + used, p, take);
    counter_ += take;
    p += take;
    len -= take;
    if ((counter_ & mask) == 0) transform();
  }
  return *this;
}

void HashImpl::compressBlocks(const unsigned char* blocks, std::size_t count) {
  const unsigned block = blockLength();
  for (std::size_t i = 0; i < count; ++i) {
    std::memcpy(buffer_, blocks + i * block, block);
    transform();
  }
}

void HashImpl::finish(bool littleEndian) {
  if (counter_ == 0) init();
  const unsigned block = blockLength();
  unsigned n = static_cast<unsigned>(counter_ & (block - 1));
  buffer_[n++] = 0x80;
  if (block - lengthFieldSize() < n) {
    std::memset(buffer_ + n, 0, block - n);
    transform();
    n = 0;
  }
  // The fill always runs to B - 8: for the 128-byte-block digests the upper half of the
  // 128-bit length field is part of this fill, so lengths are counted in 64 bits.
  std::memset(buffer_ + n, 0, block - 8 - n);
  const std::uint64_t bits = counter_ * 8;
  unsigned char* field = buffer_ + block - 8;
  if (littleEndian) {
    detail::storeLe32(field, static_cast<std::uint32_t>(bits));
    detail::storeLe32(field + 4, static_cast<std::uint32_t>(bits >> 32));
  } else {
    detail::storeBe32(field, static_cast<std::uint32_t>(bits >> 32));
    detail::storeBe32(field + 4, static_cast<std::uint32_t>(bits));
  }
  transform();
  counter_ = 0;
}

bool HashImpl::digestSecretLength(const unsigned char* data, unsigned minLen, unsigned maxLen, unsigned len,
                                  unsigned char* out) {
  TESSEL_ASSERT(minLen <= maxLen);
  if (counter_ == 0) init();
  std::vector<unsigned char> probe(digestLength());
  if (!encodeState(probe.data())) return false;
  update(data, minLen);  // the part every case shares goes the ordinary way
  data += minLen;
  const unsigned span = maxLen - minLen, block = blockLength(), shift = std::countr_zero(block);
  const unsigned used = static_cast<unsigned>(counter_ & (block - 1)), room = block - lengthFieldSize();
  // The 0x80 byte sits `used + tail` bytes after the start of the buffered block; the length
  // field goes at the end of that block, or of the next one when it does not fit before it.
  const std::uint32_t tail = len - minLen;
  const std::uint32_t end = used + tail, endInBlock = end & (block - 1);
  const std::uint32_t finalBlock = (end >> shift) + (~ct::lessThanMask<std::uint32_t>(endInBlock, room) & 1);
  const unsigned maxEnd = used + span, blocks = (maxEnd >> shift) + ((maxEnd & (block - 1)) >= room) + 1;
  const std::uint64_t bits = (counter_ + tail) * 8;
  const bool littleEndian = lengthIsLittleEndian();
  unsigned char buf[128], state[64], result[64] = {};
  for (unsigned j = 0; j < blocks; ++j) {
    for (unsigned i = 0; i < block; ++i) {
      const unsigned pos = j * block + i;
      if (pos < used) {
        buf[i] = buffer_[pos];
        continue;
      }
      const std::uint32_t k = pos - used;
      const unsigned char inData = static_cast<unsigned char>(ct::lessThanMask<std::uint32_t>(k, tail));
      const unsigned char atEnd = static_cast<unsigned char>(ct::equalMask<std::uint32_t>(k, tail));
      buf[i] = static_cast<unsigned char>((k < span ? data[k] & inData : 0) | (0x80 & atEnd));
    }
    const auto isFinal = static_cast<unsigned char>(ct::equalMask<std::uint32_t>(j, finalBlock));
    for (unsigned i = 0; i < 8; ++i) {
      const auto byte = static_cast<unsigned char>(littleEndian ? bits >> 8 * i : bits >> (56 - 8 * i));
      buf[block - 8 + i] |= static_cast<unsigned char>(byte & isFinal);
    }
    compressBlocks(buf, 1);
    encodeState(state);
    ct::conditionalMove(result, state, digestLength(), isFinal);
  }
  std::memcpy(out, result, digestLength());
  counter_ = 0;
  ct::wipeObject(buf);
  ct::wipeObject(state);
  ct::wipeObject(result);
  return true;
}

Hash& MD5SHA1::update(const void* data, unsigned len) {
  md5_.update(data, len);
  sha1_.update(data, len);
  return *this;
}

void MD5SHA1::digest(unsigned char* out) {
  md5_.digest(out);
  sha1_.digest(out + 16);
}

}  // namespace tessel
