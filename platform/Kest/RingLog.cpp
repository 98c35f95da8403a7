#include "Kest/RingLog.h"

#include <deque>
#include <mutex>

#include <fmt/args.h>
#include <fmt/format.h>

#include "Kest/Clock.h"
#include "Nimbo/Assert.h"

namespace Kest {
namespace {

struct Event {
  std::string name;
  std::string format;
};

// Names of events and handles. Ids index the deques; id 0 of handles is "no handle".
struct Names {
  std::mutex mutex;
  std::deque<Event> events;
  std::deque<std::string> handles{std::string()};
};

Names& names() {
  static auto* all = new Names;  // never destroyed: a dump may run while statics go away
  return *all;
}

template <class Items, class NameOf>
size_t indexOf(const Items& items, std::string_view name, NameOf nameOf) {
  for (size_t i = 0; i < items.size(); ++i) {
    if (nameOf(items[i]) == name) return i;
  }
  return items.size();
}

std::string handleName(uint16_t id) {
  Names& n = names();
  std::lock_guard lock(n.mutex);
  return id < n.handles.size() ? n.handles[id] : fmt::format("handle#{}", id);
}

std::string formatArgs(const Event& event, const RingLog::Record& record) {
  fmt::dynamic_format_arg_store<fmt::format_context> args;
  for (unsigned i = 0; i < record.argCount && i < RingLog::kMaxArgs; ++i) {
    if (record.signedArgs & (1u << i)) {
      args.push_back(int64_t(record.args[i]));
    } else {
      args.push_back(record.args[i]);
    }
  }
  try {
    return fmt::vformat(event.format, args);
  } catch (const fmt::format_error& e) {
    // A wrong format must not lose the record: show it raw.
    std::string raw = fmt::format("(format \"{}\": {})", event.format, e.what());
    for (unsigned i = 0; i < record.argCount && i < RingLog::kMaxArgs; ++i) {
      raw += fmt::format(" {}", record.args[i]);
    }
    return raw;
  }
}

}  // namespace

RingLog::RingLog(uint32_t capacity) : capacity_(capacity), slots_(new Record[capacity]()) {
  VESK_ASSERT(capacity != 0 && (capacity & (capacity - 1)) == 0);
}

uint32_t RingLog::eventIdFor(std::string_view name, std::string_view format) {
  Names& n = names();
  std::lock_guard lock(n.mutex);
  const size_t id = indexOf(n.events, name, [](const Event& e) { return e.name; });
  if (id == n.events.size()) n.events.push_back({std::string(name), std::string(format)});
  return uint32_t(id);
}

uint16_t RingLog::handleIdFor(std::string_view name) {
  Names& n = names();
  std::lock_guard lock(n.mutex);
  const size_t id = indexOf(n.handles, name, [](const std::string& h) { return h; });
  if (id == n.handles.size()) {
    VESK_ASSERT(id <= UINT16_MAX);
    n.handles.emplace_back(name);
  }
  return uint16_t(id);
}

int64_t RingLog::clockNs() noexcept { return nowUtc().ns(); }

uint32_t RingLog::size() const noexcept { return uint32_t(std::min<uint64_t>(next_, capacity_)); }

std::string RingLog::text(const Record& record) {
  Event event;
  {
    Names& n = names();
    std::lock_guard lock(n.mutex);
    if (record.eventId >= n.events.size()) return fmt::format("event#{}", record.eventId);
    event = n.events[record.eventId];
  }
  return event.name + ": " + formatArgs(event, record);
}

void RingLog::dump(std::FILE* out) const {
  for (const Record& r : *this) {
    const std::string handle = r.handleId ? handleName(r.handleId) + " " : std::string();
    fmt::print(out, "{} {}{}\n", Nimbo::Time(r.timeNs), handle, text(r));
  }
  std::fflush(out);
}

}  // namespace Kest
