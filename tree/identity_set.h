// The identities of the files that one call has met: a hash table with open addressing, in two
// blocks. A standard set allocates once for each file, and a large capture takes 5 % longer with
// it.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "confine/identity.h"

namespace tarvek {

class IdentitySet {
 public:
  [[nodiscard]] bool Contains(const Identity& identity) const {
    return !slots_.empty() && slots_[SlotOf(identity)] != kEmpty;
  }

  // `identity` must not be in the set.
  void Insert(const Identity& identity) {
    if (identities_.size() >= slots_.size() / 2) Grow();
    slots_[SlotOf(identity)] = identities_.size();
    identities_.push_back(identity);
  }

 private:
  static constexpr size_t kEmpty = SIZE_MAX;
  static constexpr size_t kFirstSlots = 64;
  // 2^64 divided by the golden ratio, for multiplicative hashing.
  static constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;

  // The slot of `identity`, or the empty slot where it belongs. Inode numbers come in runs and with
  // zeros at either end, and the top bits of the product spread all of them. Numbers chosen to
  // collide cost time only.
  [[nodiscard]] size_t SlotOf(const Identity& identity) const {
    const uint64_t mixed = (identity.ino ^ identity.dev << 32) * kSpread;
    size_t slot = mixed >> (std::countl_zero(slots_.size()) + 1);
    while (slots_[slot] != kEmpty && identities_[slots_[slot]] != identity) {
      slot = (slot + 1) & (slots_.size() - 1);
    }
    return slot;
  }

  void Grow() {
    slots_.assign(slots_.empty() ? kFirstSlots : slots_.size() * 2, kEmpty);
    for (size_t index = 0; index < identities_.size(); ++index) {
      slots_[SlotOf(identities_[index])] = index;
    }
  }

  std::vector<Identity> identities_;
  std::vector<size_t> slots_;  // indexes of `identities_`; their number is a power of two
};

}  // namespace tarvek
