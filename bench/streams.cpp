#include "bench/streams.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <tarn_utils_v4/comm.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/check.h"
#include "bench/packets.h"
#include "bench/raw_waits.h"

namespace {

// Each does `count` records at one end of a socket pair.
using MakeEnd = std::function<Runner(CommDescriptor socket)>;

double own_processor_seconds() {
  timespec time;
  check(::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time), "clock_gettime");
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

StreamRunner stream(int receiver_core, const MakeEnd& make_sender, const MakeEnd& make_receiver) {
  int pair[2];
  check(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, pair), "socketpair");
  CommDescriptor here(pair[0]);
  CommDescriptor there(pair[1]);
  const auto receiver =
      std::make_shared<Worker>(receiver_core, [&] { return make_receiver(std::move(there)); });
  const auto run = [receiver, send = make_sender(std::move(here))](std::size_t count) {
    receiver->start(count);
    send(count);
    receiver->finish();
  };
  return {run, [receiver] { return receiver->processor_seconds() + own_processor_seconds(); }};
}

// A file in memory, read in parts from its start to its end, again and again.
class FileParts {
 public:
  FileParts() : file_(check(::memfd_create("parts", 0), "memfd_create")) {
    const std::string bytes(size, 'x');
    check(::write(file_.get(), bytes.data(), bytes.size()), "write");
  }
  void read(void* room, std::size_t length) {
    check(::pread(file_.get(), room, length, next(length)), "pread");
  }
  void read(comm_socket_v4_packet& p, std::size_t length) {
    check(p.write_data_from_file(file_.get(), next(length), length), "write_data_from_file");
  }

 private:
  // Where a part of this length is.
  off_t next(std::size_t length) {
    const std::size_t at = end_ + length <= size ? end_ : 0;
    end_ = at + length;
    return static_cast<off_t>(at);
  }

  static constexpr std::size_t size = 1 << 20;
  CommDescriptor file_;
  std::size_t end_ = 0;
};

Runner raw_sender(CommDescriptor socket, const Stream& what, raw::Calls calls) {
  const auto owner = std::make_shared<CommDescriptor>(std::move(socket));
  const auto file = std::make_shared<FileParts>();
  const int passed = what.with_descriptor ? STDIN_FILENO : -1;
  return [=, record = bytes_of(*build_packet(what.size))](std::size_t count) mutable {
    for (std::size_t sent = 0; sent < count; ++sent) {
      if (what.data_from != DataFrom::memory)
        file->read(&record[small_packet_size], record.size() - small_packet_size);
      while (raw::send(owner->get(), record, calls, passed) < 0) {
        if (errno != EAGAIN) fail_call("send");
        raw::wait_writeable(owner->get());
      }
    }
  };
}

Runner raw_receiver(CommDescriptor socket, raw::Calls calls) {
  const auto owner = std::make_shared<CommDescriptor>(std::move(socket));
  return [=](std::size_t count) {
    for (std::size_t taken = 0; taken < count;) {
      raw::wait_readable(owner->get());
      while (raw::receive(owner->get(), calls) > 0) ++taken;
    }
  };
}

CommPacket build_packet_of(const Stream& what, FileParts& file) {
  // Half a page from where packets have their data: between places that are nearly a multiple of a
  // page apart some processors copy at half the speed.
  static std::vector<unsigned char> memory;
  memory.resize(2048 + what.size);
  const auto by_copy = [&file](comm_socket_v4_packet& p, std::size_t length) {
    file.read(&memory[2048], length);
    p.write_data_binary(&memory[2048], length);
  };
  const auto in_place = [&file](comm_socket_v4_packet& p, std::size_t length) {
    file.read(p, length);
  };
  switch (what.data_from) {
    case DataFrom::file_by_copy:
      return build_packet(what.size, by_copy);
    case DataFrom::file_in_place:
      return build_packet(what.size, in_place);
    default:
      return build_packet(what.size);
  }
}

void send_packet(comm_socket_v4* endpoint, const Stream& what, FileParts& file) {
  const CommPacket packet = build_packet_of(what, file);
  if (what.with_descriptor && !packet->attach_fd_to_send(STDIN_FILENO))
    fail("standard input cannot be attached");
  while (check(comm_socket_v4_packet_send_to_server(endpoint, packet.get()), "send_to_server") == 0)
    comm_socket_v4_wait_for_client_to_server_writeable(endpoint, ULONG_MAX);
}

Runner library_sender(CommDescriptor socket, const Stream& what) {
  const std::shared_ptr<comm_socket_v4> endpoint = endpoint_on(std::move(socket));
  const auto file = std::make_shared<FileParts>();
  return [=](std::size_t count) {
    for (std::size_t sent = 0; sent < count; ++sent) send_packet(endpoint.get(), what, *file);
  };
}

Runner library_receiver(CommDescriptor socket) {
  const std::shared_ptr<comm_socket_v4> endpoint = endpoint_on(std::move(socket));
  return [=](std::size_t count) {
    for (std::size_t taken = 0; taken < count;) {
      comm_socket_v4_client_from_server_readable(endpoint.get(), ULONG_MAX);
      while (
          const CommPacket packet{comm_socket_v4_client_get_packet_from_server(endpoint.get())}) {
        look_at(*packet);
        ++taken;
      }
    }
  };
}

}  // namespace

StreamRunner raw_stream(const Stream& what, raw::Calls calls) {
  return stream(
      what.receiver_core,
      [&](CommDescriptor socket) { return raw_sender(std::move(socket), what, calls); },
      [&](CommDescriptor socket) { return raw_receiver(std::move(socket), calls); });
}

StreamRunner library_stream(const Stream& what) {
  return stream(
      what.receiver_core,
      [&](CommDescriptor socket) { return library_sender(std::move(socket), what); },
      library_receiver);
}
