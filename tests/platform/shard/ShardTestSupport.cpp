#include "ShardTestSupport.h"

namespace ShardTest {
namespace {
KestShard::ShardTypeRegistration<TestShard> registration(kTestShardType);
}  // namespace
}  // namespace ShardTest
