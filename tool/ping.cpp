// tarn-comm ping: how long does a server take to answer?
#include <poll.h>
#include <tarn_utils_v4/comm.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/connection.h"
#include "tool/files.h"
#include "tool/packet_recipe.h"
#include "tool/round_trips.h"
#include "tool/stop_signals.h"

namespace {

constexpr char help[] =
    "usage: tarn-comm ping [OPTION...] PATH\n"
    "Sends requests to the server at PATH, one after another, and measures how long the answers\n"
    "take. Any packet that comes back is an answer, unless it has the message id of another\n"
    "request. SIGINT, SIGTERM and SIGHUP end it with the statistics.\n\n"
    "  -c, --count N             stop after N requests\n"
    "  -i, --interval SECONDS    from request to request (1); 0 sends as fast as answers come\n"
    "  -s, --size N              bytes of data in a request (56)\n"
    "  -W, --timeout SECONDS     for connecting, and to wait for each answer (5)\n"
    "  -C, --command COMMAND     the command of the requests (ping)\n"
    "  -q, --quiet               only the statistics, and on a terminal the progress\n"
    "  -v, --verbose             let the library log what it does\n"
    "  -h, --help                this text\n"
    "\nExit status: 0 if an answer came; 1 if none came, or when something failed, as when the "
    "server\n"
    "closes the connection; 2 for wrong usage.\n";

struct Settings {
  std::string path;
  std::optional<std::string> command;
  std::uint64_t count = 0;  // 0 is no limit
  std::uint64_t interval_us = 1'000'000;
  std::uint64_t size = 56;
  std::uint64_t timeout_us = 5'000'000;
  bool quiet = false;
  bool verbose = false;
};

void parse(int argc, char** argv, Settings& settings) {
  settings.path = parse_options(
      ping_subcommand, argc, argv,
      {number_option("count", 'c', settings.count, 1),
       seconds_option("interval", 'i', settings.interval_us),
       number_option("size", 's', settings.size, 0, COMM_V4_MAX_RECEIVED_PACKET),
       seconds_option("timeout", 'W', settings.timeout_us),
       text_option("command", 'C', settings.command), flag_option("quiet", 'q', settings.quiet),
       flag_option("verbose", 'v', settings.verbose)},
      {"PATH"}, 0)[0];
}

PacketRecipe request_of(const Settings& settings) {
  PacketRecipe recipe;
  recipe.set_command(settings.command.value_or("ping"));
  recipe.set_data(std::string(settings.size, 'x'));
  return recipe;
}

std::uint64_t now_ns() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

double milliseconds(double nanoseconds) { return nanoseconds / 1e6; }
double milliseconds(std::uint64_t nanoseconds) {
  return milliseconds(static_cast<double>(nanoseconds));
}

// One line on the terminal that is written over again, once a second has passed.
class Progress {
 public:
  explicit Progress(bool wanted) : shown_(wanted && ::isatty(STDERR_FILENO) == 1) {}
  void clear() {
    if (std::exchange(written_, false)) std::fputs("\r\033[K", stderr);
  }
  void show(const Settings& settings, std::uint64_t sent, std::uint64_t lost, double last_ms) {
    const std::uint64_t now = now_us();
    if (!shown_ || now < next_us_) return;
    next_us_ = now + 200'000;
    written_ = true;
    std::fprintf(stderr, "\r%" PRIu64, sent);
    if (settings.count != 0)
      std::fprintf(stderr, " of %" PRIu64 " (%" PRIu64 " %%)", settings.count,
                   sent * 100 / settings.count);
    std::fprintf(stderr, " sent, %" PRIu64 " lost, last %.3f ms", lost, last_ms);
    if (settings.count != 0) {
      const double per_request = static_cast<double>(now - start_us_) / static_cast<double>(sent);
      std::fprintf(stderr, ", %.0f s left",
                   per_request * static_cast<double>(settings.count - sent) / 1e6);
    }
    std::fputs("\033[K", stderr);
  }

 private:
  const bool shown_;
  const std::uint64_t start_us_ = now_us();
  std::uint64_t next_us_ = start_us_ + 1'000'000;
  bool written_ = false;
};

class Pinger {
 public:
  explicit Pinger(const Settings& settings)
      : settings_(settings), request_(request_of(settings)), progress_(settings.quiet) {}

  void connect() {
    request_.build(nullptr);  // What is too long is known before.
    endpoint_ = connect_to_server(settings_.path, settings_.timeout_us, settings_.verbose);
    signals_.emplace();
    start_us_ = now_us();
  }

  void run() {
    while (!stopped_ && (settings_.count == 0 || sent_ < settings_.count)) {
      const std::uint64_t next_us = now_us() + settings_.interval_us;
      ping();
      if (sent_ != settings_.count) pause(next_us);
    }
  }

  std::uint64_t answers() const { return round_trips_.count() + late_; }

