#ifndef KLV_FOUNDATION_SLOT_VECTOR_H_
#define KLV_FOUNDATION_SLOT_VECTOR_H_

#include <cassert>
#include <cstdint>
#include <utility>

#include "foundation/bit_set.h"

namespace klv {

// An array of slots whose occupied slots are marked in a BitSet. Elements are
// held inline (a pointer for the tables, a whole record for the lock lists)
// and kept in insertion order: a removal closes the gap, so after every
// operation the elements occupy slots 0 to Count() - 1 and End() == Count().
// The slot array grows in steps of kStep slots and never shrinks.
template <typename T>
class SlotVector {
 public:
  static constexpr uint32_t kStep = 10;
  static constexpr uint32_t kInitialBits = 256;

  SlotVector();
  ~SlotVector();
  SlotVector(const SlotVector&) = delete;
  SlotVector& operator=(const SlotVector&) = delete;

  // Stores the element at slot End(); grows the array to
  // (End() / kStep + 1) * kStep slots first when it is full.
  void Append(const T& element);
  // Removes the element at `slot` (which must be below Count()) and moves the
  // later ones down one place in their order.
  void RemoveAt(uint32_t slot);
  // Empties the vector; the capacity is kept.
  void Clear();

  uint32_t Count() const { return count_; }
  bool IsEmpty() const { return count_ == 0; }
  uint32_t End() const { return end_; }
  bool IsPresent(uint32_t slot) const { return present_.Test(slot); }

  // The element at `slot`, which must be below End().
  T& operator[](uint32_t slot);
  const T& operator[](uint32_t slot) const;

 private:
  // Reallocates the slot array to `slots` slots, which must not be fewer.
  void Resize(uint32_t slots);

  uint32_t capacity_ = 0;
  T* slots_ = nullptr;  // new[], released with delete[]
  BitSet present_;
  uint32_t end_ = 0;
  uint32_t count_ = 0;
};

// Visits the present slots of a vector in slot order. The vector must not
// change while the iterator is in use.
template <typename T>
class SlotVectorIterator {
 public:
  explicit SlotVectorIterator(const SlotVector<T>& vector);

  // Moves to the next present slot; false when every element was visited.
  bool Advance();
  uint32_t Slot() const { return slot_; }
  const T& Current() const { return (*vector_)[slot_]; }

 private:
  const SlotVector<T>* vector_;
  uint32_t visited_ = 0;
  uint32_t slot_ = 0;
};

// ---------------------------------------------------------------------------
// Implementation.

template <typename T>
SlotVector<T>::SlotVector() : present_(kInitialBits) {}

template <typename T>
SlotVector<T>::~SlotVector() {
  delete[] slots_;
}

template <typename T>
void SlotVector<T>::Append(const T& element) {
  if (end_ >= capacity_) Resize((end_ / kStep + 1) * kStep);
  slots_[end_] = element;
  present_.Set(end_);
  ++end_;
  ++count_;
}

template <typename T>
void SlotVector<T>::RemoveAt(uint32_t slot) {
  assert(slot < count_ && end_ == count_);
  present_.Clear(slot);
  --count_;
  // Each later element moves down with its bit, so the vacated last slot
  // ends with its bit cleared.
  for (uint32_t next = slot + 1; next < end_; ++next) {
    slots_[next - 1] = std::move(slots_[next]);
    present_.Set(next - 1);
    present_.Clear(next);
  }
  // Reset the vacated slot so that a record does not keep what it holds.
  slots_[end_ - 1] = T();
  end_ = count_;
}

template <typename T>
void SlotVector<T>::Resize(uint32_t slots) {
  assert(slots >= capacity_);
  T* resized = new T[slots];
  for (uint32_t i = 0; i < capacity_; ++i) resized[i] = std::move(slots_[i]);
  delete[] slots_;
  slots_ = resized;
  capacity_ = slots;
}

template <typename T>
void SlotVector<T>::Clear() {
  for (uint32_t i = 0; i < end_; ++i) {
    slots_[i] = T();
    present_.Clear(i);
  }
  end_ = count_ = 0;
}

template <typename T>
T& SlotVector<T>::operator[](uint32_t slot) {
  assert(slot < end_);
  return slots_[slot];
}

template <typename T>
const T& SlotVector<T>::operator[](uint32_t slot) const {
  assert(slot < end_);
  return slots_[slot];
}

template <typename T>
SlotVectorIterator<T>::SlotVectorIterator(const SlotVector<T>& vector) : vector_(&vector) {}

template <typename T>
bool SlotVectorIterator<T>::Advance() {
  if (visited_ >= vector_->Count()) return false;
  slot_ = visited_ == 0 ? 0 : slot_ + 1;
  while (slot_ < vector_->End() && !vector_->IsPresent(slot_)) ++slot_;
  assert(slot_ < vector_->End());
  ++visited_;
  return true;
}

}  // namespace klv

#endif  // KLV_FOUNDATION_SLOT_VECTOR_H_
