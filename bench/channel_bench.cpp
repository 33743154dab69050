// The library beside raw code that moves the same bytes between two processes. All contenders of a
// row take turns in every round; a figure is made of the median over the rounds, a ratio of the
// library's figure and the raw one's.
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/check.h"
#include "bench/packets.h"
#include "bench/race.h"
#include "bench/round_trips.h"
#include "bench/streams.h"
#include "bench/table.h"

namespace {

struct Options {
  Rounds rounds = {.count = 15, .seconds = 0.04};
  std::vector<std::string> tables;  // empty: all
};

// --- Round trips ---------------------------------------------------------------------------------

struct RoundTripFigures {
  double raw_select, library_waits, raw_epoll, raw_same_calls, library_epoll;
};

RoundTripFigures race_round_trips(const Options& options, int server_core, std::size_t size) {
  const RoundTrips what = {server_core, 1, 1, size};
  using raw::Calls;
  const auto by_raw = [&](const Serve& serve, Calls calls, WaitBy wait_by) {
    return round_trips(what, serve, raw_client(calls, wait_by)).run;
  };
  const auto by_library = [&](const Serve& serve, WaitBy wait_by) {
    return round_trips(what, serve, library_client(wait_by)).run;
  };
  RoundTripFigures f;
  race(options.rounds, microseconds,
       {{by_raw(raw_by_select(Calls::send_recv), Calls::send_recv, WaitBy::select), f.raw_select},
        {by_library(library_by_waits(), WaitBy::select), f.library_waits},
        {by_raw(raw_by_epoll(Calls::send_recv), Calls::send_recv, WaitBy::epoll), f.raw_epoll},
        {by_raw(raw_by_epoll(Calls::same_as_library), Calls::same_as_library, WaitBy::epoll),
         f.raw_same_calls},
        {by_library(library_by_epoll(), WaitBy::epoll), f.library_epoll}});
  return f;
}

void print_round_trips(const Options& options) {
  using F = RoundTripFigures;
  const Table<F> table = {.title = "Round trips of one client",
                          .unit = "microseconds; ratios are library time by raw time",
                          .varied = "bytes",
                          .values = {small_packet_size, 1024, 32768},
                          .columns = {{"raw select", &F::raw_select},
                                      {"library waits", &F::library_waits},
                                      {"by select", &F::library_waits, &F::raw_select},
                                      {"raw epoll", &F::raw_epoll},
                                      {"raw, same calls", &F::raw_same_calls},
                                      {"library epoll", &F::library_epoll},
                                      {"by epoll", &F::library_epoll, &F::raw_epoll},
                                      {"by same", &F::library_epoll, &F::raw_same_calls}},
                          .measure = [&](int server_core, std::size_t size) {
                            return race_round_trips(options, server_core, size);
                          }};
  table.print();
}

// --- Many clients --------------------------------------------------------------------------------

// The servers take turns with the same clients. Counted is the processor time of the server alone,
// which the clients' own work, and what else the machine does, have no part in.
class ServerRace {
 public:
  explicit ServerRace(const RoundTrips& what) : what_(what) {}

  void add(const Serve& serve, double& figure) {
    const RoundTripRunner trips =
        round_trips(what_, serve, raw_client(raw::Calls::send_recv, WaitBy::epoll));
    contenders_.push_back({trips.run, figure, trips.server_processor, what_.active});
  }
  // How long it took since then to connect the clients of all servers.
  double seconds() const { return clock_() - start_; }
  void run(const Options& options) const { race(options.rounds, thousands, contenders_); }

