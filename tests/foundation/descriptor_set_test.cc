#include "foundation/descriptor_set.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

namespace klv {

namespace {

// True when words `from` to WordCount() - 1 are all zero.
bool ZeroFrom(const DescriptorSet& set, uint32_t from) {
  for (uint32_t word = from; word < set.WordCount(); ++word) {
    if (set.Words()[word] != 0) return false;
  }
  return true;
}

// A pipe whose two ends are closed with the test.
class Pipe {
 public:
  Pipe() {
    if (pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
  }
  ~Pipe() {
    for (int fd : fds_) {
      if (fd >= 0) close(fd);
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  bool IsOpen() const { return fds_[0] >= 0; }
  int ReadEnd() const { return fds_[0]; }
  bool WriteByte() const { return write(fds_[1], "x", 1) == 1; }
  // Moves the read end to the lowest free descriptor at or above `lowest`.
  bool MoveReadEndTo(int lowest) {
    const int moved = fcntl(fds_[0], F_DUPFD, lowest);
    if (moved < 0) return false;
    close(fds_[0]);
    fds_[0] = moved;
    return true;
  }

 private:
  int fds_[2];
};

// Polls `set` for reading; the number of ready descriptors, or -1.
int PollReadable(DescriptorSet* set) {
  timeval no_wait = {0, 0};
  return select(set->SelectCount(), set->AsFdSet(), nullptr, nullptr, &no_wait);
}

TEST(DescriptorSet, SizeAtConstruction) {
  const DescriptorSet loop_set(16);
  EXPECT_EQ(loop_set.WordCount(), 2u);
  EXPECT_EQ(loop_set.SelectCount(), 64);
  EXPECT_TRUE(ZeroFrom(loop_set, 0));

  const DescriptorSet wider(32);  // (32 + 32) / 32 + 1
  EXPECT_EQ(wider.WordCount(), 3u);
  EXPECT_EQ(wider.SelectCount(), 96);
}

TEST(DescriptorSet, DescriptorsLiveLeastSignificantFirst) {
  DescriptorSet set(16);
  set.Set(0);
  set.Set(3);
  set.Set(33);
  set.Set(63);  // last bit of word 1: no growth
  EXPECT_EQ(set.WordCount(), 2u);
  EXPECT_EQ(set.Words()[0], 0x9u);
  EXPECT_EQ(set.Words()[1], 0x80000002u);
  EXPECT_TRUE(set.IsSet(33));
  EXPECT_FALSE(set.IsSet(32));
  EXPECT_FALSE(set.IsSet(64));
  EXPECT_FALSE(set.IsSet(-1));

  set.Clear(3);
  set.Clear(1000);  // beyond the set: nothing to clear
  EXPECT_EQ(set.Words()[0], 0x1u);
  EXPECT_EQ(set.WordCount(), 2u);
}

TEST(DescriptorSet, SetBeyondLastWordGrowsByThreeSpareWords) {
  DescriptorSet set(16);
  set.Set(5);
  set.Set(64);  // word 2: (64 + 32) / 32 + 3 = 6 words
  EXPECT_EQ(set.WordCount(), 6u);
  EXPECT_EQ(set.SelectCount(), 192);
  EXPECT_EQ(set.Words()[0], 0x20u);
  EXPECT_EQ(set.Words()[2], 0x1u);
  EXPECT_TRUE(ZeroFrom(set, 3));

  set.Set(200);  // word 6: (200 + 32) / 32 + 3 = 10 words
  EXPECT_EQ(set.WordCount(), 10u);
  EXPECT_EQ(set.Words()[6], 0x100u);
  EXPECT_TRUE(ZeroFrom(set, 7));
  EXPECT_TRUE(set.IsSet(5));
  EXPECT_TRUE(set.IsSet(64));
}

TEST(DescriptorSet, CopyReallocatesOnlyASmallerTarget) {
  DescriptorSet wide(16);
  wide.Set(1);
  wide.Set(100);  // (100 + 32) / 32 + 3 = 7 words
  ASSERT_EQ(wide.WordCount(), 7u);

  DescriptorSet narrow(16);
  narrow.Set(2);
  narrow.CopyFrom(wide);
  EXPECT_EQ(narrow.WordCount(), 7u);
  EXPECT_TRUE(narrow.IsSet(1));
  EXPECT_TRUE(narrow.IsSet(100));
  EXPECT_FALSE(narrow.IsSet(2));

  // The wider target keeps its size and loses its own descriptors.
  DescriptorSet master(16);
  master.Set(4);
  wide.CopyFrom(master);
  EXPECT_EQ(wide.WordCount(), 7u);
  EXPECT_EQ(wide.Words()[0], 0x10u);
  EXPECT_TRUE(ZeroFrom(wide, 1));

  DescriptorSet same(16);
  same.Set(9);
  same.CopyFrom(master);
  EXPECT_EQ(same.WordCount(), 2u);
  EXPECT_EQ(same.Words()[0], 0x10u);
}

TEST(DescriptorSet, SelectSeesTheReadyDescriptor) {
  Pipe ready;
  Pipe quiet;
  ASSERT_TRUE(ready.IsOpen() && quiet.IsOpen());
  ASSERT_TRUE(ready.WriteByte());
  DescriptorSet master(16);
  master.Set(ready.ReadEnd());
  master.Set(quiet.ReadEnd());
  DescriptorSet working(16);
  working.CopyFrom(master);
  ASSERT_EQ(PollReadable(&working), 1);
  EXPECT_TRUE(working.IsSet(ready.ReadEnd()));
  EXPECT_FALSE(working.IsSet(quiet.ReadEnd()));
  EXPECT_TRUE(master.IsSet(quiet.ReadEnd()));  // select changed the copy only
}

TEST(DescriptorSet, SelectOnAGrownSetWithAnOddWordCount) {
  Pipe ready;
  ASSERT_TRUE(ready.IsOpen());
  // Descriptor 100 grows a set of capacity 16 to (100 + 32) / 32 + 3 = 7
  // words: select reads four longs, the last one half beyond the words in use.
  ASSERT_TRUE(ready.MoveReadEndTo(100));
  ASSERT_EQ(ready.ReadEnd(), 100) << "descriptor 100 is taken";
  ASSERT_TRUE(ready.WriteByte());
  DescriptorSet set(16);
  set.Set(100);
  ASSERT_EQ(set.WordCount(), 7u);
  ASSERT_EQ(PollReadable(&set), 1);
  EXPECT_TRUE(set.IsSet(100));
  EXPECT_EQ(set.Words()[3], 0x10u);
}

}  // namespace

}  // namespace klv
