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

// The elements fill slots 0 to Count() - 1, each marked present.
template <typename T>
bool IsPacked(const SlotVector<T>& list) {
  if (list.End() != list.Count()) return false;
  for (uint32_t slot = 0; slot < list.End(); ++slot) {
    if (!list.IsPresent(slot)) return false;
  }
  return true;
}

RefString CheckGrants(const FileEntry& file) {
  for (uint32_t held = 0; held < file.opens.Count(); ++held) {
    for (uint32_t later = held + 1; later < file.opens.Count(); ++later) {
      if (!ShareModesAgree(file.opens[later], file.opens[held])) {
        return Violation("opens ", held, " and ", later, " conflict");
      }
    }
  }
  for (uint32_t held = 0; held < file.ranges.Count(); ++held) {
    for (uint32_t later = held + 1; later < file.ranges.Count(); ++later) {
      if (RangesConflict(file.ranges[later], file.ranges[held])) {
        return Violation("ranges ", held, " and ", later, " conflict");
      }
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
  RefString problem;
  if (!IsPacked(file.opens) || !IsPacked(file.oplocks) || !IsPacked(file.ranges)) {
    problem = Violation("a lock list's count does not match its slots");
  }
  if (problem.IsEmpty()) problem = CheckGrants(file);
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

RefString LockManagerDaemon::CheckTables() const {
  RefString problem = CheckTable(clients_, "client table");
  if (problem.IsEmpty()) problem = CheckTable(files_, "file table");
  if (problem.IsEmpty()) problem = CheckTable(waits_, "wait table");
  for (HashSetIterator<FileEntry, FileTraits> it(files_); problem.IsEmpty() && it.Advance();) {
    problem = CheckFile(*it.Current(), waits_);
  }
  for (HashSetIterator<WaitEntry, WaitTraits> it(waits_); problem.IsEmpty() && it.Advance();) {
    problem = CheckWait(*it.Current(), files_);
  }
  return problem;
}

}  // namespace klv
