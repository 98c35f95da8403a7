#include "tools/gnmi/GnmiTarget.h"

#include <fmt/format.h>

#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

// The fastest sample interval the target keeps: each sample reads the tree it covers.
constexpr auto kFastestSample = std::chrono::milliseconds(100);

// The subscriptions of a SubscriptionList, checked; throws GnmiError.
std::vector<StreamSubscription> subscriptionsOf(const gnmi::SubscriptionList& list,
                                                GnmiFeed& feed) {
  if (list.subscription_size() == 0) {
    throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                    "the subscription list is empty: give at least one path");
  }
  std::vector<StreamSubscription> subs;
  for (const gnmi::Subscription& s : list.subscription()) {
    StreamSubscription sub;
    sub.selector = selectorOf(list.prefix(), s.path());
    feed.run([&](GnmiReader& reader) {
      reader.check(sub.selector);
      return 0;
    });
    if (sub.selector.since && !sub.selector.table) {
      throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                      "since=V resumes one table: give table[name=T][since=V]");
    }
    if (sub.selector.since && list.mode() != gnmi::SubscriptionList::STREAM) {
      throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT, "since=V is for STREAM subscriptions");
    }
    sub.mode = s.mode();
    sub.suppressRedundant = s.suppress_redundant();
    sub.heartbeatInterval = std::chrono::nanoseconds(s.heartbeat_interval());
    if (list.mode() == gnmi::SubscriptionList::STREAM && s.mode() == gnmi::SAMPLE) {
      sub.sampleInterval = s.sample_interval() == 0 ? std::chrono::nanoseconds(kFastestSample)
                                                    : std::chrono::nanoseconds(s.sample_interval());
      if (sub.sampleInterval < kFastestSample) {
        throw GnmiError(
            grpc::StatusCode::INVALID_ARGUMENT,
            fmt::format("sample_interval {} ns is below what this target keeps: give "
                        "0 (its fastest) or at least {} ns",
                        s.sample_interval(), std::chrono::nanoseconds(kFastestSample).count()));
      }
    }
    if (sub.heartbeatInterval.count() > 0 && sub.heartbeatInterval < kFastestSample) {
      throw GnmiError(
          grpc::StatusCode::INVALID_ARGUMENT,
          fmt::format("heartbeat_interval {} ns is below what this target keeps: "
                      "give at least {} ns",
                      s.heartbeat_interval(), std::chrono::nanoseconds(kFastestSample).count()));
    }
    subs.push_back(std::move(sub));
  }
  return subs;
}

// Counts the Subscribe RPCs running.
class StreamSlot {
 public:
  StreamSlot(std::atomic<size_t>& count, size_t max) : count_(count) {
    if (count_.fetch_add(1) >= max) {
      count_.fetch_sub(1);
      throw GnmiError(grpc::StatusCode::RESOURCE_EXHAUSTED,
                      fmt::format("{} subscriptions are served already, the most this target "
                                  "takes (--max-streams): try again later",
                                  max));
    }
  }
  ~StreamSlot() { count_.fetch_sub(1); }
  StreamSlot(const StreamSlot&) = delete;
  StreamSlot& operator=(const StreamSlot&) = delete;

 private:
  std::atomic<size_t>& count_;
};

// One Subscribe RPC. It reads the subscription list (and a POLL's polls) and writes what
// its GnmiStream holds, one write at a time as gRPC takes them (a response that several
// streams share comes serialised already). It has no thread of its own: gRPC calls it on its
// threads, and the feed's reader thread wakes it when a response waits (GnmiStream::wake). A STREAM
// goes on until the collector goes or reads too slowly (then RESOURCE_EXHAUSTED names where to
// resume). Deletes itself when gRPC is done with it (OnDone), after leaving the feed, so that the
// reader thread no longer calls it.
class SubscribeReactor final : public grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> {
 public:
  SubscribeReactor(grpc::CallbackServerContext* context, GnmiFeed& feed,
                   std::atomic<size_t>& streams, size_t maxStreams)
      : context_(context), feed_(feed) {
    try {
      slot_.emplace(streams, maxStreams);
    } catch (const GnmiError& e) {
      finishWhenDrained(e.status());
      return;
    }
    StartRead(&request_);
  }

