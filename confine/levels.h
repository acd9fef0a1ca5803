// The levels of a tree walk, kept on the heap. A chain of directories may be as deep as there are
// descriptors to hold it, and a recursion that deep would overrun the native stack. Levels are let
// go of from the deepest up, as returning from a recursion would do.
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
  // A reference is good until the next Push.
  Level& Top() { return levels_.back(); }
  void Push(Level level) { levels_.push_back(std::move(level)); }
  void Pop() { levels_.pop_back(); }

 private:
  std::vector<Level> levels_;
};

}  // namespace tarvek
