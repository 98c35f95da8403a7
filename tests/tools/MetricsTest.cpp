// `vesktap metrics`: what a real agent and hardware side did, in the Prometheus text
// format, printed once or served over HTTP.

#include <gtest/gtest.h>
#include <httplib.h>

#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>

#include <fmt/format.h>

#include "tests/tools/CliSupport.h"

namespace VeskTest {
namespace {

using Labels = std::map<std::string, std::string>;

// The samples of a text in the Prometheus exposition format, by family; a text that
// breaks the format fails the test that parses it.
class Exposition {
 public:
  explicit Exposition(const std::string& text) {
    static const std::regex help(R"(# HELP (vesktap_[a-z_]+) \S.*)");
    static const std::regex type(R"(# TYPE (vesktap_[a-z_]+) (counter|gauge))");
    static const std::regex sample(R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{(.*)\})? ([0-9]+))");
    static const std::regex label(R"(([a-zA-Z_][a-zA-Z0-9_]*)=\"((?:[^"\\]|\\.)*)\"(,|$))");
    std::istringstream lines(text);
    std::string family;  // whose samples may follow
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
      if (std::regex_match(line, m, help)) {
        EXPECT_TRUE(helped_.insert(m[1]).second) << "a second HELP: " << line;
        family = m[1];
      } else if (std::regex_match(line, m, type)) {
        EXPECT_EQ(m[1], family) << "TYPE without its HELP: " << line;
        EXPECT_EQ(m[2] == "counter", family.ends_with("_total")) << line;
        EXPECT_TRUE(samples_.emplace(family, std::vector<Sample>()).second) << line;
      } else if (std::regex_match(line, m, sample)) {
        EXPECT_EQ(m[1], family) << "a sample outside its family: " << line;
        Labels labels;
        std::string rest = m[3];
        for (std::smatch l; std::regex_search(rest, l, label) && l.position() == 0;
             rest = l.suffix()) {
          labels[l[1]] = l[2];
        }
        EXPECT_TRUE(rest.empty()) << "malformed labels: " << line;
        samples_[family].push_back({labels, std::stoull(m[4])});
      } else {
        ADD_FAILURE() << "not in the exposition format: " << line;
      }
    }
  }

  bool has(const std::string& family) const { return samples_.contains(family); }

  // The value of the one sample with these labels; nothing when there is none.
  std::optional<uint64_t> value(const std::string& family, const Labels& labels = {}) const {
    const auto it = samples_.find(family);
    if (it == samples_.end()) return std::nullopt;
    for (const Sample& s : it->second) {
      if (s.labels == labels) return s.value;
    }
    return std::nullopt;
  }

  // The sum of the samples whose labels include these.
  uint64_t sum(const std::string& family, const Labels& labels) const {
    uint64_t total = 0;
    const auto it = samples_.find(family);
    for (const Sample& s : it == samples_.end() ? std::vector<Sample>() : it->second) {
      bool matches = true;
      for (const auto& [name, value] : labels)
        matches &= s.labels.count(name) && s.labels.at(name) == value;
      if (matches) total += s.value;
    }
    return total;
  }

 private:
  struct Sample {
    Labels labels;
    uint64_t value;
  };
  std::set<std::string> helped_;
  std::map<std::string, std::vector<Sample>> samples_;
};

Exposition metrics() {
  const auto printed = run({"metrics"});
  EXPECT_EQ(printed.code, 0) << printed.err;
  EXPECT_EQ(printed.err, "");
  return Exposition(printed.out);
}

class MetricsTest : public ::testing::Test {
 protected:
  FreshRoot fresh_{"vesk-metrics"};
};

