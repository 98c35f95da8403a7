#include <gtest/gtest.h>

#include <set>

#include "Asic/Constants.h"
#include "Nimbo/Exception.h"
#include "TableTestSupport.h"

namespace {

using Asic::Constants;

// The message of the InvalidArgumentException `call` throws; fails the test if none.
template <class F>
std::string refusal(F call) {
  try {
    call();
  } catch (const Nimbo::InvalidArgumentException& e) {
    return e.what();
  }
  ADD_FAILURE() << "no Nimbo::InvalidArgumentException";
  return {};
}

TEST(Constants, RefusesNamesThatAreNotPathComponents) {
  for (const char* bad : {"", ".", "..", "a/b", "a b", "a\\b", "caf\xc3\xa9"}) {
    const std::string message =
        refusal([&] { Constants::canonicalizeGroupName("VeskTapAgg", bad); });
    EXPECT_NE(message.find(fmt::format("group name '{}'", bad)), std::string::npos) << message;
    EXPECT_THROW(Constants::canonicalizeGroupName(bad, "g"), Nimbo::InvalidArgumentException);
    EXPECT_THROW(Constants::canonicalGroupTableConfigShardPathBase("g", bad, "t"),
                 Nimbo::InvalidArgumentException);
    EXPECT_THROW(Constants::tableEntryLogShardPath("g", "ns", bad),
                 Nimbo::InvalidArgumentException);
  }
  for (const char* badBase : {"/abs/config", "a//config", "a/../config", "a/config/", ""}) {
    const std::string message =
        refusal([&] { Constants::configShardPath(badBase, Asic::UnitId(1)); });
    EXPECT_NE(message.find(fmt::format("'{}'", badBase)), std::string::npos) << message;
  }
}

TEST(Constants, RefusesAConfigPathThatDoesNotEndInAUnit) {
  for (const char* bad : {"a/b/", "a/b/x1", "a/65536", "a/-1", "", "a/1 ", "a/+1", "a/0x1"}) {
    const std::string message = refusal([&] { Constants::getUnitIdFromConfigPath(bad); });
    EXPECT_EQ(
        message,
        fmt::format("configuration path '{}' does not end in a unit number (0 to 65535)", bad));
  }
}

// Every table type's change log and every unit's configuration have a path of their own,
// valid for the entity managers, from which the unit comes back. (The exact paths of the
// reference type are pinned by its entry log's mount traces.)
TEST(TableConstants, PathsAreValidAndUniqueAcrossTypesAndUnits) {
  std::set<std::string> paths;
  size_t made = 0;
  auto add = [&](const std::string& path) {
    EXPECT_TRUE(VeskTest::validShmPath(path)) << path;
    paths.insert(path);
    ++made;
  };
#define VESK_TEST_PATHS(Name, ...)                                                      \
  add(VeskTapAgg::Name##Constants::tableEntryLogShardPath());                           \
  for (uint16_t unit : {0, 1, 9, 10, 65535}) {                                          \
    const auto path = VeskTapAgg::Name##Constants::configShardPath(Asic::UnitId(unit)); \
    EXPECT_EQ(Constants::getUnitIdFromConfigPath(path), Asic::UnitId(unit)) << path;    \
    EXPECT_NE(path.find("/" #Name "/"), std::string::npos) << path;                     \
    add(path);                                                                          \
  }
  VESK_TAPAGG_TABLES(VESK_TEST_PATHS)
#undef VESK_TEST_PATHS
  EXPECT_EQ(made, 60u);
  EXPECT_EQ(paths.size(), made);
}

}  // namespace
