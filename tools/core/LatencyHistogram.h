#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace VeskTool {

// Latencies in microseconds as a histogram of buckets 1% wide (logarithmic, from 1 us to
// about 20 minutes; below and above go to the end buckets): a percentile is within 1% of
// the exact one, and the memory stays the same however many latencies a run records.
// A value type; one thread.
class LatencyHistogram {
 public:
  void add(double us) {
    ++counts_[bucketOf(us)];
    ++count_;
  }
  uint64_t count() const { return count_; }
  // The latency below which `p` percent of them lie; 0 when there are none.
  double percentile(double p) const {
    if (count_ == 0) return 0;
    const auto rank = std::max<uint64_t>(1, uint64_t(std::ceil(p / 100.0 * double(count_))));
    uint64_t seen = 0;
    for (size_t b = 0; b < kBuckets; ++b) {
      seen += counts_[b];
      if (seen >= rank) return b == 0 ? 0.5 : std::pow(kGrowth, double(b) - 0.5);
    }
    return std::pow(kGrowth, double(kBuckets) - 0.5);
  }
  // Calls visit(upToUs, count) for every bucket that holds a latency, from the lowest: the
  // count of latencies below upToUs and at or above the previous bucket's bound.
  template <class Visit>
  void forEachBucket(Visit&& visit) const {
    for (size_t b = 0; b < kBuckets; ++b) {
      if (counts_[b] != 0) visit(std::pow(kGrowth, double(b)), counts_[b]);
    }
  }

 private:
  static constexpr double kGrowth = 1.01;
  static constexpr size_t kBuckets = 2100;  // 1.01^2100 us is about 20 minutes

  // Bucket 0 holds [0, 1) us; bucket b > 0 holds [1.01^(b-1), 1.01^b).
  static size_t bucketOf(double us) {
    if (!(us >= 1)) return 0;
    return std::min(kBuckets - 1, size_t(std::log(us) / std::log(kGrowth)) + 1);
  }

  std::vector<uint64_t> counts_ = std::vector<uint64_t>(kBuckets);
  uint64_t count_ = 0;
};

}  // namespace VeskTool
