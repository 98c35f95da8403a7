#include "tools/core/ReportFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <fmt/format.h>

namespace VeskTool {
namespace {

[[noreturn]] void cannotWrite(const std::string& path, int error) {
  throw std::runtime_error(
      fmt::format("cannot write the report to {}: {} (give a file that can be written)", path,
                  std::strerror(error)));
}

}  // namespace

void checkWritable(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd >= 0) {
    close(fd);
    unlink(path.c_str());
    return;
  }
  if (errno != EEXIST) cannotWrite(path, errno);
  // There already: open it for writing without truncating it (a directory fails here).
  fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) cannotWrite(path, errno);
  close(fd);
}

void writeReport(const std::string& path, const std::string& text) {
  FILE* file = std::fopen(path.c_str(), "w");
  if (!file) cannotWrite(path, errno);
  const bool written =
      std::fwrite(text.data(), 1, text.size(), file) == text.size() && std::fflush(file) == 0;
  const int error = errno;
  if (std::fclose(file) != 0 || !written) cannotWrite(path, written ? errno : error);
}

}  // namespace VeskTool
