#include "tools/gnmi/GnmiFeed.h"

#include <fmt/format.h>
#include <grpcpp/impl/codegen/proto_utils.h>

#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

// How long the reader sleeps when a poll found nothing: well below the 5 ms a change may
// take to reach a collector.
constexpr auto kIdlePoll = std::chrono::microseconds(500);
// State leaves (counts, versions, levels) are looked at this often for ON_CHANGE streams.
constexpr auto kStateCheck = std::chrono::seconds(1);
// How long the RPC of an overflowed stream may stay in its last write before it is cancelled.
constexpr auto kStuckWrite = std::chrono::seconds(10);

using Response = std::shared_ptr<const gnmi::SubscribeResponse>;

Response responseOf(gnmi::Notification n) {
  auto r = std::make_shared<gnmi::SubscribeResponse>();
  *r->mutable_update() = std::move(n);
  return r;
}

Response syncResponse() {
  auto r = std::make_shared<gnmi::SubscribeResponse>();
  r->set_sync_response(true);
  return r;
}

gnmi::TypedValue versionValue(uint64_t version, gnmi::Encoding encoding) {
  gnmi::TypedValue v;
  if (encoding == gnmi::PROTO) {
    v.set_uint_val(version);
  } else if (encoding == gnmi::JSON) {
    v.set_json_val(std::to_string(version));
  } else {
    v.set_json_ietf_val(std::to_string(version));
  }
  return v;
}

// A change as a stream sends it, on an arena of its own: its many small messages are made
// in a few blocks by the reader thread and freed at once by whichever thread drops the
// response last, instead of one malloc each across the two threads. A write updates its
// entry (its version among the leaves); a delete carries, besides the deleted path, the
// table's committedVersion.
Response changeResponse(const EntryChange& c, std::optional<EntryChange::Shown>& shown,
                        gnmi::Encoding encoding, std::string_view leaf, int64_t timestamp) {
  if (!shown) shown = c.show();
  auto arena = std::make_shared<google::protobuf::Arena>();
  auto* r = google::protobuf::Arena::CreateMessage<gnmi::SubscribeResponse>(arena.get());
  gnmi::Notification& n = *r->mutable_update();
  if (c.kind == EntryChange::Kind::write) {
    fillNotification(n, shown->node, encoding, leaf, timestamp, c.duplicates);
  } else {
    n.set_timestamp(timestamp);
    *n.add_delete_() = shown->node.path;
    gnmi::Update* u = n.add_update();
    *u->mutable_path() = tablePath(VeskTapAgg::kCatalogue[c.table].name);
    u->mutable_path()->add_elem()->set_name("state");
    u->mutable_path()->add_elem()->set_name("committedVersion");
    *u->mutable_val() = versionValue(c.version, encoding);
    if (c.duplicates > 0) u->set_duplicates(c.duplicates);
  }
  return Response(std::move(arena), r);  // owns the arena, points at the response
}

grpc::ByteBuffer serialised(const gnmi::SubscribeResponse& r) {
  grpc::ByteBuffer bytes;
  bool own = false;
  grpc::SerializationTraits<gnmi::SubscribeResponse>::Serialize(r, &bytes, &own);
  return bytes;
}

bool followsChanges(const StreamSubscription& sub) {
  return sub.mode == gnmi::ON_CHANGE || sub.mode == gnmi::TARGET_DEFINED;
}

}  // namespace

grpc::ByteBuffer GnmiStream::Item::wire() const { return bytes ? *bytes : serialised(*response); }

bool GnmiStream::push(Item item) {
  bool accepted = true;
  bool wakeNow = false;
  {
    std::lock_guard lock(mutex_);
    if (overflowed_) return false;
    if (item.live && live_ >= limit_) {
      overflowed_ = true;
      items_.clear();
      live_ = 0;
      accepted = false;
      wakeNow = true;
    } else {
      if (item.live) ++live_;
      items_.push_back(std::move(item));
      // The RPC drains the queue once woken: it is woken only when it may have run dry.
      wakeNow = items_.size() == 1;
    }
  }
  if (wakeNow && wake) wake();
  return accepted;
}

std::optional<GnmiStream::Item> GnmiStream::pop() {
  std::lock_guard lock(mutex_);
  if (overflowed_ || items_.empty()) return std::nullopt;
  Item item = std::move(items_.front());
  items_.pop_front();
  if (item.live) --live_;
  return item;
}

bool GnmiStream::overflowed() const {
  std::lock_guard lock(mutex_);
  return overflowed_;
}

bool GnmiStream::snapshotWaiting() const {
  std::lock_guard lock(mutex_);
  return items_.size() > live_;
}

