#ifndef KLV_FOUNDATION_HASH_SET_H_
#define KLV_FOUNDATION_HASH_SET_H_

#include <cassert>
#include <cstdint>
#include <functional>

#include "foundation/slot_vector.h"

namespace klv {

enum class InsertResult { kInserted, kAlreadyPresent };

// A hash table of element pointers in SlotVector buckets. `Traits` supplies:
//   using Key = ...;
//   static Key KeyOf(const Entry& entry);
//   static uint32_t Hash(const Key& key);
//   static bool Equal(const Key& a, const Key& b);
//   static bool IsIdle(const Entry& entry);   // needed by Purge only
// A key's bucket is Hash(key) & mask. The mask starts at 2 whatever the
// bucket count, so with 4 buckets only buckets 0 and 2 are used until the
// first growth; each growth multiplies the bucket count and the growth
// threshold by 4 and makes the mask mask * 4 + 3 (2, 11, 47, 191, ...).
// Growth happens when an insertion finds Size() at the threshold (bucket
// count * 3 at construction).
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
  // Deletes idle elements chosen at random until Size() <= the purge limit / 2
  // or a budget of limit / 2 + 1 tests is spent; nothing happens when
  // Size() < limit. At most one element per bucket and pass; each pass
  // starts at the bucket that `random` draws. True when anything was removed.
  bool Purge(const std::function<uint32_t()>& random);
  // Deletes every element and empties the set.
  void DeleteAll();

  uint32_t Size() const { return size_; }
  uint32_t BucketCount() const { return bucket_count_; }
  void SetPurgeLimit(uint32_t limit) { purge_limit_ = limit; }
  const Bucket& BucketAt(uint32_t index) const { return buckets_[index]; }

 private:
  void Grow();
  // The bucket a key belongs to under the current mask.
  Bucket& BucketOf(const Key& key) { return buckets_[Traits::Hash(key) & mask_]; }
  const Bucket& BucketOf(const Key& key) const { return buckets_[Traits::Hash(key) & mask_]; }
  // The slot of the element with `key` in `bucket`, or -1.
  static int64_t SlotOf(const Bucket& bucket, const Key& key);
  // Tests the elements of `bucket` in slot order, one unit of `budget` each
  // while any is left, and deletes the first idle one. True when one was.
  static bool PurgeOneIn(Bucket* bucket, uint32_t* budget);

  uint32_t bucket_count_;
  Bucket* buckets_;  // new[]
  uint32_t size_ = 0;
  uint32_t grow_at_;
  uint32_t mask_ = 2;
  uint32_t purge_limit_;
};

// Visits every element of a set: buckets 0 to BucketCount() - 1 (all of them,
// not only those the mask reaches), each in slot order.
//   for (HashSetIterator<Entry, Traits> it(table); it.Advance();) use(it.Current());
template <typename Entry, typename Traits>
class HashSetIterator {
 public:
  explicit HashSetIterator(const HashSet<Entry, Traits>& set) : set_(&set) {}

  // Moves to the next element; false past the last one.
  bool Advance();
  // The element reached by the last Advance, which must have returned true.
  Entry* Current() const { return set_->BucketAt(bucket_)[slot_]; }

 private:
  const HashSet<Entry, Traits>* set_;
  uint32_t bucket_ = 0;
  uint32_t slot_ = 0;
  bool started_ = false;
};

// ---------------------------------------------------------------------------
// Implementation.

template <typename Entry, typename Traits>
HashSet<Entry, Traits>::HashSet(uint32_t bucket_count, uint32_t purge_limit)
    : bucket_count_(bucket_count),
      buckets_(new Bucket[bucket_count]),
      grow_at_(bucket_count * 3),
      purge_limit_(purge_limit) {
  assert(mask_ < bucket_count_);
}

template <typename Entry, typename Traits>
HashSet<Entry, Traits>::~HashSet() {
  delete[] buckets_;
}

