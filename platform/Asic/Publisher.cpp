#include "Asic/Publisher.h"

#include <algorithm>

namespace Asic {

void Publisher::observerIs(AttributeObserver* observer) {
  if (!observers_) observers_ = std::make_unique<std::vector<AttributeObserver*>>();
  if (std::find(observers_->begin(), observers_->end(), observer) == observers_->end()) {
    observers_->push_back(observer);
  }
}

void Publisher::observerDel(AttributeObserver* observer) {
  if (!observers_) return;
  observers_->erase(std::remove(observers_->begin(), observers_->end(), observer),
                    observers_->end());
}

void Publisher::tell(std::string_view attribute, const std::string& key) {
  for (AttributeObserver* observer : *observers_) observer->onAttributeChange(attribute, key);
}

}  // namespace Asic
