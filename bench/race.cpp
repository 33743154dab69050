#include "bench/race.h"

#include <algorithm>
#include <chrono>

namespace {

double seconds_of(const Clock& clock, const Runner& run, std::size_t count) {
  const double start = clock();
  run(count);
  return clock() - start;
}

// How often a contender runs in a round.
std::size_t fill_round(const Runner& run, double round_seconds) {
  std::size_t count = 1;
  while (seconds_of(wall_clock(), run, count) < round_seconds / 4) count *= 2;
  return count * 4;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

Clock wall_clock() {
  return [] {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
  };
}

void race(const Rounds& rounds, Unit unit, const std::vector<Contender>& contenders) {
  std::vector<std::size_t> counts;
  for (const Contender& c : contenders) counts.push_back(fill_round(c.run, rounds.seconds));
  std::vector<std::vector<double>> rates(contenders.size());
  for (unsigned round = 0; round < rounds.count; ++round) {
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      const Contender& c = contenders[i];
      const double operations = static_cast<double>(counts[i] * c.operations);
      rates[i].push_back(operations / seconds_of(c.clock, c.run, counts[i]));
    }
  }
  for (std::size_t i = 0; i < contenders.size(); ++i)
    contenders[i].figure = unit(median(std::move(rates[i])));
}
