#include "tools/SequenceReport.h"

#include <unordered_map>
#include <utility>

#include "cue/Completeness.h"
#include "cue/Text.h"

namespace kadrel_cue {
namespace {

constexpr std::size_t kMostLines = 32;

using Universes = std::vector<int>;  // counted from 1, in order

}  // namespace

std::string universe_list(const std::vector<int>& universes) {
  std::string text = universes.size() == 1 ? "universe " : "universes ";
  for (std::size_t at = 0; at < universes.size();) {
    std::size_t last = at;
    while (last + 1 < universes.size() && universes[last + 1] == universes[last] + 1) ++last;
    if (at > 0) text += ",";
    text += std::to_string(universes[at]);
    if (last > at) text += "-" + std::to_string(universes[last]);
    at = last + 1;
  }
  return text;
}

std::vector<std::string> sequence_report(const cue::RecordingInfo& info) {
  std::vector<std::pair<Universes, std::string>> groups;  // in the order of their first universe
  std::unordered_map<std::string, std::size_t> index;
  for (const cue::UniverseInfo& universe : info.universes) {
    const std::string text = cue::sequence_text(universe);
    if (text.empty()) continue;
    const auto [group, is_new] = index.try_emplace(text, groups.size());
    if (is_new) groups.emplace_back(Universes(), text);
    groups[group->second].first.push_back(universe.port_address + 1);
  }
  std::vector<std::string> lines;
  std::size_t left_out = 0;
  for (const auto& [universes, text] : groups) {
    if (lines.size() < kMostLines)
      lines.push_back(universe_list(universes) + ": " + text);
    else
      left_out += universes.size();
  }
  if (left_out > 0)
    lines.push_back("and " + cue::counted(left_out, "universe") + " more, see kadrel-cue info --json");
  const std::string shared = cue::sequence_text(info.shared);
  if (!shared.empty()) lines.push_back("count across universes: " + shared);
  lines.push_back(cue::completeness_text(info));
  return lines;
}

}  // namespace kadrel_cue
