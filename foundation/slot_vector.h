#ifndef KLV_FOUNDATION_SLOT_VECTOR_H_
#define KLV_FOUNDATION_SLOT_VECTOR_H_

#include <cstdint>
#include <type_traits>

#include "foundation/bit_set.h"

// Whether clearing a vector of pointers also deletes the elements.
enum class ClearMode { kKeepElements, kDeleteElements };

// An array of slots whose occupied slots are marked in a BitSet. Elements are
// held inline (a pointer for the tables, a whole record for the lock lists)
// and kept in insertion order: a removal closes the gap, so after every
// operation the elements occupy slots 0 to Count() - 1 and End() == Count().
// The slot array grows in steps of kStep slots and never shrinks. Every
// append, removal and clear increments Version().
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
  // Reallocates the slot array to `slots` slots, keeping min(old, new) slots.
  void Resize(uint32_t slots);
  // Empties the vector; kDeleteElements (pointer elements only) deletes every
  // element in slot order first. The capacity is kept.
  void Clear(ClearMode mode);

  uint32_t Count() const { return count_; }
  bool IsEmpty() const { return count_ == 0; }
  uint32_t End() const { return end_; }
  uint32_t Capacity() const { return capacity_; }
  uint32_t Version() const { return version_; }
  bool IsPresent(uint32_t slot) const { return present_.Test(slot); }
  const BitSet& Present() const { return present_; }

  // The element at `slot`, which must be below End().
  T& operator[](uint32_t slot);
  const T& operator[](uint32_t slot) const;

 private:
  uint32_t capacity_ = 0;
  T* slots_ = nullptr;  // new[], released with delete[]
  BitSet present_;
  uint32_t end_ = 0;
  uint32_t count_ = 0;
  uint32_t version_ = 0;
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
  uint32_t version_;  // recorded, never checked
  uint32_t visited_ = 0;
  uint32_t slot_ = 0;
};

// ---------------------------------------------------------------------------
// Implementation.

#endif  // KLV_FOUNDATION_SLOT_VECTOR_H_
