// The hardware side and the agent as systemd runs them in Type=notify units: READY=1 on
// $NOTIFY_SOCKET once, and only once they are ready; nothing from one that fails before.

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "tests/tools/CliSupport.h"
#include "tools/core/ServiceNotify.h"

namespace VeskTool {
namespace {

using VeskTest::contains;
using VeskTest::run;
using VeskTest::Vesktap;

// The service manager's end: a datagram socket bound at a fresh path, named in NOTIFY_SOCKET
// for the programs started while it lives.
class NotifySocket {
 public:
  NotifySocket() {
    path_ = "/tmp/vesk-notify-" + std::to_string(getpid()) + "-" + std::to_string(counter_++);
    unlink(path_.c_str());
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("cannot bind a datagram socket at " + path_);
    setenv("NOTIFY_SOCKET", path_.c_str(), 1);
  }
  ~NotifySocket() {
    unsetenv("NOTIFY_SOCKET");
    close(fd_);
    unlink(path_.c_str());
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next message; empty when none came within a generous bound.
  std::string next() {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 30000) != 1) return {};
    return pending();
  }
  // A message already sent, without waiting; empty when there is none.
  std::string pending() {
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    return n > 0 ? std::string(buffer, size_t(n)) : std::string();
  }

 private:
  static inline int counter_ = 0;
  std::string path_;
  int fd_ = -1;
};

class ServiceNotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!serviceNotifySupported()) GTEST_SKIP() << "built without libsystemd";
  }
  VeskTest::FreshRoot root_{"vesk-notify"};
};

TEST_F(ServiceNotifyTest, TheHardwareSideIsReadyOnceItRunsAndNotWhenItCannotStart) {
  {
    NotifySocket manager;
    Vesktap hw({"hw"});
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_TRUE(contains(hw.err(), "hw: resuming after versions"));  // its loop is next
    hw.signal(SIGTERM);
    EXPECT_EQ(hw.wait(), 128 + SIGTERM);
    EXPECT_EQ(manager.pending(), "");  // once
  }
  // A root that is a file stops it before its loop: no word of being ready.
  const std::string file = root_.path() + "/not-a-directory";
  close(creat(file.c_str(), 0600));
  setenv("VESK_SHM_ROOT", file.c_str(), 1);
  NotifySocket manager;
  const auto refused = run({"hw"});
  EXPECT_EQ(refused.code, 1) << refused.err;
  EXPECT_EQ(manager.pending(), "");
}

TEST_F(ServiceNotifyTest, AServingAgentIsReadyOnceItsTablesAreRestoredAndRunsUntilStopped) {
  const auto first = run({"agent", "--units", "0", "--keys", "8", "--changes", "40", "--no-wait"});
  ASSERT_EQ(first.code, 0) << first.err;

  NotifySocket manager;
  Vesktap agent({"agent", "--units", "0", "--changes", "0", "--serve"});
  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_TRUE(contains(agent.err(), "restored 10 tables of 1 units"));
  // A second agent on the root is refused before it has tables: it says nothing.
  const auto second = run({"agent", "--units", "0", "--changes", "0"});
  EXPECT_EQ(second.code, 1) << second.err;
  EXPECT_EQ(manager.pending(), "");
  // With its workload done, the served agent still holds the root until it is stopped.
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(), 128 + SIGTERM) << agent.err();
  EXPECT_EQ(manager.pending(), "");
}

}  // namespace
}  // namespace VeskTool
