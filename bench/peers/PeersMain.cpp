// vesk_peers_bench: the same change workload on the entry log and on the stores it is
// measured against, one after the other in one run, then their rates and ratios.
//   vesk_peers_bench [--changes N] [--keys N] [--rounds N] [--only STORE]... [--json FILE]
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Peer.h"

namespace VeskPeers {

namespace {

constexpr uint64_t kTrimEvery = 1000;  // changes between two trims
constexpr uint64_t kLogKeep = 1000;    // log records a trim keeps
constexpr double kDeleteShare = 0.10;
constexpr uint64_t kSeed = 0x5eed'7a61'2024'0001ULL;

// The run's scratch directory on tmpfs, also the entry log's shared-memory root
// (VESK_SHM_ROOT); removed at exit. Owned by main; one thread.
class ScratchRoot {
 public:
  ScratchRoot() : path_("/dev/shm/vesk-peers-" + std::to_string(::getpid())) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
    ::setenv("VESK_SHM_ROOT", path_.c_str(), 1);
  }
  ~ScratchRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

struct Result {
  std::string name;
  double seconds = 0;
  uint64_t changes = 0;
  std::optional<std::string> error;
  std::string check;
  double rate() const { return seconds > 0 ? double(changes) / seconds : 0; }
};

std::string storeOf(const std::string& peerName) { return peerName.substr(0, peerName.find('/')); }

// Runs the whole workload on one peer; only the changes and trims are timed.
Result run(Peer& peer, const Workload& w, const std::string& root) {
  Result r;
  r.name = peer.name();
  std::string dir = root + "/" + storeOf(r.name) + "-" + r.name.substr(r.name.find('/') + 1);
  std::filesystem::create_directories(dir);
  try {
    peer.open(dir);
    using Clock = std::chrono::steady_clock;
    auto start = Clock::now();
    auto nextReport = start + std::chrono::seconds(5);
    uint64_t n = 0;
    while (n < w.size()) {
      peer.change(w.at(n));
      ++n;
      if (n % kTrimEvery == 0 || n == w.size()) {
        peer.trimTo(n > kLogKeep ? n - kLogKeep + 1 : 1);
        if (n % 100'000 == 0 && Clock::now() >= nextReport) {
          double s = std::chrono::duration<double>(Clock::now() - start).count();
          fmt::print(stderr, "  {}: {} / {} changes, {:.0f} changes/s so far\n", r.name, n,
                     w.size(), double(n) / s);
          nextReport = Clock::now() + std::chrono::seconds(5);
        }
      }
    }
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    r.changes = n;
    Tally t = peer.tally();
    uint64_t logExpected = std::min<uint64_t>(w.size(), kLogKeep);
    bool ok =
        t.liveKeys == w.liveKeysAtEnd() && t.logRecords == logExpected && t.version == w.size();
    r.check =
        ok ? "ok"
           : fmt::format("MISMATCH: live {} (want {}), log {} (want {}), version {} (want {})",
                         t.liveKeys, w.liveKeysAtEnd(), t.logRecords, logExpected, t.version,
                         w.size());
    peer.close();
  } catch (const std::exception& e) {
    r.error = e.what();
    try {
      peer.close();
    } catch (...) {
    }
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return r;
}

const Result* find(const std::vector<Result>& results, const std::string& name) {
  for (const Result& r : results) {
    if (r.name == name && !r.error && r.rate() > 0) return &r;
  }
  return nullptr;
}

// "entry log / <peer>": the ratio of rates, whether it meets `target` (a lower bound on the
// ratio), or why it cannot be told.
void printTarget(const std::vector<Result>& results, const std::string& label,
                 const std::string& other, double target, const std::string& targetText) {
  const Result* log = find(results, "entrylog/change");
  const Result* peer = find(results, other);
  if (!log || !peer) {
    fmt::print("entry log / {}: n/a ({} did not run)\n", label, !log ? "the entry log" : other);
    return;
  }
  double ratio = log->rate() / peer->rate();
  fmt::print("entry log / {}: {:.2f}x  (target {}: {})\n", label, ratio, targetText,
             ratio >= target ? "met" : "NOT met");
}

// The run as JSON, for scripts that plot it: the workload, then one record per store and way.
nlohmann::ordered_json resultsJson(const Workload& w, unsigned rounds,
                                   const std::vector<Result>& results,
                                   const std::vector<std::string>& skipped) {
  nlohmann::ordered_json j;
  j["workload"] = {{"changes", w.size()},
                   {"keys", w.keys()},
                   {"writes", w.writes()},
                   {"deletes", w.deletes()},
                   {"liveKeysAtEnd", w.liveKeysAtEnd()},
                   {"trimEvery", kTrimEvery},
                   {"logKeep", kLogKeep},
                   {"seed", kSeed},
                   {"rounds", rounds}};
  j["results"] = nlohmann::ordered_json::array();
  for (const Result& r : results) {
    nlohmann::ordered_json one = {{"peer", r.name}};
    if (r.error) {
      one["error"] = *r.error;
    } else {
      one["changes"] = r.changes;
      one["seconds"] = r.seconds;
      one["changesPerSecond"] = r.rate();
      one["nsPerChange"] = r.rate() > 0 ? 1e9 / r.rate() : 0.0;
      one["check"] = r.check;
    }
    j["results"].push_back(std::move(one));
  }
  j["skipped"] = skipped;
  return j;
}

int runMain(int argc, char** argv) {
  uint64_t changes = 1'000'000;
  uint32_t keys = 65'536;
  unsigned rounds = 1;
  std::vector<std::string> only;
  std::string jsonPath;
  CLI::App app{
      "Runs one change workload on the entry log and on LMDB, SQLite, Redis and a bare "
      "shared-memory table, and prints each one's changes/s and the ratios."};
  app.add_option("--changes", changes, "Changes to apply")->check(CLI::Range(1ULL, 1ULL << 40));
  app.add_option("--keys", keys, "Distinct keys the changes pick from")
      ->check(CLI::Range(1U, 65'536U));
  app.add_option("--rounds", rounds, "Runs per store and way; the fastest one counts")
      ->check(CLI::Range(1U, 100U));
  app.add_option("--only", only,
                 "Run only this store (lmdb, sqlite, redis, bare, entrylog) or way "
                 "(e.g. lmdb/change); repeatable");
  app.add_option("--json", jsonPath, "Also write the results as JSON to this file");
  CLI11_PARSE(app, argc, argv);

  // Opened before the run, so that a path that cannot be written fails at once.
  std::ofstream jsonOut;
  if (!jsonPath.empty()) {
    jsonOut.open(jsonPath);
    if (!jsonOut) {
      fmt::print(stderr, "vesk_peers_bench: --json: cannot write {}: {} (give a writable path)\n",
                 jsonPath, std::strerror(errno));
      return 2;
    }
  }

  ScratchRoot root;
  PeerList peers;
  std::vector<std::string> skipped;
  addLmdbPeers(peers);
  addSqlitePeers(peers);
  addRedisPeers(peers, skipped);
  addBarePeers(peers);
  addEntryLogPeers(peers);
  if (!only.empty()) {
    std::erase_if(peers, [&](const std::unique_ptr<Peer>& p) {
      return std::none_of(only.begin(), only.end(), [&](const std::string& o) {
        return o == p->name() || o == storeOf(p->name());
      });
    });
    std::erase_if(skipped, [&](const std::string& s) {
      return std::none_of(only.begin(), only.end(), [&](const std::string& o) {
        return storeOf(o) == s.substr(0, s.find(':'));
      });
    });
    if (peers.empty() && skipped.empty()) {
      fmt::print(stderr, "--only matches no store (lmdb, sqlite, redis, bare, entrylog)\n");
      return 2;
    }
  }

  Workload w(changes, keys, kDeleteShare, kSeed);
  fmt::print("workload: {} changes over {} keys ({}-byte key, {}-byte entry), seed {:#x}\n",
             w.size(), w.keys(), sizeof(Key), sizeof(Entry), kSeed);
  fmt::print(
      "          {} writes, {} deletes ({} deletes of absent keys made writes), "
      "{} live keys at the end\n",
      w.writes(), w.deletes(), w.deletesTurnedToWrites(), w.liveKeysAtEnd());
  fmt::print(
      "          each change: config put/delete, log append, table version; "
      "log trimmed to its newest {} every {} changes\n",
      kLogKeep, kTrimEvery);
  fmt::print("          {}\n\n", rounds == 1
                                     ? std::string("one run per store and way")
                                     : fmt::format("fastest of {} runs per store and way", rounds));
  std::fflush(stdout);

  std::vector<Result> results;
  for (auto& peer : peers) {
    Result r;
    for (unsigned round = 1; round <= rounds; ++round) {
      fmt::print(stderr, "running {} ({} of {}) ...\n", peer->name(), round, rounds);
      Result one = run(*peer, w, root.path());
      bool bad = one.error || one.check != "ok";
      if (round == 1 || bad || one.rate() > r.rate()) r = std::move(one);
      if (bad) break;
    }
    results.push_back(r);
    if (r.error) {
      fmt::print("{:<16} FAILED: {}\n", r.name, *r.error);
    } else {
      fmt::print("{:<16} {:>12.0f} changes/s {:>10.1f} ns/change   {}\n", r.name, r.rate(),
                 1e9 / r.rate(), r.check);
    }
    std::fflush(stdout);
  }
  for (const std::string& s : skipped) fmt::print("skipped {}\n", s);

  std::vector<const Result*> ran;
  for (const Result& r : results) {
    if (!r.error && r.rate() > 0) ran.push_back(&r);
  }
  if (ran.size() > 1) {
    fmt::print("\nratio of rates (row / column):\n{:<16}", "");
    for (const Result* c : ran) fmt::print(" {:>15}", c->name);
    fmt::print("\n");
    for (const Result* row : ran) {
      fmt::print("{:<16}", row->name);
      for (const Result* c : ran) fmt::print(" {:>14.2f}x", row->rate() / c->rate());
      fmt::print("\n");
    }
  }
  fmt::print("\n");
  printTarget(results, "LMDB per-change", "lmdb/change", 5.0, ">= 5x");
  printTarget(results, "bare limit", "bare/shm", 0.5, "within 2x, >= 0.50x");
  if (jsonOut.is_open()) {
    jsonOut << resultsJson(w, rounds, results, skipped).dump(2) << '\n';
    jsonOut.close();
    if (!jsonOut) {
      fmt::print(stderr, "vesk_peers_bench: --json: writing {} failed (is the disk full?)\n",
                 jsonPath);
      return 1;
    }
  }
  bool failed = std::any_of(results.begin(), results.end(),
                            [](const Result& r) { return r.error || r.check != "ok"; });
  return failed ? 1 : 0;
}

}  // namespace

}  // namespace VeskPeers

int main(int argc, char** argv) {
  try {
    return VeskPeers::runMain(argc, argv);
  } catch (const std::exception& e) {
    fmt::print(stderr, "vesk_peers_bench: {}\n", e.what());
    return 1;
  }
}
