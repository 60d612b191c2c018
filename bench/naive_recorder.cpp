// The loop that anyone would write first: one blocking receive, one look at the clock, one buffered write.
#include "bench/recorder.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("Usage: naive_recorder PORT FILE\n", stderr);
    return 2;
  }
  end_on_signals();
  RecordingWriter recording(argv[2]);
  const int fd = recorder_socket(argv[1]);
  char datagram[8192];
  while (recorder_ended == 0) {
    sockaddr_in sender{};
    socklen_t size_of_sender = sizeof sender;
    const ssize_t size =
        recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&sender), &size_of_sender);
    if (size < 0) continue;
    recording.write(datagram, static_cast<std::size_t>(size), recorder_clock());
  }
  close(fd);
  return 0;
}
