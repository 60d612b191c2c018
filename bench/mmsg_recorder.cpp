// The naive loop with recvmmsg: up to 64 datagrams for one system call, each with its own look at the clock.
#include <array>

#include "bench/recorder.h"

namespace {
constexpr std::size_t kBatch = 64;
}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("Usage: mmsg_recorder PORT FILE\n", stderr);
    return 2;
  }
  end_on_signals();
  RecordingWriter recording(argv[2]);
  const int fd = recorder_socket(argv[1]);
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
    for (mmsghdr& message : messages) message.msg_hdr.msg_namelen = sizeof(sockaddr_in);
    const int count = recvmmsg(fd, messages.data(), kBatch, MSG_WAITFORONE, nullptr);
    for (int i = 0; i < count; ++i) {
      const auto index = static_cast<std::size_t>(i);
      recording.write(datagrams[index].data(), messages[index].msg_len, recorder_clock());
    }
  }
  close(fd);
  return 0;
}
