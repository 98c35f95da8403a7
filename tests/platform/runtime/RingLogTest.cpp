#include <gtest/gtest.h>

#include <cstdio>
#include <regex>

#include "Kest/RingLog.h"

namespace {

std::vector<uint64_t> firstArgs(const Kest::RingLog& ring) {
  std::vector<uint64_t> out;
  for (const auto& r : ring) out.push_back(r.args[0]);
  return out;
}

std::string dumped(const Kest::RingLog& ring) {
  char* buffer = nullptr;
  size_t length = 0;
  std::FILE* out = open_memstream(&buffer, &length);
  ring.dump(out);
  std::fclose(out);
  std::string text(buffer, length);
  std::free(buffer);
  return text;
}

// --- Keeping the newest records ---

TEST(RingLog, WrappingOverwritesTheOldestAndKeepsOrder) {
  Kest::RingLog ring(8);
  const uint32_t event = Kest::RingLog::eventIdFor("ring.wrap", "{}");
  for (uint64_t i = 0; i < 5; ++i) ring.record(event, i);
  EXPECT_EQ(firstArgs(ring), (std::vector<uint64_t>{0, 1, 2, 3, 4}));
  for (uint64_t i = 5; i < 21; ++i) ring.record(event, i);
  EXPECT_EQ(ring.size(), 8u);
  EXPECT_EQ(ring.recorded(), 21u);
  EXPECT_EQ(firstArgs(ring), (std::vector<uint64_t>{13, 14, 15, 16, 17, 18, 19, 20}));
  ring.clear();
  EXPECT_EQ(ring.begin(), ring.end());
}

TEST(RingLogDeathTest, CapacityMustBeAPowerOfTwo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Kest::RingLog ring(6), "capacity");
}

// --- Reading records as text ---

TEST(RingLog, TextFormatsArgumentsWithTheirSignedness) {
  Kest::RingLog ring(4);
  const uint32_t event = Kest::RingLog::eventIdFor("restored", "{} entries for unit {} delta {}");
  ring.record(event, uint64_t(10), 7u, int64_t(-3));
  EXPECT_EQ(Kest::RingLog::text(*ring.begin()), "restored: 10 entries for unit 7 delta -3");
}

TEST(RingLog, AWrongFormatStillShowsTheArguments) {
  Kest::RingLog ring(4);
  const uint32_t event = Kest::RingLog::eventIdFor("ring.badformat", "{} and {}");
  ring.record(event, 5);
  EXPECT_EQ(Kest::RingLog::text(*ring.begin()).rfind("ring.badformat: (format \"{} and {}\"", 0),
            0u);
  EXPECT_NE(Kest::RingLog::text(*ring.begin()).find(") 5"), std::string::npos);
}

TEST(RingLog, DumpWritesOneLinePerRecordOldestFirst) {
  Kest::RingLog ring(2);
  const uint32_t event = Kest::RingLog::eventIdFor("ring.dump", "unit {}");
  EXPECT_EQ(Kest::RingLog::eventIdFor("ring.dump", "other format"), event);
  const uint16_t handle = Kest::RingLog::handleIdFor("AclTable");
  EXPECT_EQ(Kest::RingLog::handleIdFor("AclTable"), handle);
  EXPECT_GE(handle, 1u) << "0 means no handle";
  ring.record(event, 1);
  ring.recordFor(handle, event, 2);
  ring.record(event, 3);
  const std::string text = dumped(ring);
  EXPECT_TRUE(std::regex_match(
      text,
      std::regex(
          "[0-9-]+T[0-9:.]+Z AclTable ring.dump: unit 2\n[0-9-]+T[0-9:.]+Z ring.dump: unit 3\n")))
      << text;
}

}  // namespace
