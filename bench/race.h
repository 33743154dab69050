// Measuring contenders that take turns, so that what else the machine does meets all alike.
#ifndef COMM_BENCH_RACE_H
#define COMM_BENCH_RACE_H

#include <cstddef>
#include <vector>

#include "bench/processes.h"

struct Rounds {
  unsigned count;
  double seconds;  // of each, more or less
};

Clock wall_clock();

// What one who races does, and where its figure goes.
struct Contender {
  Runner run;
  double& figure;
  Clock clock = wall_clock();  // what is counted
  std::size_t operations = 1;  // that are done when it runs once
};

// Makes a figure of operations per second.
using Unit = double (*)(double rate);
inline double microseconds(double rate) { return 1e6 / rate; }
inline double thousands(double rate) { return rate / 1e3; }

// Each figure is made of the median over the rounds.
void race(const Rounds& rounds, Unit unit, const std::vector<Contender>& contenders);

#endif
