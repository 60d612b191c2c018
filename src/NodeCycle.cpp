#include "src/NodeCycle.h"

#include <algorithm>
#include <iterator>

#include "src/NodeMessages.h"

void NodeCycle::begin() {
  clear();
  previous = detected;
  answered.assign(previous->size(), false);
}

NodeCycle::Intake NodeCycle::take_in(const DetectedNode& node) {
  const auto known = std::lower_bound(previous->begin(), previous->end(), node);
  if (known != previous->end() && *known == node) {
    const auto mark = answered.begin() + (known - previous->begin());
    if (*mark) return Intake::Duplicate;
    *mark = true;
    return Intake::SeenAgain;
  }
  const auto place = new_nodes.lower_bound(node);
  if (place != new_nodes.end() && *place == node) return Intake::Duplicate;
  if (previous->size() + new_nodes.size() >= kLimit) {
    const Intake told = over_limit ? Intake::OverLimit : Intake::FirstOverLimit;
    over_limit = true;
    return told;
  }
  arrivals.push_back(&*new_nodes.insert(place, node));
  return Intake::New;
}

NodeCycle::Result NodeCycle::evaluate() const {
  const DetectedNodes seen = poll_seen_nodes();
  const DetectedNodes missing = poll_missing_nodes();
  Result result;
  if (nodes_changed() || !missing.empty())
    result.message = appeared_entries(poll_new_nodes()) + vanished_entries(missing);
  DetectedNodes nodes;
  nodes.reserve(seen.size() + new_nodes.size());
  std::merge(seen.begin(), seen.end(), new_nodes.begin(), new_nodes.end(), std::back_inserter(nodes));
  result.nodes = std::make_shared<const DetectedNodes>(std::move(nodes));
  return result;
}

void NodeCycle::conclude(const Result& result) {
  detected = result.nodes;
  clear();
}

QString NodeCycle::forget() {
  QString message = vanished_entries(*detected);
  detected = nothing();
  clear();
  return message;
}

DetectedNodes NodeCycle::poll_new_nodes() const {
  DetectedNodes nodes;
  nodes.reserve(arrivals.size());
  for (const DetectedNode* node : arrivals) nodes.push_back(*node);
  return nodes;
}

DetectedNodes NodeCycle::previous_nodes(bool answered_again) const {
  DetectedNodes nodes;
  for (std::size_t i = 0; i < previous->size(); ++i) {
    if (answered[i] == answered_again) nodes.push_back((*previous)[i]);
  }
  return nodes;
}

void NodeCycle::clear() {
  arrivals.clear();
  new_nodes.clear();
  previous = nothing();
  answered.clear();
  over_limit = false;
}

const std::shared_ptr<const DetectedNodes>& NodeCycle::nothing() {
  static const auto empty = std::make_shared<const DetectedNodes>();
  return empty;
}
