// The two CBC record ciphers of cbc.h.
#include <memory>

#include "support.h"
#include "tessel/cbc.h"
#include "tessel/factory.h"
#include "tessel/hmac.h"

namespace tessel {
namespace {

using test::Bytes;

std::unique_ptr<CBC_MAC_MP_Cipher> makeRecord(unsigned hashId = hashSha1) {
  Bytes key(16, 0x2b), macKey(20, 0x0b);
  return std::make_unique<CBC_MAC_MP_Cipher>(createCipher(4, key, 0), createHMAC(hashId, macKey));
}

using test::openWith;
using test::sealWith;

TEST(MacThenPad, LengthsAndRoundTrips) {
  auto rec = makeRecord();
  EXPECT_EQ(rec->ciphertextLength(0), 32u);   // 20 MAC bytes + 12 padding bytes
  EXPECT_EQ(rec->ciphertextLength(12), 48u);  // 12 + 20 is a block: a whole padding block
  EXPECT_EQ(rec->blockLength(), 16u);
  Bytes iv(16, 0x77);
  rec->setIV(iv.data(), 16);
  for (unsigned len = 0; len <= 40; ++len) {
    Bytes msg(len, static_cast<unsigned char>(len));
    Bytes sealed = sealWith(*rec, msg);
    EXPECT_EQ(sealed.size(), rec->ciphertextLength(len));
    EXPECT_EQ(openWith(*rec, sealed), msg) << len;
  }
  // The padding of an empty record: 12 bytes of value 11 after the MAC.
  Bytes plain(32);
  CBCCipher inner(std::make_unique<AES128>(Bytes(16, 0x2b).data()));
  inner.setIV(iv.data(), 16);
  inner.decrypt(sealWith(*rec, {}).data(), 32, nullptr, 0, plain.data());
  EXPECT_EQ(Bytes(plain.begin() + 20, plain.end()), Bytes(12, 11));
}

// crafted builds a record whose plaintext (MAC and padding included) is given, under the
// record's key and IV: how a forger with the key would test the padding checks.
Bytes crafted(const Bytes& plain) {
  CBCCipher inner(std::make_unique<AES128>(Bytes(16, 0x2b).data()));
  inner.setIV(Bytes(16, 0x77).data(), 16);
  Bytes out(plain.size());
  inner.encrypt(plain.data(), static_cast<unsigned>(plain.size()), nullptr, 0, out.data());
  return out;
}

Bytes macOf(const Bytes& msg) {
  SHA1 sha;
  HMAC mac(&sha, Bytes(20, 0x0b).data(), 20);
  return mac.update(msg).digest();
}

TEST(MacThenPad, RejectsBadRecords) {
  auto rec = makeRecord();
  rec->setIV(Bytes(16, 0x77).data(), 16);
  Bytes msg(7, 0x41), sealed = sealWith(*rec, msg);
  for (std::size_t len : {0u, 1u, 15u, 16u, 17u, 31u}) {
    EXPECT_FALSE(openWith(*rec, Bytes(sealed.begin(), sealed.begin() + static_cast<long>(len)))) << len;
  }
  for (std::size_t i = 0; i < sealed.size(); i += 5) {
    Bytes bad = sealed;
    bad[i] ^= 0x10;
    EXPECT_FALSE(openWith(*rec, bad)) << i;
  }
  // The MAC matches but the padding bytes differ.
  Bytes plain = msg, mac = macOf(msg);
  plain.insert(plain.end(), mac.begin(), mac.end());
  plain.insert(plain.end(), {3, 4, 4, 4, 4});  // 5 padding bytes claimed, one of them wrong
  ASSERT_EQ(plain.size(), 32u);
  EXPECT_FALSE(openWith(*rec, crafted(plain)));
  plain[27] = 4;
  EXPECT_EQ(openWith(*rec, crafted(plain)), msg);  // the same record with good padding
  // The last byte claims more padding than the record holds.
  plain.back() = 200;
  EXPECT_FALSE(openWith(*rec, crafted(plain)));
}

std::unique_ptr<Cipher> makeEtm(unsigned hashId) {
  return createAead(4, hashId, Bytes(16, 0x11), Bytes(32, 0x22));
}

TEST(EncryptThenMac, RoundTripsAndRejectsTampering) {
  auto etm = makeEtm(hashSha256);
  ASSERT_TRUE(etm);
  EXPECT_EQ(etm->ciphertextLength(32), 64u);
  EXPECT_EQ(etm->blockLength(), 16u);
  Bytes iv(16, 0x5e), aad(13, 0xad), msg(48, 0x6d);
  etm->setIV(iv.data(), 16);
  Bytes sealed(etm->ciphertextLength(48));
  etm->encrypt(msg.data(), 48, aad.data(), 13, sealed.data());
  EXPECT_EQ(openWith(*etm, sealed, aad), msg);
  EXPECT_EQ(openWith(*etm, sealed, aad), msg);  // the stored IV is reused, the MAC restarted
  for (std::size_t i = 0; i < sealed.size(); i += 7) {
    Bytes bad = sealed;
    bad[i] ^= 1;
    EXPECT_FALSE(openWith(*etm, bad, aad)) << i;
  }
  EXPECT_FALSE(openWith(*etm, sealed, Bytes(13, 0xae)));
  for (std::size_t len : {0u, 31u, 33u, 47u, 79u})
    EXPECT_FALSE(openWith(*etm, Bytes(sealed.begin(), sealed.begin() + static_cast<long>(len)), aad)) << len;
  EXPECT_EQ(openWith(*etm, Bytes(sealed.begin(), sealed.begin() + 32), aad), std::nullopt);
}

TEST(RecordCiphers, ShortIvSizeClearsThenCopiesAWholeBlock) {
  // A size below the block length clears the stored IV first, but a whole block is still
  // copied: the result is the same as giving the full size.
  Bytes iv(16, 0x5e), msg(16, 1);
  auto a = makeEtm(hashSha1), b = makeEtm(hashSha1);
  a->setIV(iv.data(), 16);
  b->setIV(iv.data(), 3);
  Bytes sa(a->ciphertextLength(16)), sb(sa.size());
  a->encrypt(msg.data(), 16, nullptr, 0, sa.data());
  b->encrypt(msg.data(), 16, nullptr, 0, sb.data());
  EXPECT_EQ(sa, sb);
  auto r1 = makeRecord(), r2 = makeRecord();
  r1->setIV(iv.data(), 16);
  r2->setIV(iv.data(), 0);
  EXPECT_EQ(sealWith(*r1, msg), sealWith(*r2, msg));
}

TEST(EncryptThenMacDeathTest, MacsLongerThan32BytesAbortOnDecrypt) {
  auto etm = makeEtm(hashSha384);
  Bytes iv(16), in(64);
  etm->setIV(iv.data(), 16);
  Bytes out(64);
  EXPECT_DEATH(etm->decrypt(in.data(), 64, nullptr, 0, out.data()),
               "\"hlen <= sizeof\\(control\\)\" failed: file \"../include/tessel/cbc.h\", line [0-9]+, function: decrypt");
}

}  // namespace
}  // namespace tessel