TEST_F(MetricsTest, CountWhatTheAgentAndTheHardwareSideDid) {
  Exposition nothing = metrics();  // on a root no agent has used
  EXPECT_EQ(nothing.value("vesktap_agent_up"), 0u);
  EXPECT_EQ(nothing.value("vesktap_read_errors"), 0u);

  // Writes and removes of two table types on two units, the agent serving on.
  const std::string action = "DefaultFwdTcamAction", entry = "ServicePolicyMacTcamEntry";
  std::map<std::string, std::map<std::string, uint64_t>> writes, removes;  // table -> unit
  const std::string workload = fresh_.path() + "/workload.txt";
  std::ofstream file(workload);
  const auto change = [&](const char* kind, const std::string& table, int unit, int key) {
    file << fmt::format("{} {} {} {}{}\n", kind, table, unit, key, kind[0] == 'w' ? " 3" : "");
    ++(kind[0] == 'w' ? writes : removes)[table][std::to_string(unit)];
  };
  for (int key = 0; key < 30; ++key) {
    change("write", action, 0, key);
    change("write", action, 1, key);
  }
  for (int key = 0; key < 10; ++key) change("remove", action, 0, key);
  for (int key = 0; key < 25; ++key) change("write", entry, 1, key);
  file.close();
  const uint64_t changes = 60 + 10 + 25;
  Vesktap agent(
      {"agent", "--units", "0", "1", "--workload", workload, "--serve", "--progress-ms", "10"});
  ASSERT_TRUE(agent.awaitOutput(
      fmt::format("progress: {0}/{0} accepted, {0} committed, 0 confirmed", changes)))
      << agent.err();

  // No hardware side has taken anything: it lags by everything committed.
  Exposition before = metrics();
  EXPECT_EQ(before.value("vesktap_agent_up"), 1u);
  EXPECT_FALSE(before.has("vesktap_hardware_taken_version"));
  EXPECT_EQ(before.value("vesktap_hardware_lag_versions", {{"table", action}}), 70u);
  EXPECT_EQ(before.value("vesktap_hardware_lag_versions", {{"table", entry}}), 25u);

  Vesktap hw({"hw"});
  ASSERT_TRUE(agent.awaitOutput(fmt::format("{0} committed, {0} confirmed", changes)))
      << agent.err();
  Exposition after = metrics();
  EXPECT_EQ(after.value("vesktap_agent_up"), 1u);
  EXPECT_EQ(after.value("vesktap_read_errors"), 0u);
  for (const std::string& table : {action, entry}) {
    const Labels t{{"table", table}};
    EXPECT_EQ(after.value("vesktap_hardware_lag_versions", t), 0u) << table;
    EXPECT_EQ(after.value("vesktap_hardware_taken_version", t),
              after.value("vesktap_table_version", t));
    EXPECT_EQ(after.value("vesktap_pending_changes", t), 0u) << table;
    uint64_t confirmed = 0;
    for (const std::string unit : {"0", "1"}) {
      const Labels u{{"table", table}, {"unit", unit}};
      EXPECT_EQ(after.value("vesktap_writes_total", u), writes[table][unit]) << table << unit;
      EXPECT_EQ(after.value("vesktap_removes_total", u), removes[table][unit]) << table << unit;
      EXPECT_EQ(after.value("vesktap_commits_total", u), writes[table][unit] + removes[table][unit])
          << table << unit;
      confirmed += writes[table][unit] + removes[table][unit];
    }
    EXPECT_EQ(after.value("vesktap_confirmations_total", t), confirmed) << table;
  }
  EXPECT_EQ(after.sum("vesktap_unit_entries", {{"table", action}, {"state", "live"}}), 50u);
  EXPECT_EQ(after.sum("vesktap_unit_entries_not_in_hardware", {}), 0u);

  // A killed agent leaves its counters behind, and they are not taken for a running one's;
  // what the shared memory holds is still there.
  agent.signal(SIGKILL);
  agent.wait();
  Exposition killed = metrics();
  EXPECT_EQ(killed.value("vesktap_agent_up"), 0u);
  EXPECT_FALSE(killed.has("vesktap_writes_total"));
  EXPECT_EQ(killed.value("vesktap_table_version", {{"table", entry}}),
            after.value("vesktap_table_version", {{"table", entry}}));
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 128 + SIGTERM) << hw.err();
}

TEST_F(MetricsTest, ServeTheSameOverHttpReadAfreshForEachRequest) {
  Vesktap server({"metrics", "--listen", "127.0.0.1:0"});
  ASSERT_TRUE(server.awaitOutput("/metrics\n")) << server.err();
  std::smatch m;
  const std::string told = server.err();
  ASSERT_TRUE(std::regex_search(told, m, std::regex("serving http://127.0.0.1:([0-9]+)/metrics")))
      << told;
  const int port = std::stoi(m[1]);
  httplib::Client client("127.0.0.1", port);
  const auto scrape = [&] {
    const auto response = client.Get("/metrics");
    EXPECT_TRUE(response) << httplib::to_string(response.error());
    if (!response) return Exposition("");
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->get_header_value("Content-Type"),
              "text/plain; version=0.0.4; charset=utf-8");
    return Exposition(response->body);
  };
  EXPECT_FALSE(scrape().has("vesktap_table_version"));
  ASSERT_EQ(
      run({"agent", "--units", "0", "--changes", "100", "--no-wait", "--progress-ms", "0"}).code,
      0);
  EXPECT_TRUE(scrape().has("vesktap_table_version"));

  // A second server on the same port is refused rather than sharing its requests.
  const std::string address = fmt::format("127.0.0.1:{}", port);
  Vesktap second({"metrics", "--listen", address});
  ASSERT_TRUE(second.awaitOutput(address)) << second.err();  // serving, or refused
  EXPECT_TRUE(contains(second.err(), "cannot listen on " + address));
  if (second.err().find("serving") == std::string::npos) {
    EXPECT_EQ(second.wait(), 1);
  }

  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 128 + SIGTERM) << server.err();
}

}  // namespace
}  // namespace VeskTest
