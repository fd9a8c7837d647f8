#ifndef KLV_FOUNDATION_HASH_SET_H_
#define KLV_FOUNDATION_HASH_SET_H_

#include <cstdint>
#include <cstdlib>

#include "foundation/slot_vector.h"

enum class InsertResult { kInserted, kAlreadyPresent };

// A hash table of element pointers in SlotVector buckets. `Traits` supplies:
//   using Key = ...;
//   static Key KeyOf(const Entry& entry);
//   static uint32_t Hash(const Key& key);
//   static bool Equal(const Key& a, const Key& b);
//   static bool IsIdle(const Entry& entry);   // needed by Purge only
// A key's bucket is Hash(key) & Mask(). The mask starts at 2 whatever the
// bucket count, so with 4 buckets only buckets 0 and 2 are used until the
// first growth; each growth multiplies the bucket count and GrowAt() by 4 and
// makes the mask mask * 4 + 3 (2, 11, 47, 191, ...). Growth happens when an
// insertion finds Size() >= GrowAt() (bucket count * 3 at construction).
//
// Ownership: Insert, Find and Remove only move pointers; the set owns no
// element through them. Purge and DeleteAll delete the elements they drop.
// Elements must not be inserted or removed while a HashSetIterator is in use.
template <typename Entry, typename Traits>
class HashSet {
 public:
  using Key = typename Traits::Key;
  using Bucket = SlotVector<Entry*>;

  HashSet(uint32_t bucket_count, uint32_t purge_limit);
  // Destroys the buckets; the elements are not deleted (see DeleteAll).
  ~HashSet();
  HashSet(const HashSet&) = delete;
  HashSet& operator=(const HashSet&) = delete;

  // Appends `entry` to its bucket, growing the table first when due; a key
  // already present changes nothing.
  InsertResult Insert(Entry* entry);
  // The first element of the key's bucket, in slot order, with an equal key;
  // nullptr when there is none. The set keeps the element.
  Entry* Find(const Key& key) const;
  // Takes the element with `key` out of its bucket (closing the gap); the
  // caller owns it afterwards. False when the key is absent.
  bool Remove(const Key& key);
  // Deletes idle elements chosen at random until Size() <= PurgeLimit() / 2
  // or a budget of PurgeLimit() / 2 + 1 tests is spent; nothing happens when
  // Size() < PurgeLimit(). At most one element per bucket and pass. `random`
  // stands for the C library's rand. True when anything was removed.
  bool Purge(int (*random)() = &std::rand);
  // Deletes every element and empties the set.
  void DeleteAll();

  uint32_t Size() const { return size_; }
  uint32_t BucketCount() const { return bucket_count_; }
  uint32_t Mask() const { return mask_; }
  uint32_t GrowAt() const { return grow_at_; }
  uint32_t BitsLeft() const { return bits_left_; }
  uint32_t PurgeLimit() const { return purge_limit_; }
  void SetPurgeLimit(uint32_t limit) { purge_limit_ = limit; }
  const Bucket& BucketAt(uint32_t index) const { return buckets_[index]; }

 private:
  void Grow();

  uint32_t bucket_count_;
  Bucket* buckets_;  // new[]
  uint32_t size_ = 0;
  uint32_t grow_at_;
  uint32_t bits_left_ = 28;
  uint32_t mask_ = 2;
  uint32_t purge_limit_;
};

// Visits every element of a set: buckets 0 to BucketCount() - 1 (all of them,
// not only those the mask reaches), each in slot order.
//   for (HashSetIterator<Entry, Traits> it(table); it.Advance();) use(it.Current());
template <typename Entry, typename Traits>
class HashSetIterator {
 public:
  explicit HashSetIterator(const HashSet<Entry, Traits>& set);

  // Moves to the next element; false past the last one.
  bool Advance();
  Entry* Current() const;
  uint32_t BucketIndex() const { return bucket_; }

 private:
  const HashSet<Entry, Traits>* set_;
  uint32_t bucket_ = 0;
  // Iterator over the current bucket; created when the walk enters a bucket.
  SlotVectorIterator<Entry*>* bucket_iterator_ = nullptr;
};

// ---------------------------------------------------------------------------
// Implementation.

#endif  // KLV_FOUNDATION_HASH_SET_H_
