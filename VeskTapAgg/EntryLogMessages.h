#pragma once

#include "Kest/Log.h"
#include "Kest/LogMessage.h"

namespace VeskTapAgg {

// The system-log messages of the entry logs. Only HW_ABSTRACTION_ERROR is raised here: a
// mount found its shared memory wiped. The other two are defined for the agents that share
// these names.
extern const Kest::LogMessageDescriptor kHwAbstractionException;
extern const Kest::LogMessageDescriptor kHwAbstractionRelaunchError;
extern const Kest::LogMessageDescriptor kHwAbstractionError;

// The handles one table type's entry log writes through, registered while they live:
// made in the order ERROR, RELAUNCH_ERROR, EXCEPTION, without a rate limit. A static of
// each entry-log type; single-threaded.
struct EntryLogMessageHandles {
  EntryLogMessageHandles();
  Kest::LogHandle error;
  Kest::LogHandle relaunchError;
  Kest::LogHandle exception;
};

}  // namespace VeskTapAgg
