#include "Kest/RingLog.h"

#include <time.h>

#include <mutex>

#include <fmt/args.h>
#include <fmt/format.h>

#include "Kest/Clock.h"

namespace Kest {
namespace {

struct Event {
  std::string name;
  std::string format;
};

struct Events {
  std::mutex mutex;
  std::vector<Event> events;
};

Events& events() {
  static auto* all = new Events;
  return *all;
}

}  // namespace

RingLog::RingLog(uint32_t capacity) {
  uint32_t size = 2;
  while (size < capacity) size <<= 1;
  slots_.resize(size);
}

uint32_t RingLog::eventIdFor(const std::string& name, const std::string& format) {
  Events& e = events();
  std::lock_guard lock(e.mutex);
  for (uint32_t id = 0; id < e.events.size(); ++id) {
    if (e.events[id].name == name) return id;
  }
  e.events.push_back({name, format});
  return uint32_t(e.events.size() - 1);
}

int64_t RingLog::now() noexcept { return nowUtc().ns(); }

uint32_t RingLog::size() const noexcept {
  return uint32_t(std::min<uint64_t>(next_, slots_.size()));
}

std::vector<RingLog::Record> RingLog::records() const {
  std::vector<Record> out;
  const uint64_t first = next_ - size();
  for (uint64_t i = first; i < next_; ++i) out.push_back(slots_[i & (slots_.size() - 1)]);
  return out;
}

std::string RingLog::text(const Record& record) {
  Event event;
  {
    Events& e = events();
    std::lock_guard lock(e.mutex);
    if (record.eventId >= e.events.size()) return fmt::format("unknown event {}", record.eventId);
    event = e.events[record.eventId];
  }
  fmt::dynamic_format_arg_store<fmt::format_context> args;
  for (uint16_t i = 0; i < record.argCount && i < 4; ++i) args.push_back(record.args[i]);
  try {
    return event.name + ": " + fmt::vformat(event.format, args);
  } catch (const fmt::format_error& e) {
    return fmt::format("{}: (bad format '{}': {})", event.name, event.format, e.what());
  }
}

void RingLog::dump(std::FILE* out) const {
  for (const Record& r : records()) fmt::print(out, "{} {}\n", Nimbo::Time(r.timeNs), text(r));
}

}  // namespace Kest
