#pragma once

#include <functional>

#include "Asic/EntryVersion.h"
#include "Asic/LogVersion.h"
#include "Asic/SwTableBase.h"

namespace Asic {

// A software table whose changes are ordered: each goes through the group resolver, is
// committed to the entry log with a log version, and is confirmed when the hardware side
// reports that version through tableStatusVersion(). Shared by reference count;
// single-threaded: the agent's event thread.
class VESK_EXPORT OrderedSwTable : public SwTableBase {
 public:
  // The handle of one ordered change: its entry version (given when the change is made)
  // and its log version (given when it is committed).
  class VESK_EXPORT EntryHandle : public SwTableBase::EntryHandle {
   public:
    explicit EntryHandle(const EntryVersion& version) : entryVersion_(version) {}

    const EntryVersion& entryVersion() const noexcept { return entryVersion_; }
    LogVersion logVersion() const noexcept { return logVersion_; }
    void logVersionIs(LogVersion version) noexcept { logVersion_ = version; }

    virtual SwTableId tableId() const = 0;
    virtual Nimbo::String tableName() const = 0;

   private:
    EntryVersion entryVersion_;
    LogVersion logVersion_;
  };

  // The client's callback for one change, called once it is confirmed or has failed.
  using ResponseHandler = std::function<void(const Nimbo::Ptr<const EntryHandle>&)>;

  using SwTableBase::SwTableBase;

  // The hardware side has taken every change up to `version`.
  virtual void tableStatusVersion(LogVersion version) = 0;
  // Whether changes are pending or in the log and not yet taken by the hardware side.
  virtual bool hasPendingHwWrites() const = 0;
};

}  // namespace Asic
