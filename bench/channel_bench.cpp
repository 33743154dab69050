// The library beside raw code that moves the same bytes between two processes. All contenders of a
// row take turns in every round; a figure is made of the median over the rounds, a ratio of the
// library's figure and the raw one's.
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bench/check.h"
#include "bench/conversations.h"
#include "bench/packets.h"
#include "bench/processes.h"

namespace {

struct Options {
  unsigned rounds = 15;
  double round_seconds = 0.04;
  std::vector<std::string> tables;  // empty: all
};

// --- Measuring -----------------------------------------------------------------------------------

// Makes a figure of operations per second.
using Unit = double (*)(double rate);
double microseconds(double rate) { return 1e6 / rate; }
double thousands(double rate) { return rate / 1e3; }

// What one who races does, and where its figure goes.
struct Contender {
  Runner run;
  double& figure;
  std::size_t count = 0;           // operations of a round
  std::vector<double> rates = {};  // operations per second, of every round
};

double seconds_of(const Runner& run, std::size_t count) {
  const auto start = std::chrono::steady_clock::now();
  run(count);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// How many operations fill a round, more or less.
std::size_t fill_round(const Runner& run, double round_seconds) {
  std::size_t count = 16;
  while (seconds_of(run, count) < round_seconds / 4) count *= 2;
  return count * 4;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void race(const Options& options, Unit unit, std::vector<Contender> contenders) {
  for (Contender& c : contenders) c.count = fill_round(c.run, options.round_seconds);
  for (unsigned round = 0; round < options.rounds; ++round)
    for (Contender& c : contenders)
      c.rates.push_back(static_cast<double>(c.count) / seconds_of(c.run, c.count));
  for (Contender& c : contenders) c.figure = unit(median(c.rates));
}

// --- Printing ------------------------------------------------------------------------------------

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
  const char* title;
  const char* unit;
  const char* varied;
  std::vector<std::size_t> values;
  std::vector<Column<Figures>> columns;
  std::function<Figures(int other_core, std::size_t value)> measure;

  void print() const {
    std::printf("\n%s (%s)\n%-10s %8s", title, unit, "cores", varied);
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

// --- Round trips ---------------------------------------------------------------------------------

struct RoundTripFigures {
  double raw_select, library_waits, raw_epoll, raw_same_calls, library_epoll;
};

const std::vector<Column<RoundTripFigures>> round_trip_columns = {
    {"raw select", &RoundTripFigures::raw_select},
    {"library waits", &RoundTripFigures::library_waits},
    {"by select", &RoundTripFigures::library_waits, &RoundTripFigures::raw_select},
    {"raw epoll", &RoundTripFigures::raw_epoll},
    {"raw, same calls", &RoundTripFigures::raw_same_calls},
    {"library epoll", &RoundTripFigures::library_epoll},
    {"by epoll", &RoundTripFigures::library_epoll, &RoundTripFigures::raw_epoll},
    {"by same", &RoundTripFigures::library_epoll, &RoundTripFigures::raw_same_calls}};

RoundTripFigures race_round_trips(const Options& options, Unit unit, const RoundTrips& what) {
  RoundTripFigures f;
  race(options, unit,
       {{raw_round_trips(what, raw::Calls::send_recv, WaitBy::select), f.raw_select},
        {library_round_trips(what, WaitBy::select), f.library_waits},
        {raw_round_trips(what, raw::Calls::send_recv, WaitBy::epoll), f.raw_epoll},
        {raw_round_trips(what, raw::Calls::same_as_library, WaitBy::epoll), f.raw_same_calls},
        {library_round_trips(what, WaitBy::epoll), f.library_epoll}});
  return f;
}

void round_trips(const Options& options) {
  const Table<RoundTripFigures> table = {
      .title = "Round trips of one client",
      .unit = "microseconds; ratios are library time by raw time",
      .varied = "bytes",
      .values = {small_packet_size, 1024, 32768},
      .columns = round_trip_columns,
      .measure = [&](int server_core, std::size_t size) {
        return race_round_trips(options, microseconds, {server_core, 1, size});
      }};
  table.print();
}

void clients(const Options& options) {
  const Table<RoundTripFigures> table = {
      .title = "Clients of one server, 16 of them active, 94 bytes",
      .unit = "thousand round trips per second; ratios are library rate by raw rate",
      .varied = "clients",
      .values = {1, 16, 256, 1000, 4000},
      .columns = round_trip_columns,
      .measure = [&](int server_core, std::size_t connections) {
        return race_round_trips(options, thousands, {server_core, connections, small_packet_size});
      }};
  table.print();
}

// --- Streams -------------------------------------------------------------------------------------

struct StreamFigures {
  double raw_reads_only, raw_asks_size, library;
};

StreamFigures race_streams(const Options& options, const Stream& what) {
  StreamFigures f;
  race(options, thousands,
       {{raw_stream(what, raw::Calls::sendmsg_recvmsg), f.raw_reads_only},
        {raw_stream(what, raw::Calls::same_as_library), f.raw_asks_size},
        {library_stream(what), f.library}});
  return f;
}

void print_streams(const Options& options, const char* title, bool with_descriptor,
                   const std::vector<std::size_t>& sizes) {
  using F = StreamFigures;
  const Table<F> table = {
      .title = title,
      .unit = "thousand packets per second; ratios are library rate by raw rate",
      .varied = "bytes",
      .values = sizes,
      .columns = {{"raw, reads only", &F::raw_reads_only},
                  {"raw, asks size", &F::raw_asks_size},
                  {"library", &F::library},
                  {"by reading", &F::library, &F::raw_reads_only},
                  {"by asking", &F::library, &F::raw_asks_size}},
      .measure = [&](int receiver_core, std::size_t size) {
        return race_streams(options, {receiver_core, size, with_descriptor});
      }};
  table.print();
}

void streams(const Options& options) {
  print_streams(options, "One-way streams", false, {small_packet_size, 1024, 32768});
}

void descriptors(const Options& options) {
  print_streams(options, "A descriptor with every packet", true, {small_packet_size});
}

// --- The command line ----------------------------------------------------------------------------

struct NamedTable {
  const char* name;
  void (*print)(const Options&);
};
const NamedTable all_tables[] = {{"round-trips", round_trips},
                                 {"streams", streams},
                                 {"descriptors", descriptors},
                                 {"clients", clients}};

bool is_table(const std::string& name) {
  return std::any_of(std::begin(all_tables), std::end(all_tables),
                     [&](const NamedTable& table) { return table.name == name; });
}

[[noreturn]] void refuse(const std::string& problem) {
  std::fprintf(stderr, "channel_bench: %s\n", problem.c_str());
  std::fprintf(stderr, "usage: channel_bench [--quick] [--rounds N] [TABLE...]\ntables:");
  for (const NamedTable& table : all_tables) std::fprintf(stderr, " %s", table.name);
  std::fputc('\n', stderr);
  std::exit(2);
}

unsigned rounds_of(const std::string& text) {
  const int rounds = std::atoi(text.c_str());
  if (rounds < 1) refuse("not a number of rounds: '" + text + "'");
  return static_cast<unsigned>(rounds);
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--quick") {
      options.rounds = 3;
      options.round_seconds = 0.01;
    } else if (argument == "--rounds") {
      options.rounds = rounds_of(i + 1 < argc ? argv[++i] : "");
    } else if (is_table(argument)) {
      options.tables.push_back(argument);
    } else {
      refuse((argument.starts_with("-") ? "no such option: '" : "no such table: '") + argument +
             "'");
    }
  }
  return options;
}

void allow_many_descriptors() {
  rlimit limit;
  check(::getrlimit(RLIMIT_NOFILE, &limit), "getrlimit");
  limit.rlim_cur = limit.rlim_max;
  check(::setrlimit(RLIMIT_NOFILE, &limit), "setrlimit");
}

void print_circumstances(const Options& options) {
  utsname system;
  check(::uname(&system), "uname");
  std::printf("%s %s, %ld processors, medians of %u rounds\n", system.sysname, system.release,
              ::sysconf(_SC_NPROCESSORS_ONLN), options.rounds);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  const auto wanted = [&](const char* name) {
    return options.tables.empty() || std::count(options.tables.begin(), options.tables.end(), name);
  };
  allow_many_descriptors();
  pin_to(0);
  print_circumstances(options);
  for (const NamedTable& table : all_tables)
    if (wanted(table.name)) table.print(options);
  return 0;
}
