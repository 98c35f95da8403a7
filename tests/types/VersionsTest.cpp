#include <gtest/gtest.h>

#include <cstdint>

#include "Asic/EntryVersion.h"
#include "Asic/LogVersion.h"
#include "Asic/MajorVersion.h"
#include "Asic/TableVersion.h"

namespace {

TEST(LogVersion, StartsAtNoneAndAdvances) {
  Asic::LogVersion v;
  EXPECT_EQ(v.value(), 0u);
  EXPECT_FALSE(v.valid());
  EXPECT_EQ((++v).value(), 1u);
  EXPECT_TRUE(v.valid());
  EXPECT_EQ((v++).value(), 1u);
  EXPECT_EQ(v.value(), 2u);
  EXPECT_EQ(v + 5, Asic::LogVersion(7));
  EXPECT_EQ(fmt::format("{} {:>4}", Asic::LogVersion(42), Asic::LogVersion(3)), "42    3");
}

TEST(LogVersion, ComparesAsUnsigned64BitNumbers) {
  EXPECT_LT(Asic::LogVersion(1), Asic::LogVersion(uint64_t(1) << 63));
  EXPECT_LT(Asic::LogVersion(UINT64_MAX - 1), Asic::LogVersion(UINT64_MAX));
  const Asic::TableVersion reported(9);
  EXPECT_LE(Asic::LogVersion(9), reported);
}

TEST(EntryVersion, FirstChangeThenCounterKeepingThePart) {
  EXPECT_EQ(Asic::EntryVersion::first(), Asic::EntryVersion(0, 0));
  EXPECT_TRUE(Asic::EntryVersion::first().valid());
  EXPECT_EQ(Asic::EntryVersion::first().next(), Asic::EntryVersion(1, 0));
  EXPECT_EQ(Asic::EntryVersion(5, 9).next(), Asic::EntryVersion(6, 9));
  EXPECT_LT(Asic::EntryVersion(5, 9), Asic::EntryVersion(6, 0));
  EXPECT_LT(Asic::EntryVersion(5, 1), Asic::EntryVersion(5, 2));
}

TEST(EntryVersion, InvalidOnlyWithAllOnesInBoth) {
  EXPECT_FALSE(Asic::EntryVersion().valid()) << "a default version means none pending";
  EXPECT_EQ(Asic::EntryVersion(), Asic::EntryVersion::invalid());
  EXPECT_FALSE(Asic::EntryVersion(UINT64_MAX, UINT16_MAX).valid());
  EXPECT_TRUE(Asic::EntryVersion(UINT64_MAX, 0).valid());
  EXPECT_TRUE(Asic::EntryVersion(0, UINT16_MAX).valid());
  EXPECT_EQ(fmt::format("{} {}", Asic::EntryVersion(), Asic::EntryVersion(3, 1)), "invalid 3.1");
}

TEST(MajorVersion, FirstRemoveAllTakesZeroThenCounts) {
  Asic::MajorVersion none;
  EXPECT_FALSE(none.valid());
  EXPECT_EQ(none, Asic::MajorVersion::invalid());
  EXPECT_EQ(none.next(), Asic::MajorVersion(0));
  EXPECT_TRUE(Asic::MajorVersion(0).valid());
  EXPECT_EQ(Asic::MajorVersion(4).next(), Asic::MajorVersion(5));
  EXPECT_FALSE(Asic::MajorVersion(UINT64_MAX).valid());
  EXPECT_EQ(fmt::format("{} {}", none, Asic::MajorVersion(12)), "invalid 12");
}

}  // namespace
