// What every table type's software table must do, end to end through its public
// operations, run on the behaviour types; the factories are checked for all ten.

#include <dlfcn.h>

#include "Kest/Trace.h"
#include "VeskTapAgg/SwTableTestSupport.h"

namespace VeskTest {
namespace {

using Asic::EntryState;
using Asic::EntryVersion;
using Asic::LogVersion;

// Every factory is a symbol of the table library that a framework loading table types can
// look up by name: defined in the library, not inlined into its callers.
void expectExportedFromTheLibrary(const void* factory, const char* name) {
  Dl_info info{};
  ASSERT_NE(::dladdr(factory, &info), 0) << name;
  ASSERT_NE(info.dli_sname, nullptr) << name << " has no symbol";
  EXPECT_NE(std::string(info.dli_fname).find("libVeskTapAggTcamSwTbl"), std::string::npos)
      << name << " is defined in " << info.dli_fname;
  void* library = ::dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr) << ::dlerror();
  EXPECT_EQ(::dlsym(library, info.dli_sname), factory) << name;
  ::dlclose(library);
}

TEST(SwTableFactories, SixPerTableTypeAreExportedAndEachClassHasItsStaticIs) {
#define VESK_TEST_FACTORIES(Name, lower, ...)                                                     \
  for (auto [factory, name] :                                                                     \
       {std::pair<const void*, const char*>{(const void*)&VeskTapAgg::lower##SwTableFactory,      \
                                            #lower "SwTableFactory"},                             \
        {(const void*)&VeskTapAgg::lower##EntryLogFactory, #lower "EntryLogFactory"},             \
        {(const void*)&VeskTapAgg::lower##EntryWrapperFactory, #lower "EntryWrapperFactory"},     \
        {(const void*)&VeskTapAgg::lower##ResolverEntryFactory, #lower "ResolverEntryFactory"},   \
        {(const void*)&VeskTapAgg::lower##SwTableHelperBaseFactory,                               \
         #lower "SwTableHelperBaseFactory"},                                                      \
        {(const void*)&VeskTapAgg::lower##SwTableIteratorStateFactory,                            \
         #lower "SwTableIteratorStateFactory"}}) {                                                \
    expectExportedFromTheLibrary(factory, name);                                                  \
  }                                                                                               \
  static_assert(std::is_same_v<decltype(&VeskTapAgg::Name##SwTable::Name##SwTableIs),             \
                               decltype(&VeskTapAgg::lower##SwTableFactory)>);                    \
  static_assert(std::is_same_v<decltype(&VeskTapAgg::Name##EntryWrapper::Name##EntryWrapperIs),   \
                               decltype(&VeskTapAgg::lower##EntryWrapperFactory)>);               \
  static_assert(std::is_same_v<decltype(&VeskTapAgg::Name##ResolverEntry::Name##ResolverEntryIs), \
                               decltype(&VeskTapAgg::lower##ResolverEntryFactory)>);              \
  static_assert(                                                                                  \
      std::is_same_v<decltype(&VeskTapAgg::Name##SwTableHelperBase::Name##SwTableHelperBaseIs),   \
                     decltype(&VeskTapAgg::lower##SwTableHelperBaseFactory)>);                    \
  static_assert(std::is_same_v<decltype(&VeskTapAgg::Name##EntryLog::Name##EntryLogIs),           \
                               decltype(&VeskTapAgg::lower##EntryLogFactory)>);
  VESK_TAPAGG_TABLES(VESK_TEST_FACTORIES)
#undef VESK_TEST_FACTORIES

  TempShmRoot root;
  SwTableRig<VeskTapAgg::DefaultFwdTcamEntryTraits> rig;
  // The entry log's map of units hashes under a salt of its own, not the scripting view's.
  EXPECT_NE(rig.agent.log().tableConfigShards().seed(),
            rig.table->getTableEntries_py()->tableEntriesColl().seed());
}

template <class Traits>
class SwTableTest : public ::testing::Test {
 protected:
  using Rig = SwTableRig<Traits>;
  TempShmRoot root;
};
TYPED_TEST_SUITE(SwTableTest, BehaviourTables);

TYPED_TEST(SwTableTest, VersionsCountPendingChangesOfAKeyAndRestartAfterCommit) {
  typename TestFixture::Rig rig;
  EXPECT_EQ(rig.write(1)->entryVersion(), EntryVersion(0, 0));
  EXPECT_EQ(rig.write(1)->entryVersion(), EntryVersion(1, 0));
  EXPECT_EQ(rig.remove(1)->entryVersion(), EntryVersion(2, 0));
  EXPECT_EQ(rig.write(2)->entryVersion(), EntryVersion(0, 0)) << "versions are per key";
  rig.table->entryRemoveAll(nullptr);
  EXPECT_EQ(rig.write(1)->entryVersion(), EntryVersion(3, 0)) << "a remove-all keeps counting";
  EXPECT_EQ(rig.run(), 6u);
  EXPECT_FALSE(rig.table->transientVersionForKeyGet(rig.key(1)));
  EXPECT_FALSE(rig.table->transientVersionForKey(rig.key(1)).valid());
  EXPECT_EQ(rig.write(1)->entryVersion(), EntryVersion(0, 0));
}

TYPED_TEST(SwTableTest, ReadsCombinePendingChangesWithTheLog) {
  typename TestFixture::Rig rig;
  auto& table = *rig.table;
  rig.write(1, 3);
  EXPECT_TRUE(table.entryHas(rig.key(1)));
  EXPECT_EQ(table.entryRead(rig.key(1)), rig.entry(1, 3)) << "a client reads what it wrote";
  EXPECT_EQ(table.entrys(), 1u);
  rig.settle();
  EXPECT_TRUE(table.entryHas(rig.key(1)));
  EXPECT_EQ(table.entry(rig.key(1)), rig.entry(1, 3));
  rig.write(1, 3);
  EXPECT_EQ(table.entrys(), 1u) << "a write of a logged key adds nothing";
  rig.remove(2);
  EXPECT_EQ(table.entrys(), 1u) << "a remove of an unknown key takes nothing";
  rig.remove(1);
  EXPECT_FALSE(table.entryHas(rig.key(1)));
  EXPECT_EQ(table.entryRead(rig.key(1)), typename TypeParam::Entry{});
  EXPECT_EQ(table.entrys(), 0u);
  rig.settle();
  rig.write(5);
  rig.settle();
  table.entryRemoveAll(nullptr);
  rig.write(6);
  EXPECT_TRUE(table.entryHas(rig.key(6)));
  EXPECT_FALSE(table.entryHas(rig.key(5))) << "a pending remove-all hides the log";
  EXPECT_EQ(table.entrys(), 1u);
  rig.settle();
  EXPECT_EQ(table.entrys(), 1u);
  EXPECT_FALSE(table.entryHas(rig.key(5)));
}

TYPED_TEST(SwTableTest, HandlesAreAnsweredInOrderOnceTheHardwareTakesTheirVersions) {
  typename TestFixture::Rig rig;
  auto a = rig.write(1, 0, "a");
  auto b = rig.write(2, 0, "b");
  auto c = rig.remove(1, "c");
  EXPECT_EQ(a->entryState(), EntryState::created);
  EXPECT_TRUE(rig.table->hasPendingHwWrites());
  EXPECT_EQ(rig.run(), 3u);
  EXPECT_EQ(a->entryState(), EntryState::inLog);
  EXPECT_EQ(c->logVersion(), LogVersion(3));
  EXPECT_EQ(rig.table->entryHandleInLogSize(), 3u);
  EXPECT_TRUE(rig.answers.empty());

  rig.hw(2);
  EXPECT_EQ(rig.answers, (std::vector<std::string>{"a:4", "b:4"}));
  EXPECT_EQ(c->entryState(), EntryState::inLog);
  EXPECT_TRUE(rig.table->hasPendingHwWrites());
  EXPECT_TRUE(rig.status->pendingHwWrites());
  rig.hw(3);
  EXPECT_EQ(rig.answers.back(), "c:4");
  EXPECT_FALSE(rig.table->hasPendingHwWrites());
  EXPECT_FALSE(rig.status->pendingHwWrites());
  EXPECT_EQ(rig.table->stats().commitCnt(), 3u);
  EXPECT_EQ(rig.table->stats().entryWriteCnt(), 2u);
  EXPECT_EQ(rig.table->stats().entryRemoveCnt(), 1u);
}

TYPED_TEST(SwTableTest, CommittingAnOlderWriteKeepsTheNewerOnePending) {
  typename TestFixture::Rig rig;
  rig.write(1, 1);
  auto waiting = Nimbo::make<Asic::DependencyEntryHandle>();
  rig.write(1, 2, "newer", waiting);
  EXPECT_EQ(rig.run(), 1u);
  EXPECT_TRUE(rig.resolver->suspended());
  ASSERT_TRUE(rig.table->transientAddEntry(rig.key(1)));
  EXPECT_EQ(rig.table->transientAddEntry(rig.key(1))->entryHandle()->entryVersion(),
            EntryVersion(1, 0));
  EXPECT_EQ(rig.table->transientVersionForKey(rig.key(1)), EntryVersion(1, 0));

  waiting->stateIs(1);
  rig.resolver->updateGenId();
  EXPECT_EQ(rig.run(), 1u);
  EXPECT_FALSE(rig.table->transientAddEntry(rig.key(1)));
}

TYPED_TEST(SwTableTest, AFailedDependencyAnswersOnceAndWritesNothing) {
  typename TestFixture::Rig rig;
  auto h = rig.write(1, 0, "w", Nimbo::make<Asic::DependencyEntryHandle>(5));
  EXPECT_EQ(rig.run(), 1u);
  EXPECT_EQ(h->entryState(), EntryState::failed);
  EXPECT_EQ(rig.answers, std::vector<std::string>{"w:5"});
  EXPECT_EQ(rig.agent.log().tableVersion(), LogVersion(0));
  EXPECT_TRUE(rig.table->transientAddEntry(rig.key(1))) << "the pending record stays";
}

TYPED_TEST(SwTableTest, ChangesTheHardwareHasAlreadyTakenAreAnsweredAtOnce) {
  typename TestFixture::Rig rig;
  auto missing = rig.remove(9, "rm");
  rig.run();
  EXPECT_EQ(missing->entryState(), EntryState::done) << "nothing to delete: no log version";
  EXPECT_EQ(rig.answers, std::vector<std::string>{"rm:4"});
  rig.hw(1000);  // the hardware side reports past the log
  auto w = rig.write(1, 0, "w");
  rig.run();
  EXPECT_EQ(w->entryState(), EntryState::done) << "version 1 is not above the cleanup mark";
  EXPECT_EQ(rig.table->entryHandleInLogSize(), 0u);
}

TYPED_TEST(SwTableTest, RemoveAllVersionsStackAndUnwindAtCommit) {
  typename TestFixture::Rig rig;
  rig.write(1);
  rig.settle();
  rig.table->entryRemoveAllWithResponseHandler(nullptr, rig.recorder("all"));
  EXPECT_EQ(rig.table->transientRemoveAllVersion(), Asic::MajorVersion(0));
  rig.table->entryRemoveAll(nullptr);
  EXPECT_EQ(rig.table->transientRemoveAllVersion(), Asic::MajorVersion(1));
  EXPECT_EQ(rig.run(), 2u);
  EXPECT_FALSE(rig.table->transientRemoveAllVersion().valid());
  EXPECT_TRUE(rig.answers.empty()) << "a remove-all is not answered";
  EXPECT_EQ(rig.table->entryHandleInLogSize(), 0u);
  EXPECT_EQ(rig.table->stats().tableClearCnt(), 2u)
      << "the second still finds the first's tombstones, and logs again";
  EXPECT_EQ(rig.agent.log().tableVersion(), LogVersion(3));
  EXPECT_EQ(rig.agent.log().entrys(Asic::UnitId(0)), 0u);
}

TYPED_TEST(SwTableTest, ClearTableTombstonesEverythingUnderOneVersion) {
  typename TestFixture::Rig rig;
  rig.table->clearTable(false);
  EXPECT_EQ(rig.agent.log().tableVersion(), LogVersion(0)) << "an empty unit logs nothing";
  EXPECT_EQ(rig.table->stats().tableClearCnt(), 0u);
  rig.write(1);
  rig.write(2);
  rig.settle();
  rig.table->clearTable(false);
  EXPECT_EQ(rig.agent.log().tableVersion(), LogVersion(3));
  EXPECT_EQ(rig.agent.log().entrysInDeletion(Asic::UnitId(0)), 2u);
  EXPECT_EQ(rig.table->entrys(), 0u);
  EXPECT_EQ(rig.table->stats().tableClearCnt(), 1u);
}

TYPED_TEST(SwTableTest, ARestartedAgentServesWhatWasCommitted) {
  using Rig = typename TestFixture::Rig;
  ASSERT_EQ(inChild([] {
              Rig rig;
              for (uint32_t n = 1; n <= 20; ++n) rig.write(n, uint16_t(n));
              rig.remove(3);
              rig.settle();
              rig.write(30);  // never committed: lost with the agent
            }),
            0);
  Rig rig;
  rig.table->restoreEntries();
  EXPECT_EQ(rig.table->entrys(), 19u);
  EXPECT_EQ(rig.table->entryRead(rig.key(7)), rig.entry(7, 7));
  EXPECT_FALSE(rig.table->entryHas(rig.key(3)));
  EXPECT_FALSE(rig.table->entryHas(rig.key(30)));
  EXPECT_EQ(rig.write(7, 1)->entryVersion(), EntryVersion(0, 0)) << "no pending state survives";
}

// A change's handle, wrapper and resolver entry share one allocation. Whichever of them a
// client or the framework keeps last, it and what it points at stay whole until it goes
// (the sanitizer build reports any read of freed memory here).
TYPED_TEST(SwTableTest, EachPartOfAChangeMayOutliveTheOthers) {
  typename TestFixture::Rig rig;
  using ResolverEntry = VeskTapAgg::TableResolverEntry<TypeParam>;
  auto handle = rig.write(1, 2, "a");
  auto wrapper = rig.table->transientAddEntry(rig.key(1));
  auto resolverEntry = Nimbo::dynamicPtrCast<ResolverEntry>(rig.resolver->resolverQueueFront());
  ASSERT_TRUE(wrapper && resolverEntry);
  rig.settle();
  handle = nullptr;
  resolverEntry = nullptr;
  EXPECT_EQ(wrapper->entry(), rig.entry(1, 2)) << "the wrapper kept alone";
  EXPECT_EQ(wrapper->entryHandle()->entryState(), EntryState::done);
  wrapper = nullptr;

  rig.remove(1, "b");
  resolverEntry = Nimbo::dynamicPtrCast<ResolverEntry>(rig.resolver->resolverQueueFront());
  rig.settle();
  EXPECT_EQ(rig.answers, (std::vector<std::string>{"a:4", "b:4"}));
  EXPECT_EQ(resolverEntry->entryWrapper()->key(), rig.key(1)) << "the resolver entry kept alone";
  EXPECT_EQ(resolverEntry->entryWrapper()->entryHandle()->entryState(), EntryState::done);
  resolverEntry = nullptr;

  handle = rig.write(3, 1, "c");
  rig.settle();
  EXPECT_EQ(handle->key(), rig.key(3)) << "the handle kept alone";
  EXPECT_EQ(handle->entryState(), EntryState::done);
  EXPECT_FALSE(rig.table->transientAddEntry(rig.key(3)));
}

TYPED_TEST(SwTableTest, NullWrappersAreRefused) {
  typename TestFixture::Rig rig;
  EXPECT_THROW(rig.table->transientAddEntryIs(nullptr), Nimbo::NullMutatorArgumentException);
  EXPECT_THROW(rig.table->transientRemoveEntryIs(nullptr), Nimbo::NullMutatorArgumentException);
}

TYPED_TEST(SwTableTest, AThrowingResponseHandlerLeavesLaterHandlesQueued) {
  typename TestFixture::Rig rig;
  auto a = rig.table->entryWriteWithResponseHandler(
      rig.key(1), rig.entry(1), nullptr,
      [](const auto&) { throw std::runtime_error("client handler failed"); });
  auto b = rig.write(2, 0, "b");
  rig.run();
  EXPECT_THROW(rig.hw(2), std::runtime_error);
  EXPECT_EQ(a->entryState(), EntryState::done) << "answered before its handler threw";
  EXPECT_EQ(rig.table->entryHandleInLogSize(), 1u);
  rig.hw(2);
  EXPECT_EQ(rig.answers, std::vector<std::string>{"b:4"});
}

}  // namespace
}  // namespace VeskTest
