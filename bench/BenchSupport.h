#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "types/TableTypes.h"

namespace VeskBench {

// The reference table type: a 72-byte key, an 88-byte configuration record and an 84-byte
// change-log record.
using Traits = VeskTapAgg::DefaultFwdTcamEntryTraits;
using Key = Traits::EntryKey;

// A key that differs from every other one's in its priority, spread over the fields a
// default-forwarding rule matches on.
inline Key keyOf(uint32_t i) {
  Key k{};
  k.priority = i;
  k.ingressPort = {i % 64, 0xffffffffu};
  k.dstIp = {i * 2654435761u, 0xffffffffu};
  k.actionIndex = i % 1024;
  return k;
}

// One shared-memory root per benchmark run, removed at exit.
struct Root {
  std::string path = "/dev/shm/vesk-bench-" + std::to_string(::getpid());
  Root() { ::setenv("VESK_SHM_ROOT", path.c_str(), 1); }
  ~Root() { std::filesystem::remove_all(path); }
};

}  // namespace VeskBench
