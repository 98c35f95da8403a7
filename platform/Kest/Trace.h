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
  unsigned level;
  std::string text;
  Nimbo::Time time;
};

// A named trace channel with a 32-bit level mask: a message at level N is written only
// when bit N is set. Handles are made on first use by traceHandle(name) and live as long
// as the process, so a class may keep a reference to its handle in a static. A new
// handle's mask comes from the program's trace setting (traceConfigIs) or, when the
// program set none, from VESK_TRACE as it is at that moment. A disabled level costs one
// load and one branch: VESK_TRACE formats only when the bit is set.
// Masks may be read and set from any thread; records are written under a lock.
class VESK_EXPORT TraceHandle {
 public:
  TraceHandle(std::string name, uint32_t mask) : name_(std::move(name)), mask_(mask) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& name() const noexcept { return name_; }
  bool enabled(unsigned level) const noexcept {
    return level < 32 && ((mask_.load(std::memory_order_relaxed) >> level) & 1);
  }
  uint32_t levelMask() const noexcept { return mask_.load(std::memory_order_relaxed); }
  void levelMaskIs(uint32_t mask) noexcept { mask_.store(mask, std::memory_order_relaxed); }

  // Hands a formatted record to the current sink. VESK_TRACE checks enabled() first.
  void emit(unsigned level, const char* file, const char* function, const char* className,
            std::string text) const;

 private:
  const std::string name_;
  std::atomic<uint32_t> mask_;
};

// The handle of that name, made on first use; the reference stays valid for the process.
VESK_EXPORT TraceHandle& traceHandle(std::string_view name);

// The names VESK_TRACE gives that are neither a handle made so far nor a class of a loaded
// module (a class traces through the handle of its name, made when it first traces): most
// likely mistyped, since nothing will ever trace under them.
VESK_EXPORT std::vector<std::string> unknownTraceNames();

// Makes `setting` (same syntax as VESK_TRACE) the program's trace setting: it replaces
// the masks of every existing handle and gives new handles theirs, in place of
// VESK_TRACE. Malformed items are reported on stderr, ignored, and returned.
VESK_EXPORT std::vector<std::string> traceConfigIs(std::string_view setting);
// Drops the program's trace setting: handles, existing and new, follow VESK_TRACE again.
VESK_EXPORT void traceConfigDel();

// Sends records to the file at `path` (appending) instead of stderr; an empty path goes
// back to stderr. Throws Nimbo::SystemException when the file cannot be opened.
VESK_EXPORT void traceFileIs(const std::string& path);

// While alive, receives every record in place of the stderr or file sink; the newest
// capture wins and the previous one resumes when it goes. For tests and for programs that
// want the records themselves. Create and destroy it on one thread; accessors any thread.
class VESK_EXPORT TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<TraceRecord> records() const;
  // The texts of the records, of one handle when `handle` is not empty.
  std::vector<std::string> texts(std::string_view handle = {}) const;
  // The texts that contain `fragment`.
  std::vector<std::string> textsContaining(std::string_view fragment) const;
  bool hasText(std::string_view exactText) const;
  void clear();

 private:
  friend class TraceHandle;
  void add(TraceRecord record);

  TraceCapture* previous_;
  std::vector<TraceRecord> records_;
};

}  // namespace Kest

// VESK_TRACE(handle, level, "ClassName", "format {}", args...): writes a record with the
// source file and function when `handle` enables `level`; only then are the arguments
// formatted. The format is checked at compile time (wrap a runtime one in fmt::runtime).
#define VESK_TRACE(handle, level, className, ...) \
  VESK_TRACE_FROM(handle, level, __FILE__, className, __VA_ARGS__)

// The same with the source named by the caller: generic code traces under the name of the
// table type it runs for ("VeskTapAgg/DefaultFwdTcamEntryEntryLog").
#define VESK_TRACE_FROM(handle, level, source, className, ...) \
  VESK_TRACE_AS(handle, level, source, __func__, className, __VA_ARGS__)

// The same with the function named by the caller too: code that does the work of several
// operations in one pass traces as each of them.
#define VESK_TRACE_AS(handle, level, source, function, className, ...)              \
  do {                                                                              \
    const ::Kest::TraceHandle& vesk_trace_handle_ = (handle);                       \
    const unsigned vesk_trace_level_ = (level);                                     \
    if (vesk_trace_handle_.enabled(vesk_trace_level_)) [[unlikely]] {               \
      vesk_trace_handle_.emit(vesk_trace_level_, (source), (function), (className), \
                              ::fmt::format(__VA_ARGS__));                          \
    }                                                                               \
  } while (0)
