#include <cstdio>
#include <cstdlib>

#include "Nimbo/Assert.h"
#include "Nimbo/ThreadControl.h"

namespace Nimbo {

std::atomic<bool> ThreadControl::threaded_{false};

void assertionFailed(const char* condition, const char* file, int line, const char* function,
                     const std::string& message) {
  std::fprintf(stderr, "assertion failed: %s at %s:%d in %s%s%s\n", condition, file, line, function,
               message.empty() ? "" : ": ", message.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace Nimbo
