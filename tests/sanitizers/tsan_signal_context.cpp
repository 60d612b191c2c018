#include <poll.h>

// Linked into the service of the thread-sanitizer build only. The sanitizer makes a thread's record of
// held-back signals at the first blocking call or the first signal, whichever comes first; a signal that
// interrupts the making is lost with the record that its handler made. A blocking call ahead of main() makes
// it before there is a handler.

namespace {

[[maybe_unused]] const int polled = poll(nullptr, 0, 0);

}  // namespace
