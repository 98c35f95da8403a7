#pragma once

#include <cstring>

#include <fmt/format.h>

#include "Nimbo/Exception.h"

namespace KestShard {

// Throws Nimbo::SystemException "<what> <path>: <strerror>", keeping the error number.
[[noreturn]] inline void throwSystemError(const std::string& what, const std::string& path,
                                          int error) {
  throw Nimbo::SystemException(fmt::format("{} {}: {}", what, path, std::strerror(error)), error);
}

}  // namespace KestShard
