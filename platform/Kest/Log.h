#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Kest/LogMessage.h"
#include "Nimbo/Export.h"
#include "Nimbo/String.h"
#include "Nimbo/Time.h"

namespace Kest {

// A place in the code that writes one kind of message to the system log, with its own
// rate limit and counts. The limit is a token bucket: at most `burst` messages back to
// back, then `rate` messages per `minInterval` (rate 1, burst 1: one message per
// interval; burst 0: one interval's worth); a zero interval means no limit. The bucket
// runs on the monotonic clock, so setting the system time neither floods nor silences
// the log. Messages held back are counted as
// suppressed; `suppressed` is the count to start from, so that a handle re-made after a
// restart can go on counting. Registered by its message name while it lives. Usually a
// static of the class that logs. Single-threaded: the agent's event thread.
class VESK_EXPORT LogHandle {
 public:
  LogHandle(const LogMessageDescriptor& descriptor, Nimbo::Duration minInterval, double rate,
            uint32_t burst, uint32_t suppressed);
  ~LogHandle();
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  const LogMessageDescriptor& descriptor() const noexcept { return descriptor_; }
  uint32_t logged() const noexcept { return logged_; }
  uint32_t suppressed() const noexcept { return suppressed_; }

  // Whether a message at monotonic time `now` may go out; counts it either way.
  bool admit(Nimbo::Time now) noexcept;

 private:
  void refill(Nimbo::Time now) noexcept;

  const LogMessageDescriptor& descriptor_;
  const Nimbo::Duration minInterval_;
  const double rate_;
  const double burst_;
  double tokens_;
  bool started_ = false;
  Nimbo::Time refilled_;
  uint32_t logged_ = 0;
  uint32_t suppressed_;
};

// The live handle registered last under that message name, or null.
VESK_EXPORT LogHandle* findLogHandle(std::string_view name);

// Writes the handle's message, its format applied to `argument`, to the system log at
// the descriptor's severity as "%NAME: text", and to the current LogCapture, unless the
// handle's rate limit holds it back. The argument is inserted as is, never read as a
// format. The line goes to stderr too, as "program: %NAME: text", when there is no syslog
// socket (/dev/log) to take it, or always with VESK_LOG_STDERR=1 (never with
// VESK_LOG_STDERR=0), so that an operator running a tool sees it.
VESK_EXPORT void log(LogHandle& handle, const Nimbo::String& argument);

// `format` with its first "%s" replaced by `argument` and each "%%" by "%"; any other "%"
// stays as written.
VESK_EXPORT std::string logText(const char* format, std::string_view argument);

// One message as the system log received it.
struct LogRecord {
  std::string name;
  uint32_t severity;
  std::string text;
  Nimbo::Time time;
  // The line as written to the system log.
  std::string line() const { return "%" + name + ": " + text; }
};

// While alive, receives every message written to the system log; the newest capture wins
// and the previous one resumes when it goes. For tests. Single-threaded.
class VESK_EXPORT LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogRecord>& records() const noexcept { return records_; }
  std::vector<std::string> texts() const;
  bool hasText(std::string_view exactText) const;
  void clear() noexcept { records_.clear(); }

 private:
  friend void log(LogHandle&, const Nimbo::String&);

  LogCapture* previous_;
  std::vector<LogRecord> records_;
};

}  // namespace Kest
