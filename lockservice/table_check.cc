// Consistency checks over the daemon's tables, for tests and fuzzers. Each
// check answers a description of the first violation that it finds, or an
// empty text.
#include <algorithm>
#include <vector>

#include "lockservice/lock_manager_daemon.h"
#include "lockservice/share_modes.h"

namespace klv {

namespace {

template <typename... Parts>
RefString Violation(const Parts&... parts) {
  TextBuilder text;
  (text << ... << parts);
  return text.Bytes();
}

bool Contains(const std::vector<uint32_t>& ids, uint32_t id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Every element is the one found under its key (so keys are unique and each
// sits in its key's bucket), and Size() counts them.
template <typename Entry, typename Traits>
RefString CheckTable(const HashSet<Entry, Traits>& table, const char* name) {
  uint32_t walked = 0;
  for (HashSetIterator<Entry, Traits> it(table); it.Advance(); ++walked) {
    if (table.Find(Traits::KeyOf(*it.Current())) != it.Current()) {
      return Violation(name, ": element ", walked, " is not the one found under its key");
    }
  }
  if (walked != table.Size()) return Violation(name, ": size ", table.Size(), ", walked ", walked);
  return RefString();
}

RefString CheckGrants(const FileEntry& file) {
  for (uint32_t held = 0; held < file.opens.Count(); ++held) {
    for (uint32_t later = held + 1; later < file.opens.Count(); ++later) {
      if (!ShareModesAgree(file.opens[later], file.opens[held])) {
        return Violation("opens ", held, " and ", later, " conflict");
      }
    }
  }
  std::vector<RecordLock> ranges;
  file.ranges.ForEach([&ranges](const RecordLock& range) { ranges.push_back(range); });
  if (ranges.size() != file.ranges.Count()) return Violation("the range count is wrong");
  for (uint32_t held = 0; held < ranges.size(); ++held) {
    for (uint32_t later = held + 1; later < ranges.size(); ++later) {
      if (RangesConflict(ranges[later], ranges[held])) {
        return Violation("ranges ", held, " and ", later, " conflict");
      }
    }
    // An exclusive lock of the same bytes must meet it (through the index
    // on a file that holds many).
    RecordLock same = ranges[held];
    same.shared = 0;
    if (ReachOf(same) != 0 && !file.ranges.Conflicts(same)) {
      return Violation("range ", held, " is missed by the conflict check");
    }
  }
  return RefString();
}

// Each oplock has an id of its own in the file, and each wait that it holds
// up lists it among its holders.
RefString CheckOplocks(const FileEntry& file, const WaitTable& waits) {
  for (uint32_t slot = 0; slot < file.oplocks.Count(); ++slot) {
    const OpLock& oplock = file.oplocks[slot];
    for (uint32_t other = 0; other < slot; ++other) {
      if (oplock.id == 0 || file.oplocks[other].id == oplock.id) {
        return Violation("oplock ", slot, " has id ", oplock.id, ", not its own");
      }
    }
    for (uint32_t wait_id : oplock.waits) {
      const WaitEntry* wait = waits.Find(wait_id);
      if (wait == nullptr || !(wait->file == file.key) || !Contains(wait->holders, oplock.id)) {
        return Violation("oplock ", oplock.id, " names wait ", wait_id, ", which does not name it");
      }
    }
  }
  return RefString();
}

RefString CheckFile(const FileEntry& file, const WaitTable& waits) {
  RefString problem = CheckGrants(file);
  if (problem.IsEmpty()) problem = CheckOplocks(file, waits);
  if (problem.IsEmpty()) return problem;
  return Violation("file [", file.key.hi, ",", file.key.lo, "]: ", problem);
}

// Each holder of a wait is an oplock of the wait's file that lists the wait.
RefString CheckWait(const WaitEntry& wait, const FileTable& files) {
  const FileEntry* file = files.Find(wait.file);
  for (uint32_t holder : wait.holders) {
    bool listed = false;
    for (uint32_t slot = 0; file != nullptr && slot < file->oplocks.Count(); ++slot) {
      const OpLock& oplock = file->oplocks[slot];
      listed = listed || (oplock.id == holder && Contains(oplock.waits, wait.id));
    }
    if (!listed) return Violation("wait ", wait.id, ": holder ", holder, " does not list it");
  }
  return wait.id == 0 ? Violation("a wait has id 0") : RefString();
}

}  // namespace

// Each holder counts exactly the ranges that name it.
RefString LockManagerDaemon::CheckHolders() const {
  std::vector<uint32_t> named(holders_.End(), 0);
  for (HashSetIterator<FileEntry, FileTraits> it(files_); it.Advance();) {
    bool known = true;
    it.Current()->ranges.ForEach([&](const RecordLock& range) {
      known = known && range.holder < named.size();
      if (known) ++named[range.holder];
    });
    if (!known) return Violation("a range names a holder that was never given");
  }
  for (uint32_t id = 0; id < named.size(); ++id) {
    if (named[id] != holders_.LocksOf(id)) {
      return Violation("holder ", id, " counts ", holders_.LocksOf(id), " ranges, not ", named[id]);
    }
  }
  return RefString();
}

RefString LockManagerDaemon::CheckTablesForTesting() const {
  RefString problem = CheckTable(clients_, "client table");
  if (problem.IsEmpty()) problem = CheckTable(files_, "file table");
  if (problem.IsEmpty()) problem = CheckTable(waits_, "wait table");
  if (problem.IsEmpty()) problem = CheckHolders();
  for (HashSetIterator<FileEntry, FileTraits> it(files_); problem.IsEmpty() && it.Advance();) {
    problem = CheckFile(*it.Current(), waits_);
  }
  for (HashSetIterator<WaitEntry, WaitTraits> it(waits_); problem.IsEmpty() && it.Advance();) {
    problem = CheckWait(*it.Current(), files_);
  }
  return problem;
}

}  // namespace klv
