// Figures, row by row.
#ifndef COMM_BENCH_TABLE_H
#define COMM_BENCH_TABLE_H

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

// Shows a figure, or its ratio to another.
template <class Figures>
struct Column {
  const char* name;
  double Figures::*figure;
  double Figures::*by = nullptr;

  int width() const { return std::max(8, static_cast<int>(std::strlen(name)) + 2); }
  double value(const Figures& f) const { return by == nullptr ? f.*figure : f.*figure / f.*by; }
};

// A row for every value of what varies, with the other process on the same core and on another.
template <class Figures>
struct Table {
  std::string title;
  const char* unit;
  const char* varied;
  std::vector<std::size_t> values;
  std::vector<Column<Figures>> columns;
  std::function<Figures(int other_core, std::size_t value)> measure;

  void print() const {
    std::printf("\n%s (%s)\n%-10s %8s", title.c_str(), unit, "cores", varied);
    for (const auto& column : columns) std::printf("%*s", column.width(), column.name);
    end_line();
    for (const int other_core : {0, 1})
      for (const std::size_t value : values) print_row(other_core, value);
  }

 private:
  void print_row(int other_core, std::size_t value) const {
    const Figures figures = measure(other_core, value);
    std::printf("%-10s %8zu", other_core == 0 ? "one core" : "two cores", value);
    for (const auto& column : columns) std::printf("%*.2f", column.width(), column.value(figures));
    end_line();
  }
  // Processes that are started later must not inherit half a line.
  static void end_line() {
    std::putchar('\n');
    std::fflush(stdout);
  }
};

#endif
