#include "VeskTapAgg/EntryLogMessages.h"

namespace VeskTapAgg {

namespace {
// Severity 3 (error); no recommended action is given, which the message format marks
// with the one-character placeholder \x01.
constexpr uint32_t kSeverity = 3;
constexpr const char* kAction = "\x01";
}  // namespace

VESK_LOG_MESSAGE(kHwAbstractionException, "HW_ABSTRACTION_EXCEPTION", "%s", "Exception", kAction,
                 kSeverity);
VESK_LOG_MESSAGE(kHwAbstractionRelaunchError, "HW_ABSTRACTION_RELAUNCH_ERROR", "%s",
                 "Duplicate Writer Detected, shard path not cleaned up", kAction, kSeverity);
VESK_LOG_MESSAGE(kHwAbstractionError, "HW_ABSTRACTION_ERROR",
                 "Hardware abstraction error: unable to load item: %s",
                 "Hardware abstraction error: unable to load some persistent items. Some agents "
                 "will be restarted",
                 kAction, kSeverity);

EntryLogMessageHandles::EntryLogMessageHandles()
    : error(kHwAbstractionError, Nimbo::Duration(), 1.0, 0, 0),
      relaunchError(kHwAbstractionRelaunchError, Nimbo::Duration(), 1.0, 0, 0),
      exception(kHwAbstractionException, Nimbo::Duration(), 1.0, 0, 0) {}

}  // namespace VeskTapAgg
