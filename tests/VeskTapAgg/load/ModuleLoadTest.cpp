// Loading the table library, watched from a program that does not link it: the load
// announces each generated unit's module, and the types library it pulls in the modules of
// the records, and does nothing else.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "Kest/ModuleInspectData.h"
#include "Kest/Trace.h"
#include "VeskTapAgg/Catalogue.h"
#include "support/TempShmRoot.h"

namespace {

TEST(ModuleLoad, LoadingAnnouncesSixModulesPerTableTypeTheSharedRecordsAndNothingElse) {
  VeskTest::TempShmRoot root;
  Kest::traceConfigIs("*/0-31");
  Kest::TraceCapture traces;
  ASSERT_TRUE(Nimbo::ModuleInspectData::modules().empty());

  void* library = ::dlopen(VESK_SWTABLE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << ::dlerror();

  std::set<std::string> expected, announced;
  for (const VeskTapAgg::CatalogueRow& row : VeskTapAgg::kCatalogue) {
    for (const char* unit :
         {"InfraTypes", "EntryLog", "Interface", "SwTable", "SwTableHelperBase", "Records"}) {
      expected.insert(Kest::ModuleTypeData::nameOf(std::string(row.name) + unit));
    }
  }
  expected.insert(Kest::ModuleTypeData::nameOf("TcamRecords"));
  for (const Kest::ModuleTypeData* module : Nimbo::ModuleInspectData::modules()) {
    announced.insert(module->name());
  }
  EXPECT_EQ(expected.size(), 61u);
  EXPECT_EQ(announced, expected);
  EXPECT_EQ(Nimbo::ModuleInspectData::modules().size(), 61u) << "each module once";

  // No table, entry log or interface came to life: nothing traced, nothing mounted.
  EXPECT_TRUE(traces.records().empty()) << traces.records().front().text;
  EXPECT_FALSE(std::filesystem::exists(root.path()));
  Kest::traceConfigDel();
}

}  // namespace
