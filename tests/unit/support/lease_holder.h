#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace unit {

/// Another process that holds a lease on a file: nobody opens it but with its leave.
class LeaseHolder {
public:
  enum Manner { GivesItUp, KeepsIt };

  LeaseHolder(const std::string& path, Manner manner) {
    int ready[2];
    if (pipe(ready) != 0) abort();
    process = fork();
    if (process == 0) hold(path, manner, ready[1]);
    close(ready[1]);
    char byte = 0;
    holds = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
  }
  ~LeaseHolder() {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
  LeaseHolder(const LeaseHolder&) = delete;
  LeaseHolder& operator=(const LeaseHolder&) = delete;
  LeaseHolder(LeaseHolder&&) = delete;
  LeaseHolder& operator=(LeaseHolder&&) = delete;

  bool holds = false;

private:
  [[noreturn]] static void hold(const std::string& path, Manner manner, int ready) {
    sigset_t asked;
    sigemptyset(&asked);
    sigaddset(&asked, SIGIO);
    pthread_sigmask(SIG_BLOCK, &asked, nullptr);
    const int fd = open(path.c_str(), O_RDWR);
    if (fcntl(fd, F_SETLEASE, F_WRLCK) == 0 && write(ready, "", 1) == 1) {
      int signal = 0;
      sigwait(&asked, &signal);
      if (manner == GivesItUp) fcntl(fd, F_SETLEASE, F_UNLCK);
      pause();
    }
    _exit(1);
  }

  pid_t process;
};

}  // namespace unit
