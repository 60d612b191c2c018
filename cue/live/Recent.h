#pragma once

#include <cstddef>
#include <iterator>
#include <list>
#include <map>
#include <tuple>
#include <utility>

namespace cue {

/// Values by key, a bounded number of them: the one that was not touched for longest makes room. Each call
/// takes time that grows with the logarithm of their number, whatever keys a stranger chooses.
template <typename Key, typename Value>
class Recent {
public:
  using Entry = std::pair<const Key, Value>;
  using Entries = std::list<Entry>;

  /// @param limit  1 or more
  explicit Recent(std::size_t limit) : most(limit) {}

  /// @return nullptr when there is none; does not touch it
  Value* find(const Key& key) {
    const auto found = places.find(key);
    return found == places.end() ? nullptr : &found->second->second;
  }

  const Value* find(const Key& key) const {
    const auto found = places.find(key);
    return found == places.end() ? nullptr : &found->second->second;
  }

  /// Touches the value of this key. @return nullptr when there is none
  Value* touch(const Key& key) {
    const auto found = places.find(key);
    if (found == places.end()) return nullptr;
    entries.splice(entries.end(), entries, found->second);
    return &found->second->second;
  }

  /// Adds a value whose key is not there. @pre !is_full()
  template <typename... Arguments>
  Value& add(const Key& key, Arguments&&... arguments) {
    entries.emplace_back(std::piecewise_construct, std::forward_as_tuple(key),
                         std::forward_as_tuple(std::forward<Arguments>(arguments)...));
    places.emplace(key, std::prev(entries.end()));
    return entries.back().second;
  }

  bool is_full() const { return entries.size() >= most; }
  bool is_empty() const { return entries.empty(); }

  /// The value that was not touched for longest. @pre !is_empty()
  const Value& oldest() const { return entries.front().second; }

  void drop_oldest() {
    places.erase(entries.front().first);
    entries.pop_front();
  }

  /// By key.
  const std::map<Key, typename Entries::iterator>& by_key() const { return places; }

private:
  std::size_t most;
  Entries entries;  // the one that was not touched for longest first
  std::map<Key, typename Entries::iterator> places;
};

}  // namespace cue
