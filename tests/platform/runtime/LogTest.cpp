#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "Kest/Log.h"

VESK_LOG_MESSAGE(kLoadError, "TEST_LOAD_ERROR",
                 "Hardware abstraction error: unable to load item: %s",
                 "An item could not be read back from the shared-memory entry log.",
                 "Restart the agent; contact support if it persists.", 3);
VESK_LOG_MESSAGE(kTableFull, "TEST_TABLE_FULL", "Table %s is 100%% full", "The table has no room.",
                 "Remove entries.", 4);

// Bounds of the section, made by the linker for sections named like C identifiers.
extern "C" const Kest::LogMessageDescriptor __start_vesk_log_messages[];
extern "C" const Kest::LogMessageDescriptor __stop_vesk_log_messages[];

namespace {

using Nimbo::Duration;
using Nimbo::Time;

// --- Descriptors ---

TEST(LogMessage, DescriptorsLiveInTheirOwnSection) {
  const Kest::LogMessageDescriptor* begin = __start_vesk_log_messages;
  const Kest::LogMessageDescriptor* end = __stop_vesk_log_messages;
  EXPECT_EQ(end - begin, 2) << "the two descriptors of this file, and nothing else";
  std::vector<std::string> names;
  for (const auto* d = begin; d != end; ++d) names.emplace_back(d->name);
  EXPECT_NE(std::find(names.begin(), names.end(), "TEST_LOAD_ERROR"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "TEST_TABLE_FULL"), names.end());
}

// --- Message text ---

TEST(Log, TheArgumentFillsTheFormatAndTheCaptureSeesTheLine) {
  Kest::LogCapture capture;
  Kest::LogHandle handle(kLoadError, Duration(), 1.0, 1, 0);
  Kest::log(handle, "entryLog::TapTunnelTerminationTcamEntry");
  ASSERT_EQ(capture.records().size(), 1u);
  const Kest::LogRecord& r = capture.records()[0];
  EXPECT_EQ(
      r.text,
      "Hardware abstraction error: unable to load item: entryLog::TapTunnelTerminationTcamEntry");
  EXPECT_EQ(r.name, "TEST_LOAD_ERROR");
  EXPECT_EQ(r.severity, 3u);
  EXPECT_EQ(r.line(),
            "%TEST_LOAD_ERROR: Hardware abstraction error: unable to load item: "
            "entryLog::TapTunnelTerminationTcamEntry");
  EXPECT_EQ(handle.logged(), 1u);
}

TEST(Log, PercentSignsInTheArgumentAreNeverReadAsAFormat) {
  Kest::LogCapture capture;
  Kest::LogHandle full(kTableFull, Duration(), 1.0, 1, 0);
  Kest::log(full, "%s%n%d%%");
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"Table %s%n%d%% is 100% full"});
  EXPECT_EQ(Kest::logText("a %% b %s c %s %d", "X"), "a % b X c %s %d") << "only the first %s";
  EXPECT_EQ(Kest::logText("trailing %", "X"), "trailing %");
}

// --- Rate limiting ---

TEST(Log, ABurstGoesOutAndTheRestIsCountedAsSuppressed) {
  Kest::LogCapture capture;
  Kest::LogHandle handle(kLoadError, Duration::seconds(3600), 1.0, 2, 10);
  for (int i = 0; i < 5; ++i) Kest::log(handle, std::to_string(i));
  EXPECT_EQ(capture.texts(),
            (std::vector<std::string>{"Hardware abstraction error: unable to load item: 0",
                                      "Hardware abstraction error: unable to load item: 1"}));
  EXPECT_EQ(handle.logged(), 2u);
  EXPECT_EQ(handle.suppressed(), 13u) << "counting goes on from the count it was given";
  Kest::LogHandle unlimited(kLoadError, Duration(), 0.0, 1, 0);  // a zero interval
  for (int i = 0; i < 50; ++i) Kest::log(unlimited, "x");
  EXPECT_EQ(capture.records().size(), 52u);
  EXPECT_EQ(unlimited.suppressed(), 0u);
}

