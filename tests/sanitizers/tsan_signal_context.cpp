#include <poll.h>

// Linked into the service of the thread-sanitizer build only. The sanitizer makes a thread's list of
// held-back signals at its first blocking call or first signal. A signal during that blocking call makes a
// second list, which is lost with the signal. A blocking call before main() makes the list before there is
// any handler.

namespace {

[[maybe_unused]] const int polled = poll(nullptr, 0, 0);

}  // namespace
