#include "Kest/Log.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "Kest/Clock.h"

namespace Kest {
namespace {

std::map<Nimbo::String, LogHandle*>& handles() {
  static auto* registered = new std::map<Nimbo::String, LogHandle*>;
  return *registered;
}

LogCapture*& currentCapture() {
  static LogCapture* capture = nullptr;
  return capture;
}

void openSystemLog() {
  static const bool opened = [] {
    openlog(program_invocation_short_name, LOG_PID | LOG_NDELAY, LOG_USER);
    return true;
  }();
  (void)opened;
}

}  // namespace

LogHandle::LogHandle(const LogMessageDescriptor& descriptor, Nimbo::Duration interval, double burst,
                     uint32_t logged, uint32_t suppressed)
    : descriptor_(descriptor),
      interval_(interval),
      burst_(std::max(burst, 1.0)),
      tokens_(burst_),
      logged_(logged),
      suppressed_(suppressed) {
  handles()[descriptor.name] = this;
}

LogHandle::~LogHandle() {
  auto it = handles().find(descriptor_.name);
  if (it != handles().end() && it->second == this) handles().erase(it);
}

LogHandle* LogHandle::find(const Nimbo::String& name) {
  auto it = handles().find(name);
  return it == handles().end() ? nullptr : it->second;
}

bool LogHandle::admit(Nimbo::Time now) {
  if (!interval_.zero()) {
    const double elapsed = double((now - refilled_).ns()) / double(interval_.ns());
    tokens_ = std::min(burst_, tokens_ + std::max(elapsed, 0.0) * burst_);
    refilled_ = now;
    if (tokens_ < 1.0) {
      ++suppressed_;
      return false;
    }
    tokens_ -= 1.0;
  }
  ++logged_;
  return true;
}

std::string formatLogMessage(const char* format, const Nimbo::String& argument) {
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
  if (!handle.admit(nowUtc())) return;
  const LogMessageDescriptor& d = handle.descriptor();
  std::string text = formatLogMessage(d.format, argument);
  openSystemLog();
  syslog(int(d.severity & 7), "%s: %s", d.name, text.c_str());
  if (LogCapture* capture = currentCapture()) capture->add({d.name, d.severity, std::move(text)});
}

LogCapture::LogCapture() : previous_(currentCapture()) { currentCapture() = this; }

LogCapture::~LogCapture() { currentCapture() = previous_; }

}  // namespace Kest
