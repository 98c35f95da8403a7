#pragma once

#include <string>

namespace VeskTool {

// A file a run writes its report to when it ends. checkWritable() is asked before the run,
// so that a path that cannot be written fails at once rather than after the work; it
// leaves the file as it was (made and removed again when there was none). writeReport()
// replaces the file's contents and checks every step, up to closing it. Both throw
// std::runtime_error naming the path and the reason. Any thread.
void checkWritable(const std::string& path);
void writeReport(const std::string& path, const std::string& text);

}  // namespace VeskTool
