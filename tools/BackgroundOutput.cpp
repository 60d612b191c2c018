#include "tools/BackgroundOutput.h"

#include <csignal>
#include <utility>

namespace kadrel_cue {
namespace {

void append(std::vector<std::string>& texts, std::string text) {
  if (text.empty()) return;
  if (!texts.empty() && texts.back().back() != '\n') texts.pop_back();
  texts.push_back(std::move(text));
}

void move_all(std::vector<std::string>& from, std::vector<std::string>& to) {
  for (std::string& text : from) append(to, std::move(text));
  from.clear();
}

}  // namespace

BackgroundOutput::BackgroundOutput(std::ostream& to)
    : std::ostream(static_cast<std::stringbuf*>(this)), target(to) {
  // Signals are for the thread that plays.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread = std::thread([this] { write(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

BackgroundOutput::~BackgroundOutput() {
  append(held_back, std::stringbuf::str());
  {
    const std::lock_guard guard(lock);
    move_all(held_back, waiting);
    ended = true;
  }
  changed.notify_one();
  thread.join();
}

/// The thread may have lost the processor while it holds the lock: then the text waits for the next one.
int BackgroundOutput::sync() {
  append(held_back, std::stringbuf::str());
  std::stringbuf::str({});
  const std::unique_lock guard(lock, std::try_to_lock);
  if (!guard) return 0;
  move_all(held_back, waiting);
  changed.notify_one();
  return 0;
}

void BackgroundOutput::write() {
  std::unique_lock guard(lock);
  for (;;) {
    changed.wait(guard, [this] { return ended || !waiting.empty(); });
    if (waiting.empty()) return;
    const std::vector<std::string> texts = std::exchange(waiting, {});
    guard.unlock();
    for (const std::string& text : texts) target << text;
    target.flush();
    guard.lock();
  }
}

}  // namespace kadrel_cue
