#include "tools/demo/Demo.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fmt/ostream.h>
#include <nlohmann/json.hpp>

#include "tools/core/TableDispatch.h"
#include "tools/demo/Agreement.h"

namespace VeskTool {
namespace {

using Clock = std::chrono::steady_clock;

// A child process running this program with `args`: its status lines (stderr) in a pipe,
// its report (stdout) dropped, since the demo reads the agent's report from its JSON file.
struct Child {
  pid_t pid = -1;
  FILE* status = nullptr;

  Child(const std::string& exe, const std::vector<std::string>& args) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("cannot make a pipe");
    // Only the streams the child inherits: flushing every stream would wait on the lock of
    // the hardware side's status pipe, which a reader thread holds while it waits in fgets.
    std::fflush(stdout);
    std::fflush(stderr);
    pid = fork();
    if (pid == 0) {
      dup2(fds[1], STDERR_FILENO);
      const int null = open("/dev/null", O_WRONLY);
      if (null >= 0) dup2(null, STDOUT_FILENO);
      close(fds[0]);
      close(fds[1]);
      std::vector<char*> argv{const_cast<char*>(exe.c_str())};
      for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(exe.c_str(), argv.data());
      _exit(127);
    }
    close(fds[1]);
    status = fdopen(fds[0], "r");
  }
  ~Child() {
    if (status) fclose(status);
  }
  // The next status line; false at its end. Its error lines ("vesktap: ...") are passed on
  // to the demo's stderr as they come.
  bool line(std::string& text) {
    char buffer[4096];
    if (!std::fgets(buffer, sizeof buffer, status)) return false;
    text = buffer;
    if (text.rfind("vesktap: ", 0) == 0) std::fputs(buffer, stderr);
    return true;
  }
  int wait() {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
  }
};

// An agent that gives up, rather than waiting forever, should the hardware side be gone.
std::vector<std::string> agentArgs(const DemoOptions& o, const std::string& report) {
  std::vector<std::string> args{"agent",
                                "--seed",
                                std::to_string(o.seed),
                                "--keys",
                                std::to_string(o.keys),
                                "--changes",
                                std::to_string(o.changes),
                                "--progress-ms",
                                "50",
                                "--give-up-ms",
                                "30000",
                                "--report-json",
                                report,
                                "--units"};
  for (uint16_t u = 0; u < o.units; ++u) args.push_back(std::to_string(u));
  return args;
}

}  // namespace

