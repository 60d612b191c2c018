#include "cue/Fragments.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace cue {

/// The assembly of the fragment's packet, which may be a new one.
std::list<Fragments::Assembly>::iterator Fragments::assembly_for(const Fragment& fragment) {
  const auto found = std::find_if(assemblies.begin(), assemblies.end(), [&](const Assembly& assembly) {
    return assembly.first.id == fragment.id && assembly.first.sender == fragment.sender &&
           assembly.first.receiver == fragment.receiver && assembly.first.interface == fragment.interface;
  });
  std::int64_t waited = 0;
  if (found != assemblies.end() && !__builtin_sub_overflow(fragment.time, found->first.time, &waited) &&
      waited <= kPatience)
    return found;
  if (found != assemblies.end()) {
    assemblies.erase(found);
    ++given_up;
  } else if (assemblies.size() == kAssemblies) {
    assemblies.pop_front();
    ++given_up;
  }
  assemblies.emplace_back();
  assemblies.back().first = fragment;
  assemblies.back().first.bytes = {};
  return std::prev(assemblies.end());
}

Fragments::Fit Fragments::fit(const Assembly& assembly, const Fragment& fragment) {
  const std::size_t end = fragment.offset + fragment.bytes.size;
  if (fragment.bytes.size == 0 || end > kLongest) return Fit::Contradicts;
  if (!fragment.last && fragment.bytes.size % kUnit != 0) return Fit::Contradicts;
  if (assembly.size ? end > *assembly.size : fragment.last && end < assembly.bytes.size())
    return Fit::Contradicts;
  std::size_t known = 0;
  const std::size_t first = fragment.offset / kUnit;
  const std::size_t units = (fragment.bytes.size + kUnit - 1) / kUnit;
  for (std::size_t unit = first; unit < first + units; ++unit)
    if (assembly.have[unit]) ++known;
  if (known == 0) return Fit::Fits;
  const bool same =
      known == units && end <= assembly.bytes.size() && (!fragment.last || assembly.size == end) &&
      memcmp(assembly.bytes.data() + fragment.offset, fragment.bytes.data, fragment.bytes.size) == 0;
  return same ? Fit::Known : Fit::Contradicts;
}

std::optional<Bytes> Fragments::add(const Fragment& fragment) {
  const auto assembly = assembly_for(fragment);
  const Fit fits = fit(*assembly, fragment);
  if (fits == Fit::Known) return std::nullopt;
  if (fits == Fit::Contradicts) {
    assemblies.erase(assembly);
    ++given_up;
    return std::nullopt;
  }
  const std::size_t end = fragment.offset + fragment.bytes.size;
  if (assembly->bytes.size() < end) assembly->bytes.resize(end);
  memcpy(assembly->bytes.data() + fragment.offset, fragment.bytes.data, fragment.bytes.size);
  for (std::size_t at = fragment.offset; at < end; at += kUnit) assembly->have.set(at / kUnit);
  if (fragment.last) assembly->size = end;
  if (!assembly->size || assembly->have.count() < (*assembly->size + kUnit - 1) / kUnit) return std::nullopt;
  complete = std::move(assembly->bytes);
  assemblies.erase(assembly);
  return Bytes{complete.data(), complete.size()};
}

}  // namespace cue
