#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include "KestShard/Directory.h"
#include "Nimbo/Exception.h"
#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

// A shard whose "records" collection holds another record layout.
struct WideRecord {
  Key key;
  uint64_t more[20];
};
struct WideKeyOf {
  const Key& operator()(const WideRecord& r) const { return r.key; }
};
class WideShard : public KestShard::Shard {
 public:
  explicit WideShard(const KestShard::MountContext& c)
      : KestShard::Shard(c), records(mountKeyed<WideRecord, WideKeyOf>(c, "records")) {}
  KestShard::KeyedCollection<WideRecord, WideKeyOf> records;
};
KestShard::ShardTypeRegistration<WideShard> wideRegistration("ShardTest::WideShard");

class SegmentTest : public ::testing::Test {
 protected:
  TempRoot root;
};

mode_t modeOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

TEST_F(SegmentTest, DirectoriesAre0700AndFiles0600) {
  mountTestShard("x/y");
  EXPECT_EQ(modeOf(root.path()), 0700u);
  EXPECT_EQ(modeOf(root.path() + "/local/agent/x/y"), 0700u);
  EXPECT_EQ(modeOf(segmentFile(root, "x/y", "records")), 0600u);
  EXPECT_EQ(modeOf(segmentFile(root, "x/y", "log")), 0600u);
}

