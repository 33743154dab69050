#include "tool/round_trips.h"

#include <algorithm>
#include <bit>
#include <cmath>

constexpr std::size_t RoundTrips::bucket_of(std::uint64_t value) {
  const auto width = static_cast<unsigned>(std::bit_width(value));
  const unsigned shift = width > bucket_bits + 1 ? width - bucket_bits - 1 : 0;
  return (static_cast<std::size_t>(shift) << bucket_bits) + (value >> shift);
}

constexpr std::uint64_t RoundTrips::top_of(std::size_t bucket) {
  if (bucket >> bucket_bits < 2) return bucket;
  const std::size_t shift = (bucket >> bucket_bits) - 1;
  const std::uint64_t leading = bucket - (shift << bucket_bits);
  return ((leading + 1) << shift) - 1;
}

void RoundTrips::add(std::uint64_t nanoseconds) {
  min_ = count_ == 0 ? nanoseconds : std::min(min_, nanoseconds);
  max_ = std::max(max_, nanoseconds);
  ++count_;
  const auto time = static_cast<double>(nanoseconds);
  const double difference = time - mean_;
  mean_ += difference / static_cast<double>(count_);
  squares_ += difference * (time - mean_);
  ++buckets_[bucket_of(nanoseconds)];
}

double RoundTrips::deviation() const {
  return count_ == 0 ? 0 : std::sqrt(squares_ / static_cast<double>(count_));
}

std::uint64_t RoundTrips::percentile(double percent) const {
  const double wanted = std::ceil(static_cast<double>(count_) * percent / 100);
  std::uint64_t passed = 0;
  for (std::size_t bucket = 0; bucket < buckets_.size(); ++bucket) {
    passed += buckets_[bucket];
    if (static_cast<double>(passed) >= wanted) return std::min(top_of(bucket), max_);
  }
  return max_;
}
