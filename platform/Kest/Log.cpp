#include "Kest/Log.h"

#include <errno.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
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

// VESK_LOG_STDERR=1: always, 0: never; otherwise when there is no syslog socket, where
// syslog(3) would drop the message without a word. Asked at every message (they are
// few), so that a process that changes its environment or gains a socket is followed.
bool mirrorToStderr() {
  if (const char* env = std::getenv("VESK_LOG_STDERR");
      env && (env[0] == '0' || env[0] == '1') && !env[1]) {
    return env[0] == '1';
  }
  struct stat socket;
  return stat(_PATH_LOG, &socket) != 0 || !S_ISSOCK(socket.st_mode);
}

// One write, so that lines of processes sharing the terminal do not interleave.
void writeToStderr(const std::string& line) {
  for (size_t done = 0; done < line.size();) {
    const ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere to say it: the system log still has it, if there is one
    done += size_t(n);
  }
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
  if (mirrorToStderr()) {
    writeToStderr(std::string(program_invocation_short_name) + ": %" + d.name + ": " + text + "\n");
  }
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
