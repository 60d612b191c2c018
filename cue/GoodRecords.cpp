#include "cue/GoodRecords.h"

#include <utility>

#include "cue/CueError.h"
#include "cue/RecordingInfo.h"

namespace cue {

GoodRecords::GoodRecords(const Input& input, OnDamage passed_over)
    : records(input), on_damage(std::move(passed_over)) {}

bool GoodRecords::next(Record& record) {
  while (!ended) {
    if (records.next(record)) return true;
    if (!records.damage()) return false;
    if (!on_damage) throw CueError(damage_text(records.name(), *records.damage()));
    on_damage(records, *records.damage());
    ended = !records.resume();
  }
  return false;
}

}  // namespace cue
