// The registry of announced modules and the names of module records.

#include <gtest/gtest.h>

#include "Kest/ModuleInspectData.h"

namespace {

const Kest::TypeData& emptyRecord() {
  static const Kest::TypeData record("Empty", {});
  return record;
}

TEST(ModuleInspectData, NamesAModuleAfterItsUnitWithTheUnitsHash) {
  EXPECT_EQ(Kest::moduleHash(""), 0x811c9dc5u);
  EXPECT_EQ(Kest::moduleHash("a"), 0xe40c292cu);
  EXPECT_EQ(Kest::ModuleTypeData::nameOf("DefaultFwdTcamEntryInterface"),
            "_DefaultFwdTcamEntryInterface_80988d6b_kestModule");
  EXPECT_EQ(Kest::ModuleTypeData::nameOf("X"),
            "_X_" + fmt::format("{:08x}", Kest::moduleHash("X")) + "_kestModule")
      << "eight digits, leading zeros kept";
}

TEST(ModuleInspectData, ListsAnnouncedModulesInOrderAndFindsThemByName) {
  const size_t before = Nimbo::ModuleInspectData::modules().size();
  static const Kest::ModuleTypeData first("RegistryTestFirst", {&emptyRecord()});
  static const Kest::ModuleTypeData second("RegistryTestSecond", {});
  Nimbo::ModuleInspectData::loaded(first);
  Nimbo::ModuleInspectData::loaded(second);
  Nimbo::ModuleInspectData::loaded(first);
  const auto modules = Nimbo::ModuleInspectData::modules();
  ASSERT_EQ(modules.size(), before + 2) << "announcing a module again adds nothing";
  EXPECT_EQ(modules[before], &first);
  EXPECT_EQ(modules[before + 1], &second);
  EXPECT_EQ(Nimbo::ModuleInspectData::module(first.name()), &first);
  EXPECT_EQ(Nimbo::ModuleInspectData::module("_RegistryTestThird_00000000_kestModule"), nullptr);
  EXPECT_EQ(first.type("Empty"), &emptyRecord());
  EXPECT_EQ(second.type("Empty"), nullptr);
}

TEST(ModuleInspectData, TwoModulesOfOneNameStopTheProcess) {
  static const Kest::ModuleTypeData one("RegistryTestTwin", {});
  static const Kest::ModuleTypeData other("RegistryTestTwin", {});
  Nimbo::ModuleInspectData::loaded(one);
  EXPECT_DEATH(Nimbo::ModuleInspectData::loaded(other), "RegistryTestTwin.*announced twice");
}

}  // namespace