template <typename Entry, typename Traits>
InsertResult HashSet<Entry, Traits>::Insert(Entry* entry) {
  const Key key = Traits::KeyOf(*entry);
  if (SlotOf(BucketOf(key), key) >= 0) return InsertResult::kAlreadyPresent;
  if (size_ >= grow_at_) Grow();
  BucketOf(key).Append(entry);
  ++size_;
  return InsertResult::kInserted;
}

template <typename Entry, typename Traits>
Entry* HashSet<Entry, Traits>::Find(const Key& key) const {
  const Bucket& bucket = BucketOf(key);
  const int64_t slot = SlotOf(bucket, key);
  return slot < 0 ? nullptr : bucket[static_cast<uint32_t>(slot)];
}

template <typename Entry, typename Traits>
bool HashSet<Entry, Traits>::Remove(const Key& key) {
  Bucket& bucket = BucketOf(key);
  const int64_t slot = SlotOf(bucket, key);
  if (slot < 0) return false;
  bucket.RemoveAt(static_cast<uint32_t>(slot));
  --size_;
  return true;
}

template <typename Entry, typename Traits>
bool HashSet<Entry, Traits>::Purge(const std::function<uint32_t()>& random) {
  if (size_ < purge_limit_) return false;
  uint32_t budget = purge_limit_ / 2 + 1;
  bool removed = false;
  while (size_ > purge_limit_ / 2 && budget > 0) {
    // Each pass walks from a random bucket to the last one, so removals
    // spread over the table instead of emptying its first buckets. Once the
    // budget is spent the rest of the walk could change nothing.
    const uint32_t start = random() & mask_;
    for (uint32_t index = start; index < bucket_count_ && budget > 0; ++index) {
      Bucket& bucket = buckets_[index];
      if (bucket.IsEmpty()) {
        --budget;
      } else if (PurgeOneIn(&bucket, &budget)) {
        --size_;
        removed = true;
      }
    }
  }
  return removed;
}

template <typename Entry, typename Traits>
bool HashSet<Entry, Traits>::PurgeOneIn(Bucket* bucket, uint32_t* budget) {
  for (uint32_t slot = 0; slot < bucket->Count() && *budget > 0; ++slot) {
    --*budget;
    Entry* entry = (*bucket)[slot];
    if (Traits::IsIdle(*entry)) {
      bucket->RemoveAt(slot);
      delete entry;
      return true;
    }
  }
  return false;
}

template <typename Entry, typename Traits>
void HashSet<Entry, Traits>::DeleteAll() {
  for (uint32_t index = 0; index < bucket_count_; ++index) {
    buckets_[index].Clear(ClearMode::kDeleteElements);
  }
  size_ = 0;
}

template <typename Entry, typename Traits>
int64_t HashSet<Entry, Traits>::SlotOf(const Bucket& bucket, const Key& key) {
  for (uint32_t slot = 0; slot < bucket.Count(); ++slot) {
    if (Traits::Equal(Traits::KeyOf(*bucket[slot]), key)) return slot;
  }
  return -1;
}

template <typename Entry, typename Traits>
void HashSet<Entry, Traits>::Grow() {
  Bucket* old_buckets = buckets_;
  const uint32_t old_count = bucket_count_;
  bucket_count_ = old_count * 4;
  buckets_ = new Bucket[bucket_count_];
  grow_at_ *= 4;
  mask_ = mask_ * 4 + 3;
  for (uint32_t index = 0; index < old_count; ++index) {
    const Bucket& old_bucket = old_buckets[index];
    for (uint32_t slot = 0; slot < old_bucket.Count(); ++slot) {
      Entry* entry = old_bucket[slot];
      BucketOf(Traits::KeyOf(*entry)).Append(entry);
    }
  }
  delete[] old_buckets;
}

template <typename Entry, typename Traits>
bool HashSetIterator<Entry, Traits>::Advance() {
  if (started_) ++slot_;
  started_ = true;
  for (; bucket_ < set_->BucketCount(); ++bucket_, slot_ = 0) {
    if (slot_ < set_->BucketAt(bucket_).Count()) return true;
  }
  return false;
}

}  // namespace klv

#endif  // KLV_FOUNDATION_HASH_SET_H_
