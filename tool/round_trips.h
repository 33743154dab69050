// Times of round trips in constant memory, however many there are.
#ifndef TOOL_ROUND_TRIPS_H
#define TOOL_ROUND_TRIPS_H

#include <array>
#include <cstdint>

class RoundTrips {
 public:
  void add(std::uint64_t nanoseconds);

  std::uint64_t count() const { return count_; }
  std::uint64_t min() const { return min_; }
  std::uint64_t max() const { return max_; }
  double mean() const { return mean_; }
  double deviation() const;
  // The time that `percent` of them did not exceed, at most 1 % too long.
  std::uint64_t percentile(double percent) const;

 private:
  // 128 buckets for each power of two; below 256, one for each number.
  static constexpr unsigned bucket_bits = 7;
  static constexpr std::size_t bucket_of(std::uint64_t value);
  static constexpr std::uint64_t top_of(std::size_t bucket);

  std::uint64_t count_ = 0;
  std::uint64_t min_ = 0;
  std::uint64_t max_ = 0;
  double mean_ = 0;
  double squares_ = 0;  // sum of the squared differences from the mean
  std::array<std::uint64_t, (64 - bucket_bits + 1) << bucket_bits> buckets_ = {};
};

#endif
