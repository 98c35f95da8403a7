#pragma once

#include <cstdint>

#include "Kest/Entity.h"

namespace Asic {

// A generation number kept in the state database: a major id that is advanced to make the
// agents watching it restart (e.g. after their shared memory was lost), and a minor id.
// Owned by the state database; single-threaded.
class GenId : public Kest::Entity {
 public:
  explicit GenId(Nimbo::String path) : Kest::Entity(std::move(path)) {}

  uint16_t majorId() const noexcept { return majorId_; }
  uint16_t minorId() const noexcept { return minorId_; }
  void majorIdInc(uint16_t by) noexcept {
    majorId_ = uint16_t(majorId_ + by);
    minorId_ = 0;
  }
  void minorIdInc(uint16_t by) noexcept { minorId_ = uint16_t(minorId_ + by); }

 private:
  uint16_t majorId_ = 0;
  uint16_t minorId_ = 0;
};

}  // namespace Asic