 private:
  const RoundTrips what_;
  std::vector<Contender> contenders_;
  const Clock clock_ = wall_clock();
  const double start_ = clock_();
};

struct LoopFigures {
  double raw, raw_same_calls, by_hand, comm_loop, connect;
};

LoopFigures race_loops(const Options& options, const RoundTrips& what) {
  LoopFigures f;
  ServerRace servers(what);
  servers.add(raw_by_epoll(raw::Calls::send_recv), f.raw);
  servers.add(raw_by_epoll(raw::Calls::same_as_library), f.raw_same_calls);
  servers.add(library_by_epoll(), f.by_hand);
  servers.add(library_comm_loop(), f.comm_loop);
  f.connect = servers.seconds();
  servers.run(options);
  return f;
}

struct WaitFigures {
  double raw_select, raw_poll, library_waits, connect;
};

WaitFigures race_waits(const Options& options, const RoundTrips& what) {
  WaitFigures f;
  ServerRace servers(what);
  servers.add(raw_by_select(raw::Calls::send_recv), f.raw_select);
  servers.add(raw_by_poll(raw::Calls::send_recv), f.raw_poll);
  servers.add(library_by_waits(), f.library_waits);
  f.connect = servers.seconds();
  servers.run(options);
  return f;
}

// `most_active` of the clients talk.
template <class Figures>
void print_servers(const Options& options, const std::string& title, std::size_t most_active,
                   const std::vector<Column<Figures>>& columns,
                   Figures (*measure_servers)(const Options&, const RoundTrips&)) {
  const Table<Figures> table = {
      .title = title,
      .unit =
          "thousand round trips per second of the server's processor time; ratios are library "
          "rate by other; seconds to connect all",
      .varied = "clients",
      .values = {16, 256, 1000, 4000},
      .columns = columns,
      .measure = [&](int server_core, std::size_t connections) {
        const std::size_t active = std::min(connections, most_active);
        return measure_servers(options, {server_core, connections, active, small_packet_size});
      }};
  table.print();
}

void print_clients(const Options& options) {
  using Loop = LoopFigures;
  const std::vector<Column<Loop>> loops = {{"raw epoll", &Loop::raw},
                                           {"raw, same calls", &Loop::raw_same_calls},
                                           {"hand-written", &Loop::by_hand},
                                           {"CommLoop", &Loop::comm_loop},
                                           {"by raw", &Loop::comm_loop, &Loop::raw},
                                           {"by same", &Loop::comm_loop, &Loop::raw_same_calls},
                                           {"by hand", &Loop::comm_loop, &Loop::by_hand},
                                           {"connect", &Loop::connect}};
  using Wait = WaitFigures;
  const std::vector<Column<Wait>> waits = {{"raw select", &Wait::raw_select},
                                           {"raw poll", &Wait::raw_poll},
                                           {"library waits", &Wait::library_waits},
                                           {"by select", &Wait::library_waits, &Wait::raw_select},
                                           {"by poll", &Wait::library_waits, &Wait::raw_poll},
                                           {"connect", &Wait::connect}};
  constexpr std::size_t all = COMM_V4_MAX_CLIENTS;
  print_servers(options, "Loops of a server, all clients talk", all, loops, race_loops);
  print_servers(options, "Loops of a server, 8 clients talk", 8, loops, race_loops);
  print_servers(options, "Waits of a server, all clients talk", all, waits, race_waits);
  print_servers(options, "Waits of a server, 200 clients talk", 200, waits, race_waits);
  print_servers(options, "Waits of a server, 8 clients talk", 8, waits, race_waits);
}

// --- Streams -------------------------------------------------------------------------------------

struct StreamFigures {
  double raw_reads_only, raw_asks_size, library;
};

StreamFigures race_streams(const Options& options, const Stream& what) {
  StreamFigures f;
  race(options.rounds, thousands,
       {{raw_stream(what, raw::Calls::sendmsg_recvmsg).run, f.raw_reads_only},
        {raw_stream(what, raw::Calls::same_as_library).run, f.raw_asks_size},
        {library_stream(what).run, f.library}});
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

struct FileFigures {
  double raw, by_copy, in_place;
};

// By the processor time of both, as reading and copying is all that differs.
FileFigures race_file_streams(const Options& options, Stream what) {
  FileFigures f;
  std::vector<Contender> contenders;
  const auto add = [&](const StreamRunner& stream, double& figure) {
    contenders.push_back({stream.run, figure, stream.processors});
  };
  what.data_from = DataFrom::file_in_place;
  add(raw_stream(what, raw::Calls::sendmsg_recvmsg), f.raw);
  add(library_stream(what), f.in_place);
  what.data_from = DataFrom::file_by_copy;
  add(library_stream(what), f.by_copy);
  race(options.rounds, thousands, contenders);
  return f;
}

void print_file_streams(const Options& options) {
  using F = FileFigures;
  const Table<F> table = {
      .title = "Parts of a file, read with pread",
      .unit =
          "thousand packets per second of both processes' processor time; ratios are library rate "
          "by raw rate",
      .varied = "bytes",
      .values = {1024, 32768},
      .columns = {{"raw", &F::raw},
                  {"write_data_binary", &F::by_copy},
                  {"by raw", &F::by_copy, &F::raw},
                  {"write_data_from_file", &F::in_place},
                  {"by raw", &F::in_place, &F::raw}},
      .measure = [&](int receiver_core, std::size_t size) {
        return race_file_streams(options, {receiver_core, size});
      }};
  table.print();
}

void print_plain_streams(const Options& options) {
  print_streams(options, "One-way streams", false, {small_packet_size, 1024, 32768});
  print_file_streams(options);
}

void print_descriptors(const Options& options) {
  print_streams(options, "A descriptor with every packet", true, {small_packet_size});
}

// --- The command line ----------------------------------------------------------------------------

struct NamedTable {
  const char* name;
  void (*print)(const Options&);
};
const NamedTable all_tables[] = {{"round-trips", print_round_trips},
                                 {"streams", print_plain_streams},
                                 {"descriptors", print_descriptors},
                                 {"clients", print_clients}};

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
      options.rounds = {.count = 3, .seconds = 0.01};
    } else if (argument == "--rounds") {
      options.rounds.count = rounds_of(i + 1 < argc ? argv[++i] : "");
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
              ::sysconf(_SC_NPROCESSORS_ONLN), options.rounds.count);
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
