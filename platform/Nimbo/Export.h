#pragma once

// Symbols of the project's shared libraries are hidden unless marked with VESK_EXPORT.
#define VESK_EXPORT __attribute__((visibility("default")))
