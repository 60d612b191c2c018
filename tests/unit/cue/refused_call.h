#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace unit {

/// A system call that a file system does not know.
struct RefusedCall {
  std::uint32_t number = 0;    // SYS_...
  std::uint32_t error = 0;     // errno that it ends with
  std::uint32_t argument = 0;  // that decides
  std::uint32_t bits = 0;      // refused when it has one of these; 0: always
};

/// Has @p action run in a thread to which the kernel refuses these calls. The processor is little-endian.
template <typename Action>
void with_refused(const std::vector<RefusedCall>& calls, Action&& action) {
  std::vector<sock_filter> filter;
  for (const RefusedCall& call : calls) {
    const auto at =
        static_cast<std::uint32_t>(offsetof(seccomp_data, args) + call.argument * sizeof(std::uint64_t));
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.number, 0, 3));
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, at));
    const sock_filter chosen = BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, call.bits, 0, 1);
    const sock_filter always = BPF_JUMP(BPF_JMP | BPF_JA, 0, 0, 0);
    filter.push_back(call.bits == 0 ? always : chosen);
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | call.error));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  std::thread thread([&] {
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
    action();
  });
  thread.join();
}

}  // namespace unit
