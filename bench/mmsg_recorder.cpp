// The naive loop with recvmmsg: up to 64 datagrams for one system call, each with its own look at the clock.
// With a third argument its socket never blocks, so that it has to wait with a call of its own.
#include <fcntl.h>
#include <sys/select.h>

#include <array>

#include "bench/recorder.h"

namespace {
constexpr std::size_t kBatch = 64;

/// Waits for a datagram, a second at most, as a service does that has to look after other things, too.
void wait_for_datagram(int fd) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  timeval timeout{1, 0};
  select(fd + 1, &set, nullptr, nullptr, &timeout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fputs("Usage: mmsg_recorder PORT FILE [select]\n", stderr);
    return 2;
  }
  const bool with_select = argc == 4;
  end_on_signals();
  RecordingWriter recording(argv[2]);
  const int fd = recorder_socket(argv[1]);
  if (with_select && fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
    perror("mmsg_recorder: fcntl");
    return 1;
  }
  static std::array<std::array<char, 2048>, kBatch> datagrams;
  static std::array<sockaddr_in, kBatch> senders;
  static std::array<iovec, kBatch> parts;
  static std::array<mmsghdr, kBatch> messages;
  for (std::size_t i = 0; i < kBatch; ++i) {
    parts[i] = {datagrams[i].data(), datagrams[i].size()};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
    messages[i].msg_hdr.msg_name = &senders[i];
  }
  while (recorder_ended == 0) {
    if (with_select) wait_for_datagram(fd);
    for (mmsghdr& message : messages) message.msg_hdr.msg_namelen = sizeof(sockaddr_in);
    const int count =
        recvmmsg(fd, messages.data(), kBatch, with_select ? MSG_DONTWAIT : MSG_WAITFORONE, nullptr);
    for (int i = 0; i < count; ++i) {
      const auto index = static_cast<std::size_t>(i);
      recording.write(datagrams[index].data(), messages[index].msg_len, recorder_clock());
    }
  }
  close(fd);
  return 0;
}
