// Undo and redo without limit. A `State` holds all data that an undo restores. The editor uses a
// copy of the document.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace marlinda::editor {

template <class State>
class UndoStack {
 public:
  // Call before an edit. Deletes the steps that could be redone.
  void Store(std::string name, State before) {
    steps_.erase(steps_.begin() + static_cast<std::ptrdiff_t>(done_), steps_.end());
    if (saved_ > done_) saved_ = kNowhere;
    steps_.push_back({std::move(name), std::move(before)});
    ++done_;
  }
  // Removes and returns the last stored state after a failed edit.
  State Withdraw() {
    State before = std::move(steps_.back().state);
    steps_.pop_back();
    --done_;
    return before;
  }

  bool CanUndo() const { return done_ > 0; }
  bool CanRedo() const { return done_ < steps_.size(); }
  // The name of the next edit to undo or to redo. Such an edit must exist.
  const std::string& UndoName() const { return steps_[done_ - 1].name; }
  const std::string& RedoName() const { return steps_[done_].name; }

  // Returns the state to restore. Stores `present` in its place, for the opposite operation.
  State Undo(State present) {
    std::swap(steps_[--done_].state, present);
    return present;
  }
  State Redo(State present) {
    std::swap(steps_[done_++].state, present);
    return present;
  }

  // Marks the current state as saved.
  void MarkSaved() { saved_ = done_; }
  bool IsSaved() const { return saved_ == done_; }
  void Clear() {
    steps_.clear();
    done_ = saved_ = 0;
  }

 private:
  static constexpr std::size_t kNowhere = static_cast<std::size_t>(-1);
  struct Step {
    std::string name;
    State state;  // the state before the edit or, after an undo, the state to redo
  };

  std::vector<Step> steps_;
  std::size_t done_ = 0;
  std::size_t saved_ = 0;
};

}  // namespace marlinda::editor