TEST(Log, TheBucketRefillsAtTheRatePerInterval) {
  Kest::LogHandle handle(kLoadError, Duration::seconds(1), 2.0, 3, 0);
  const Time t0(1000000000);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(handle.admit(t0)) << i;
  EXPECT_FALSE(handle.admit(t0));
  EXPECT_FALSE(handle.admit(t0 + Duration::milliseconds(400))) << "0.8 of a message regained";
  EXPECT_TRUE(handle.admit(t0 + Duration::milliseconds(500)));
  EXPECT_FALSE(handle.admit(t0 - Duration::seconds(5))) << "a clock going back regains nothing";
  EXPECT_TRUE(handle.admit(t0 + Duration::seconds(60)));
  EXPECT_TRUE(handle.admit(t0 + Duration::seconds(60)));
  EXPECT_TRUE(handle.admit(t0 + Duration::seconds(60)));
  EXPECT_FALSE(handle.admit(t0 + Duration::seconds(60))) << "never more than the burst";
  EXPECT_EQ(handle.logged(), 7u);
  EXPECT_EQ(handle.suppressed(), 4u);
}

// --- Where an operator sees it ---

// What a fresh process writes to stderr when it logs one message with VESK_LOG_STDERR set
// to `mode` (null: unset).
std::string stderrOfAChildThatLogs(const char* mode) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    if (mode) {
      setenv("VESK_LOG_STDERR", mode, 1);
    } else {
      unsetenv("VESK_LOG_STDERR");
    }
    dup2(fds[1], STDERR_FILENO);
    close(fds[0]);
    close(fds[1]);
    Kest::LogHandle handle(kLoadError, Duration(), 1.0, 1, 0);
    Kest::log(handle, "configShard::DefaultFwdTcamEntry");
    _exit(0);
  }
  close(fds[1]);
  std::string err;
  char buffer[512];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) err.append(buffer, size_t(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return err;
}

TEST(Log, WithoutASyslogSocketOrWhenAskedTheMessageIsOnStderrToo) {
  const std::string line =
      ": %TEST_LOAD_ERROR: Hardware abstraction error: unable to load item: "
      "configShard::DefaultFwdTcamEntry\n";
  const std::string asked = stderrOfAChildThatLogs("1");
  EXPECT_NE(asked.find(line), std::string::npos) << asked;
  EXPECT_EQ(std::count(asked.begin(), asked.end(), '\n'), 1) << asked;
  EXPECT_EQ(stderrOfAChildThatLogs("0"), "") << "switched off";

  struct stat socket;
  const bool hasSyslogSocket = stat(_PATH_LOG, &socket) == 0 && S_ISSOCK(socket.st_mode);
  const std::string unset = stderrOfAChildThatLogs(nullptr);
  EXPECT_EQ(unset.find(line) != std::string::npos, !hasSyslogSocket)
      << "mirrored exactly when no syslog socket takes it: " << unset;
}

// --- Registry ---

TEST(Log, HandlesAreFoundByNameWhileTheyLive) {
  EXPECT_EQ(Kest::findLogHandle("TEST_TABLE_FULL"), nullptr);
  {
    Kest::LogHandle first(kTableFull, Duration(), 1.0, 1, 0);
    EXPECT_EQ(Kest::findLogHandle("TEST_TABLE_FULL"), &first);
    {
      Kest::LogHandle second(kTableFull, Duration(), 1.0, 1, 0);
      EXPECT_EQ(Kest::findLogHandle("TEST_TABLE_FULL"), &second);
    }
    EXPECT_EQ(Kest::findLogHandle("TEST_TABLE_FULL"), &first);
  }
  EXPECT_EQ(Kest::findLogHandle("TEST_TABLE_FULL"), nullptr);
}

}  // namespace
