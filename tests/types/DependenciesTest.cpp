#include <gtest/gtest.h>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/NeededEntry.h"

namespace {

TEST(DependencyEntryHandle, ClassifiesEveryState) {
  Nimbo::Ptr<Asic::DependencyEntryHandle> handle(new Asic::DependencyEntryHandle);
  EXPECT_EQ(handle->state(), 0);
  EXPECT_FALSE(handle->isResolved());
  for (int s = 0; s < 256; ++s) {
    handle->stateIs(uint8_t(s));
    const bool failed = s == 3 || s == 5 || s == 6;
    EXPECT_EQ(handle->state(), s);
    EXPECT_EQ(handle->isFailed(), failed) << s;
    EXPECT_EQ(handle->isResolved(), s != 0 && !failed) << s;
  }
}

TEST(NeededEntry, HoldsEachNeedOnceAndPrintsThemInOrder) {
  Nimbo::Ptr<Asic::NeededEntry> needed(new Asic::NeededEntry);
  EXPECT_TRUE(needed->empty());
  EXPECT_EQ(fmt::format("{}", *needed), "{}");
  needed->needIs(Asic::SwTableId(0x1c080402), Asic::LogVersion(3));
  needed->needIs(Asic::SwTableId(0x1c080401), Asic::LogVersion(7));
  needed->needIs(Asic::SwTableId(0x1c080401), Asic::LogVersion(7));
  EXPECT_EQ(needed->needs().size(), 2u);
  EXPECT_TRUE(needed->needHas(Asic::SwTableId(0x1c080401), Asic::LogVersion(7)));
  EXPECT_FALSE(needed->needHas(Asic::SwTableId(0x1c080401), Asic::LogVersion(3)));
  EXPECT_EQ(fmt::format("{}", *needed), "{1c:08:0401@7, 1c:08:0402@3}");
}

}  // namespace
