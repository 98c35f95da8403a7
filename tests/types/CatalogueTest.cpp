#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "VeskTapAgg/Catalogue.h"
#include "types/TableShards.h"

namespace {

TEST(Catalogue, TenTypesNumbered1To11WithoutThreeInNameOrder) {
  ASSERT_EQ(VeskTapAgg::kCatalogue.size(), 10u);
  std::set<uint32_t> ids;
  std::vector<unsigned> numbers;
  std::string_view previous;
  for (const auto& row : VeskTapAgg::kCatalogue) {
    ids.insert(row.tableId.value());
    numbers.push_back(row.tableId.tblId() & 0xff);
    EXPECT_EQ(row.tableId.agentAndGroupId(), 0x1c08) << row.name;
    EXPECT_EQ(row.tableId.tblId() >> 8, 0x04) << row.name;
    EXPECT_LT(previous, row.name) << "numbers follow the names' alphabetical order";
    previous = row.name;
  }
  EXPECT_EQ(ids.size(), 10u) << "no two types share an id";
  EXPECT_EQ(numbers, (std::vector<unsigned>{1, 2, 4, 5, 6, 7, 8, 9, 10, 11}));
}

// Each type's traits name the row the catalogue finds by that name, and back.
TEST(Catalogue, LooksUpEveryRowByNameAndById) {
  size_t checked = 0;
#define VESK_TEST_TRAITS_ROW(Name, ...)                                                \
  EXPECT_STREQ(VeskTapAgg::Name##Traits::tableName, #Name);                            \
  EXPECT_EQ(VeskTapAgg::tableIdOf(#Name), VeskTapAgg::Name##Traits::tableId) << #Name; \
  EXPECT_EQ(VeskTapAgg::tableNameOf(VeskTapAgg::Name##Traits::tableId), #Name);        \
  ++checked;
  VESK_TAPAGG_TABLES(VESK_TEST_TRAITS_ROW)
#undef VESK_TEST_TRAITS_ROW
  EXPECT_EQ(checked, VeskTapAgg::kCatalogue.size());
  EXPECT_FALSE(VeskTapAgg::tableIdOf("NoSuchTable"));
  EXPECT_FALSE(VeskTapAgg::tableIdOf("defaultFwdTcamEntry")) << "names are case-sensitive";
  EXPECT_FALSE(VeskTapAgg::tableNameOf(Asic::SwTableId(0x1c080403)));
}

TEST(Catalogue, HashSaltsAreDistinctAcrossEveryCollectionOfEveryType) {
  std::set<uint32_t> salts;
#define VESK_TEST_SALTS(Name, ...)                                    \
  salts.insert({VeskTapAgg::Name##Traits::transientAddEntrySalt,      \
                VeskTapAgg::Name##Traits::transientRemoveEntrySalt,   \
                VeskTapAgg::Name##Traits::transientVersionForKeySalt, \
                VeskTapAgg::Name##Traits::tableEntriesSalt,           \
                VeskTapAgg::Name##Traits::tableConfigShardSalt});
  VESK_TAPAGG_TABLES(VESK_TEST_SALTS)
#undef VESK_TEST_SALTS
  EXPECT_EQ(salts.size(), 50u);
  EXPECT_EQ(VeskTapAgg::DefaultFwdTcamEntryTraits::tableEntriesSalt, 0x2cbc41fdu);
}

}  // namespace
