#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <grpcpp/support/byte_buffer.h>

#include "tools/gnmi/GnmiReader.h"

namespace VeskTool {

// One subscription of a stream, as the collector asked for it.
struct StreamSubscription {
  PathSelector selector;
  gnmi::SubscriptionMode mode = gnmi::TARGET_DEFINED;
  std::chrono::nanoseconds sampleInterval{0};
  std::chrono::nanoseconds heartbeatInterval{0};
  bool suppressRedundant = false;
  Clock::time_point nextSample{}, nextHeartbeat{}, nextStateCheck{};
  std::map<std::string, std::string> lastSent;  // leaf path -> value, to tell what changed
};

// A subscription's responses on their way to the collector: filled by the feed's reader
// thread (a STREAM's) or by the RPC (ONCE and POLL answers), which never wait for it, and
// drained by the RPC's reactor as gRPC takes each write. Bounded: when the collector reads
// so slowly that `limit` live changes wait, the stream is closed with RESOURCE_EXHAUSTED
// (GnmiTarget), naming the versions to resume from. The values of a whole snapshot (the
// initial ones, a resync's, a sample's) and the changes a resume replays are not counted:
// they are bounded by the tables and by the history kept, and the feed makes no new sample
// while such responses still wait (snapshotWaiting).
class GnmiStream {
 public:
  struct Item {
    std::shared_ptr<const gnmi::SubscribeResponse> response;
    size_t table = SIZE_MAX;  // a change's table and version, else SIZE_MAX
    uint64_t version = 0;
    bool live = false;  // a change as it happened (counted), not one replayed for a resume
    // The response serialised, when several streams share it: made once for all of them.
    std::shared_ptr<const grpc::ByteBuffer> bytes = nullptr;

    // What the RPC writes: `bytes` (sharing their slices), else the response serialised.
    grpc::ByteBuffer wire() const;
  };

  GnmiStream(std::vector<StreamSubscription> subscriptions, gnmi::Encoding encoding,
             bool updatesOnly, size_t limit)
      : subscriptions(std::move(subscriptions)),
        encoding(encoding),
        updatesOnly(updatesOnly),
        limit_(limit) {}

  // Queues `item`; false (and the stream overflowed) when it is a live change and `limit`
  // of them wait already. Calls `wake` (outside its lock) when the queue was empty, and
  // when it overflows.
  bool push(Item item);
  // The next item; empty when none waits or the stream overflowed.
  std::optional<Item> pop();
  bool overflowed() const;
  // Whether responses other than live changes still wait.
  bool snapshotWaiting() const;
  // Set by the RPC before the stream joins the feed, then called by the reader thread: a
  // response waits now (the RPC starts its write if none is under way), and the end of an
  // RPC stuck writing to a collector that reads nothing, once its queue overflowed.
  std::function<void()> wake;
  std::function<void()> cancel;
  std::optional<Clock::time_point> overflowedAt;

  // Read and changed by the reader thread only.
  std::vector<StreamSubscription> subscriptions;
  const gnmi::Encoding encoding;
  const bool updatesOnly;

 private:
  const size_t limit_;
  mutable std::mutex mutex_;
  std::deque<Item> items_;
  size_t live_ = 0;  // items_ that are live changes
  bool overflowed_ = false;
};

// The target's one reader of the shared-memory root, on its own thread: it runs what the
// RPCs ask of the root (Get, ONCE and POLL snapshots, a stream's start), follows the change
// logs and fans each change out to the streams that subscribe to it, and sends samples,
// heartbeats and changed state leaves when they are due. Made and stopped by the program;
// RPC threads call run(), join() and leave().
class GnmiFeed {
 public:
  struct Options {
    size_t history = 65536;  // changes kept per table type, for streams that resume
    size_t queueLimit = 65536;
  };
  explicit GnmiFeed(Options options);
  ~GnmiFeed();
  GnmiFeed(const GnmiFeed&) = delete;
  GnmiFeed& operator=(const GnmiFeed&) = delete;

  // Runs `job` on the reader thread and returns what it returns (or throws what it throws).
  template <class Job>
  auto run(Job job) -> decltype(job(std::declval<GnmiReader&>())) {
    using Result = decltype(job(std::declval<GnmiReader&>()));
    auto task = std::make_shared<std::packaged_task<Result(GnmiReader&)>>(std::move(job));
    auto result = task->get_future();
    post([task](GnmiReader& reader) { (*task)(reader); });
    return result.get();
  }

  // Sends the stream its initial values (or the changes after its `since`), then
  // sync_response, then keeps it fed until leave().
  void join(const std::shared_ptr<GnmiStream>& stream);
  void leave(const std::shared_ptr<GnmiStream>& stream);

  const Options options;

 private:
  void post(std::function<void(GnmiReader&)> job);
  void loop();
  void start(GnmiStream& stream);
  void fanOut(const GnmiReader::Poll& poll);
  // Sends every stream that follows `table` its notice and the table anew.
  void resync(size_t table, const std::string& why);
  void resync(GnmiStream& stream, StreamSubscription& sub, size_t table, const std::string& why);
  void timers(Clock::time_point now);
  void sendNodes(GnmiStream& stream, StreamSubscription& sub, const std::vector<Node>& nodes,
                 bool onlyChanged);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<std::function<void(GnmiReader&)>> jobs_;
  bool stop_ = false;
  // Reader thread only.
  GnmiReader reader_;
  std::vector<std::shared_ptr<GnmiStream>> streams_;
  std::thread thread_;
};

}  // namespace VeskTool
