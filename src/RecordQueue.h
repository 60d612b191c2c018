#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string_view>

#include "artnet/ArtNet.h"

/// How many blocks of memory several queues may fill together.
struct BlockBudget {
  std::size_t most;
  std::size_t used = 0;
};

/// Memory that comes straight from the kernel and goes back to it, with whole records one after the other
/// from its beginning, and the place where each ends, from its end backwards.
class RecordBlock {
public:
  static constexpr std::size_t kSize = 256UL * 1024;

  struct GiveBack {
    void operator()(RecordBlock* block) const;
  };
  using Pointer = std::unique_ptr<RecordBlock, GiveBack>;

  /// @return null when there is no memory
  static Pointer make();

  /// @return false when there is no room
  bool push(const ArtOemVfpsNs* delay, std::string_view datagram) {
    const std::size_t size = size_of(delay) + datagram.size();
    if (kRoom - filled - pushed * sizeof(End) < size + sizeof(End)) return false;
    char* end = bytes() + filled;
    if (delay != nullptr) {
      memcpy(end, delay, sizeof *delay);
      end += sizeof *delay;
    }
    memcpy(end, datagram.data(), datagram.size());
    filled += size;
    *end_at(pushed++) = static_cast<End>(filled);
    return true;
  }

  static std::size_t size_of(const ArtOemVfpsNs* delay) { return delay != nullptr ? sizeof *delay : 0; }

  /// Bytes that have not been taken.
  std::string_view rest() const { return {bytes() + taken, filled - taken}; }
  /// Records of which the rest holds at least a part.
  std::size_t records() const { return pushed - passed; }
  /// Bytes of the first of them that have been taken.
  std::size_t begun() const { return taken - begin_of(passed); }
  /// Record @p index of them.
  std::string_view record(std::size_t index) const;

  void take(std::size_t size);
  void clear() { filled = taken = pushed = passed = 0; }

private:
  using End = std::uint32_t;

  // The object is the head of its block: the records follow it.
  static constexpr std::size_t kRoom = kSize - 4 * sizeof(std::size_t);
  char* bytes() { return reinterpret_cast<char*>(this + 1); }
  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
  End* end_at(std::size_t index) { return reinterpret_cast<End*>(bytes() + kRoom) - (index + 1); }
  const End* end_at(std::size_t index) const {
    return reinterpret_cast<const End*>(bytes() + kRoom) - (index + 1);
  }
  std::size_t begin_of(std::size_t index) const { return index == 0 ? 0 : *end_at(index - 1); }

  std::size_t filled = 0;
  std::size_t taken = 0;
  std::size_t pushed = 0;  // records
  std::size_t passed = 0;  // of them, taken to their end
};

/// Records that wait for their file, oldest first. Takes more memory only while they pile up, and gives it
/// back. No locks, no waits: the owner guards it.
class RecordQueue {
public:
  /// Empty blocks that are kept at hand, beside the budget: a second of 64 universes costs whoever pushes
  /// neither a system call nor a page fault.
  static constexpr std::size_t kAtHand = 8;

  /// @param shared  outlives the queue
  explicit RecordQueue(BlockBudget& shared);
  ~RecordQueue();
  RecordQueue(const RecordQueue&) = delete;
  RecordQueue& operator=(const RecordQueue&) = delete;
  RecordQueue(RecordQueue&&) = delete;
  RecordQueue& operator=(RecordQueue&&) = delete;

  /// Keeps @p delay (null: none) and @p datagram (not empty) as one record. After a refusal all are refused
  /// until a part of the budget is free again: shorter ones that would fit do not make it look as if the file
  /// took data.
  /// @return false when there is no memory for it
  bool push(const ArtOemVfpsNs* delay, std::string_view datagram) {
    if (refused || newest == nullptr || !newest->push(delay, datagram))
      return push_elsewhere(delay, datagram);
    waiting += RecordBlock::size_of(delay) + datagram.size();
    return true;
  }

  /// The oldest bytes, as many as lie in one piece; empty when nothing waits. They stay where they are until
  /// take(), also when more is pushed.
  std::string_view front() const { return blocks.empty() ? std::string_view() : blocks.front()->rest(); }

  /// The first @p size bytes of front() are done with.
  /// @return a block that is needed no more, to be given back when no lock is held; mostly null
  [[nodiscard]] RecordBlock::Pointer take(std::size_t size);

  using Blocks = std::deque<RecordBlock::Pointer>;

  /// Everything, likewise to be given back. Nothing is pushed or taken after it.
  [[nodiscard]] Blocks release();

  /// Bytes that wait.
  std::size_t bytes() const { return waiting; }
  /// Records that wait, wholly or in part.
  std::size_t records() const;
  /// Bytes of the oldest of them that have been taken.
  std::size_t begun() const { return blocks.empty() ? 0 : blocks.front()->begun(); }
  /// Sum of the pauses before all of them but the oldest, ns.
  std::int64_t pauses() const;

private:
  bool add_block();
  RecordBlock::Pointer put_aside(RecordBlock::Pointer block);
  bool push_elsewhere(const ArtOemVfpsNs* delay, std::string_view datagram);

  BlockBudget& budget;
  Blocks blocks;
  RecordBlock* newest = nullptr;  // the last of them
  Blocks empty;
  std::size_t waiting = 0;
  bool refused = false;
};
