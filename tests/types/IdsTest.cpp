#include <gtest/gtest.h>

#include "Asic/CanonicalTableName.h"
#include "Asic/SwTableId.h"

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

TEST(CanonicalTableName, JoinsGroupNamespaceAndTable) {
  Asic::CanonicalTableName name(0, "VeskTapAgg.VeskTapAggGroup", "VeskTapAgg",
                                "DefaultFwdTcamEntry");
  EXPECT_EQ(name.name(), "VeskTapAgg.VeskTapAggGroup/VeskTapAgg/DefaultFwdTcamEntry");
  EXPECT_EQ(fmt::format("{}", name), name.name());
  EXPECT_EQ(fmt::format("{}", Asic::CanonicalTableName(2, "g", "ns", "t")), "g/ns/t#2");
}

}  // namespace
