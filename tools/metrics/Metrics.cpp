#include "tools/metrics/Metrics.h"

#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <httplib.h>
#include <asio.hpp>

#include "tools/core/AgentCounters.h"
#include "tools/core/AgentMemory.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

struct Family {
  const char* name;
  const char* type;
  const char* help;
};

// What the running agent publishes.
constexpr Family kAgentUp{"vesktap_agent_up", "gauge",
                          "1 while an agent runs on this shared-memory root, else 0"};
constexpr Family kWrites{"vesktap_writes_total", "counter",
                         "Entry writes the agent's clients asked of the unit's table"};
constexpr Family kRemoves{"vesktap_removes_total", "counter",
                          "Entry removes the agent's clients asked of the unit's table"};
constexpr Family kCommits{"vesktap_commits_total", "counter",
                          "Changes the unit's table committed to its change log"};
constexpr Family kSuppressed{
    "vesktap_suppressed_writes_total", "counter",
    "Writes of an entry the unit's table held already, answered without a change"};
constexpr Family kClears{"vesktap_table_clears_total", "counter",
                         "Remove-alls of the unit's table that reached the change log"};
constexpr Family kConfirmations{
    "vesktap_confirmations_total", "counter",
    "Changes the agent answered its clients as done (taken by the hardware side)"};
constexpr Family kFailures{"vesktap_failed_changes_total", "counter",
                           "Changes the agent answered its clients as failed"};
constexpr Family kPending{"vesktap_pending_changes", "gauge",
                          "Changes the agent accepted and has not answered yet"};
// What the shared memory holds.
constexpr Family kVersion{"vesktap_table_version", "gauge",
                          "Newest version committed to the table type's change log"};
constexpr Family kTaken{"vesktap_hardware_taken_version", "gauge",
                        "Newest version of the table type the hardware side has taken"};
constexpr Family kLag{"vesktap_hardware_lag_versions", "gauge",
                      "Table version minus the version the hardware side has taken"};
constexpr Family kLogRecords{"vesktap_change_log_records", "gauge",
                             "Records the table type's change log holds"};
constexpr Family kLogLimit{"vesktap_change_log_records_limit", "gauge",
                           "Records the table type's change log holds at most"};
constexpr Family kEntries{"vesktap_unit_entries", "gauge",
                          "Entries of the unit's configuration, live or tombstones; both count "
                          "against its limit"};
constexpr Family kEntriesLimit{"vesktap_unit_entries_limit", "gauge",
                               "Entries the unit's configuration holds at most"};
constexpr Family kNotInHardware{
    "vesktap_unit_entries_not_in_hardware", "gauge",
    "Live entries of the unit that its simulated TCAM lacks or holds otherwise"};
constexpr Family kReadErrors{"vesktap_read_errors", "gauge",
                             "Parts of the shared memory that could not be read for this output"};

using Labels = std::vector<std::pair<const char*, std::string>>;

// Metric families, each printed once: its HELP and TYPE lines, then its samples, families
// in the order they were first given a sample.
class Exposition {
 public:
  void add(const Family& family, const Labels& labels, uint64_t value) {
    auto it = std::find_if(families_.begin(), families_.end(),
                           [&](const auto& f) { return f.first == &family; });
    if (it == families_.end()) it = families_.insert(families_.end(), {&family, {}});
    std::string& samples = it->second;
    samples += family.name;
    for (size_t i = 0; i < labels.size(); ++i) {
      samples += i == 0 ? '{' : ',';
      samples += fmt::format("{}=\"{}\"", labels[i].first, escaped(labels[i].second));
    }
    samples += labels.empty() ? "" : "}";
    samples += fmt::format(" {}\n", value);
  }

  std::string text() const {
    std::string text;
    for (const auto& [family, samples] : families_) {
      text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{3}", family->name, family->help,
                          family->type, samples);
    }
    return text;
  }

 private:
  static std::string escaped(std::string_view value) {
    std::string text;
    for (char c : value) {
      if (c == '\\' || c == '"') text += '\\';
      text += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return text;
  }

  std::vector<std::pair<const Family*, std::string>> families_;
};

void addAgentCounters(Exposition& e, std::vector<std::string>& errors) {
  std::optional<AgentCounters::Snapshot> counters;
  try {
    counters = AgentCounters::read();
  } catch (const std::exception& error) {
    errors.push_back(error.what());  // whether an agent runs is not known
    return;
  }
  const bool up = counters && counters->running;
  e.add(kAgentUp, {}, up);
  if (!up) return;
  for (size_t t = 0; t < kTableCount; ++t) {
    const Labels table{{"table", std::string(VeskTapAgg::kCatalogue[t].name)}};
    const AgentCounters::Table& answers = counters->tables[t];
    e.add(kConfirmations, table, answers.confirmed);
    e.add(kFailures, table, answers.failed);
    e.add(kPending, table, answers.pending);
    for (size_t i = 0; i < counters->units.size(); ++i) {
      Labels unit = table;
      unit.emplace_back("unit", std::to_string(counters->units[i]));
      const AgentCounters::Unit& u = counters->unit(t, i);
      e.add(kWrites, unit, u.writes);
      e.add(kRemoves, unit, u.removes);
      e.add(kCommits, unit, u.commits);
      e.add(kSuppressed, unit, u.suppressedWrites);
      e.add(kClears, unit, u.tableClears);
    }
  }
}

// Runs `read`; what it throws is an error of the part named `what`.
template <class Read>
void readPart(const std::string& what, std::vector<std::string>& errors, Read&& read) {
  try {
    read();
  } catch (const std::exception& error) {
    errors.push_back(fmt::format("{}: {}", what, error.what()));
  }
}

