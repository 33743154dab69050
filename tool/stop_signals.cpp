#include "tool/stop_signals.h"

#include <sys/signalfd.h>

#include <csignal>

#include "tool/arguments.h"

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // Under nohup it stays ignored.
  struct sigaction hangup;
  if (::sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN)
    sigaddset(&signals, SIGHUP);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  fd_ = CommDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_.is_open()) throw system_failure("cannot wait for signals");
}