GnmiFeed::GnmiFeed(Options options)
    : options(options), reader_(options.history), thread_([this] { loop(); }) {}

GnmiFeed::~GnmiFeed() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void GnmiFeed::post(std::function<void(GnmiReader&)> job) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  wake_.notify_one();
}

void GnmiFeed::join(const std::shared_ptr<GnmiStream>& stream) {
  run([this, stream](GnmiReader&) {
    start(*stream);
    streams_.push_back(stream);
    return 0;
  });
}

void GnmiFeed::leave(const std::shared_ptr<GnmiStream>& stream) {
  run([this, stream](GnmiReader&) {
    std::erase(streams_, stream);
    return 0;
  });
}

void GnmiFeed::loop() {
  for (;;) {
    std::vector<std::function<void(GnmiReader&)>> jobs;
    {
      std::lock_guard lock(mutex_);
      if (stop_) return;
      jobs.swap(jobs_);
    }
    for (auto& job : jobs) job(reader_);
    const GnmiReader::Poll poll = reader_.poll();
    // Changes read before a table's resync are older than what the resync sends.
    fanOut(poll);
    for (const auto& [table, why] : poll.resyncs) resync(table, why);
    timers(Clock::now());
    if (poll.changes.empty() && jobs.empty()) {
      std::unique_lock lock(mutex_);
      wake_.wait_for(lock, kIdlePoll, [&] { return stop_ || !jobs_.empty(); });
    }
  }
}

void GnmiFeed::start(GnmiStream& stream) {
  const auto now = Clock::now();
  if (stream.updatesOnly) stream.push({syncResponse()});
  for (StreamSubscription& sub : stream.subscriptions) {
    sub.nextSample = now + sub.sampleInterval;
    sub.nextHeartbeat = now + sub.heartbeatInterval;
    sub.nextStateCheck = now + kStateCheck;
    if (sub.selector.since) {
      // Resuming: the changes after `since`, or, when they are not all known, a notice and
      // the table anew.
      const size_t table = *sub.selector.table;
      const Replay replay = reader_.replay(table, *sub.selector.since);
      if (!replay.resync.empty()) {
        resync(stream, sub, table, replay.resync);
        continue;
      }
      const int64_t ts = nowNs();
      for (const ChangePtr& c : replay.changes) {
        std::optional<EntryChange::Shown> shown;
        if (c->selectedBy(sub.selector, shown)) {
          stream.push({changeResponse(*c, shown, stream.encoding, sub.selector.leaf, ts), c->table,
                       c->version});
        }
      }
      continue;
    }
    if (stream.updatesOnly) continue;
    sendNodes(stream, sub, reader_.snapshot(sub.selector), false);
  }
  if (!stream.updatesOnly) stream.push({syncResponse()});
}

void GnmiFeed::fanOut(const GnmiReader::Poll& poll) {
  if (poll.changes.empty() || streams_.empty()) return;
  const int64_t ts = nowNs();
  for (const ChangePtr& c : poll.changes) {
    // Shown once, and rendered and serialised once per encoding for the streams that take
    // whole entries.
    std::optional<EntryChange::Shown> shown;
    struct Rendered {
      Response response;
      std::shared_ptr<const grpc::ByteBuffer> bytes;
    };
    std::map<gnmi::Encoding, Rendered> rendered;
    for (const auto& stream : streams_) {
      for (const StreamSubscription& sub : stream->subscriptions) {
        if (!followsChanges(sub) || !c->selectedBy(sub.selector, shown)) continue;
        if (sub.selector.leaf.empty()) {
          Rendered& cached = rendered[stream->encoding];
          if (!cached.response) {
            cached.response = changeResponse(*c, shown, stream->encoding, {}, ts);
            if (streams_.size() > 1) {
              cached.bytes = std::make_shared<const grpc::ByteBuffer>(serialised(*cached.response));
            }
          }
          stream->push({cached.response, c->table, c->version, true, cached.bytes});
        } else {
          stream->push({changeResponse(*c, shown, stream->encoding, sub.selector.leaf, ts),
                        c->table, c->version, true});
        }
        break;  // once per stream
      }
    }
  }
}

void GnmiFeed::resync(size_t table, const std::string& why) {
  for (const auto& stream : streams_) {
    for (StreamSubscription& sub : stream->subscriptions) {
      if (followsChanges(sub) && sub.selector.selectsTable(table) &&
          sub.selector.has(PathSelector::entries)) {
        resync(*stream, sub, table, why);
        break;
      }
    }
  }
}

