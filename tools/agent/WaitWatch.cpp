#include "tools/agent/WaitWatch.h"

#include <ctime>

#include <fmt/chrono.h>
#include <fmt/ostream.h>

namespace VeskTool {
namespace {

// The wall-clock time of a steady-clock point, as HH:MM:SS.
std::string wallTime(WaitWatch::Clock::time_point at, WaitWatch::Clock::time_point now) {
  const auto wall = std::chrono::system_clock::now() -
                    std::chrono::duration_cast<std::chrono::system_clock::duration>(now - at);
  return fmt::format("{:%H:%M:%S}", fmt::localtime(std::chrono::system_clock::to_time_t(wall)));
}

}  // namespace

void WaitWatch::look(const std::vector<Table>& tables, uint64_t heldBack, Clock::time_point now) {
  lookForAHardwareSide(tables, now);
  lookForFullLogs(tables, heldBack);
}

void WaitWatch::lookForAHardwareSide(const std::vector<Table>& tables, Clock::time_point now) {
  bool moved = taken_.size() != tables.size();
  bool waiting = false;
  taken_.resize(tables.size());
  for (size_t t = 0; t < tables.size(); ++t) {
    moved |= tables[t].taken != taken_[t];
    taken_[t] = tables[t].taken;
    waiting |= tables[t].committed > tables[t].taken;
  }
  if (moved || !waiting_) quietSince_ = now;
  waiting_ = waiting;
  if (!waitsForHardware_) return;  // only what it holds back waits on the hardware side then
  if (stallTold_ && (moved || !waiting)) {
    stallTold_ = false;
    fmt::print(out_, "agent: a hardware side is taking changes now, after {:.1f} s\n",
               std::chrono::duration<double>(now - stalledAt_).count());
    out_.flush();
  }
  if (!waiting || stallTold_ || now - quietSince_ < silentFor_) return;
  stallTold_ = true;
  const Table* first = nullptr;
  size_t more = 0;
  for (const Table& t : tables) {
    if (t.committed <= t.taken) continue;
    if (first) {
      ++more;
    } else {
      first = &t;
    }
  }
  stalledAt_ = quietSince_;
  fmt::print(out_,
             "agent: no hardware side is taking changes: {} committed changes of {}{} wait since "
             "{} ({}); waiting (start `vesktap hw` on this shared-memory root, or stop with "
             "Ctrl-C)\n",
             first->committed - first->taken, first->name,
             more ? fmt::format(" (and of {} more table types)", more) : "",
             wallTime(quietSince_, now),
             first->taken ? fmt::format("it took version {}", first->taken) : "none taken yet");
  out_.flush();
}

void WaitWatch::lookForFullLogs(const std::vector<Table>& tables, uint64_t heldBack) {
  fullTold_.resize(tables.size());
  anyFull_ = false;
  for (size_t t = 0; t < tables.size(); ++t) {
    const Table& table = tables[t];
    anyFull_ |= table.records >= table.capacity;
    if (!fullTold_[t] && table.records >= table.capacity) {
      fullTold_[t] = true;
      fmt::print(out_,
                 "agent: change log of {} is full: {} changes the hardware side has not taken "
                 "(it took version {} of {}); holding {} changes back, nothing is lost; waiting "
                 "for the hardware side\n",
                 table.name, table.records, table.taken, table.committed, heldBack);
      out_.flush();
    } else if (fullTold_[t] && table.records < table.capacity - table.capacity / 10) {
      // Told again only once a tenth of the log is free, so that a log kept just full by a
      // slow hardware side is not reported at every change.
      fullTold_[t] = false;
      fmt::print(out_, "agent: change log of {} has room again\n", table.name);
      out_.flush();
    }
  }
}

}  // namespace VeskTool