int runDemo(const DemoOptions& o, std::ostream& out) {
  char rootTemplate[] = "/dev/shm/vesk-demo-XXXXXX";
  if (!mkdtemp(rootTemplate))
    throw std::runtime_error("cannot make a shared-memory root under /dev/shm");
  const std::string root = rootTemplate;
  setenv("VESK_SHM_ROOT", root.c_str(), 1);
  fmt::print(out,
             "demo: shared memory at {}; {} table types x {} units, {} keys each, {} changes\n",
             root, kTableCount, o.units, o.keys, o.changes);

  Child hw(o.exe, {"hw"});
  std::string text;
  if (!hw.line(text) || text.rfind("hw: resuming", 0) != 0) {  // else its error, passed on
    kill(hw.pid, SIGTERM);
    fmt::print(out, "demo: FAILED: the hardware side did not start (exit status {})\n", hw.wait());
    return 1;
  }
  fmt::print(out, "demo: hardware side started (pid {})\n", hw.pid);
  // Its later status lines are read as they come, so that it never blocks on a full pipe;
  // it is stopped with SIGTERM however the demo ends.
  struct HwStatus {
    Child& hw;
    std::thread reader{[this] {
      std::string line;
      while (hw.line(line)) {
      }
    }};
    void stop() {
      if (!reader.joinable()) return;
      kill(hw.pid, SIGTERM);
      hw.wait();
      reader.join();
    }
    ~HwStatus() { stop(); }
  } hwStatus{hw};

  // First agent: killed with SIGKILL once about half of the workload is confirmed.
  const std::string report1 = root + "/agent1.json", report2 = root + "/agent2.json";
  {
    Child agent(o.exe, agentArgs(o, report1));
    fmt::print(out, "demo: agent started (pid {}); it is killed half way\n", agent.pid);
    uint64_t confirmed = 0;
    while (agent.line(text)) {
      if (text.rfind("agent: ", 0) == 0) fmt::print(out, "demo: {}", text);  // what it waits on
      unsigned long long accepted = 0, total = 0, committed = 0, done = 0;
      if (std::sscanf(text.c_str(), "progress: %llu/%llu accepted, %llu committed, %llu confirmed",
                      &accepted, &total, &committed, &done) == 4) {
        confirmed = done;
        if (confirmed >= o.changes / 2) break;
      }
    }
    kill(agent.pid, SIGKILL);
    agent.wait();
    fmt::print(out, "demo: agent killed with SIGKILL after {} confirmed changes\n", confirmed);
  }

  // Second agent: restores, runs the workload again from the start (a client re-issues
  // what was not answered; rewriting an entry with what it holds changes nothing) and reads
  // every key back.
  Child agent(o.exe, agentArgs(o, report2));
  while (agent.line(text)) {
    if (text.rfind("restored", 0) == 0) fmt::print(out, "demo: agent restarted: {}", text);
    if (text.rfind("agent: ", 0) == 0) fmt::print(out, "demo: {}", text);
  }
  const int status = agent.wait();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fmt::print(out, "demo: FAILED: the restarted agent exited with status {}\n", status);
    hwStatus.stop();
    return 1;
  }
  hwStatus.stop();
  fmt::print(out, "demo: comparing the workload, the configuration, the TCAMs and client reads\n");

  std::ifstream reportFile(report2);
  const auto report = nlohmann::json::parse(reportFile);
  WorkloadSpec spec;
  spec.seed = o.seed;
  spec.keys = o.keys;
  spec.changes = o.changes;
  for (size_t t = 0; t < kTableCount; ++t) spec.tables.push_back(uint8_t(t));
  for (uint16_t u = 0; u < o.units; ++u) spec.units.push_back(u);
  ExpectedState expected(kTableCount);
  WorkloadGenerator workload(spec);
  for (Change c; workload.next(c);) expected.apply(c);
  const Agreement agreement = checkAgreement(expected, spec.units);

  fmt::print(out, "\nreport\n");
  fmt::print(out, "  restore after SIGKILL:     {:.2f} ms for {} entries in {} tables\n",
             report["restoreMs"].get<double>(), report["restoredEntries"].get<uint64_t>(),
             kTableCount * o.units);
  fmt::print(out,
             "  end to end:                {:.0f} changes/s ({} changes confirmed by the hardware "
             "side in {:.3f} s)\n",
             report["confirmed"].get<double>() / report["runSeconds"].get<double>(),
             report["confirmed"].get<uint64_t>(), report["runSeconds"].get<double>());
  fmt::print(out, "  confirmation latency:      p50 {:.0f} us, p99 {:.0f} us\n",
             report["confirmationP50Us"].get<double>(), report["confirmationP99Us"].get<double>());
  fmt::print(out, "  configuration:             {} entries, {} differ from the workload\n",
             agreement.configEntries, agreement.configMismatches);
  fmt::print(out, "  hardware TCAM:             {} lines, {} differ from the configuration\n",
             agreement.tcamLines, agreement.tcamMismatches);
  fmt::print(out, "  change log:                {} changes not taken by the hardware side\n",
             agreement.untaken);
  fmt::print(out, "  client reads:              {} keys read back differently\n",
             report["mismatches"].get<uint64_t>());
  for (const auto& e : agreement.examples) fmt::print(out, "    {}\n", e);
  const bool ok = agreement.agrees() && report["mismatches"].get<uint64_t>() == 0 &&
                  report["failed"].get<uint64_t>() == 0;
  fmt::print(out, "demo: {}\n", ok ? "everything agrees" : "FAILED: disagreement");
  if (!o.keep) std::filesystem::remove_all(root);
  return ok ? 0 : 1;
}

}  // namespace VeskTool
