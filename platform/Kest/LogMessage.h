#pragma once

#include <cstdint>

namespace Kest {

// What an operator is told about one kind of event: the message's name ("TABLE_FULL"), a
// printf-style format with at most one "%s", what it means, what to do about it, and a
// syslog severity (0 emergency ... 7 debug). Libraries define their descriptors with
// VESK_LOG_MESSAGE, which keeps them in the "vesk_log_messages" data section, so that a
// tool can list every message a binary may write without running it. Constant data;
// any thread.
struct LogMessageDescriptor {
  const char* name;
  const char* format;
  const char* explanation;
  const char* recommendedAction;
  uint32_t severity;
};

}  // namespace Kest

// VESK_LOG_MESSAGE(kTableFull, "TABLE_FULL", "Table %s is full", "...", "...", 3);
// defines the descriptor `variable` in the "vesk_log_messages" section. The explicit
// alignment keeps the compiler from padding descriptors apart, so that the section reads
// as an array.
#define VESK_LOG_MESSAGE(variable, name, format, explanation, action, severity)             \
  [[gnu::section("vesk_log_messages"), gnu::used]] alignas(                                 \
      ::Kest::LogMessageDescriptor) constinit const ::Kest::LogMessageDescriptor variable { \
    (name), (format), (explanation), (action), (severity)                                   \
  }
