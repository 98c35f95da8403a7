#include "Kest/Log.h"

#include <errno.h>
#include <syslog.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "Kest/Clock.h"
#include "Nimbo/Assert.h"

namespace Kest {
namespace {

// Live handles by message name; several may share a name (two libraries, one message).
std::map<std::string, std::vector<LogHandle*>, std::less<>>& handles() {
  static auto* registered = new std::map<std::string, std::vector<LogHandle*>, std::less<>>;
  return *registered;
}

LogCapture*& currentCapture() {
  static LogCapture* capture = nullptr;
  return capture;
}

void openSystemLog() {
  // NDELAY connects now, so the first message is not lost to a later chroot or fd limit.
  static const bool opened = [] {
    openlog(program_invocation_short_name, LOG_PID | LOG_NDELAY, LOG_USER);
    return true;
  }();
  (void)opened;
}

}  // namespace

LogHandle::LogHandle(const LogMessageDescriptor& descriptor, Nimbo::Duration minInterval,
                     double rate, uint32_t burst, uint32_t suppressed)
    : descriptor_(descriptor),
      minInterval_(minInterval),
      rate_(rate),
      burst_(burst ? double(burst) : std::max(1.0, std::ceil(rate))),
      tokens_(burst_),
      suppressed_(suppressed) {
  VESK_ASSERT(descriptor.name && descriptor.format);
  VESK_ASSERT(descriptor.severity <= LOG_DEBUG);
  VESK_ASSERT(minInterval.ns() >= 0 && rate >= 0);
  handles()[descriptor.name].push_back(this);
}

LogHandle::~LogHandle() {
  auto it = handles().find(descriptor_.name);
  std::erase(it->second, this);
  if (it->second.empty()) handles().erase(it);
}

void LogHandle::refill(Nimbo::Time now) noexcept {
  if (!started_) {
    started_ = true;  // the bucket starts full at the first message
  } else if (now > refilled_) {
    const double intervals = double((now - refilled_).ns()) / double(minInterval_.ns());
    tokens_ = std::min(burst_, tokens_ + intervals * rate_);
  } else {
    return;
  }
  refilled_ = now;
}

bool LogHandle::admit(Nimbo::Time now) noexcept {
  if (!minInterval_.zero()) {
    refill(now);
    if (tokens_ < 1.0) {
      ++suppressed_;
      return false;
    }
    tokens_ -= 1.0;
  }
  ++logged_;
  return true;
}

LogHandle* findLogHandle(std::string_view name) {
  auto it = handles().find(name);
  return it == handles().end() ? nullptr : it->second.back();
}

std::string logText(const char* format, std::string_view argument) {
  std::string text;
  bool substituted = false;
  for (const char* p = format; *p; ++p) {
    if (p[0] == '%' && p[1] == 's' && !substituted) {
      text += argument;
      substituted = true;
      ++p;
    } else if (p[0] == '%' && p[1] == '%') {
      text += '%';
      ++p;
    } else {
      text += *p;
    }
  }
  return text;
}

void log(LogHandle& handle, const Nimbo::String& argument) {
  if (!handle.admit(monotonicNow())) return;
  const LogMessageDescriptor& d = handle.descriptor();
  std::string text = logText(d.format, argument);
  openSystemLog();
  syslog(int(d.severity), "%%%s: %s", d.name, text.c_str());  // the text is data, not a format
  if (LogCapture* capture = currentCapture()) {
    capture->records_.push_back({d.name, d.severity, std::move(text), nowUtc()});
  }
}

LogCapture::LogCapture() : previous_(currentCapture()) { currentCapture() = this; }

LogCapture::~LogCapture() { currentCapture() = previous_; }

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> out;
  for (const LogRecord& r : records_) out.push_back(r.text);
  return out;
}

bool LogCapture::hasText(std::string_view exactText) const {
  return std::any_of(records_.begin(), records_.end(),
                     [&](const LogRecord& r) { return r.text == exactText; });
}

}  // namespace Kest
