// Undo and redo without limit. A state is what an edit is taken back to, here a copy of a document.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace marlinda::editor {

template <class State>
class UndoStack {
 public:
  // Before an edit. Drops what could be redone.
  void Store(std::string name, State before) {
    steps_.erase(steps_.begin() + static_cast<std::ptrdiff_t>(done_), steps_.end());
    if (saved_ > done_) saved_ = kNowhere;
    steps_.push_back({std::move(name), std::move(before)});
    ++done_;
  }
  // Takes back the last Store, for an edit that failed. Returns what was stored.
  State Withdraw() {
    State before = std::move(steps_.back().state);
    steps_.pop_back();
    --done_;
    return before;
  }

  bool CanUndo() const { return done_ > 0; }
  bool CanRedo() const { return done_ < steps_.size(); }
  // The edits that Undo and Redo are about; only where there is one.
  const std::string& UndoName() const { return steps_[done_ - 1].name; }
  const std::string& RedoName() const { return steps_[done_].name; }

  // Each keeps the present state for the other and returns the state to go to.
  State Undo(State present) {
    std::swap(steps_[--done_].state, present);
    return present;
  }
  State Redo(State present) {
    std::swap(steps_[done_++].state, present);
    return present;
  }

  // The present state is in a file.
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
    State state;  // before an edit that is done, after one that was undone
  };

  std::vector<Step> steps_;
  std::size_t done_ = 0;
  std::size_t saved_ = 0;
};

}  // namespace marlinda::editor
