// The two CBC record ciphers of cbc.h (the MAC-then-pad verdicts on crafted records are in
// record_ct_test.cpp).
#include <memory>

#include "support.h"
#include "tessel/cbc.h"
#include "tessel/factory.h"
#include "tessel/hmac.h"

namespace tessel {
namespace {

using test::Bytes;
using test::openWith;
using test::sealWith;

std::unique_ptr<CBC_MAC_MP_Cipher> makeRecord() {
  return std::make_unique<CBC_MAC_MP_Cipher>(createCipher(4, Bytes(16, 0x2b), 0),
                                             createHMAC(hashSha1, Bytes(20, 0x0b)));
}

std::unique_ptr<Cipher> makeEtm(unsigned hashId) { return createAead(4, hashId, Bytes(16, 0x11), Bytes(32, 0x22)); }

Bytes cut(const Bytes& b, std::size_t len) { return Bytes(b.begin(), b.begin() + static_cast<long>(len)); }

TEST(MacThenPad, LengthsRoundTripsAndShortRecords) {
  auto rec = makeRecord();
  EXPECT_EQ(rec->ciphertextLength(12), 48u);  // 12 + 20 is a block: a whole padding block
  EXPECT_EQ(rec->blockLength(), 16u);
  Bytes iv(16, 0x77), plain(32);
  rec->setIV(iv.data(), 16);
  for (unsigned len = 0; len <= 40; ++len) {
    Bytes msg(len, static_cast<unsigned char>(len)), sealed = sealWith(*rec, msg);
    EXPECT_EQ(sealed.size(), rec->ciphertextLength(len));
    EXPECT_EQ(openWith(*rec, sealed), msg) << len;
  }
  const Bytes seven = sealWith(*rec, Bytes(7, 0x41));
  for (std::size_t n : {0u, 1u, 15u, 16u, 17u, 31u}) EXPECT_FALSE(openWith(*rec, cut(seven, n))) << n;
  // The padding of an empty record: 12 bytes of value 11 after the 20 MAC bytes.
  CBCCipher inner(std::make_unique<AES128>(Bytes(16, 0x2b).data()));
  inner.setIV(iv.data(), 16);
  inner.decrypt(sealWith(*rec, {}).data(), 32, nullptr, 0, plain.data());
  EXPECT_EQ(Bytes(plain.begin() + 20, plain.end()), Bytes(12, 11));
}

TEST(EncryptThenMac, RoundTripsAndRejectsTampering) {
  auto etm = makeEtm(hashSha256);
  EXPECT_EQ(etm->ciphertextLength(32), 64u);
  EXPECT_EQ(etm->blockLength(), 16u);
  Bytes iv(16, 0x5e), aad(13, 0xad), msg(48, 0x6d);
  etm->setIV(iv.data(), 16);
  Bytes sealed = sealWith(*etm, msg, aad);
  EXPECT_EQ(openWith(*etm, sealed, aad), msg);
  EXPECT_EQ(openWith(*etm, sealed, aad), msg);  // the stored IV is reused, the MAC restarted
  for (std::size_t i = 0; i < sealed.size(); i += 7) {
    Bytes bad = sealed;
    bad[i] ^= 1;
    EXPECT_FALSE(openWith(*etm, bad, aad)) << i;
  }
  EXPECT_FALSE(openWith(*etm, sealed, Bytes(13, 0xae)));
  for (std::size_t len : {0u, 31u, 32u, 33u, 47u, 79u}) EXPECT_FALSE(openWith(*etm, cut(sealed, len), aad)) << len;
}

// A size below the block length clears the stored IV first, but a whole block is still
// copied: the result is the same as giving the full size.
TEST(RecordCiphers, ShortIvSizeClearsThenCopiesAWholeBlock) {
  Bytes iv(16, 0x5e), msg(16, 1);
  auto a = makeEtm(hashSha1), b = makeEtm(hashSha1);
  auto r1 = makeRecord(), r2 = makeRecord();
  a->setIV(iv.data(), 16);
  b->setIV(iv.data(), 3);
  r1->setIV(iv.data(), 16);
  r2->setIV(iv.data(), 0);
  EXPECT_EQ(sealWith(*a, msg), sealWith(*b, msg));
  EXPECT_EQ(sealWith(*r1, msg), sealWith(*r2, msg));
}

TEST(EncryptThenMacDeathTest, MacsLongerThan32BytesAbortOnDecrypt) {
  auto etm = makeEtm(hashSha384);
  Bytes iv(16), in(64), out(64);
  etm->setIV(iv.data(), 16);
  EXPECT_DEATH(
      etm->decrypt(in.data(), 64, nullptr, 0, out.data()),
      "\"hlen <= sizeof\\(control\\)\" failed: file \"../include/tessel/cbc.h\", line [0-9]+, function: decrypt");
}

}  // namespace
}  // namespace tessel
