#include <gtest/gtest.h>

#include <set>

#include "Asic/Constants.h"
#include "Asic/Dependencies.h"
#include "Asic/Versions.h"
#include "Nimbo/Exception.h"
#include "VeskTapAgg/Catalogue.h"

namespace {

TEST(Catalogue, TenTypesWithDistinctIdsAndNoTableNumberThree) {
  ASSERT_EQ(VeskTapAgg::kCatalogue.size(), 10u);
  std::set<uint32_t> ids;
  std::string_view previous;
  uint32_t previousId = 0;
  for (const auto& row : VeskTapAgg::kCatalogue) {
    ids.insert(row.tableId.value());
    EXPECT_NE(row.tableId.tblId() & 0xff, 3) << row.name;
    EXPECT_EQ(row.tableId.agentAndGroupId(), 0x1c08) << row.name;
    EXPECT_LT(previous, row.name) << "ids follow the names' alphabetical order";
    EXPECT_LT(previousId, row.tableId.value());
    previous = row.name;
    previousId = row.tableId.value();
  }
  EXPECT_EQ(ids.size(), 10u);
  EXPECT_EQ(VeskTapAgg::tableIdOf("DefaultFwdTcamEntry"), Asic::SwTableId(0x1c080402));
  EXPECT_EQ(VeskTapAgg::tableNameOf(Asic::SwTableId(0x1c08040b)), "TapTunnelTerminationTcamEntry");
  EXPECT_FALSE(VeskTapAgg::tableIdOf("NoSuchTable"));
  EXPECT_FALSE(VeskTapAgg::tableNameOf(Asic::SwTableId(0x1c080403)));
}

TEST(SwTableId, DecomposesAndPrintsAgentGroupAndTable) {
  Asic::SwTableId id(0x1c080402);
  EXPECT_EQ(id.agentId(), 0x1c);
  EXPECT_EQ(id.groupId(), 0x08);
  EXPECT_EQ(id.tblId(), 0x0402);
  EXPECT_EQ(id.agentAndGroupId(), 0x1c08);
  EXPECT_EQ(fmt::format("{}", id), "1c:08:0402");
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(0x01020003)), "01:02:0003");
}

TEST(Versions, EntryAndMajorVersionsStartCountAndInvalidate) {
  Asic::EntryVersion first(0, 0);
  EXPECT_TRUE(first.valid());
  EXPECT_EQ(first.next(), Asic::EntryVersion(1, 0));
  EXPECT_EQ(Asic::EntryVersion(5, 9).next(), Asic::EntryVersion(6, 9)) << "the part is kept";
  EXPECT_FALSE(Asic::EntryVersion::invalid().valid());
  EXPECT_TRUE(Asic::EntryVersion(UINT64_MAX, 0).valid()) << "invalid needs all ones in both";

  Asic::MajorVersion none;
  EXPECT_FALSE(none.valid());
  EXPECT_EQ(none.next(), Asic::MajorVersion(0));
  EXPECT_EQ(Asic::MajorVersion(4).next(), Asic::MajorVersion(5));
  EXPECT_EQ(fmt::format("{} {}", none, Asic::EntryVersion(3, 1)), "invalid 3.1");
}

TEST(DependencyEntryHandle, ClassifiesEveryState) {
  Asic::DependencyEntryHandle handle;
  for (int s = 0; s < 256; ++s) {
    handle.stateIs(uint8_t(s));
    const bool failed = s == 3 || s == 5 || s == 6;
    EXPECT_EQ(handle.isFailed(), failed) << s;
    EXPECT_EQ(handle.isResolved(), s != 0 && !failed) << s;
  }
}

TEST(NeededEntry, PrintsItsNeeds) {
  Asic::NeededEntry needed;
  EXPECT_EQ(fmt::format("{}", needed), "{}");
  needed.needIs(Asic::SwTableId(0x1c080401), Asic::LogVersion(7));
  EXPECT_EQ(fmt::format("{}", needed), "{1c:08:0401@7}");
}

TEST(Constants, UnitIdComesBackFromAConfigPathAndBadPathsAreRefused) {
  const auto base = Asic::Constants::canonicalGroupTableConfigShardPathBase(
      Asic::Constants::canonicalizeGroupName("VeskTapAgg", "VeskTapAggGroup"), "VeskTapAgg", "T");
  for (uint16_t unit : {0, 7, 65535}) {
    EXPECT_EQ(Asic::Constants::getUnitIdFromConfigPath(
                  Asic::Constants::configShardPath(base, Asic::UnitId(unit))),
              Asic::UnitId(unit));
  }
  for (const char* bad : {"a/b/", "a/b/x1", "a/65536", "a/-1", "", "a/1 "}) {
    EXPECT_THROW(Asic::Constants::getUnitIdFromConfigPath(bad), Nimbo::InvalidArgumentException)
        << bad;
  }
}

}  // namespace
