#include "src/RecordQueue.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <new>
#include <utility>

#include "artnet/RecordingFormat.h"

namespace {

// So much of the budget, in blocks, has to be free before records are kept again: a disk that is a little too
// slow costs a few large gaps, with two lines of the log each, not a thousand small ones.
constexpr std::size_t kFreePart = 32;

}  // namespace

static_assert(sizeof(RecordBlock) == 4 * sizeof(std::size_t), "the room of a block is what its head leaves");
static_assert(kDelaySize + kLongestDatagram < RecordBlock::kSize / 2, "an empty block takes any record");

RecordBlock::Pointer RecordBlock::make() {
  // Whole at once: a page fault for each 4 KiB costs more.
  void* const memory =
      mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  return Pointer(new (memory) RecordBlock);
}

void RecordBlock::GiveBack::operator()(RecordBlock* block) const {
  munmap(block, kSize);
}

std::string_view RecordBlock::record(std::size_t index) const {
  const std::size_t begin = begin_of(passed + index);
  return {bytes() + begin, *end_at(passed + index) - begin};
}

void RecordBlock::take(std::size_t size) {
  taken += size;
  while (passed < pushed && *end_at(passed) <= taken) ++passed;
}

RecordQueue::RecordQueue(BlockBudget& shared) : budget(shared) {
  while (empty.size() < kAtHand) {
    RecordBlock::Pointer block = RecordBlock::make();
    if (block == nullptr) break;
    empty.push_back(std::move(block));
  }
  add_block();
}

RecordQueue::~RecordQueue() {
  budget.used -= blocks.size();
}

RecordQueue::Blocks RecordQueue::release() {
  budget.used -= blocks.size();
  waiting = 0;
  newest = nullptr;
  std::move(empty.begin(), empty.end(), std::back_inserter(blocks));
  empty.clear();
  return std::exchange(blocks, {});
}

bool RecordQueue::add_block() {
  if (budget.used >= budget.most) return false;
  RecordBlock::Pointer block;
  if (empty.empty()) {
    block = RecordBlock::make();
    if (block == nullptr) return false;
  } else {
    block = std::move(empty.back());
    empty.pop_back();
  }
  newest = block.get();
  blocks.push_back(std::move(block));
  ++budget.used;
  return true;
}

bool RecordQueue::push_elsewhere(const ArtOemVfpsNs* delay, std::string_view datagram) {
  if (refused) {
    const std::size_t enough = std::max<std::size_t>(budget.most / kFreePart, 1);
    if (budget.most - budget.used < enough && waiting > 0) return false;
  }
  // After a refusal the newest block may have room.
  const bool fits = refused && newest != nullptr && newest->push(delay, datagram);
  refused = !fits && !(add_block() && newest->push(delay, datagram));
  if (!refused) waiting += RecordBlock::size_of(delay) + datagram.size();
  return !refused;
}

RecordBlock::Pointer RecordQueue::take(std::size_t size) {
  RecordBlock& oldest = *blocks.front();
  oldest.take(size);
  waiting -= size;
  if (!oldest.rest().empty()) return nullptr;
  if (blocks.size() == 1) {
    oldest.clear();
    return nullptr;
  }
  RecordBlock::Pointer emptied = std::move(blocks.front());
  blocks.pop_front();
  --budget.used;
  return put_aside(std::move(emptied));
}

/// @return the block again when there are enough empty ones
RecordBlock::Pointer RecordQueue::put_aside(RecordBlock::Pointer block) {
  if (empty.size() >= kAtHand) return block;
  block->clear();
  empty.push_back(std::move(block));
  return nullptr;
}

std::size_t RecordQueue::records() const {
  std::size_t count = 0;
  for (const auto& block : blocks) count += block->records();
  return count;
}

std::int64_t RecordQueue::pauses() const {
  std::int64_t sum = 0;
  bool oldest = true;
  for (const auto& block : blocks) {
    for (std::size_t i = 0; i < block->records(); ++i) {
      if (!std::exchange(oldest, false)) {
        std::int64_t pause = 0;
        memcpy(&pause, block->record(i).data() + offsetof(ArtOemVfpsNs, payload), sizeof pause);
        sum += pause;
      }
    }
  }
  return sum;
}
