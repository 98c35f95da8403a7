// The text of the reference table's records, and of the action tables' records.
#include <gtest/gtest.h>

#include "types/TableTypes.h"

namespace {

VeskTapAgg::DefaultFwdTcamEntryEntryKey referenceKey() {
  VeskTapAgg::DefaultFwdTcamEntryEntryKey key{};
  key.priority = 10;
  key.vlan = {100, 0xfff};
  key.dstIp = {0x0a000001, 0xffffff00};
  key.dstMac = {{0, 0x1c, 0x73, 1, 2, 3}, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
  key.actionIndex = 7;
  return key;
}

TEST(RecordFormat, ReferenceKeyPrintsTheFieldsThatAreSet) {
  EXPECT_EQ(fmt::format("{}", referenceKey()),
            "DefaultFwdTcamEntryEntryKey(prio=10, vlan=100/0xfff, "
            "dstMac=00:1c:73:01:02:03/ff:ff:ff:ff:ff:ff, dstIp=10.0.0.1/255.255.255.0, action=7)");
  EXPECT_EQ(fmt::format("{}", VeskTapAgg::DefaultFwdTcamEntryEntryKey{}),
            "DefaultFwdTcamEntryEntryKey(prio=0, action=0)");
}

TEST(RecordFormat, AValueUnderAZeroMaskStillShows) {
  auto key = referenceKey();
  key.ipProtocol = {6, 0};
  EXPECT_NE(fmt::format("{}", key).find(", proto=0x6/0x0, "), std::string::npos)
      << fmt::format("{}", key);
}

TEST(RecordFormat, ReferenceLogRecordsPrintVersionKindAndUnit) {
  VeskTapAgg::DefaultFwdTcamEntryConfigShardEntry config{};
  config.logEntry.entryKey.priority = 3;
  config.logVersion = Asic::LogVersion(42);
  EXPECT_EQ(fmt::format("{}", config), "DefaultFwdTcamEntryEntryKey(prio=3, action=0) v42");
  config.isDeleted = true;
  EXPECT_EQ(fmt::format("{}", config), "DefaultFwdTcamEntryEntryKey(prio=3, action=0) v42 deleted");

  VeskTapAgg::DefaultFwdTcamEntryLogShardEntry change{};
  change.logVersion = Asic::LogVersion(43);
  change.deleteKind = uint8_t(VeskTapAgg::DeleteKind::unitDelete);
  change.unitId = Asic::UnitId(2);
  EXPECT_EQ(fmt::format("{}", change),
            "v43 deleteAll unit=2 DefaultFwdTcamEntryEntryKey(prio=0, action=0)");
  change.deleteKind = uint8_t(VeskTapAgg::DeleteKind::entryDelete);
  EXPECT_EQ(fmt::format("{}", change).substr(0, 11), "v43 delete ");
}

TEST(RecordFormat, ActionEntriesPrintOnlyWhatTheirKindAndFlagsUse) {
  using Flag = VeskTapAgg::TcamAction::Flag;
  VeskTapAgg::DefaultFwdTcamActionEntry entry{};
  entry.entryKey.index = 5;
  EXPECT_EQ(fmt::format("{}", entry), "DefaultFwdTcamActionEntryKey(index=5) -> forward");

  entry.action.kind = uint8_t(VeskTapAgg::ActionKind::redirect);
  entry.action.redirectPort = 3;
  entry.action.vlanId = 100;
  entry.action.counterId = 9;
  entry.action.flags = Flag::lag | Flag::vlanPush | Flag::count;
  EXPECT_EQ(fmt::format("{}", entry),
            "DefaultFwdTcamActionEntryKey(index=5) -> redirect lag=3 vlanPush=100 count=9");

  VeskTapAgg::TcamAction mirror{};
  mirror.kind = uint8_t(VeskTapAgg::ActionKind::drop);
  mirror.flags = Flag::mirror | Flag::truncate | Flag::vlanRewrite;
  mirror.mirrorSession = 2;
  mirror.truncateLength = 128;
  mirror.vlanId = 7;
  mirror.redirectPort = 99;
  EXPECT_EQ(fmt::format("{}", mirror), "drop vlanRewrite=7 truncate=128 mirror=2");
}

TEST(RecordFormat, EveryEntryTableKeyNamesItsMatchFields) {
  VeskTapAgg::ServicePolicyV6TcamEntryEntryKey v6{};
  v6.srcIp.value[0] = 0x20;
  v6.srcIp.value[1] = 0x01;
  v6.srcIp.mask[0] = 0xff;
  v6.nextHeader = {17, 0xff};
  EXPECT_EQ(fmt::format("{}", v6),
            "ServicePolicyV6TcamEntryEntryKey(prio=0, "
            "srcIp=20010000000000000000000000000000/ff000000000000000000000000000000, "
            "nextHeader=0x11/0xff, action=0)");

  VeskTapAgg::TapTunnelTerminationTcamEntryEntryKey tunnel{};
  tunnel.tunnelType = {uint8_t(VeskTapAgg::TunnelType::vxlan), 0xff};
  tunnel.tunnelKey = {5000, 0xffffff};
  tunnel.outerDstIp = {0xc0a80001, 0xffffffff};
  EXPECT_EQ(fmt::format("{}", tunnel),
            "TapTunnelTerminationTcamEntryEntryKey(prio=0, tunnelType=0x2/0xff, "
            "outerDstIp=192.168.0.1/255.255.255.255, tunnelKey=5000/0xffffff, action=0)");
}

}  // namespace
