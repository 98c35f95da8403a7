#include <gtest/gtest.h>

#include "Asic/CanonicalTableName.h"
#include "Asic/SwTableId.h"
#include "Asic/UnitId.h"

namespace {

TEST(SwTableId, DecomposesIntoAgentGroupAndTable) {
  Asic::SwTableId id(0x1c080402);
  EXPECT_EQ(id.value(), 0x1c080402u);
  EXPECT_EQ(id.agentId(), 0x1c);
  EXPECT_EQ(id.groupId(), 0x08);
  EXPECT_EQ(id.tblId(), 0x0402);
  EXPECT_EQ(id.agentAndGroupId(), 0x1c08);

  Asic::SwTableId high(0xfedcba98);
  EXPECT_EQ(high.agentId(), 0xfe);
  EXPECT_EQ(high.groupId(), 0xdc);
  EXPECT_EQ(high.tblId(), 0xba98);
  EXPECT_EQ(high.agentAndGroupId(), 0xfedc);
}

TEST(SwTableId, PrintsAgentGroupAndTableInFixedWidthHex) {
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(0x1c080402)), "1c:08:0402");
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(0x01020003)), "01:02:0003");
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(0xffffffff)), "ff:ff:ffff");
}

TEST(SwTableId, OrdersByValue) {
  EXPECT_LT(Asic::SwTableId(0x1c080401), Asic::SwTableId(0x1c080402));
  EXPECT_LT(Asic::SwTableId(0x0000ffff), Asic::SwTableId(0x00010000));
  EXPECT_EQ(Asic::SwTableId(), Asic::SwTableId(0));
}

TEST(UnitId, PrintsAsItsNumberWithIntegerOptions) {
  EXPECT_EQ(fmt::format("{}", Asic::UnitId(65535)), "65535");
  EXPECT_EQ(fmt::format("[{:>3}]", Asic::UnitId(7)), "[  7]");
  EXPECT_EQ(Asic::UnitId().value(), 0);
  EXPECT_LT(Asic::UnitId(1), Asic::UnitId(2));
}

TEST(CanonicalTableName, JoinsGroupNamespaceAndTable) {
  Asic::CanonicalTableName name(0, "VeskTapAgg.VeskTapAggGroup", "VeskTapAgg",
                                "DefaultFwdTcamEntry");
  EXPECT_EQ(name.name(), "VeskTapAgg.VeskTapAggGroup/VeskTapAgg/DefaultFwdTcamEntry");
  EXPECT_EQ(fmt::format("{}", name), name.name());
  EXPECT_EQ(fmt::format("{}", Asic::CanonicalTableName(2, "g", "ns", "t")), "g/ns/t#2");
}

TEST(CanonicalTableName, EqualOnlyWhenEveryPartIs) {
  const Asic::CanonicalTableName base(0, "g", "ns", "t");
  EXPECT_EQ(base, Asic::CanonicalTableName(0, "g", "ns", "t"));
  EXPECT_FALSE(base == Asic::CanonicalTableName(1, "g", "ns", "t"));
  EXPECT_FALSE(base == Asic::CanonicalTableName(0, "h", "ns", "t"));
  EXPECT_FALSE(base == Asic::CanonicalTableName(0, "g", "nt", "t"));
  EXPECT_FALSE(base == Asic::CanonicalTableName(0, "g", "ns", "u"));
}

}  // namespace
