#ifndef KLV_FOUNDATION_SLOT_VECTOR_H_
#define KLV_FOUNDATION_SLOT_VECTOR_H_

#include <cassert>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace klv {

// Whether clearing a vector of pointers also deletes the elements.
enum class ClearMode { kKeepElements, kDeleteElements };

// An array of slots holding its elements inline (a pointer for the tables, a
// whole record for the lock lists) in insertion order: a removal closes the
// gap, so the elements always occupy slots 0 to Count() - 1. The array grows
// by half (doubling while small) when full, shrinks to twice the count when a
// removal leaves it three-quarters empty, and is released when the last
// element goes, so that an emptied table hands its memory back (but for a few
// of the smallest arrays, kept for reuse).
template <typename T>
class SlotVector {
 public:
  SlotVector() = default;
  ~SlotVector() { DeleteArray(slots_, capacity_); }
  SlotVector(const SlotVector&) = delete;
  SlotVector& operator=(const SlotVector&) = delete;

  // Stores the element at slot Count(), growing the array first when full.
  void Append(const T& element);
  // Removes the element at `slot` (which must be below Count()) and moves the
  // later ones down one place in their order.
  void RemoveAt(uint32_t slot);
  // Removes every element for which `matches` holds (asked once per element,
  // in slot order); the others keep their order. Returns how many went.
  template <typename Predicate>
  uint32_t RemoveWhere(Predicate matches);
  // Reallocates the slot array to `slots` slots, keeping min(old, new) slots.
  // Elements in slots cut off by a shrink are dropped (pointers not deleted).
  void Resize(uint32_t slots);
  // Empties the vector and releases its array; kDeleteElements (pointer
  // elements only) deletes every element in slot order first.
  void Clear(ClearMode mode);

  uint32_t Count() const { return count_; }
  bool IsEmpty() const { return count_ == 0; }
  uint32_t Capacity() const { return capacity_; }

  // The element at `slot`, which must be below Count().
  T& operator[](uint32_t slot);
  const T& operator[](uint32_t slot) const;
  const T* begin() const { return slots_; }
  const T* end() const { return slots_ + count_; }

 private:
  static constexpr uint32_t kFirstCapacity = 2;
  static constexpr uint32_t kDoublingLimit = 8;
  static constexpr uint32_t kMostSpares = 16;

  // Halves a mostly empty array, releases an empty one.
  void ShrinkIfSparse();
  // Arrays of the first capacity come and go with nearly every request (a
  // file's only open, a file's only range), so a few released ones are kept
  // for reuse, their slots reset, instead of going back to the heap.
  static T* NewArray(uint32_t slots);
  static void DeleteArray(T* array, uint32_t slots);

  T* slots_ = nullptr;  // NewArray, released with DeleteArray
  uint32_t count_ = 0;
  uint32_t capacity_ = 0;

  static inline T* spares_[kMostSpares];
  static inline uint32_t spare_count_ = 0;
};

// ---------------------------------------------------------------------------
// Implementation.

template <typename T>
void SlotVector<T>::Append(const T& element) {
  if (count_ == capacity_) {
    const uint32_t grown = capacity_ < kDoublingLimit ? capacity_ * 2 : capacity_ + capacity_ / 2;
    Resize(grown < kFirstCapacity ? kFirstCapacity : grown);
  }
  slots_[count_++] = element;
}

template <typename T>
void SlotVector<T>::RemoveAt(uint32_t slot) {
  assert(slot < count_);
  for (uint32_t next = slot + 1; next < count_; ++next) slots_[next - 1] = std::move(slots_[next]);
  // Reset the vacated slot so that a record does not keep what it holds.
  slots_[--count_] = T();
  ShrinkIfSparse();
}

template <typename T>
template <typename Predicate>
uint32_t SlotVector<T>::RemoveWhere(Predicate matches) {
  uint32_t kept = 0;
  for (uint32_t slot = 0; slot < count_; ++slot) {
    if (matches(slots_[slot])) continue;
    if (kept != slot) slots_[kept] = std::move(slots_[slot]);
    ++kept;
  }
  const uint32_t removed = count_ - kept;
  for (uint32_t slot = kept; slot < count_; ++slot) slots_[slot] = T();
  count_ = kept;
  if (removed > 0) ShrinkIfSparse();
  return removed;
}

template <typename T>
void SlotVector<T>::Resize(uint32_t slots) {
  T* resized = NewArray(slots);
  if (count_ > slots) count_ = slots;
  for (uint32_t i = 0; i < count_; ++i) resized[i] = std::move(slots_[i]);
  DeleteArray(slots_, capacity_);
  slots_ = resized;
  capacity_ = slots;
}

template <typename T>
T* SlotVector<T>::NewArray(uint32_t slots) {
  if (slots == 0) return nullptr;
  if (slots == kFirstCapacity && spare_count_ > 0) return spares_[--spare_count_];
  return new T[slots];
}

template <typename T>
void SlotVector<T>::DeleteArray(T* array, uint32_t slots) {
  if (slots != kFirstCapacity || spare_count_ == kMostSpares) {
    delete[] array;
    return;
  }
  for (uint32_t i = 0; i < slots; ++i) array[i] = T();
  spares_[spare_count_++] = array;
}

template <typename T>
void SlotVector<T>::Clear(ClearMode mode) {
  if constexpr (std::is_pointer_v<T>) {
    if (mode == ClearMode::kDeleteElements) {
      for (uint32_t i = 0; i < count_; ++i) delete slots_[i];
    }
  }
  count_ = 0;
  Resize(0);
}

template <typename T>
void SlotVector<T>::ShrinkIfSparse() {
  if (count_ == 0) {
    Resize(0);
  } else if (capacity_ > kDoublingLimit && count_ <= capacity_ / 4) {
    Resize(count_ * 2);
  }
}

template <typename T>
T& SlotVector<T>::operator[](uint32_t slot) {
  assert(slot < count_);
  return slots_[slot];
}

template <typename T>
const T& SlotVector<T>::operator[](uint32_t slot) const {
  assert(slot < count_);
  return slots_[slot];
}

}  // namespace klv

#endif  // KLV_FOUNDATION_SLOT_VECTOR_H_