  void print_statistics() {
    progress_.clear();
    const double lost =
        sent_ == 0 ? 0 : static_cast<double>(sent_ - answers()) * 100 / static_cast<double>(sent_);
    std::printf("\n--- %s ping statistics ---\n%" PRIu64 " sent, %" PRIu64 " answered",
                settings_.path.c_str(), sent_, answers());
    if (late_ != 0) std::printf(" (%" PRIu64 " late)", late_);
    std::printf(", %.4g%% lost, %.0f ms\n", lost, static_cast<double>(now_us() - start_us_) / 1e3);
    if (round_trips_.count() == 0) return;
    std::printf("round trip min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n",
                milliseconds(round_trips_.min()), milliseconds(round_trips_.mean()),
                milliseconds(round_trips_.max()), milliseconds(round_trips_.deviation()));
    std::printf(
        "percentiles 50/90/99/99.9 = %.3f/%.3f/%.3f/%.3f ms\n",
        milliseconds(round_trips_.percentile(50)), milliseconds(round_trips_.percentile(90)),
        milliseconds(round_trips_.percentile(99)), milliseconds(round_trips_.percentile(99.9)));
  }

 private:
  // True when the socket is ready, false at the deadline and once a signal has come.
  bool wait(short events, std::uint64_t deadline_us) {
    struct pollfd ready[] = {{endpoint_->get_socket_fd(), events, 0}, {signals_->fd(), POLLIN, 0}};
    const std::uint64_t now = now_us();
    const std::uint64_t left = now < deadline_us ? deadline_us - now : 0;
    const struct timespec timeout = {static_cast<time_t>(left / 1'000'000),
                                     static_cast<long>(left % 1'000'000 * 1000)};
    ::ppoll(ready, 2, &timeout, nullptr);
    stopped_ = stopped_ || ready[1].revents != 0;
    return !stopped_ && ready[0].revents != 0;
  }

  void ping() {
    const std::uint64_t deadline_us = now_us() + settings_.timeout_us;
    const CommPacket packet = request_.build(nullptr);
    const std::uint64_t sequence = sent_ + 1;
    set_message_id(*packet, sequence);
    const std::uint64_t start_ns = now_ns();
    int result;
    while ((result = comm_socket_v4_packet_send_to_server(endpoint_.get(), packet.get())) == 0)
      if (!wait(POLLOUT, deadline_us)) return give_up_sending();
    if (result < 0) throw Failure("the server closed the connection");
    sent_ = sequence;
    while (wait(POLLIN, deadline_us))
      if (const CommPacket answer = receive(); is_answer(answer.get()))
        return report(*answer, now_ns() - start_ns);
    if (stopped_)
      --sent_;  // Nobody knows what would have become of it.
    else
      report_loss();
  }

  void give_up_sending() const {
    if (!stopped_) throw Failure("the server takes no packet in time");
  }

  // What comes between two requests is late.
  void pause(std::uint64_t until_us) {
    while (!stopped_ && now_us() < until_us)
      if (wait(POLLIN, until_us)) is_answer(receive().get());
    wait(0, 0);  // A signal is noticed even without any pause.
  }

  CommPacket receive() {
    CommPacket packet(comm_socket_v4_client_get_packet_from_server(endpoint_.get()));
    if (packet == nullptr && !endpoint_->socket_open())
      throw Failure("the server closed the connection");
    return packet;
  }

  // Servers that know nothing of message ids answer with 0.
  bool is_answer(const comm_socket_v4_packet* packet) {
    if (packet == nullptr) return false;
    const std::uint64_t id = packet->message_id;
    if ((id == 0 || id == sent_) && answers() < sent_) return true;
    if (id == 0 || id >= sent_ || answers() >= sent_) return false;
    ++late_;
    if (!settings_.quiet) std::printf("late answer: seq=%" PRIu64 "\n", id);
    return false;
  }

  void report(const comm_socket_v4_packet& answer, std::uint64_t nanoseconds) {
    round_trips_.add(nanoseconds);
    progress_.show(settings_, sent_, sent_ - answers(), milliseconds(nanoseconds));
    if (settings_.quiet) return;
    std::printf("%zu bytes from %s: seq=%" PRIu64 " time=%.3f ms", answer.buffer_length,
                settings_.path.c_str(), sent_, milliseconds(nanoseconds));
    if (answer.error_code != 0) std::printf(" error=%" PRIu64, answer.error_code);
    std::putchar('\n');
    flush_standard_output();
  }

  void report_loss() {
    if (settings_.quiet) return;
    std::printf("no answer in time: seq=%" PRIu64 "\n", sent_);
    flush_standard_output();
  }

  // Into a packet that is complete.
  static void set_message_id(comm_socket_v4_packet& packet, std::uint64_t id) {
    reinterpret_cast<comm_socket_v4_packet_header*>(packet.buffer)->message_id = id;
  }

  const Settings& settings_;
  PacketRecipe request_;
  std::optional<StopSignals> signals_;  // while connecting, SIGINT just ends the program
  Progress progress_;
  CommEndpoint endpoint_;
  RoundTrips round_trips_;
  std::uint64_t start_us_ = now_us();
  std::uint64_t sent_ = 0;
  std::uint64_t late_ = 0;
  bool stopped_ = false;
};

int run(int argc, char** argv) {
  Settings settings;
  parse(argc, argv, settings);
  Pinger pinger(settings);
  pinger.connect();
  try {
    pinger.run();
  } catch (const Failure&) {
    pinger.print_statistics();
    throw;
  }
  pinger.print_statistics();
  return pinger.answers() > 0 ? exit_ok : exit_failed;
}

}  // namespace

const Subcommand ping_subcommand = {"ping", "measure how long a server takes to answer", help, run};
