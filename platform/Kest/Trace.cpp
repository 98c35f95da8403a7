#include "Kest/Trace.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "Kest/Clock.h"
#include "Nimbo/Exception.h"

namespace Kest {
namespace {

struct Rule {
  std::string name;  // "*" for every handle
  uint32_t mask;
};

// Parses "N", "A-B" or "N+M+..." into a mask; false when malformed.
bool parseLevels(std::string_view text, uint32_t& mask) {
  auto number = [](std::string_view s, unsigned& out) {
    auto [end, error] = std::from_chars(s.data(), s.data() + s.size(), out);
    return !s.empty() && error == std::errc() && end == s.data() + s.size() && out < 32;
  };
  mask = 0;
  if (size_t dash = text.find('-'); dash != std::string_view::npos) {
    unsigned lo, hi;
    if (!number(text.substr(0, dash), lo) || !number(text.substr(dash + 1), hi) || lo > hi) return false;
    for (unsigned l = lo; l <= hi; ++l) mask |= 1u << l;
    return true;
  }
  size_t start = 0;
  while (start <= text.size()) {
    size_t plus = text.find('+', start);
    if (plus == std::string_view::npos) plus = text.size();
    unsigned level;
    if (!number(text.substr(start, plus - start), level)) return false;
    mask |= 1u << level;
    start = plus + 1;
  }
  return true;
}

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
  std::vector<Rule> rules;
  std::FILE* file = nullptr;
  TraceCapture* capture = nullptr;

  uint32_t maskFor(std::string_view name) const {
    uint32_t mask = 0;
    for (const Rule& r : rules) {
      if (r.name == "*" || r.name == name) mask |= r.mask;
    }
    return mask;
  }

  std::vector<std::string> parse(std::string_view spec) {
    rules.clear();
    std::vector<std::string> bad;
    size_t start = 0;
    while (start < spec.size()) {
      size_t comma = spec.find(',', start);
      if (comma == std::string_view::npos) comma = spec.size();
      std::string_view item = spec.substr(start, comma - start);
      start = comma + 1;
      if (item.empty()) continue;
      size_t slash = item.rfind('/');
      uint32_t mask = 0;
      if (slash == std::string_view::npos || slash == 0 || !parseLevels(item.substr(slash + 1), mask)) {
        bad.emplace_back(item);
        continue;
      }
      rules.push_back({std::string(item.substr(0, slash)), mask});
    }
    return bad;
  }

  Registry() {
    const char* env = std::getenv("VESK_TRACE");
    for (const std::string& item : parse(env ? env : "")) {
      std::fprintf(stderr, "VESK_TRACE: ignoring '%s' (expected Name/N, Name/A-B or Name/N+M)\n",
                   item.c_str());
    }
  }
};

Registry& registry() {
  static Registry* r = new Registry;  // outlives every static that may still trace
  return *r;
}

void writeLine(std::FILE* out, const TraceRecord& r) {
  fmt::print(out, "{} {}/{} {}:{} {}{}{}\n", r.time, r.handle, r.level, r.file, r.function,
             r.className, r.className.empty() ? "" : ": ", r.text);
  std::fflush(out);
}

}  // namespace

void TraceHandle::emit(unsigned level, const char* file, const char* function,
                       const char* className, std::string text) const {
  TraceRecord record{name_, file, function, className ? className : "", uint8_t(level),
                     std::move(text), nowUtc()};
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (r.capture) {
    r.capture->add(std::move(record));
  } else {
    writeLine(r.file ? r.file : stderr, record);
  }
}

TraceHandle& traceHandle(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.handles.find(name);
  if (it == r.handles.end()) {
    auto handle = std::make_unique<TraceHandle>(std::string(name), r.maskFor(name));
    it = r.handles.emplace(std::string(name), std::move(handle)).first;
  }
  return *it->second;
}

std::vector<std::string> traceConfigIs(std::string_view spec) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::vector<std::string> bad = r.parse(spec);
  for (auto& [name, handle] : r.handles) handle->levelMaskIs(r.maskFor(name));
  return bad;
}

void traceFileIs(const std::string& path) {
  std::FILE* file = nullptr;
  if (!path.empty()) {
    file = std::fopen(path.c_str(), "ae");
    if (!file) {
      throw Nimbo::SystemException(
          fmt::format("cannot open trace file {}: {}", path, std::strerror(errno)), errno);
    }
  }
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (r.file) std::fclose(r.file);
  r.file = file;
}

TraceCapture::TraceCapture() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  previous_ = r.capture;
  r.capture = this;
}

TraceCapture::~TraceCapture() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.capture = previous_;
}

void TraceCapture::add(TraceRecord record) { records_.push_back(std::move(record)); }

std::vector<TraceRecord> TraceCapture::records() const {
  std::lock_guard lock(registry().mutex);
  return records_;
}

std::vector<std::string> TraceCapture::texts(std::string_view handle) const {
  std::lock_guard lock(registry().mutex);
  std::vector<std::string> out;
  for (const TraceRecord& r : records_) {
    if (handle.empty() || r.handle == handle) out.push_back(r.text);
  }
  return out;
}

bool TraceCapture::contains(std::string_view text) const {
  std::lock_guard lock(registry().mutex);
  for (const TraceRecord& r : records_) {
    if (r.text == text) return true;
  }
  return false;
}

void TraceCapture::clear() {
  std::lock_guard lock(registry().mutex);
  records_.clear();
}

}  // namespace Kest
