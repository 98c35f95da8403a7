#include "Kest/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "Kest/Clock.h"
#include "Kest/ModuleInspectData.h"
#include "Kest/TraceSetting.h"
#include "Nimbo/Exception.h"

namespace Kest {
namespace {

// VESK_TRACE as last read: the text is kept so that a changed variable is parsed (and its
// mistakes reported) once, not at every new handle.
struct EnvSetting {
  bool read = false;
  std::string text;
  TraceSetting setting;

  const TraceSetting& current() {
    const char* env = std::getenv("VESK_TRACE");
    const std::string_view now = env ? env : "";
    if (!read || now != text) {
      read = true;
      text = now;
      setting = TraceSetting::parse(text);
      setting.reportMalformed("VESK_TRACE");
    }
    return setting;
  }
};

// Everything process-wide about tracing, behind one lock.
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
  std::optional<TraceSetting> programSetting;
  EnvSetting env;
  std::FILE* file = nullptr;
  TraceCapture* capture = nullptr;

  const TraceSetting& setting() { return programSetting ? *programSetting : env.current(); }

  void applyToAll() {
    const TraceSetting& s = setting();
    for (auto& [name, handle] : handles) handle->levelMaskIs(s.maskFor(name));
  }
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: statics may trace while exiting
  return *r;
}

std::string_view baseName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void writeLine(std::FILE* out, const TraceRecord& r) {
  fmt::print(out, "{} {}/{} {}:{} {}{}{}\n", r.time, r.handle, r.level, baseName(r.file),
             r.function, r.className, r.className.empty() ? "" : ": ", r.text);
  std::fflush(out);
}

}  // namespace

void TraceHandle::emit(unsigned level, const char* file, const char* function,
                       const char* className, std::string text) const {
  TraceRecord record{
      name_,           file,    function ? function : "", className ? className : "", level,
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
    auto handle = std::make_unique<TraceHandle>(std::string(name), r.setting().maskFor(name));
    it = r.handles.emplace(std::string(name), std::move(handle)).first;
  }
  return *it->second;
}

std::vector<std::string> unknownTraceNames() {
  std::vector<std::string> unknown;
  const char* env = std::getenv("VESK_TRACE");
  for (const std::string& name : TraceSetting::parse(env ? env : "").names()) {
    bool known = false;
    {
      Registry& r = registry();
      std::lock_guard lock(r.mutex);
      known = r.handles.contains(name);
    }
    for (const ModuleTypeData* module : Nimbo::ModuleInspectData::modules()) {
      known = known || module->type(name) != nullptr;
    }
    if (!known) unknown.push_back(name);
  }
  return unknown;
}

std::vector<std::string> traceConfigIs(std::string_view setting) {
  TraceSetting parsed = TraceSetting::parse(setting);
  parsed.reportMalformed("trace setting");
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.programSetting = std::move(parsed);
  r.applyToAll();
  return r.programSetting->malformed();
}

void traceConfigDel() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.programSetting.reset();
  r.applyToAll();
}

void traceFileIs(const std::string& path) {
  std::FILE* file = nullptr;
  if (!path.empty()) {
    file = std::fopen(path.c_str(), "ae");
    if (!file) {
      const int error = errno;
      throw Nimbo::SystemException(
          fmt::format("cannot open trace file {}: {}", path, std::strerror(error)), error);
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

std::vector<std::string> TraceCapture::textsContaining(std::string_view fragment) const {
  std::lock_guard lock(registry().mutex);
  std::vector<std::string> out;
  for (const TraceRecord& r : records_) {
    if (r.text.find(fragment) != std::string::npos) out.push_back(r.text);
  }
  return out;
}

bool TraceCapture::hasText(std::string_view exactText) const {
  std::lock_guard lock(registry().mutex);
  for (const TraceRecord& r : records_) {
    if (r.text == exactText) return true;
  }
  return false;
}

void TraceCapture::clear() {
  std::lock_guard lock(registry().mutex);
  records_.clear();
}

}  // namespace Kest
