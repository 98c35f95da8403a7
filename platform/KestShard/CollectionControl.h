#pragma once

#include <cstdint>

#include "KestShard/Segment.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace KestShard {

// The per-collection words that outlive the writer: the wiped flag (the collection had to
// be recreated empty because what the namespace said existed was lost or unusable) and a
// 64-bit scratchpad the owner uses for its own bookkeeping, e.g. the newest version of a
// change log. Shares the collection's segment; single-threaded.
class VESK_EXPORT CollectionControl : public Nimbo::Node {
 public:
  explicit CollectionControl(Nimbo::Ptr<Segment> segment) : segment_(std::move(segment)) {}

  bool wiped() const noexcept;
  void clearWiped();
  uint64_t scratchpad() const noexcept;
  void scratchpadIs(uint64_t value);

 private:
  Nimbo::Ptr<Segment> segment_;
};

}  // namespace KestShard
