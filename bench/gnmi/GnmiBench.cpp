// vesk_gnmi_bench: the collectors' side of the gNMI benchmark (bench/gnmi/gnmi_bench.py runs
// the agent, the hardware side and the target around it).
//
//   vesk_gnmi_bench subscribe --port P --subscribers N --versions V
//     N ON_CHANGE streams of every entry of every table (PROTO, updates_only), each read on
//     its own thread, while a watcher notes when each table version first shows in the
//     change logs. Runs until stdin closes, then prints one JSON line: updates received,
//     change-to-collector latency (first seen committed -> received) p50/p99/max in µs,
//     streams that ended early and why.
//   vesk_gnmi_bench get --port P --path PATH [--times K]
//     K Gets of PATH (PROTO); prints the median time and the entries returned.
//
// Versions above V are not timed (the watcher's table is preallocated). Latencies are
// floors by up to the watcher's period (50 µs): it sleeps between looks so as not to take
// a core from the agent.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <grpcpp/grpcpp.h>
#include <CLI/CLI.hpp>

#include "gnmi/gnmi.grpc.pb.h"
#include "tools/core/AgentMemory.h"
#include "tools/core/TableDispatch.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t nowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
      .count();
}

// When each version of each table was first seen committed, in µs of Clock; 0 not yet.
class FirstSeen {
 public:
  explicit FirstSeen(uint64_t versions) : versions_(versions) {
    for (auto& t : seen_) t = std::make_unique<std::atomic<int64_t>[]>(versions + 1);
  }
  // Looks at every change log until `stop`, every 50 µs.
  void watch(const std::atomic<bool>& stop) {
    std::unique_ptr<VeskTool::AgentMemory> memory;
    std::array<uint64_t, VeskTool::kTableCount> last{};
    while (!stop) {
      try {
        if (!memory) {
          memory = std::make_unique<VeskTool::AgentMemory>(VeskTool::AgentMemory::Mounts::kept);
        }
        const int64_t now = nowUs();
        VeskTool::forEachTable([&]<class Traits>(size_t t) {
          const auto log = memory->changeLog<Traits>();
          if (!log) return;
          const uint64_t to = std::min(log->tableVersion, versions_);
          for (uint64_t v = last[t] + 1; v <= to; ++v) seen_[t][v].store(now);
          last[t] = std::max(last[t], to);
        });
      } catch (const std::exception&) {
        memory.reset();  // no agent yet, or a record being written: looked at again
      }
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
  int64_t at(size_t table, uint64_t version) const {
    return table < seen_.size() && version <= versions_ ? seen_[table][version].load() : 0;
  }

 private:
  uint64_t versions_;
  std::array<std::unique_ptr<std::atomic<int64_t>[]>, VeskTool::kTableCount> seen_;
};

gnmi::Path pathOf(const std::string& text) {
  gnmi::Path path;
  size_t at = 1;
  while (at < text.size()) {
    size_t end = at;
    int depth = 0;
    while (end < text.size() && (depth > 0 || text[end] != '/')) {
      depth += text[end] == '[' ? 1 : text[end] == ']' ? -1 : 0;
      ++end;
    }
    const std::string part = text.substr(at, end - at);
    auto* elem = path.add_elem();
    const size_t bracket = part.find('[');
    elem->set_name(part.substr(0, bracket));
    for (size_t b = bracket; b != std::string::npos; b = part.find('[', b + 1)) {
      const size_t eq = part.find('=', b), close = part.find(']', b);
      (*elem->mutable_key())[part.substr(b + 1, eq - b - 1)] = part.substr(eq + 1, close - eq - 1);
    }
    at = end + 1;
  }
  return path;
}

struct StreamResult {
  uint64_t updates = 0;
  uint64_t untimed = 0;
  std::vector<uint32_t> latenciesUs;
  std::string ended;  // why the stream ended before it was closed; empty if it did not
};

// One collector: reads its stream until the target ends it or `context` is cancelled.
void collect(gnmi::gNMI::Stub& stub, grpc::ClientContext& context, const FirstSeen& seen,
             StreamResult& result) {
  gnmi::SubscribeRequest request;
  auto* list = request.mutable_subscribe();
  list->set_mode(gnmi::SubscriptionList::STREAM);
  list->set_encoding(gnmi::PROTO);
  list->set_updates_only(true);
  auto* sub = list->add_subscription();
  *sub->mutable_path() = pathOf("/tables/table[name=*]/units/unit[id=*]/entries");
  sub->set_mode(gnmi::ON_CHANGE);
  auto stream = stub.Subscribe(&context);
  stream->Write(request);
  gnmi::SubscribeResponse response;
  while (stream->Read(&response)) {
    if (!response.has_update()) continue;
    const int64_t received = nowUs();
    const auto& n = response.update();
    size_t table = VeskTool::kTableCount;
    for (const auto& e : n.prefix().elem()) {
      if (e.name() == "table") table = VeskTool::tableIndexOf(e.key().at("name"));
    }
    for (const auto& u : n.update()) {
      const auto& elems = u.path().elem();
      if (elems.empty()) continue;
      const std::string& leaf = elems[elems.size() - 1].name();
      if (leaf != "version" && leaf != "committedVersion") continue;
      if (leaf == "committedVersion") {
        for (const auto& e : elems) {
          if (e.name() == "table") table = VeskTool::tableIndexOf(e.key().at("name"));
        }
      }
      ++result.updates;
      const int64_t committed = seen.at(table, u.val().uint_val());
      if (committed == 0) {
        ++result.untimed;
      } else {
        result.latenciesUs.push_back(uint32_t(std::max<int64_t>(0, received - committed)));
      }
    }
  }
  const grpc::Status status = stream->Finish();
  if (status.error_code() != grpc::StatusCode::CANCELLED) {
    result.ended = fmt::format("{}: {}", int(status.error_code()), status.error_message());
  }
}

int subscribe(int port, int subscribers, uint64_t versions) {
  FirstSeen seen(versions);
  std::atomic<bool> stop = false;
  std::thread watcher([&] { seen.watch(stop); });
  auto channelArgs = grpc::ChannelArguments();
  channelArgs.SetMaxReceiveMessageSize(-1);
  std::vector<std::shared_ptr<grpc::Channel>> channels;
  std::vector<std::unique_ptr<gnmi::gNMI::Stub>> stubs;
  std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
  std::vector<StreamResult> results(static_cast<size_t>(subscribers));
  std::vector<std::thread> readers;
  for (int s = 0; s < subscribers; ++s) {
    // A channel each, as separate collectors would have.
    channelArgs.SetInt("vesk.collector", s);
    channels.push_back(grpc::CreateCustomChannel(fmt::format("localhost:{}", port),
                                                 grpc::InsecureChannelCredentials(), channelArgs));
    stubs.push_back(gnmi::gNMI::NewStub(channels.back()));
    contexts.push_back(std::make_unique<grpc::ClientContext>());
    readers.emplace_back(
        [&, s] { collect(*stubs[size_t(s)], *contexts[size_t(s)], seen, results[size_t(s)]); });
  }
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
  }
  for (auto& c : contexts) c->TryCancel();
  for (auto& r : readers) r.join();
  stop = true;
  watcher.join();

  StreamResult all;
  std::vector<std::string> ended;
  for (auto& r : results) {
    all.updates += r.updates;
    all.untimed += r.untimed;
    all.latenciesUs.insert(all.latenciesUs.end(), r.latenciesUs.begin(), r.latenciesUs.end());
    if (!r.ended.empty()) ended.push_back(r.ended);
  }
  auto& l = all.latenciesUs;
  std::sort(l.begin(), l.end());
  const auto pct = [&](double p) { return l.empty() ? 0u : l[size_t(p * double(l.size() - 1))]; };
  fmt::print(
      "{{\"subscribers\": {}, \"updates\": {}, \"untimed\": {}, \"latency_us\": {{\"p50\": {}, "
      "\"p99\": {}, \"max\": {}}}, \"ended\": {}, \"why\": \"{}\"}}\n",
      subscribers, all.updates, all.untimed, pct(0.5), pct(0.99), l.empty() ? 0u : l.back(),
      ended.size(), ended.empty() ? "" : ended.front());
  return 0;
}

int get(int port, const std::string& path, int times, gnmi::Encoding encoding) {
  auto channelArgs = grpc::ChannelArguments();
  channelArgs.SetMaxReceiveMessageSize(-1);
  auto stub = gnmi::gNMI::NewStub(grpc::CreateCustomChannel(
      fmt::format("localhost:{}", port), grpc::InsecureChannelCredentials(), channelArgs));
  std::vector<double> ms;
  size_t notifications = 0, bytes = 0;
  for (int i = 0; i < times; ++i) {
    gnmi::GetRequest request;
    *request.add_path() = pathOf(path);
    request.set_encoding(encoding);
    gnmi::GetResponse response;
    grpc::ClientContext context;
    const auto start = Clock::now();
    const grpc::Status status = stub->Get(&context, request, &response);
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    if (!status.ok()) {
      fmt::print(stderr, "vesk_gnmi_bench: Get {} failed: {}\n", path, status.error_message());
      return 1;
    }
    notifications = size_t(response.notification_size());
    bytes = response.ByteSizeLong();
  }
  std::sort(ms.begin(), ms.end());
  fmt::print(
      "{{\"path\": \"{}\", \"encoding\": \"{}\", \"notifications\": {}, \"bytes\": {}, "
      "\"median_ms\": {:.1f}}}\n",
      path, gnmi::Encoding_Name(encoding), notifications, bytes, ms[ms.size() / 2]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The collectors' side of the gNMI benchmark (bench/gnmi/gnmi_bench.py)");
  app.require_subcommand(1);
  int port = 0, subscribers = 1, times = 5;
  uint64_t versions = 1000000;
  std::string path;
  auto* sub = app.add_subcommand("subscribe", "N ON_CHANGE streams until stdin closes");
  sub->add_option("--port", port, "the target's port on localhost")->required();
  sub->add_option("--subscribers", subscribers, "streams")->check(CLI::Range(0, 1000));
  sub->add_option("--versions", versions, "newest version timed, per table");
  auto* getCmd = app.add_subcommand("get", "time a Get");
  getCmd->add_option("--port", port, "the target's port on localhost")->required();
  getCmd->add_option("--path", path, "the path to get")->required();
  getCmd->add_option("--times", times, "Gets, of which the median is told")
      ->check(CLI::Range(1, 1000));
  std::string encoding = "PROTO";
  getCmd->add_option("--encoding", encoding, "PROTO, JSON or JSON_IETF")
      ->check(CLI::IsMember({"PROTO", "JSON", "JSON_IETF"}));
  CLI11_PARSE(app, argc, argv);
  if (*sub) return subscribe(port, subscribers, versions);
  gnmi::Encoding wire = gnmi::PROTO;
  gnmi::Encoding_Parse(encoding, &wire);
  return get(port, path, times, wire);
}
