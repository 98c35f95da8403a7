#pragma once

#include <string>

namespace Nimbo {

// Owned text used across the platform and the tables.
using String = std::string;

}  // namespace Nimbo
