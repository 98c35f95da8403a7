#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Nimbo/Export.h"

namespace Kest {

// A trace setting as people write it in VESK_TRACE: comma-separated items "Name/levels",
// where levels are a single N, a range A-B or a list N+M+... (list parts may be ranges),
// levels 0 to 31, and the name "*" stands for every handle. Items that cannot be read
// are kept aside, so that the caller can say so once, and otherwise ignored: a typo in a
// debugging aid must never stop the program. A value type; any thread.
class VESK_EXPORT TraceSetting {
 public:
  TraceSetting() = default;
  static TraceSetting parse(std::string_view text);

  // The mask of a handle with that name: every item naming it or "*", combined.
  uint32_t maskFor(std::string_view handleName) const noexcept;
  const std::vector<std::string>& malformed() const noexcept { return malformed_; }
  // The handle names its items give, "*" apart, in order.
  std::vector<std::string> names() const;
  // Says on stderr which items of `source` ("VESK_TRACE", ...) are ignored, and why.
  void reportMalformed(std::string_view source) const;

 private:
  struct Item {
    std::string name;
    uint32_t mask;
  };
  void add(std::string_view item);

  std::vector<Item> items_;
  std::vector<std::string> malformed_;
};

}  // namespace Kest
