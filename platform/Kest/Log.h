#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Nimbo/Export.h"
#include "Nimbo/String.h"
#include "Nimbo/Time.h"

namespace Kest {

// What an operator is told about one kind of event: the message's name, a printf-style
// format with at most one "%s", an explanation, the recommended action and a syslog
// severity (0 emergency ... 7 debug). Libraries keep their descriptors in the
// "vesk_log_messages" data section (VESK_LOG_MESSAGE) so tools can list them from a binary.
struct LogMessageDescriptor {
  const char* name;
  const char* format;
  const char* explanation;
  const char* recommendedAction;
  uint32_t severity;
  uint32_t reserved;
};

#define VESK_LOG_MESSAGE(variable, name, format, explanation, action, severity)               \
  __attribute__((section("vesk_log_messages"), used)) constinit ::Kest::LogMessageDescriptor \
      variable {                                                                             \
    name, format, explanation, action, severity, 0                                           \
  }

// A registered use of a descriptor, with its own rate limit: at most `burst` messages per
// `interval` (a zero interval means no limit); the rest are counted as suppressed.
// Registered by name while it lives. Single-threaded.
class VESK_EXPORT LogHandle {
 public:
  LogHandle(const LogMessageDescriptor& descriptor, Nimbo::Duration interval, double burst,
            uint32_t logged, uint32_t suppressed);
  ~LogHandle();
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  const LogMessageDescriptor& descriptor() const noexcept { return descriptor_; }
  uint32_t logged() const noexcept { return logged_; }
  uint32_t suppressed() const noexcept { return suppressed_; }
  // Whether a message may go out now; counts it either way.
  bool admit(Nimbo::Time now);

  // The registered handle of that message name, or null.
  static LogHandle* find(const Nimbo::String& name);

 private:
  const LogMessageDescriptor& descriptor_;
  Nimbo::Duration interval_;
  double burst_;
  double tokens_;
  Nimbo::Time refilled_;
  uint32_t logged_;
  uint32_t suppressed_;
};

// One message as the system log and the capture received it.
struct LogRecord {
  std::string name;
  uint32_t severity;
  std::string text;
};

// Writes the handle's message, its format applied to `argument`, to the system log
// (syslog(3), "<name>: <text>") and to the current capture, unless its rate limit holds it
// back. The argument is never read as a format.
VESK_EXPORT void log(LogHandle& handle, const Nimbo::String& argument);

// The descriptor's format with its "%s" replaced by `argument` and "%%" by "%".
VESK_EXPORT std::string formatLogMessage(const char* format, const Nimbo::String& argument);

// While alive, receives every message logged (in addition to the system log).
class VESK_EXPORT LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogRecord>& records() const noexcept { return records_; }
  void add(LogRecord record) { records_.push_back(std::move(record)); }

 private:
  LogCapture* previous_;
  std::vector<LogRecord> records_;
};

}  // namespace Kest
