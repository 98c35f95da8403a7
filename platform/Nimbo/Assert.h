#pragma once

#include <sstream>

#include "Nimbo/Export.h"

namespace Nimbo {

// Stops the process after printing the violated condition (and the streamed message, if
// any) with its source location to stderr. Used for programming errors only.
[[noreturn]] VESK_EXPORT void assertionFailed(const char* condition, const char* file, int line,
                                              const char* function, const std::string& message);

}  // namespace Nimbo

#define VESK_ASSERT(cond)                                                           \
  do {                                                                              \
    if (!(cond)) [[unlikely]]                                                       \
      ::Nimbo::assertionFailed(#cond, __FILE__, __LINE__, __func__, std::string()); \
  } while (0)

// VESK_ASSERT_MSG(cond, "Config shard for unitId:" << unit << " is not created yet!")
#define VESK_ASSERT_MSG(cond, streamed)                                                     \
  do {                                                                                      \
    if (!(cond)) [[unlikely]] {                                                             \
      std::ostringstream vesk_assert_os_;                                                   \
      vesk_assert_os_ << streamed;                                                          \
      ::Nimbo::assertionFailed(#cond, __FILE__, __LINE__, __func__, vesk_assert_os_.str()); \
    }                                                                                       \
  } while (0)
