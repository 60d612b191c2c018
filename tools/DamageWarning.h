#pragma once

#include <iosfwd>
#include <set>
#include <string>

#include "cue/GoodRecords.h"

namespace kadrel_cue {

/// What a command says of damage that it passes over: one warning for each file.
class DamageWarning {
public:
  /// @param strict  damage is an error: nothing is passed over
  DamageWarning(std::ostream& errors, bool strict) : err(errors), refuse(strict) {}
  ~DamageWarning() = default;
  DamageWarning(const DamageWarning&) = delete;
  DamageWarning& operator=(const DamageWarning&) = delete;
  DamageWarning(DamageWarning&&) = delete;
  DamageWarning& operator=(DamageWarning&&) = delete;

  /// For readers; they must not outlive this object.
  cue::OnDamage on_damage();

  /// Exit code of a command that has done the rest.
  int exit_code() const { return warned.empty() ? 0 : 1; }

private:
  std::ostream& err;
  bool refuse;
  std::set<std::string> warned;  // names of files
};

}  // namespace kadrel_cue