  void OnReadDone(bool ok) override {
    if (!ok) {
      // The collector closed its side: a POLL ends once its answers are written; a STREAM
      // goes on (its collector may still read).
      if (!stream_ || mode_ == gnmi::SubscriptionList::POLL) finishWhenDrained(grpc::Status::OK);
      return;
    }
    try {
      gnmi::SubscribeRequest request;
      if (!grpc::SerializationTraits<gnmi::SubscribeRequest>::Deserialize(&request_, &request)
               .ok()) {
        throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                        "the request is not a gnmi.SubscribeRequest");
      }
      if (!stream_) {
        start(request);
      } else {
        // Only a POLL reads after its list.
        if (!request.has_poll()) {
          throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                          "a POLL subscription takes only poll requests after its list");
        }
        sendAll();
        StartRead(&request_);
        pump();
      }
    } catch (const GnmiError& e) {
      finishWhenDrained(e.status());
    }
  }

  void OnWriteDone(bool ok) override {
    {
      std::lock_guard lock(mutex_);
      writing_ = false;
      if (!ok) gone_ = true;  // cancelled, or the collector went
      if (ok && written_.table != SIZE_MAX) sent_[written_.table] = written_.version;
    }
    pump();
  }

  void OnCancel() override {
    {
      std::lock_guard lock(mutex_);
      gone_ = true;
    }
    pump();
  }

  void OnDone() override {
    if (joined_) feed_.leave(stream_);
    delete this;
  }

 private:
  void start(const gnmi::SubscribeRequest& request) {
    if (!request.has_subscribe()) {
      throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                      "the first request must be a subscription list, not a poll");
    }
    const gnmi::SubscriptionList& list = request.subscribe();
    const gnmi::Encoding encoding = checkedEncoding(list.encoding());
    auto subs = subscriptionsOf(list, feed_);
    mode_ = list.mode();
    if (mode_ == gnmi::SubscriptionList::ONCE || mode_ == gnmi::SubscriptionList::POLL) {
      {
        std::lock_guard lock(mutex_);
        stream_ = std::make_shared<GnmiStream>(std::move(subs), encoding, false, SIZE_MAX);
      }
      sendAll();
      if (mode_ == gnmi::SubscriptionList::ONCE) {
        finishWhenDrained(grpc::Status::OK);
      } else {
        StartRead(&request_);
        pump();
      }
      return;
    }
    auto stream = std::make_shared<GnmiStream>(std::move(subs), encoding, list.updates_only(),
                                               feed_.options.queueLimit);
    stream->wake = [this] { pump(); };
    stream->cancel = [this] { context_->TryCancel(); };
    {
      std::lock_guard lock(mutex_);
      stream_ = stream;
    }
    feed_.join(stream);
    joined_ = true;
    pump();
  }

  // Every value the subscriptions reach now, then sync_response: a ONCE answer, or a POLL's.
  void sendAll() {
    const auto notifications = feed_.run([&](GnmiReader& reader) {
      std::vector<gnmi::Notification> all;
      const int64_t ts = nowNs();
      for (const StreamSubscription& sub : stream_->subscriptions) {
        for (const Node& node : reader.snapshot(sub.selector)) {
          gnmi::Notification n = notificationOf(node, stream_->encoding, sub.selector.leaf, ts);
          if (n.update_size() > 0) all.push_back(std::move(n));
        }
      }
      return all;
    });
    for (const gnmi::Notification& n : notifications) {
      auto r = std::make_shared<gnmi::SubscribeResponse>();
      *r->mutable_update() = n;
      stream_->push({std::move(r)});
    }
    auto sync = std::make_shared<gnmi::SubscribeResponse>();
    sync->set_sync_response(true);
    stream_->push({std::move(sync)});
  }

  void finishWhenDrained(grpc::Status status) {
    {
      std::lock_guard lock(mutex_);
      if (!finishWith_) finishWith_ = std::move(status);
    }
    pump();
  }

  // Starts the next write when none is under way, or ends the RPC when nothing is left to
  // write: the collector went, its stream overflowed, or it was answered in full.
  void pump() {
    std::unique_lock lock(mutex_);
    if (writing_ || finished_) return;
    if (!gone_ && stream_) {
      if (auto item = stream_->pop()) {
        written_ = {item->table, item->version};
        buffer_ = item->wire();
        writing_ = true;
        lock.unlock();
        StartWrite(&buffer_);
        return;
      }
    }
    std::optional<grpc::Status> status;
    if (gone_) {
      status = grpc::Status::CANCELLED;
    } else if (stream_ && stream_->overflowed()) {
      status = overflowStatus();
    } else if (finishWith_) {
      status = *finishWith_;
    }
    if (!status) return;
    finished_ = true;
    lock.unlock();
    Finish(*status);
  }

  grpc::Status overflowStatus() const {
    std::string resume;
    for (const auto& [table, version] : sent_) {
      resume.append(resume.empty() ? "" : ", ")
          .append(
              fmt::format("table[name={}][since={}]", VeskTapAgg::kCatalogue[table].name, version));
    }
    return grpc::Status(
        grpc::StatusCode::RESOURCE_EXHAUSTED,
        fmt::format("this collector read too slowly: {} changes waited for it; resume with {}",
                    feed_.options.queueLimit, resume.empty() ? "a new subscription" : resume));
  }

  grpc::CallbackServerContext* const context_;
  GnmiFeed& feed_;
  std::optional<StreamSlot> slot_;
  grpc::ByteBuffer request_;
  gnmi::SubscriptionList::Mode mode_ = gnmi::SubscriptionList::STREAM;
  bool joined_ = false;  // the feed keeps stream_ fed until OnDone leaves it
  std::mutex mutex_;     // guards what follows; pump runs on gRPC's and the reader's threads
  std::shared_ptr<GnmiStream> stream_;
  grpc::ByteBuffer buffer_;  // the write under way
  struct Written {
    size_t table = SIZE_MAX;
    uint64_t version = 0;
  } written_;
  std::map<size_t, uint64_t> sent_;  // the newest version written per table
  std::optional<grpc::Status> finishWith_;
  bool writing_ = false;
  bool gone_ = false;
  bool finished_ = false;
};

}  // namespace

