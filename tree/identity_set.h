// The identities of the files that one call has met: a table with open addressing, in two blocks.
// A standard set asks for memory once for each file, between all that the file needs itself, and a
// large capture takes a twentieth longer.
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

  // One that it does not contain.
  void Insert(const Identity& identity) {
    if (identities_.size() >= slots_.size() / 2) Grow();
    slots_[SlotOf(identity)] = identities_.size();
    identities_.push_back(identity);
  }

 private:
  static constexpr size_t kEmpty = SIZE_MAX;
  static constexpr size_t kFirstSlots = 64;
  // 2^64 divided by the golden ratio.
  static constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;

  // Where it is, or where it would go. Inode numbers come in runs and with zeros at either end; the
  // uppermost bits of the product differ for all of them. Numbers chosen to collide cost time only.
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
  std::vector<size_t> slots_;  // a power of two of them: indexes of `identities_`
};

}  // namespace tarvek
