#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Nimbo/Export.h"
#include "Nimbo/Time.h"

namespace Kest {

// One trace message as a sink receives it.
struct TraceRecord {
  std::string handle;
  std::string file;
  std::string function;
  std::string className;
  uint8_t level;
  std::string text;
  Nimbo::Time time;
};

// A named trace channel with a level mask: a message at level N is written only when bit N
// is set. Handles are created on first use by traceHandle(name) and live for the process;
// their masks come from VESK_TRACE when they are created. Tracing a disabled level costs one
// load and one branch: the text is formatted only when the bit is set (see VESK_TRACE).
// Masks may be read from any thread; records are written under a lock.
class VESK_EXPORT TraceHandle {
 public:
  explicit TraceHandle(std::string name, uint32_t mask) : name_(std::move(name)), mask_(mask) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& name() const noexcept { return name_; }
  bool enabled(unsigned level) const noexcept {
    return level < 32 && ((mask_.load(std::memory_order_relaxed) >> level) & 1);
  }
  uint32_t levelMask() const noexcept { return mask_.load(std::memory_order_relaxed); }
  void levelMaskIs(uint32_t mask) noexcept { mask_.store(mask, std::memory_order_relaxed); }

  // Hands a formatted record to the current sink. Callers check enabled() first.
  void emit(unsigned level, const char* file, const char* function, const char* className,
            std::string text) const;

  template <class... Args>
  void trace(unsigned level, const char* file, const char* function, const char* className,
             fmt::format_string<Args...> format, Args&&... args) const {
    if (enabled(level)) {
      emit(level, file, function, className, fmt::format(format, std::forward<Args>(args)...));
    }
  }

 private:
  std::string name_;
  std::atomic<uint32_t> mask_;
};

// The handle of that name, created on first use.
VESK_EXPORT TraceHandle& traceHandle(std::string_view name);

// Applies a trace setting to every existing and future handle, replacing the one from
// VESK_TRACE: comma-separated items "Name/levels", where levels are N, A-B or N+M+...,
// and the name "*" stands for every handle. Returns the items it could not read.
VESK_EXPORT std::vector<std::string> traceConfigIs(std::string_view spec);

// Sends records to a file (appending) instead of stderr; an empty path goes back to stderr.
// Throws Nimbo::SystemException when the file cannot be opened.
VESK_EXPORT void traceFileIs(const std::string& path);

// While alive, receives every record instead of the stderr or file sink (the newest capture
// wins). For tests and for programs that want the records themselves.
class VESK_EXPORT TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<TraceRecord> records() const;
  std::vector<std::string> texts(std::string_view handle = {}) const;
  bool contains(std::string_view text) const;
  void clear();

  void add(TraceRecord record);

 private:
  TraceCapture* previous_;
  std::vector<TraceRecord> records_;
};

}  // namespace Kest

// VESK_TRACE(handle, level, className, "format {}", args...): formats and writes the
// record only when the handle enables the level.
#define VESK_TRACE(handle, level, className, ...)                                        \
  do {                                                                                   \
    const ::Kest::TraceHandle& vesk_trace_handle_ = (handle);                            \
    if (vesk_trace_handle_.enabled(level)) [[unlikely]]                                  \
      vesk_trace_handle_.emit(level, __FILE__, __func__, className, fmt::format(__VA_ARGS__)); \
  } while (0)
