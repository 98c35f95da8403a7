#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstddef>
#include <fstream>

#include "KestShard/Env.h"
#include "KestShard/SegmentLayout.h"
#include "Nimbo/Exception.h"
#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

// Fails the Nth call of one kind with a chosen error; every other call goes through.
class FaultyEnv : public KestShard::EnvWrapper {
 public:
  enum class Call { open, reserve, map, truncate, rename };
  FaultyEnv() : KestShard::EnvWrapper(KestShard::Env::system()) {
    previous_ = KestShard::Env::currentIs(this);
  }
  ~FaultyEnv() override { KestShard::Env::currentIs(previous_); }

  void failNth(Call call, int n, int error) {
    call_ = call;
    countdown_ = n;
    error_ = error;
  }
  int64_t fixedNow = 0;

  int openAt(int d, const char* n, int f, mode_t m) override {
    return fail(Call::open) ? -1 : EnvWrapper::openAt(d, n, f, m);
  }
  int reserve(int fd, off_t o, off_t l) override {
    return fail(Call::reserve) ? error_ : EnvWrapper::reserve(fd, o, l);
  }
  void* map(size_t len, int prot, int fd) override {
    return fail(Call::map) ? MAP_FAILED : EnvWrapper::map(len, prot, fd);
  }
  int truncate(int fd, off_t size) override {
    return fail(Call::truncate) ? -1 : EnvWrapper::truncate(fd, size);
  }
  int renameAt(int d, const char* a, const char* b) override {
    return fail(Call::rename) ? -1 : EnvWrapper::renameAt(d, a, b);
  }
  int64_t nowNs() override { return fixedNow ? fixedNow : EnvWrapper::nowNs(); }

 private:
  bool fail(Call call) {
    if (call != call_ || countdown_ <= 0 || --countdown_ != 0) return false;
    errno = error_;
    return true;
  }
  Env* previous_;
  Call call_ = Call::open;
  int countdown_ = 0;
  int error_ = 0;
};

class FaultTest : public ::testing::Test {
 protected:
  TempRoot root;
  FaultyEnv env;
};

TEST_F(FaultTest, NoSpaceWhileGrowingIsAClearErrorAndLosesNothing) {
  auto shard = mountTestShard("grow", 4096, 4096);
  uint32_t stored = 0;
  env.failNth(FaultyEnv::Call::reserve, 1, ENOSPC);  // the next chunk the arena needs
  try {
    for (; stored < 4096; ++stored) shard->records.insertOrReplace(Record::of(stored, 1));
    FAIL() << "the reservation failure was not reported";
  } catch (const Nimbo::SystemException& e) {
    EXPECT_EQ(e.error(), ENOSPC);
    EXPECT_NE(std::string(e.what()).find("cannot grow"), std::string::npos) << e.what();
  }
  EXPECT_EQ(shard->records.count(), stored);
  EXPECT_FALSE(shard->records.contains(Record::of(stored, 0).key));
  for (uint32_t id = 0; id < stored; ++id)
    ASSERT_TRUE(shard->records.find(Record::of(id, 0).key)->whole());
  shard->records.insertOrReplace(Record::of(stored, 1));  // space is back: it works again
  EXPECT_EQ(shard->records.count(), stored + 1);
}

TEST_F(FaultTest, NoSpaceWhileAppendingToTheLogLosesNothing) {
  auto shard = mountTestShard("append", 16, 100000);
  uint64_t v = 1;
  env.failNth(FaultyEnv::Call::reserve, 1, ENOSPC);
  EXPECT_THROW(
      {
        for (; v < 100000; ++v) shard->log.insertOrReplace(LogRecord::of(v));
      },
      Nimbo::SystemException);
  EXPECT_EQ(shard->log.count(), v - 1);
  EXPECT_FALSE(shard->log.contains(v));
  shard->log.insertOrReplace(LogRecord::of(v));
  EXPECT_TRUE(shard->log.find(v)->whole());
}

