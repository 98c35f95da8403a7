// Records as their field tables make them read: in print, in JSON and to the framework's
// inspection, under one name per field.
#include <gtest/gtest.h>

#include <array>

#include "Kest/RecordType.h"
#include "types/TableTypes.h"

namespace {

using VeskTapAgg::typeRecordOf;

VeskTapAgg::DefaultFwdTcamEntryEntryKey referenceKey() {
  VeskTapAgg::DefaultFwdTcamEntryEntryKey key{};
  key.priority = 10;
  key.vlan = {100, 0xfff};
  key.dstIp = {0x0a000001, 0xffffff00};
  key.dstMac = {{0, 0x1c, 0x73, 1, 2, 3}, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
  key.actionIndex = 7;
  return key;
}

VeskTapAgg::DefaultFwdTcamActionEntry redirectEntry() {
  using Flag = VeskTapAgg::TcamAction::Flag;
  VeskTapAgg::DefaultFwdTcamActionEntry entry{};
  entry.entryKey.index = 5;
  entry.action.kind = uint8_t(VeskTapAgg::ActionKind::redirect);
  entry.action.redirectPort = 3;
  entry.action.vlanId = 100;
  entry.action.counterId = 9;
  entry.action.flags = Flag::lag | Flag::vlanPush | Flag::count;
  return entry;
}

TEST(RecordText, AKeyShowsItsFirstFieldAndEveryFieldThatIsSet) {
  EXPECT_EQ(fmt::format("{}", referenceKey()),
            "DefaultFwdTcamEntryEntryKey(priority=10, vlan=100/0xfff, "
            "dstMac=00:1c:73:01:02:03/ff:ff:ff:ff:ff:ff, dstIp=10.0.0.1/255.255.255.0, "
            "actionIndex=7)");
  EXPECT_EQ(fmt::format("{}", VeskTapAgg::DefaultFwdTcamEntryEntryKey{}),
            "DefaultFwdTcamEntryEntryKey(priority=0)");
  auto key = referenceKey();
  key.ipProtocol = {6, 0};  // a value under a zero mask still tells keys apart
  EXPECT_NE(fmt::format("{}", key).find(", ipProtocol=0x6/0x0, "), std::string::npos)
      << fmt::format("{}", key);
}

TEST(RecordText, EveryEntryTableKeyReadsItsAddressesAsAddresses) {
  VeskTapAgg::ServicePolicyV6TcamEntryEntryKey v6{};
  v6.srcIp.value[0] = 0x20;
  v6.srcIp.value[1] = 0x01;
  v6.srcIp.value[15] = 0x01;
  v6.srcIp.mask[0] = 0xff;
  v6.nextHeader = {17, 0xff};
  EXPECT_EQ(fmt::format("{}", v6),
            "ServicePolicyV6TcamEntryEntryKey(priority=0, srcIp=2001::1/ff00::, "
            "nextHeader=0x11/0xff)");
  // The longest run of zero groups is the one shortened (the first of equal runs); a lone
  // zero group stays; no zero is "::".
  const auto ip6 = [&](std::array<uint16_t, 8> groups) {
    for (size_t g = 0; g < 8; ++g) {
      v6.srcIp.value[2 * g] = uint8_t(groups[g] >> 8);
      v6.srcIp.value[2 * g + 1] = uint8_t(groups[g]);
    }
    const auto text = fmt::format("{}", v6);
    const auto at = text.find("srcIp=") + 6;
    return text.substr(at, text.find('/', at) - at);
  };
  EXPECT_EQ(ip6({0x2001, 0xdb8, 0, 0, 1, 0, 0, 0}), "2001:db8:0:0:1::");
  EXPECT_EQ(ip6({0x2001, 0xdb8, 0, 0, 1, 0, 0, 1}), "2001:db8::1:0:0:1");
  EXPECT_EQ(ip6({0x2001, 0, 1, 2, 3, 4, 5, 6}), "2001:0:1:2:3:4:5:6");
  EXPECT_EQ(ip6({0, 0, 0, 0, 0, 0, 0, 0}), "::");
  EXPECT_EQ(ip6({0xfe80, 0, 0, 0, 0, 0, 0, 0}), "fe80::");

  VeskTapAgg::TapTunnelTerminationTcamEntryEntryKey tunnel{};
  tunnel.tunnelType = {uint8_t(VeskTapAgg::TunnelType::vxlan), 0xff};
  tunnel.reserved = 0xffff;  // reserved bytes never show
  tunnel.tunnelKey = {5000, 0xffffff};
  tunnel.outerDstIp = {0xc0a80001, 0xffffffff};
  EXPECT_EQ(fmt::format("{}", tunnel),
            "TapTunnelTerminationTcamEntryEntryKey(priority=0, tunnelType=0x2/0xff, "
            "outerDstIp=192.168.0.1/255.255.255.255, tunnelKey=5000/0xffffff)");
}

TEST(RecordText, AnActionNamesItsKindAndFlags) {
  EXPECT_EQ(fmt::format("{}", redirectEntry()),
            "DefaultFwdTcamActionEntry(entryKey=DefaultFwdTcamActionEntryKey(index=5), "
            "action=TcamAction(kind=redirect, flags=count|vlanPush|lag, vlanId=100, "
            "redirectPort=3, counterId=9))");
  VeskTapAgg::TcamAction odd{};
  odd.kind = 9;
  odd.flags = 0xc1;
  EXPECT_EQ(fmt::format("{}", odd), "TcamAction(kind=9, flags=count|0xc0)")
      << "values without a name read as numbers";
}

TEST(RecordText, LogRecordsShowVersionKindUnitAndTombstone) {
  VeskTapAgg::DefaultFwdTcamEntryConfigShardEntry config{};
  config.logEntry.entryKey.priority = 3;
  config.logVersion = Asic::LogVersion(42);
  config.isDeleted = true;
  EXPECT_EQ(fmt::format("{}", config),
            "DefaultFwdTcamEntryConfigShardEntry(logEntry=DefaultFwdTcamEntryLogEntry("
            "entryKey=DefaultFwdTcamEntryEntryKey(priority=3)), logVersion=42, isDeleted=true)");

  VeskTapAgg::DefaultFwdTcamEntryLogShardEntry change{};
  change.logVersion = Asic::LogVersion(43);
  change.deleteKind = uint8_t(VeskTapAgg::DeleteKind::unitDelete);
  change.unitId = Asic::UnitId(2);
  EXPECT_EQ(fmt::format("{}", change),
            "DefaultFwdTcamEntryLogShardEntry(logVersion=43, deleteKind=deleteAll, unitId=2)")
      << "a unit's delete has no key";
  change.deleteKind = uint8_t(VeskTapAgg::DeleteKind::entryDelete);
  change.key.priority = 1;
  EXPECT_EQ(fmt::format("{}", change),
            "DefaultFwdTcamEntryLogShardEntry(logVersion=43, deleteKind=delete, unitId=2, "
            "key=DefaultFwdTcamEntryEntryKey(priority=1))");
}

TEST(RecordJson, EveryShownFieldUnderTheSameName) {
  const auto& keyType = typeRecordOf<VeskTapAgg::DefaultFwdTcamEntryEntryKey>();
  const auto key = referenceKey();
  EXPECT_EQ(keyType.json(&key),
            R"({"priority":10,"ingressPort":{"value":0,"mask":0},"vlan":{"value":100,"mask":4095},)"
            R"("etherType":{"value":0,"mask":0},"dstMac":{"value":"00:1c:73:01:02:03",)"
            R"("mask":"ff:ff:ff:ff:ff:ff"},"srcMac":{"value":"00:00:00:00:00:00",)"
            R"("mask":"00:00:00:00:00:00"},"dstIp":{"value":"10.0.0.1","mask":"255.255.255.0"},)"
            R"("srcIp":{"value":"0.0.0.0","mask":"0.0.0.0"},"ipProtocol":{"value":0,"mask":0},)"
            R"("tcpFlags":{"value":0,"mask":0},"l4DstPort":{"value":0,"mask":0},"actionIndex":7})");

  const auto entry = redirectEntry();
  EXPECT_EQ(typeRecordOf<VeskTapAgg::DefaultFwdTcamActionEntry>().json(&entry),
            R"({"entryKey":{"index":5},"action":{"kind":"redirect","flags":41,"vlanId":100,)"
            R"("redirectPort":3,"truncateLength":0,"counterId":9,"mirrorSession":0}})");
  VeskTapAgg::DefaultFwdTcamEntryConfigShardEntry config{};
  EXPECT_NE(typeRecordOf<VeskTapAgg::DefaultFwdTcamEntryConfigShardEntry>().json(&config).find(
                R"("logVersion":0,"isDeleted":false})"),
            std::string::npos);
}

TEST(RecordInspection, TheFrameworkReadsFieldsByNameWithoutTheType) {
  const Kest::RecordType& type = typeRecordOf<VeskTapAgg::DefaultFwdTcamActionEntry>();
  const auto entry = redirectEntry();
  const Kest::RecordType& action = *type.field("action")->record;
  EXPECT_EQ(action.fieldValue(&entry.action, *action.field("redirectPort")),
            Kest::Value(uint64_t(3)));
  EXPECT_EQ(action.fieldValue(&entry.action, *action.field("kind")), Kest::Value(uint64_t(1)));
  EXPECT_EQ(type.fieldValue(&entry, *type.field("entryKey")),
            Kest::Value(Nimbo::String("DefaultFwdTcamActionEntryKey(index=5)")));
  EXPECT_EQ(action.field("reserved"), nullptr) << "reserved bytes are not fields to inspect";
  EXPECT_EQ(action.field("nosuch"), nullptr);

  const auto key = referenceKey();
  const Kest::RecordType& keyType = typeRecordOf<VeskTapAgg::DefaultFwdTcamEntryEntryKey>();
  const Kest::RecordType& ip = *keyType.field("dstIp")->record;
  EXPECT_EQ(ip.fieldValue(&key.dstIp, *ip.field("value")), Kest::Value(Nimbo::String("10.0.0.1")));
}

// A record's fields must cover its bytes: the type record stops the process otherwise, when
// it is built at load.
TEST(RecordTypeDeathTest, AFieldTableThatMissesBytesStopsTheProcess) {
  EXPECT_DEATH(Kest::RecordType(
                   "Gappy", 8, Kest::RecordType::Form::fields,
                   {{"a", Kest::FieldText::decimal, 0, 4}, {"b", Kest::FieldText::decimal, 6, 2}}),
               "Gappy.b");
  EXPECT_DEATH(Kest::RecordType("Short", 8, Kest::RecordType::Form::fields,
                                {{"a", Kest::FieldText::decimal, 0, 4}}),
               "Short: the field table does not cover every byte");
}

}  // namespace
