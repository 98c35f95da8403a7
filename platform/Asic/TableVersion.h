#pragma once

#include "Asic/LogVersion.h"

namespace Asic {

// The value of the group's shared table-version map: per table type, the log version the
// hardware side has processed. The same number as the entry log's versions, so the same
// type; the name says which side reported it.
using TableVersion = LogVersion;

}  // namespace Asic