// A damaged high-water mark sends the writer's repair past the chunks its slots were
// reserved in: it reserves them before it touches them, so that a full filesystem is an
// error there rather than a signal, and a retry with space finds every record.
TEST_F(FaultTest, ARepairPastTheReservedSlotsReservesThemFirst) {
  {
    auto shard = mountTestShard("mark", 4096, 16);
    for (uint32_t id = 0; id < 10; ++id) shard->records.insertOrReplace(Record::of(id, 1));
    unmount("mark");
  }
  {
    std::fstream f(segmentFile(root, "mark", "records"),
                   std::ios::in | std::ios::out | std::ios::binary);
    const uint64_t stoppedInAChange = 1;
    const uint32_t everySlot = 4097;
    f.seekp(offsetof(KestShard::SegmentHeader, generation))
        .write(reinterpret_cast<const char*>(&stoppedInAChange), sizeof stoppedInAChange);
    f.seekp(offsetof(KestShard::SegmentHeader, highWater))
        .write(reinterpret_cast<const char*>(&everySlot), sizeof everySlot);
  }
  env.failNth(FaultyEnv::Call::reserve, 1, ENOSPC);
  EXPECT_THROW(mountTestShard("mark", 4096, 16), Nimbo::SystemException);
  auto shard = mountTestShard("mark", 4096, 16);
  EXPECT_EQ(shard->records.count(), 10u);
  for (uint32_t id = 0; id < 10; ++id) {
    EXPECT_TRUE(shard->records.find(Record::of(id, 0).key)->whole()) << id;
  }
}

TEST_F(FaultTest, EveryFailingCallOfACreationLeavesNoHalfMadeSegment) {
  const std::pair<FaultyEnv::Call, int> faults[] = {{FaultyEnv::Call::open, EIO},
                                                    {FaultyEnv::Call::truncate, EIO},
                                                    {FaultyEnv::Call::map, ENOMEM},
                                                    {FaultyEnv::Call::reserve, ENOSPC},
                                                    {FaultyEnv::Call::rename, EIO}};
  int i = 0;
  for (auto [call, error] : faults) {
    const std::string path = "create" + std::to_string(i++);
    // Let the directory opens through, then fail the call while making the segment.
    env.failNth(call, call == FaultyEnv::Call::open ? 8 : 1, error);
    EXPECT_THROW(mountTestShard(path), Nimbo::SystemException) << path;
    env.failNth(call, 0, 0);
    auto shard = mountTestShard(path);  // a clean retry succeeds, not wiped
    EXPECT_FALSE(shard->records.control()->wiped()) << path;
    EXPECT_FALSE(std::filesystem::exists(segmentFile(root, path, "records.new"))) << path;
  }
}

TEST_F(FaultTest, CreationTimeComesFromTheClockSeam) {
  env.fixedNow = 1234567890123456789;
  auto shard = mountTestShard("clock");
  EXPECT_EQ(shard->records.store().segment()->header().createdNs, 1234567890123456789);
}

TEST_F(FaultTest, ReaderMapFailureIsAClearError) {
  mountTestShard("rmap");
  pid_t child = fork();
  if (child == 0) {
    unmount("rmap");
    env.failNth(FaultyEnv::Call::map, 2, ENOMEM);  // header probe passes, the full map fails
    try {
      mountTestShard("rmap", 1024, 1024, KestShard::KestShardType::reader);
    } catch (const Nimbo::SystemException& e) {
      _exit(e.error() == ENOMEM ? 0 : 2);
    }
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// A real tmpfs too small for what is asked of it: every mount and insert either works or
// throws a clear error; nothing touches a page without backing store (that is SIGBUS on
// tmpfs, even for a read), and what was stored stays readable. The tmpfs is mounted in a
// private mount namespace of a child process, so nothing outlives the test.
TEST_F(FaultTest, AFullTmpfsIsAnErrorNeverASignal) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const bool isolated = unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
    std::filesystem::create_directories(root.path());
    if (!isolated || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", root.path().c_str(), "tmpfs", 0, "size=320k,mode=0700") != 0) {
      _exit(77);
    }
    uint32_t stored = 0, refused = 0;
    for (int s = 0; s < 12; ++s) {
      try {
        auto shard = mountTestShard("full" + std::to_string(s), 4096, 4096);
        for (uint32_t id = 0; id < 2000; ++id) {
          shard->records.insertOrReplace(Record::of(id, 1));
          ++stored;
        }
      } catch (const Nimbo::SystemException& e) {
        if (e.error() != ENOSPC) {
          fprintf(stderr, "unexpected: %s\n", e.what());
          _exit(2);
        }
        ++refused;
      }
    }
    auto first = mountTestShard("full0", 4096, 4096);
    for (uint32_t id = 0; id < std::min<uint32_t>(stored, 2000); ++id) {
      if (!first->records.find(Record::of(id, 0).key)) _exit(3);
    }
    _exit(refused > 0 && stored > 0 ? 0 : 4);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status)) << "died by signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no tmpfs can be mounted here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace ShardTest
