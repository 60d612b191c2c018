#pragma once

#include "kesto/read_write_lock.h"
#include "src/ControlUniverse.h"
#include "src/Recorder.h"

/// Recorder state and control settings, shared by the main thread and the receive thread. Only a guard gives
/// access; it holds state_lock as long as it lives.
///
/// The other thread spins meanwhile: while a guard lives, never wait for a disk, a log or the bus.
class GuardedState {
public:
  /// @param files  outlives the state
  explicit GuardedState(GrabWriter& files) : recorder(files) {}

  /// Guard of the main thread; gets the lock between two datagrams.
  class SCOPED_CAPABILITY Writer {
  public:
    explicit Writer(GuardedState& guarded) ACQUIRE(guarded.state_lock) : state(guarded) {
      state.state_lock.lock_as_writer();
    }
    ~Writer() RELEASE() { state.state_lock.unlock_as_writer(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Not checked: the checker does not know that a member of this guard holds the lock.
    Recorder& recorder() NO_THREAD_SAFETY_ANALYSIS { return state.recorder; }
    ControlUniverse& control() NO_THREAD_SAFETY_ANALYSIS { return state.control; }

  private:
    GuardedState& state;
  };

  /// Guard of the receive thread, for all its work but its waits. The only reader, so it may change the
  /// recorder.
  class SCOPED_CAPABILITY Reader {
  public:
    explicit Reader(GuardedState& guarded) ACQUIRE_SHARED(guarded.state_lock) : state(guarded) {
      state.state_lock.lock_as_reader();
    }
    ~Reader() RELEASE_GENERIC() { state.state_lock.unlock_as_reader(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Not checked, as above. Not to be called between let_go() and take_again().
    Recorder& recorder() NO_THREAD_SAFETY_ANALYSIS { return state.recorder; }
    const ControlUniverse& control() NO_THREAD_SAFETY_ANALYSIS { return state.control; }

    void let_go() NO_THREAD_SAFETY_ANALYSIS { state.state_lock.unlock_as_reader(); }
    void take_again() NO_THREAD_SAFETY_ANALYSIS { state.state_lock.lock_as_reader(); }

    /// Lets a waiting writer go first.
    void resolve_pending_write() NO_THREAD_SAFETY_ANALYSIS { state.state_lock.resolve_pending_write(); }

  private:
    GuardedState& state;
  };

private:
  friend class DumpProbe;

  kesto::ReadWriteLock state_lock;
  Recorder recorder GUARDED_BY(state_lock);
  ControlUniverse control GUARDED_BY(state_lock);
};
