#include "cue/Targets.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <numeric>

#include "cue/DatagramWalk.h"

namespace cue {
namespace {

// Time for a refusal of the last datagram to come back over a local network.
constexpr kesto::Clock::duration kSettle = std::chrono::milliseconds(20);

Routes::Indexes targets_of(std::uint16_t port_address, const std::vector<Target>& targets) {
  Routes::Indexes named;
  Routes::Indexes plain;
  for (std::size_t index = 0; index < targets.size(); ++index) {
    const auto& universes = targets[index].universes;
    if (!universes)
      plain.push_back(index);
    else if (universes->holds(port_address))
      named.push_back(index);
  }
  return named.empty() ? plain : named;
}

bool holds(const Routes::Indexes& indexes, std::size_t wanted) {
  return std::find(indexes.begin(), indexes.end(), wanted) != indexes.end();
}

Routes::Indexes all_of(const std::vector<Target>& targets) {
  Routes::Indexes all(targets.size());
  std::iota(all.begin(), all.end(), std::size_t{0});
  return all;
}

}  // namespace

Routes::Routes(const std::vector<Target>& targets) {
  const auto names_universes = [](const Target& target) { return target.universes.has_value(); };
  if (std::none_of(targets.begin(), targets.end(), names_universes)) {
    groups.push_back(all_of(targets));
    return;
  }
  std::map<Indexes, std::uint16_t> known;
  group_of.resize(UniverseSet::kPortAddresses);
  for (std::size_t port_address = 0; port_address < group_of.size(); ++port_address) {
    Indexes wanted = targets_of(static_cast<std::uint16_t>(port_address), targets);
    const auto [group, is_new] = known.emplace(wanted, static_cast<std::uint16_t>(groups.size()));
    if (is_new) groups.push_back(std::move(wanted));
    group_of[port_address] = group->second;
  }
}

TargetSenders::TargetSenders(const std::vector<Target>& targets, const MakeSender& make) {
  for (const Target& target : targets) {
    names.push_back(destination_text(target.to));
    senders.push_back(make(target.to));
  }
}

int TargetSenders::send(const Routes::Indexes& to, const Bytes& datagram) {
  bool any = false;
  int first_error = 0;
  for (const std::size_t index : to) {
    const int error = senders[index]->send(datagram.data, datagram.size);
    if (error == 0)
      any = true;
    else if (first_error == 0)
      first_error = error;
  }
  if (any) ++taken;
  return any ? 0 : first_error;
}

std::vector<Delivery> TargetSenders::deliveries() const {
  std::vector<Delivery> found;
  for (std::size_t index = 0; index < senders.size(); ++index)
    found.push_back({names[index], senders[index]->failures()});
  return found;
}

void TargetSenders::settle() {
  const auto deadline = kesto::Clock::now() + kSettle;
  for (const auto& sender : senders) sender->settle(deadline);
}

ArtNetTargets::ArtNetTargets(const std::vector<Target>& targets, const MakeSender& make)
    : routes(targets), senders(targets, make), all(all_of(targets)) {}

int ArtNetTargets::send(const std::uint8_t* data, std::size_t size) {
  if (routes.same_for_all()) return senders.send(all, {data, size});
  const Routes::Indexes* to = nullptr;
  bool same = true;
  for_each_dmx(data, size, [&](const DmxPacket& packet) {
    const Routes::Indexes* const wanted = &routes.of(packet.port_address);
    if (to == nullptr) to = wanted;
    same = same && to == wanted;
  });
  if (to == nullptr) return senders.send(all, {data, size});
  return same ? senders.send(*to, {data, size}) : send_parts({data, size});
}

int ArtNetTargets::send_parts(const Bytes& datagram) {
  bool any = false;
  int first_error = 0;
  for (const std::size_t target : all) {
    part.clear();
    for_each_dmx(datagram.data, datagram.size, [&](const DmxPacket& packet) {
      if (holds(routes.of(packet.port_address), target))
        part.insert(part.end(), datagram.data + packet.offset, datagram.data + packet.end());
    });
    if (part.empty()) continue;
    const int error = senders.send({target}, {part.data(), part.size()});
    any = any || error == 0;
    if (first_error == 0) first_error = error;
  }
  return any ? 0 : first_error;
}

}  // namespace cue
