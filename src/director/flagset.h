#pragma once

#include <bitset>
#include <cstddef>
#include <initializer_list>

namespace endpointsecurity {

// Tags by which the director picks components; bit n for value n.
enum CLIENT_OBSERVER_TAGS {
  TagAllClients = 0,
  TagClientDup = 1,
  TagClientShield = 2,
  TagAllObservers = 3,
  TagFileObserver = 4,
  TagShieldGroup = 5,
  TagPrinterGroup = 6,
  TagProcObserver = 7,
  TagPrinterObserver = 8,
  TagShieldObserver = 9,
  TagSentinel = 10,
};

template <typename Enum, size_t Bits = static_cast<size_t>(TagSentinel)>
class flag_set {
 public:
  flag_set() = default;
  flag_set(Enum flag) { bits_.set(static_cast<size_t>(flag)); }
  flag_set(std::initializer_list<Enum> flags) {
    for (Enum f : flags) bits_.set(static_cast<size_t>(f));
  }

  flag_set& operator|=(Enum flag) {
    bits_.set(static_cast<size_t>(flag));
    return *this;
  }
  flag_set operator|(Enum flag) const {
    flag_set copy(*this);
    return copy |= flag;
  }
  flag_set operator|(const flag_set& other) const {
    flag_set copy(*this);
    copy.bits_ |= other.bits_;
    return copy;
  }
  flag_set operator&(const flag_set& other) const {
    flag_set copy(*this);
    copy.bits_ &= other.bits_;
    return copy;
  }
  bool test(Enum flag) const { return bits_.test(static_cast<size_t>(flag)); }
  bool any() const { return bits_.any(); }
  bool intersects(const flag_set& other) const { return (bits_ & other.bits_).any(); }
  bool operator==(const flag_set& other) const { return bits_ == other.bits_; }

 private:
  std::bitset<Bits> bits_;
};

using ObserverTags = flag_set<CLIENT_OBSERVER_TAGS>;

inline ObserverTags operator|(CLIENT_OBSERVER_TAGS a, CLIENT_OBSERVER_TAGS b) {
  return ObserverTags(a) | b;
}

}  // namespace endpointsecurity
