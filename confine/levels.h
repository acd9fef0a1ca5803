// The levels of a tree walk, kept on the heap. Only the number of free descriptors limits the depth
// of a walk, and a recursion as deep as that would overflow the native stack. Levels are destroyed
// from the deepest up, as in a recursion: a level may point into the one above it.
#pragma once

#include <utility>
#include <vector>

namespace tarvek {

template <typename Level>
class Levels {
 public:
  Levels() = default;
  Levels(const Levels&) = delete;
  Levels& operator=(const Levels&) = delete;
  ~Levels() {
    while (!Empty()) Pop();
  }

  [[nodiscard]] bool Empty() const { return levels_.empty(); }
  // The reference is valid until the next Push.
  Level& Top() { return levels_.back(); }
  void Push(Level level) { levels_.push_back(std::move(level)); }
  void Pop() { levels_.pop_back(); }

 private:
  std::vector<Level> levels_;
};

}  // namespace tarvek