template <class Traits>
void addTable(Exposition& e, const AgentMemory& memory, std::vector<std::string>& errors) {
  const std::string name(Traits::tableName);
  const Labels table{{"table", name}};
  readPart(name + " change log", errors, [&] {
    const auto log = memory.changeLog<Traits>();
    const auto taken = memory.hardwareTaken(Traits::tableId);
    if (taken) e.add(kTaken, table, taken->value());
    if (!log) return;
    e.add(kVersion, table, log->tableVersion);
    const uint64_t hardware = taken ? taken->value() : 0;
    e.add(kLag, table, log->tableVersion > hardware ? log->tableVersion - hardware : 0);
    e.add(kLogRecords, table, log->records);
    e.add(kLogLimit, table, log->capacity);
  });
  std::vector<Asic::UnitId> units;
  readPart(name + " units", errors, [&] { units = memory.units<Traits>(); });
  for (Asic::UnitId u : units) {
    const std::string where = fmt::format("{} unit {}", name, u.value());
    readPart(where + " configuration", errors, [&] {
      const auto contents = memory.template unit<Traits>(u, false);
      if (!contents) return;
      Labels unit = table;
      unit.emplace_back("unit", std::to_string(u.value()));
      Labels live = unit, tombstones = unit;
      live.emplace_back("state", "live");
      tombstones.emplace_back("state", "tombstone");
      e.add(kEntries, live, contents->liveEntries);
      e.add(kEntries, tombstones, contents->tombstones);
      e.add(kEntriesLimit, unit, contents->capacity);
      if (contents->tcamError) {
        errors.push_back(fmt::format("{} TCAM: {}", where, *contents->tcamError));
      } else {
        e.add(kNotInHardware, unit, contents->notInHardware);
      }
    });
  }
}

// The whole text; the parts that could not be read are added to `errors`.
std::string metricsText(std::vector<std::string>& errors) {
  Exposition e;
  addAgentCounters(e, errors);
  try {
    const AgentMemory memory;
    forEachTable([&]<class Traits>(size_t) { addTable<Traits>(e, memory, errors); });
  } catch (const NoAgentMemoryError&) {
    // Nothing written yet: only whether an agent runs.
  } catch (const std::exception& error) {
    errors.push_back(error.what());
  }
  e.add(kReadErrors, {}, errors.size());
  return e.text();
}

std::string urlHost(const std::string& host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

}  // namespace

ListenAddress parseListenAddress(std::string_view text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) {
    throw std::invalid_argument("expected host:port, such as 127.0.0.1:9464");
  }
  ListenAddress address;
  address.host = std::string(text.substr(0, colon));
  if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']')
    address.host = address.host.substr(1, address.host.size() - 2);
  const std::string_view port = text.substr(colon + 1);
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
  if (port.empty() || error != std::errc() || end != port.data() + port.size()) {
    throw std::invalid_argument("the port is not a whole number from 0 to 65535");
  }
  return address;
}

void printMetrics(std::ostream& out, std::ostream& err) {
  std::vector<std::string> errors;
  out << metricsText(errors);
  out.flush();
  for (const std::string& error : errors) fmt::print(err, "vesktap: metrics: {}\n", error);
}

int serveMetrics(const ListenAddress& address, std::ostream& err) {
  // Requests are served on the server's threads; shared memory is read by one at a time.
  std::mutex reading;
  std::set<std::string> told;
  httplib::Server server;
  // Not httplib's SO_REUSEPORT, with which a second server on the port would share its
  // requests rather than be refused.
  server.set_socket_options([](int socket) {
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server.Get("/metrics", [&](const httplib::Request&, httplib::Response& response) {
    std::vector<std::string> errors;
    const std::lock_guard lock(reading);
    response.set_content(metricsText(errors), "text/plain; version=0.0.4; charset=utf-8");
    for (const std::string& error : errors) {
      if (told.insert(error).second) fmt::print(err, "vesktap: metrics: {}\n", error);
    }
    err.flush();
  });

  // SIGTERM and SIGINT stop the server; one that comes before it runs is kept for then.
  asio::io_context io;
  asio::signal_set signals(io, SIGTERM, SIGINT);
  asio::steady_timer retry(io);
  int stopSignal = 0;
  std::function<void()> stop = [&] {
    if (server.is_running()) return server.stop();
    retry.expires_after(std::chrono::milliseconds(10));
    retry.async_wait([&](const asio::error_code& error) {
      if (!error) stop();
    });
  };
  signals.async_wait([&](const asio::error_code& error, int signal) {
    if (error) return;
    stopSignal = signal;
    stop();
  });

  const int port = address.port == 0 ? server.bind_to_any_port(address.host)
                   : server.bind_to_port(address.host, address.port) ? address.port
                                                                     : -1;
  if (port < 0) {
    throw std::runtime_error(fmt::format(
        "cannot listen on {}:{} (a port in use, or an address not of this machine: pick another "
        "with --listen)",
        urlHost(address.host), address.port));
  }
  const std::string url = fmt::format("http://{}:{}/metrics", urlHost(address.host), port);
  fmt::print(err, "metrics: serving {}\n", url);
  err.flush();
  std::thread listener([&] {
    server.listen_after_bind();
    io.stop();
  });
  io.run();
  listener.join();
  if (stopSignal == 0) throw std::runtime_error(fmt::format("stopped serving {}", url));
  return stopSignal;
}

}  // namespace VeskTool
