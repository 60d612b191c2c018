#include "tools/DamageWarning.h"

#include <ostream>

#include "cue/RecordingInfo.h"

namespace kadrel_cue {

cue::OnDamage DamageWarning::on_damage() {
  if (refuse) return {};
  return [this](const cue::RecordingReader& reader, const cue::Damage& damage) {
    if (!warned.insert(reader.name()).second) return;
    err << "kadrel-cue: " << cue::damage_text(reader.name(), damage)
        << "; going on with what is good (verify --repair writes that as a file)" << std::endl;
  };
}

}  // namespace kadrel_cue