void GnmiFeed::resync(GnmiStream& stream, StreamSubscription& sub, size_t table,
                      const std::string& why) {
  // The notice with the table's units deleted, everything the subscription reaches of the
  // table, and the notice again, empty: the resync is complete.
  const std::string name(VeskTapAgg::kCatalogue[table].name);
  const int64_t ts = nowNs();
  gnmi::Path state = tablePath(name);
  state.add_elem()->set_name("state");
  gnmi::Notification notice = notificationOf({state, {{"resync", why}}}, stream.encoding, {}, ts);
  gnmi::Path units = tablePath(name);
  units.add_elem()->set_name("units");
  *notice.add_delete_() = units;
  stream.push({responseOf(std::move(notice))});
  PathSelector one = sub.selector;
  one.table = table;
  one.since.reset();
  sendNodes(stream, sub, reader_.snapshot(one), false);
  stream.push(
      {responseOf(notificationOf({state, {{"resync", std::string()}}}, stream.encoding, {}, ts))});
}

void GnmiFeed::timers(Clock::time_point now) {
  for (const auto& stream : streams_) {
    // An overflowed stream whose RPC did not leave within 10 s is stuck in a write to a
    // collector that reads nothing: cancelled, as its RESOURCE_EXHAUSTED cannot reach it. A
    // collector that reads, however slowly, lets the write end well before and is told.
    if (stream->overflowed()) {
      if (!stream->overflowedAt) stream->overflowedAt = now;
      if (now - *stream->overflowedAt > kStuckWrite && stream->cancel) {
        stream->cancel();
        stream->cancel = nullptr;
      }
      continue;
    }
    for (StreamSubscription& sub : stream->subscriptions) {
      if (sub.mode == gnmi::SAMPLE && now >= sub.nextSample) {
        sub.nextSample = now + sub.sampleInterval;
        // A collector that has not taken the last sample yet gets no new one.
        if (stream->snapshotWaiting()) continue;
        const bool heartbeat = sub.heartbeatInterval.count() > 0 && now >= sub.nextHeartbeat;
        if (heartbeat) sub.nextHeartbeat = now + sub.heartbeatInterval;
        sendNodes(*stream, sub, reader_.snapshot(sub.selector),
                  sub.suppressRedundant && !heartbeat);
        continue;
      }
      if (!followsChanges(sub)) continue;
      if (sub.heartbeatInterval.count() > 0 && now >= sub.nextHeartbeat) {
        sub.nextHeartbeat = now + sub.heartbeatInterval;
        if (stream->snapshotWaiting()) continue;
        sendNodes(*stream, sub, reader_.snapshot(sub.selector), false);
        continue;
      }
      // State leaves have no change log: looked at now and then, sent when they changed.
      PathSelector state = sub.selector;
      state.parts &= uint8_t(~PathSelector::entries);
      if (state.parts == 0 || now < sub.nextStateCheck) continue;
      sub.nextStateCheck = now + kStateCheck;
      sendNodes(*stream, sub, reader_.snapshot(state), true);
    }
  }
}

void GnmiFeed::sendNodes(GnmiStream& stream, StreamSubscription& sub,
                         const std::vector<Node>& nodes, bool onlyChanged) {
  const int64_t ts = nowNs();
  for (const Node& node : nodes) {
    // Remembered only where it is asked for again: samples that suppress what did not
    // change, and state leaves (not every entry of every stream).
    const bool remember = (sub.mode == gnmi::SAMPLE && sub.suppressRedundant) ||
                          node.path.elem(node.path.elem_size() - 1).name() == "state";
    if (!remember) {
      gnmi::Notification n = notificationOf(node, stream.encoding, sub.selector.leaf, ts);
      if (n.update_size() > 0) stream.push({responseOf(std::move(n))});
      continue;
    }
    Node changed{node.path, {}};
    const std::string base = pathText(node.path) + "/";
    for (const Leaf& leaf : node.leaves) {
      const std::string text = std::visit(
          [](const auto& x) {
            if constexpr (std::is_same_v<std::decay_t<decltype(x)>, std::string>) {
              return x;
            } else {
              return fmt::format("{}", x);
            }
          },
          leaf.value);
      std::string& last = sub.lastSent[base + std::string(leaf.name)];
      if (onlyChanged && last == text) continue;
      last = text;
      changed.leaves.push_back(leaf);
    }
    if (changed.leaves.empty()) continue;
    gnmi::Notification n = notificationOf(changed, stream.encoding, sub.selector.leaf, ts);
    if (n.update_size() > 0) stream.push({responseOf(std::move(n))});
  }
}

}  // namespace VeskTool
