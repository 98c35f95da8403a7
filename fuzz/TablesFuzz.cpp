// A table type's entry log against a model of what it documents (EntryLogDifferential.h).
// The first byte picks the table type, an action table (bit 0 clear) or an entry table;
// the rest is the run of operations. A read that differs from the model, an exception, a
// crash or a sanitizer report is a finding.

#include <cstdio>
#include <string>

#include "EntryLogDifferential.h"
#include "FuzzSupport.h"
#include "Kest/Log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  VeskFuzz::privateRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  Kest::LogCapture quiet;
  using namespace VeskTapAgg;
  const std::string mismatch =
      data[0] & 1
          ? VeskTest::EntryLogDifferential<DefaultFwdTcamEntryTraits>::run(data + 1, size - 1)
          : VeskTest::EntryLogDifferential<DefaultFwdTcamActionTraits>::run(data + 1, size - 1);
  if (!mismatch.empty()) std::fprintf(stderr, "%s\n", mismatch.c_str());
  VeskFuzz::require(mismatch.empty(), "the entry log differs from its model");
  return 0;
}
