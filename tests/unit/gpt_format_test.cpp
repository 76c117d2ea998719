// The on-disk GPT helpers: CRC32, GUID text, and the checks a header must
// pass before its numbers are used.
#include "gpt/gpt_format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/le.h"
#include "fake_machine.h"

namespace dh {
namespace {

TEST(GptFormat, Crc32GuidTextAndArraySectors) {
  const auto* check = reinterpret_cast<const uint8_t*>("123456789");
  EXPECT_EQ(Crc32(check, 9), 0xCBF43926u);
  EXPECT_EQ(Crc32(check, 0), 0u);
  EXPECT_EQ(Crc32(check + 4, 5, Crc32(check, 4)), 0xCBF43926u);  // chained
  std::vector<uint8_t> big(16384 * 128);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
  EXPECT_EQ(Crc32(big.data(), big.size()), test::ReferenceCrc32(big.data(), big.size()));

  // Mixed-endian fields, upper case.
  const uint8_t efi[16] = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                           0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};
  EXPECT_EQ(FormatGuidText(efi), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");

  for (auto [count, sectors] : {std::pair{0, 0u}, {1, 1u}, {4, 1u}, {5, 2u}, {16384, 4096u}, {-1, 0u}}) {
    EXPECT_EQ(EntryArraySectors(count), sectors) << count;
  }
}

class GptHeaderCheck : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memcpy(header, "EFI PART", 8);
    StoreLe32(header + gpt::kHeaderSize, 92);
    StoreLe64(header + gpt::kAlternateLba, 9999);
    StoreLe64(header + gpt::kFirstUsableLba, 34);
    StoreLe64(header + gpt::kLastUsableLba, 9966);
    StoreLe64(header + gpt::kEntryArrayLba, 2);
    StoreLe32(header + gpt::kEntryCount, 128);
    StoreLe32(header + gpt::kEntrySizeField, 128);
  }
  ResultCode Check(uint64_t diskSectors = 10000) { return ValidateGptHeader(header, diskSectors, &facts); }

  uint8_t header[512] = {};
  GptHeaderFacts facts;
};

TEST_F(GptHeaderCheck, AcceptsStandardHeadersAndRefusesHostileNumbers) {
  ASSERT_EQ(Check(), kSuccess);
  EXPECT_EQ(facts.entryCount, 128);
  EXPECT_EQ(facts.entryArrayLba, 2u);
  EXPECT_EQ(facts.arraySectors, 32u);
  EXPECT_EQ(facts.alternateLba, 9999u);
  EXPECT_EQ(facts.firstUsableLba, 34u);
  EXPECT_EQ(facts.lastUsableLba, 9966u);

  header[0] = 'e';
  EXPECT_EQ(Check(), kGptInvalid);
  header[0] = 'E';
  // An empty table and the largest one are headers; nothing beyond that is.
  for (auto [count, result] : {std::pair{0u, kSuccess}, {16384u, kSuccess}, {16385u, kGptInvalid},
                               {0x7FFFFFFFu, kGptInvalid}, {0x80000000u, kGptInvalid}, {0xFFFFFFFFu, kGptInvalid}}) {
    StoreLe32(header + gpt::kEntryCount, count);
    EXPECT_EQ(Check(), result) << count;
  }
  StoreLe32(header + gpt::kEntryCount, 128);

  // Arrays over sector 0 or the header, past the disk's end, or at an LBA
  // whose byte offset does not fit 64 bits; the last 32 sectors still fit.
  for (auto [lba, result] : {std::pair{uint64_t{0}, kGptInvalid}, {uint64_t{1}, kGptInvalid},
                             {uint64_t{9969}, kGptInvalid}, {uint64_t{10000}, kGptInvalid},
                             {UINT64_MAX, kGptInvalid}, {UINT64_MAX / 512, kGptInvalid}, {uint64_t{9968}, kSuccess}}) {
    StoreLe64(header + gpt::kEntryArrayLba, lba);
    EXPECT_EQ(Check(), result) << lba;
  }
  // With the disk size unknown only the LBA range holds the array.
  StoreLe64(header + gpt::kEntryArrayLba, 1u << 30);
  EXPECT_EQ(Check(0), kSuccess);
  EXPECT_EQ(Check(), kGptInvalid);
}

TEST_F(GptHeaderCheck, WritableLayoutAndHeaderCrc) {
  EXPECT_TRUE(HeaderLayoutWritable(header));
  StoreLe32(header + gpt::kEntrySizeField, 256);
  EXPECT_FALSE(HeaderLayoutWritable(header));
  StoreLe32(header + gpt::kEntrySizeField, 128);
  for (uint32_t size : {0u, 91u, 513u, 0xFFFFFFFFu}) {
    StoreLe32(header + gpt::kHeaderSize, size);
    EXPECT_FALSE(HeaderLayoutWritable(header)) << size;
    // Nothing is computed over a size that would leave the sector.
    StoreLe32(header + gpt::kHeaderCrc, 0x11111111);
    UpdateHeaderCrc(header);
    EXPECT_EQ(LoadLe32(header + gpt::kHeaderCrc), 0x11111111u);
  }
  StoreLe32(header + gpt::kHeaderSize, 92);
  UpdateHeaderCrc(header);
  uint8_t copy[512];
  std::memcpy(copy, header, 512);
  StoreLe32(copy + gpt::kHeaderCrc, 0);
  EXPECT_EQ(LoadLe32(header + gpt::kHeaderCrc), test::ReferenceCrc32(copy, 92));
}

}  // namespace
}  // namespace dh