grpc::Status GnmiTarget::Capabilities(grpc::ServerContext*, const gnmi::CapabilityRequest*,
                                      gnmi::CapabilityResponse* response) {
  gnmi::ModelData* model = response->add_supported_models();
  model->set_name(kGnmiModel);
  model->set_organization(kGnmiModelOrganization);
  model->set_version(kGnmiModelVersion);
  response->add_supported_encodings(gnmi::JSON_IETF);
  response->add_supported_encodings(gnmi::JSON);
  response->add_supported_encodings(gnmi::PROTO);
  response->set_gnmi_version(kGnmiVersion);
  return grpc::Status::OK;
}

grpc::Status GnmiTarget::Get(grpc::ServerContext*, const gnmi::GetRequest* request,
                             gnmi::GetResponse* response) {
  try {
    const gnmi::Encoding encoding = checkedEncoding(request->encoding());
    std::vector<PathSelector> selectors;
    for (const gnmi::Path& path : request->path()) {
      selectors.push_back(selectorOf(request->prefix(), path));
      if (selectors.back().since) {
        throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                        "since=V is for STREAM subscriptions, not Get");
      }
    }
    if (selectors.empty()) selectors.push_back(selectorOf(request->prefix(), gnmi::Path()));
    // The reader takes the snapshots; the notifications are made here, on the RPC's thread,
    // which frees them too (made on one thread and freed on another, each of their many
    // small allocations would contend for the allocator's lock).
    auto snapshots = feed_.run([&](GnmiReader& reader) {
      std::vector<std::vector<Node>> all;
      for (const PathSelector& s : selectors) {
        reader.check(s);
        all.push_back(reader.snapshot(s));
      }
      return all;
    });
    {
      const int64_t ts = nowNs();
      for (size_t i = 0; i < selectors.size(); ++i) {
        size_t found = 0;
        for (Node& node : snapshots[i]) {
          gnmi::Notification* n = response->add_notification();
          fillNotification(*n, std::move(node), encoding, selectors[i].leaf, ts);
          if (n->update_size() == 0) {
            response->mutable_notification()->RemoveLast();
            continue;
          }
          ++found;
        }
        if (found == 0) {
          const gnmi::Path& asked =
              i < size_t(request->path_size()) ? request->path(int(i)) : gnmi::Path();
          throw GnmiError(grpc::StatusCode::NOT_FOUND,
                          fmt::format("nothing at {}: no agent's memory, or no such table, unit "
                                      "or entry in it (see /tables/table[name=*]/state)",
                                      pathText(asked)));
        }
      }
      return grpc::Status::OK;
    }
  } catch (const GnmiError& e) {
    response->Clear();
    return e.status();
  }
}

grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* GnmiTarget::Subscribe(
    grpc::CallbackServerContext* context) {
  return new SubscribeReactor(context, feed_, streams_, maxStreams_);
}

}  // namespace VeskTool
