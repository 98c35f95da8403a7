#include "tools/gnmi/GnmiTarget.h"

#include <fmt/format.h>

#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

using Stream = grpc::ServerReaderWriter<gnmi::SubscribeResponse, gnmi::SubscribeRequest>;

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

// Every value the subscriptions reach now, then sync_response: a ONCE answer, or a POLL's.
bool sendAll(Stream& stream, const std::vector<StreamSubscription>& subs, gnmi::Encoding encoding,
             GnmiFeed& feed) {
  const auto notifications = feed.run([&](GnmiReader& reader) {
    std::vector<gnmi::Notification> all;
    const int64_t ts = nowNs();
    for (const StreamSubscription& sub : subs) {
      for (const Node& node : reader.snapshot(sub.selector)) {
        gnmi::Notification n = notificationOf(node, encoding, sub.selector.leaf, ts);
        if (n.update_size() > 0) all.push_back(std::move(n));
      }
    }
    return all;
  });
  gnmi::SubscribeResponse r;
  for (const gnmi::Notification& n : notifications) {
    *r.mutable_update() = n;
    if (!stream.Write(r)) return false;
  }
  r.Clear();
  r.set_sync_response(true);
  return stream.Write(r);
}

// A STREAM subscription until the collector goes, or reads too slowly.
grpc::Status streamUntilDone(grpc::ServerContext& context, Stream& rpc,
                             const std::shared_ptr<GnmiStream>& stream, GnmiFeed& feed) {
  stream->cancel = [&context] { context.TryCancel(); };
  feed.join(stream);
  std::map<size_t, uint64_t> sent;  // the newest version sent per table
  grpc::Status status = grpc::Status::OK;
  while (!context.IsCancelled()) {
    const auto item = stream->pop(std::chrono::milliseconds(100));
    if (!item) {
      if (!stream->overflowed()) continue;
      std::string resume;
      for (const auto& [table, version] : sent) {
        resume.append(resume.empty() ? "" : ", ")
            .append(fmt::format("table[name={}][since={}]", VeskTapAgg::kCatalogue[table].name,
                                version));
      }
      status = grpc::Status(
          grpc::StatusCode::RESOURCE_EXHAUSTED,
          fmt::format("this collector read too slowly: {} changes waited for it; resume "
                      "with {}",
                      feed.options.queueLimit, resume.empty() ? "a new subscription" : resume));
      break;
    }
    if (!rpc.Write(*item->response)) break;
    if (item->table != SIZE_MAX) sent[item->table] = item->version;
  }
  feed.leave(stream);
  return status;
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

grpc::Status GnmiTarget::Subscribe(grpc::ServerContext* context, Stream* rpc) {
  try {
    StreamSlot slot(streams_, maxStreams_);
    gnmi::SubscribeRequest request;
    if (!rpc->Read(&request)) return grpc::Status::OK;
    if (!request.has_subscribe()) {
      throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                      "the first request must be a subscription list, not a poll");
    }
    const gnmi::SubscriptionList& list = request.subscribe();
    const gnmi::Encoding encoding = checkedEncoding(list.encoding());
    auto subs = subscriptionsOf(list, feed_);
    switch (list.mode()) {
      case gnmi::SubscriptionList::ONCE:
        sendAll(*rpc, subs, encoding, feed_);
        return grpc::Status::OK;
      case gnmi::SubscriptionList::POLL:
        if (!sendAll(*rpc, subs, encoding, feed_)) return grpc::Status::OK;
        while (rpc->Read(&request)) {
          if (!request.has_poll()) {
            throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT,
                            "a POLL subscription takes only poll requests after its list");
          }
          if (!sendAll(*rpc, subs, encoding, feed_)) break;
        }
        return grpc::Status::OK;
      default:
        return streamUntilDone(
            *context, *rpc,
            std::make_shared<GnmiStream>(std::move(subs), encoding, list.updates_only(),
                                         feed_.options.queueLimit),
            feed_);
    }
  } catch (const GnmiError& e) {
    return e.status();
  }
}

}  // namespace VeskTool
