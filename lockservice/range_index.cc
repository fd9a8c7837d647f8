#include "lockservice/range_index.h"

#include <algorithm>

namespace klv {

namespace {

// A fixed pseudo-random priority per slot keeps the treap balanced on average.
uint32_t PriorityOf(uint32_t slot) {
  uint32_t x = slot + 0x9E3779B9u;
  x = (x ^ (x >> 16)) * 0x85EBCA6Bu;
  x = (x ^ (x >> 13)) * 0xC2B2AE35u;
  return x ^ (x >> 16);
}

}  // namespace

void RangeIndex::Insert(uint32_t slot) {
  if (nodes_.size() <= slot) nodes_.resize(std::max<size_t>(slot + 1, nodes_.size() * 3 / 2));
  nodes_[slot] = Node();
  root_ = Insert(root_, slot);
}

void RangeIndex::Erase(uint32_t slot) { root_ = Erase(root_, slot); }

// The walk goes left whenever the left subtree reaches past the candidate's
// offset: if no range there overlaps, the one that reaches so far must start
// at or after the candidate's end, and so does every range further right.
bool RangeIndex::Conflicts(const RecordLock& candidate) const {
  const uint32_t reach = ReachOf(candidate);
  if (reach == 0) return false;
  // Beside a shared candidate only exclusive ranges count.
  const bool exclusive_only = candidate.shared != 0;
  for (uint32_t tree = root_; tree != kNone;) {
    const RecordLock& held = Lock(tree);
    if ((!exclusive_only || !held.shared) && held.offset < reach &&
        ReachOf(held) > candidate.offset) {
      return true;
    }
    const uint32_t left = nodes_[tree].left;
    const uint32_t left_reach = left == kNone    ? 0
                                : exclusive_only ? nodes_[left].max_exclusive_end
                                                 : nodes_[left].max_end;
    tree = left_reach > candidate.offset ? left : nodes_[tree].right;
  }
  return false;
}

bool RangeIndex::Before(uint32_t a, uint32_t b) const {
  const uint32_t offset_a = Lock(a).offset;
  const uint32_t offset_b = Lock(b).offset;
  return offset_a < offset_b || (offset_a == offset_b && a < b);
}

void RangeIndex::Update(uint32_t slot) {
  Node& node = nodes_[slot];
  const RecordLock& lock = Lock(slot);
  node.max_end = ReachOf(lock);
  node.max_exclusive_end = lock.shared ? 0 : node.max_end;
  for (uint32_t child : {node.left, node.right}) {
    if (child == kNone) continue;
    node.max_end = std::max(node.max_end, nodes_[child].max_end);
    node.max_exclusive_end = std::max(node.max_exclusive_end, nodes_[child].max_exclusive_end);
  }
}

void RangeIndex::Split(uint32_t tree, uint32_t slot, uint32_t* before, uint32_t* after) {
  if (tree == kNone) {
    *before = *after = kNone;
  } else if (Before(tree, slot)) {
    Split(nodes_[tree].right, slot, &nodes_[tree].right, after);
    *before = tree;
    Update(tree);
  } else {
    Split(nodes_[tree].left, slot, before, &nodes_[tree].left);
    *after = tree;
    Update(tree);
  }
}

uint32_t RangeIndex::Merge(uint32_t before, uint32_t after) {
  if (before == kNone) return after;
  if (after == kNone) return before;
  if (PriorityOf(before) > PriorityOf(after)) {
    nodes_[before].right = Merge(nodes_[before].right, after);
    Update(before);
    return before;
  }
  nodes_[after].left = Merge(before, nodes_[after].left);
  Update(after);
  return after;
}

uint32_t RangeIndex::Insert(uint32_t tree, uint32_t slot) {
  if (tree == kNone || PriorityOf(slot) > PriorityOf(tree)) {
    Split(tree, slot, &nodes_[slot].left, &nodes_[slot].right);
    Update(slot);
    return slot;
  }
  uint32_t& child = Before(slot, tree) ? nodes_[tree].left : nodes_[tree].right;
  child = Insert(child, slot);
  Update(tree);
  return tree;
}

uint32_t RangeIndex::Erase(uint32_t tree, uint32_t slot) {
  if (tree == kNone) return kNone;
  if (tree == slot) return Merge(nodes_[slot].left, nodes_[slot].right);
  uint32_t& child = Before(slot, tree) ? nodes_[tree].left : nodes_[tree].right;
  child = Erase(child, slot);
  Update(tree);
  return tree;
}

}  // namespace klv
