// Workloads: the generator, the file format a user writes by hand, and the expected state
// the demo and the agent check their tables against.

#include <gtest/gtest.h>

#include <sstream>

#include "tools/core/Workload.h"

namespace VeskTool {
namespace {

std::string parseError(const std::string& text) {
  std::istringstream in(text);
  try {
    parseWorkload(in, "changes.txt");
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "(parsed)";
}

TEST(WorkloadFileTest, EveryFormOfChangeReadsBackAsWritten) {
  std::istringstream in(
      "# a comment, then a blank line\n"
      "\n"
      "write DefaultFwdTcamEntry 3 17 9\n"
      "write DefaultFwdTcamEntry 3 18\n"
      "  remove DefaultFwdTcamEntry 65535 4294967295\n"
      "removeAll DefaultFwdTcamEntry 2\n");
  const auto changes = parseWorkload(in, "changes.txt");
  ASSERT_EQ(changes.size(), 4u);
  EXPECT_EQ(changes[0], (Change{ChangeKind::write, 1, 3, 17, 9}));
  EXPECT_EQ(changes[1], (Change{ChangeKind::write, 1, 3, 18, 0}));
  EXPECT_EQ(changes[2], (Change{ChangeKind::remove, 1, 65535, 4294967295u, 0}));
  EXPECT_EQ(changes[3], (Change{ChangeKind::removeAll, 1, 2, 0, 0}));
  for (const Change& c : changes) {
    std::istringstream again(formatChange(c));
    EXPECT_EQ(parseWorkload(again, "again"), std::vector<Change>{c}) << formatChange(c);
  }
}

TEST(WorkloadFileTest, AMalformedLineIsNamedByNumberAndNothingIsReturned) {
  const std::string ok = "write DefaultFwdTcamEntry 0 1\n";
  EXPECT_EQ(parseError(ok + "insert DefaultFwdTcamEntry 0 1\n"),
            "changes.txt:2: unknown change 'insert' (write, remove or removeAll)");
  EXPECT_EQ(parseError(ok + ok + "write NoSuchTable 0 1\n"),
            "changes.txt:3: unknown table 'NoSuchTable' (tables: " + tableNameList() + ")");
  EXPECT_EQ(parseError("write DefaultFwdTcamEntry 65536 1\n"),
            "changes.txt:1: bad unit id '65536' (a number from 0 to 65535)");
  EXPECT_EQ(parseError("write DefaultFwdTcamEntry 0 -1\n"),
            "changes.txt:1: bad key '-1' (a number from 0 to 4294967295)");
  EXPECT_EQ(parseError("write DefaultFwdTcamEntry 0 12x\n"),
            "changes.txt:1: bad key '12x' (a number from 0 to 4294967295)");
  EXPECT_EQ(parseError("write DefaultFwdTcamEntry 0\n"),
            "changes.txt:1: expected 'write <table> <unit> <key> [variant]'");
  EXPECT_EQ(parseError("remove DefaultFwdTcamEntry 0 1 2\n"),
            "changes.txt:1: expected 'remove <table> <unit> <key>'");
  EXPECT_EQ(parseError("removeAll DefaultFwdTcamEntry 0 1\n"),
            "changes.txt:1: expected 'removeAll <table> <unit>'");
}

TEST(WorkloadFileTest, WhatIsNoWorkloadIsRefusedWithoutReadingItWholeOrEchoingItWhole) {
  const std::string ok = "write DefaultFwdTcamEntry 0 1\n";
  // A line as long as allowed is read; one character more is refused, whatever follows.
  const std::string longest = "# " + std::string(kMaxWorkloadLine - 2, 'x');
  EXPECT_EQ(parseError(longest + "\n" + ok), "(parsed)");
  EXPECT_EQ(parseError(ok + longest + "x\n" + ok),
            "changes.txt:2: line longer than 1024 characters (is this a workload file?)");
  EXPECT_EQ(parseError(ok + std::string(3000, '\0')),
            "changes.txt:2: line longer than 1024 characters (is this a workload file?)");
  EXPECT_EQ(parseError(ok + std::string(10, '\0') + "\n"),
            "changes.txt:2: binary data (is this a workload file?)");
  // A long word is echoed cut short.
  const std::string word(1000, 't');
  EXPECT_EQ(parseError("write " + word + " 0 1\n"), "changes.txt:1: unknown table '" +
                                                        std::string(kMaxEchoed, 't') +
                                                        "...' (tables: " + tableNameList() + ")");
  EXPECT_EQ(parseError(ok + word + "\n"), "changes.txt:2: unknown change '" +
                                              std::string(kMaxEchoed, 't') +
                                              "...' (write, remove or removeAll)");
  EXPECT_EQ(echoed(std::string(kMaxEchoed, 'k')), std::string(kMaxEchoed, 'k'))
      << "short enough: as is";
}

std::vector<Change> generated(const WorkloadSpec& spec) {
  WorkloadGenerator generator(spec);
  std::vector<Change> changes;
  for (Change c; generator.next(c);) changes.push_back(c);
  return changes;
}

TEST(WorkloadGeneratorTest, TheSameSeedGivesTheSameChangesWithinTheGivenTablesUnitsAndKeys) {
  WorkloadSpec spec;
  spec.seed = 7;
  spec.tables = {2, 5};
  spec.units = {1, 9};
  spec.keys = 50;
  spec.changes = 5000;
  spec.removeAllEvery = 100;
  const auto first = generated(spec);
  EXPECT_EQ(first, generated(spec));
  spec.seed = 8;
  EXPECT_NE(first, generated(spec));

  ASSERT_EQ(first.size(), 5000u);
  size_t removes = 0, removeAlls = 0;
  for (const Change& c : first) {
    EXPECT_TRUE(c.table == 2 || c.table == 5);
    EXPECT_TRUE(c.unit == 1 || c.unit == 9);
    EXPECT_LT(c.key, 50u);
    removes += c.kind == ChangeKind::remove;
    removeAlls += c.kind == ChangeKind::removeAll;
  }
  // One in ten a remove, about one in a hundred a remove-all.
  EXPECT_GT(removes, 350u);
  EXPECT_LT(removes, 650u);
  EXPECT_GT(removeAlls, 20u);
  EXPECT_LT(removeAlls, 90u);
}

TEST(WorkloadGeneratorTest, AnEmptySpecIsRefused) {
  WorkloadSpec spec;
  spec.units = {0};
  EXPECT_THROW(WorkloadGenerator{spec}, std::invalid_argument);
}

TEST(ExpectedStateTest, WritesRemovesAndRemoveAllOfOneUnitOnly) {
  ExpectedState state(2);
  state.apply({ChangeKind::write, 0, 1, 10, 3});
  state.apply({ChangeKind::write, 0, 1, 10, 4});
  state.apply({ChangeKind::write, 0, 1, 11, 5});
  state.apply({ChangeKind::write, 0, 2, 10, 6});
  state.apply({ChangeKind::write, 1, 1, 10, 7});
  state.apply({ChangeKind::remove, 0, 1, 11, 0});
  state.apply({ChangeKind::remove, 0, 1, 99, 0});  // never written: nothing happens
  EXPECT_EQ(state.entries(0),
            (std::unordered_map<uint64_t, uint16_t>{{ExpectedState::slot(1, 10), 4},
                                                    {ExpectedState::slot(2, 10), 6}}));
  state.apply({ChangeKind::removeAll, 0, 1, 0, 0});
  EXPECT_EQ(state.entries(0),
            (std::unordered_map<uint64_t, uint16_t>{{ExpectedState::slot(2, 10), 6}}));
  EXPECT_EQ(state.entries(1).size(), 1u);  // another table is untouched
}

}  // namespace
}  // namespace VeskTool