TEST_F(SegmentTest, SymlinkAtSegmentPathIsRefusedAndItsTargetUntouched) {
  const std::string target = root.path() + "-target";
  { std::ofstream(target) << "precious"; }
  std::filesystem::create_directories(root.path() + "/local/agent/evil");
  std::filesystem::permissions(root.path(), std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::replace);
  std::filesystem::create_symlink(target, segmentFile(root, "evil", "records"));
  try {
    mountTestShard("evil");
    FAIL() << "a symlink was followed";
  } catch (const Nimbo::SystemException& e) {
    EXPECT_NE(std::string(e.what()).find("symlink"), std::string::npos) << e.what();
  }
  std::ifstream in(target);
  std::string content((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(content, "precious");
  std::filesystem::remove(target);
}

TEST_F(SegmentTest, SymlinkedDirectoryBelowTheRootIsRefused) {
  const std::string elsewhere = root.path() + "-elsewhere";
  std::filesystem::create_directories(elsewhere);
  std::filesystem::create_directories(root.path() + "/local/agent");
  std::filesystem::create_directory_symlink(elsewhere, root.path() + "/local/agent/link");
  EXPECT_THROW(mountTestShard("link/shard"), Nimbo::SystemException);
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
  std::filesystem::remove_all(elsewhere);
}

// A namespace keeps the directories it has checked and opens files relative to them; one
// removed or loosened since is checked again: a removed one is made anew (never written
// into while unlinked), a loosened one refused.
TEST_F(SegmentTest, ADirectoryChangedAfterAMountIsCheckedAgain) {
  mountTestShard("kept/a")->records.insertOrReplace(Record::of(1, 1));
  unmount("kept/a");
  std::filesystem::remove_all(root.path() + "/local/agent/kept");
  auto shard = mountTestShard("kept/a");
  EXPECT_TRUE(shard->records.control()->wiped()) << "the lost segment is told";
  shard->records.insertOrReplace(Record::of(2, 1));
  EXPECT_TRUE(std::filesystem::is_regular_file(segmentFile(root, "kept/a", "records")));
  shard.reset();
  unmount("kept/a");

  std::filesystem::permissions(root.path() + "/local/agent/kept",
                               std::filesystem::perms::group_write,
                               std::filesystem::perm_options::add);
  try {
    mountTestShard("kept/a");
    FAIL() << "a group-writable directory was used";
  } catch (const Nimbo::SystemException& e) {
    EXPECT_NE(std::string(e.what()).find("writable by group or others"), std::string::npos)
        << e.what();
  }
}

TEST_F(SegmentTest, SegmentOfAnotherLayoutIsRefusedAndKept) {
  auto shard = mountTestShard("layout");
  shard->records.insertOrReplace(Record::of(1, 1));
  shard.reset();
  unmount("layout");
  auto em = KestSharedMem::EntityManager::getEntityManager("agent", true);
  auto group = em->getMountGroup();
  KestShard::MountInfo info(KestShard::KestShardType::writer);
  info.collectionInfoIs({"records", 1024, false});
  group->mount("layout", "ShardTest::WideShard", info);
  try {
    group->doClose();
    FAIL() << "a segment of another layout was accepted";
  } catch (const Nimbo::InvalidArgumentException& e) {
    EXPECT_NE(std::string(e.what()).find("records of 80 bytes"), std::string::npos) << e.what();
  }
  EXPECT_EQ(mountTestShard("layout")->records.find(Record::of(1, 0).key)->generation, 1u);
}

TEST_F(SegmentTest, SegmentOfAnotherOwnerOrWithLooseModeIsRefused) {
  mountTestShard("owner");
  unmount("owner");
  const std::string file = segmentFile(root, "owner", "records");
  ASSERT_EQ(chmod(file.c_str(), 0644), 0);
  EXPECT_THROW(mountTestShard("owner"), Nimbo::SystemException);
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  if (geteuid() != 0) GTEST_SKIP() << "changing a file's owner needs root";
  ASSERT_EQ(chown(file.c_str(), 4242, 4242), 0);
  try {
    mountTestShard("owner");
    FAIL() << "a segment of another owner was accepted";
  } catch (const Nimbo::SystemException& e) {
    EXPECT_NE(std::string(e.what()).find("owned by uid 4242"), std::string::npos) << e.what();
  }
}

TEST_F(SegmentTest, SecondWriterIsRefused) {
  auto first = mountTestShard("busy");
  pid_t child = fork();
  if (child == 0) {
    try {
      unmount("busy");  // forget the parent's mount: the child is another process
      mountTestShard("busy");
    } catch (const Nimbo::SystemException& e) {
      _exit(std::string(e.what()).find("another writer") != std::string::npos ? 0 : 2);
    }
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SegmentTest, LostSegmentIsRecreatedEmptyAndWipedUntilCleared) {
  auto shard = mountTestShard("wipe");
  EXPECT_FALSE(shard->records.control()->wiped()) << "a first mount is not a wipe";
  shard->records.insertOrReplace(Record::of(1, 1));
  shard.reset();
  unmount("wipe");
  std::filesystem::remove(segmentFile(root, "wipe", "records"));

  shard = mountTestShard("wipe");
  EXPECT_TRUE(shard->records.control()->wiped());
  EXPECT_FALSE(shard->log.control()->wiped()) << "the log was not lost";
  EXPECT_EQ(shard->records.count(), 0u);
  shard->records.control()->clearWiped();
  shard.reset();
  unmount("wipe");
  EXPECT_FALSE(mountTestShard("wipe")->records.control()->wiped());
}

TEST_F(SegmentTest, UnusableSegmentIsRecreatedEmptyAndWiped) {
  auto shard = mountTestShard("garbage");
  shard->log.insertOrReplace(LogRecord::of(1));
  shard.reset();
  unmount("garbage");
  { std::ofstream(segmentFile(root, "garbage", "log"), std::ios::trunc) << "not a segment"; }
  shard = mountTestShard("garbage");
  EXPECT_TRUE(shard->log.control()->wiped());
  EXPECT_EQ(shard->log.count(), 0u);
  EXPECT_FALSE(shard->records.control()->wiped());
}

TEST_F(SegmentTest, ReaderSeesTheWriterAndCannotChangeAnything) {
  auto writer = mountTestShard("shared", 1024, 1024);
  writer->records.insertOrReplace(Record::of(3, 3));
  writer->records.control()->scratchpadIs(77);
  EXPECT_THROW(mountTestShard("shared", 1024, 1024, KestShard::KestShardType::reader, "viewer"),
               Nimbo::SystemException)
      << "a reader of another namespace finds nothing to read";

  pid_t child = fork();
  if (child == 0) {
    auto em = KestSharedMem::EntityManager::getEntityManager("agent", true);
    em->entityDel("shared");  // the child is another process: it reads, it does not write
    auto r = mountTestShard("shared", 1024, 1024, KestShard::KestShardType::reader);
    bool ok =
        r->records.find(Record::of(3, 0).key)->whole() && r->records.control()->scratchpad() == 77;
    try {
      r->records.insertOrReplace(Record::of(4, 4));
      ok = false;
    } catch (const Nimbo::InvalidArgumentException&) {
    }
    try {
      r->records.control()->scratchpadIs(1);
      ok = false;
    } catch (const Nimbo::InvalidArgumentException&) {
    }
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SegmentTest, EmptyCollectionsOfFullCapacityUseLittleMemory) {
  auto shard = mountTestShard("capacity", 65536, 1000000);
  const uint64_t empty =
      shard->records.store().allocatedBytes() + shard->log.store().allocatedBytes();
  EXPECT_LT(empty, 256u * 1024) << "resident bytes of two empty collections";
  for (uint32_t id = 0; id < 2000; ++id) shard->records.insertOrReplace(Record::of(id, 1));
  const uint64_t used = shard->records.store().allocatedBytes();
  EXPECT_GT(used, 2000u * sizeof(Record));
  EXPECT_LT(used, 2000u * 1024) << "memory grows with the records, not the capacity";
}

TEST_F(SegmentTest, PathsAreValidated) {
  for (const char* bad : {"", "/abs", "a//b", "a/../b", "a/./b", "sp ace", "a/"}) {
    EXPECT_THROW(mountTestShard(bad), Nimbo::InvalidArgumentException) << bad;
  }
  EXPECT_THROW(mountTestShard(".namespace/x"), Nimbo::InvalidArgumentException);
}

TEST_F(SegmentTest, FindEntitiesListsShardsBelowAPath) {
  mountTestShard("t/config/0");
  mountTestShard("t/config/1");
  mountTestShard("t/log");
  auto em = KestSharedMem::EntityManager::getEntityManager("agent", true);
  EXPECT_EQ(em->findEntities("t/config", 1),
            (std::vector<Nimbo::String>{"t/config/0", "t/config/1"}));
  EXPECT_EQ(em->findEntities("t", 2),
            (std::vector<Nimbo::String>{"t/config/0", "t/config/1", "t/log"}));
  EXPECT_TRUE(em->findEntities("nothing/here", 3).empty());
  EXPECT_TRUE(em->getEntity("t/log"));
  EXPECT_FALSE(em->getEntity("t/none"));
}

TEST_F(SegmentTest, UnknownShardTypeOrMissingCapacityIsAClearError) {
  auto em = KestSharedMem::EntityManager::getEntityManager("agent", true);
  auto group = em->getMountGroup();
  group->mount("u", "No::SuchShard", KestShard::MountInfo(KestShard::KestShardType::writer));
  EXPECT_THROW(group->doClose(), Nimbo::InvalidArgumentException);
  auto second = em->getMountGroup();
  KestShard::MountInfo partial(KestShard::KestShardType::writer);
  partial.collectionInfoIs({"records", 64, false});  // no capacity for "log"
  second->mount("u", kTestShardType, partial);
  try {
    second->doClose();
    FAIL() << "a mount without a capacity for every collection was accepted";
  } catch (const Nimbo::InvalidArgumentException& e) {
    EXPECT_NE(std::string(e.what()).find("'log'"), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace ShardTest
