#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Nimbo/Export.h"

namespace Asic {

// Told of each change to an attribute of an object it watches: the attribute's name and,
// for a keyed collection, the key as text (empty otherwise).
class AttributeObserver {
 public:
  virtual ~AttributeObserver() = default;
  virtual void onAttributeChange(std::string_view attribute, const std::string& key) = 0;
};

// Where an object announces the changes of its attributes. A mutator that changed
// something announces it; one that changed nothing does not. The key is formatted only
// when someone listens, so an unwatched object pays one branch; the observer list is made
// with the first observer, so an unwatched object carries one pointer. Owned by the
// object it announces for; observers are not owned and remove themselves before they go,
// never while they are told. Single-threaded.
class VESK_EXPORT Publisher {
 public:
  void observerIs(AttributeObserver* observer);
  void observerDel(AttributeObserver* observer);
  bool observed() const noexcept { return observers_ && !observers_->empty() && !muted_; }
  // An object being destroyed announces nothing any more.
  void mutedIs(bool muted) noexcept { muted_ = muted; }

  template <class KeyText>
  void announce(std::string_view attribute, KeyText&& keyText) {
    if (observed()) [[unlikely]]
      tell(attribute, keyText());
  }
  void announce(std::string_view attribute) {
    if (observed()) [[unlikely]]
      tell(attribute, std::string());
  }

 private:
  void tell(std::string_view attribute, const std::string& key);

  std::unique_ptr<std::vector<AttributeObserver*>> observers_;
  bool muted_ = false;
};

}  // namespace Asic
