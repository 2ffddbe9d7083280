// The configuration lock: two semaphores that the kernel gives back when a holder ends, and a
// record of who holds them.
//
// libbh_unlock runs in signal handlers too: system calls only, no allocator and no stdio.

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "lib/codes.h"
#include "lib/descriptor.h"
#include "lib/libbh.h"

namespace {

constexpr const char *KEY_FILE = "/var/log/qrconf_lock";
constexpr int PROJECT = 0;
constexpr int OPEN_TO_ALL = 0666;

constexpr int32_t LOCK_NO_KEY = -1;
constexpr int32_t LOCK_NOT_READY = -2;

constexpr int LEVELS = 2;
enum Level : unsigned short { MAIN = 0, INHERITED = 1 };
constexpr int FREE = 1;
constexpr int HELD = 0;

constexpr int USE_CHECKS = 10;
constexpr int FIND_ATTEMPTS = 2;  // who could not release a level would hold it to the end

// Process IDs of the appliance stay below 32768. Larger ones are cut here, and equally wherever
// they are compared.
struct OwnerRecord {
  int16_t holders[LEVELS];  // by level; 0 when released, stale when the holder just ended
};
static_assert(sizeof(OwnerRecord) == 4);

struct Detach {
  void operator()(OwnerRecord *record) const {
    shmdt(record);
  }
};
using OwnerPtr = std::unique_ptr<OwnerRecord, Detach>;

// The fourth argument of semctl, which programs declare themselves.
union SemaphoreArgument {
  int value;
  struct semid_ds *status;
};

int16_t OwnId() {
  return static_cast<int16_t>(getpid());
}

// The key of the lock's objects, -1 when there is none: the private key would make new ones at each
// use, which nobody finds again.
key_t LockKey() {
  const key_t key = ftok(KEY_FILE, PROJECT);
  return key == IPC_PRIVATE ? -1 : key;
}

// Null when there is no key, or the segment cannot be had: nothing may be written then.
OwnerPtr AttachOwner(key_t key) {
  if (key == -1) return nullptr;
  const int segment = shmget(key, sizeof(OwnerRecord), IPC_CREAT | OPEN_TO_ALL);
  if (segment < 0) return nullptr;
  void *address = shmat(segment, nullptr, 0);
  if (reinterpret_cast<intptr_t>(address) == -1) return nullptr;
  return OwnerPtr(static_cast<OwnerRecord *>(address));
}

int ValueOf(int set, Level level) {
  return semctl(set, level, GETVAL);
}

bool Operate(int set, Level level, short change, short flags) {
  sembuf operation = {};
  operation.sem_num = level;
  operation.sem_op = change;
  operation.sem_flg = static_cast<short>(flags | SEM_UNDO);
  return semop(set, &operation, 1) == 0;
}

int32_t Take(int set, Level level, OwnerRecord &owner) {
  if (!Operate(set, level, -1, IPC_NOWAIT)) return NOW_LOCKING;
  owner.holders[level] = OwnId();
  return 0;
}

// Without a record the kernel tells: only the holder operates on a held level.
bool IsOwn(int set, Level level, const OwnerRecord *owner) {
  return owner != nullptr ? owner->holders[level] == OwnId()
                          : semctl(set, level, GETPID) == getpid();
}

// The record goes first: written after the release, it would wipe the next holder's. A level that
// is free already, under a stale record that happens to name this process, is not raised. One that
// cannot be raised is set, which takes back what the kernel would do at the holder's end.
void Release(int set, Level level, OwnerRecord *owner) {
  if (!IsOwn(set, level, owner)) return;
  if (owner != nullptr) owner->holders[level] = 0;
  SemaphoreArgument free_again = {};
  free_again.value = FREE;
  if (ValueOf(set, level) == HELD && !Operate(set, level, +1, 0))
    semctl(set, level, SETVAL, free_again);
}

bool Holds(int set, Level level, const OwnerRecord &owner) {
  return ValueOf(set, level) == HELD && owner.holders[level] == OwnId();
}

// A set that no operation was ever done on may lack its first values yet.
bool HasBeenUsed(int set) {
  semid_ds status = {};
  SemaphoreArgument argument = {};
  argument.status = &status;
  for (int i = 0; i < USE_CHECKS; ++i) {
    if (semctl(set, 0, IPC_STAT, argument) == 0 && status.sem_otime != 0) return true;
  }
  return false;
}

// The existing set, or -1 when it cannot be opened or is not ready.
int OpenUsedSet(key_t key) {
  const int set = semget(key, LEVELS, OPEN_TO_ALL);
  if (set < 0 || HasBeenUsed(set)) return set;
  libbh_sleep(1);
  return -1;
}

// The set, made when it does not exist; -1 when it exists and is not ready.
int OpenOrMakeSet(key_t key) {
  const int set = semget(key, LEVELS, IPC_CREAT | IPC_EXCL | OPEN_TO_ALL);
  if (set < 0) {
    if (errno != EEXIST) exit(0);
    return OpenUsedSet(key);
  }
  SemaphoreArgument argument = {};
  argument.value = FREE;
  semctl(set, MAIN, SETVAL, argument);
  semctl(set, INHERITED, SETVAL, argument);
  return set;
}

int32_t TakeFreeLevel(int set, OwnerRecord &owner) {
  const bool main_free = ValueOf(set, MAIN) == FREE;
  if (ValueOf(set, INHERITED) != FREE) return NOW_LOCKING;
  if (main_free) return Take(set, MAIN, owner);
  // Only its holder operates on a held level.
  if (semctl(set, MAIN, GETPID) != getppid()) return NOW_LOCKING;
  return Take(set, INHERITED, owner);
}

}  // namespace

int32_t libbh_lock() {
  if (access(KEY_FILE, F_OK) != 0) {
    const Descriptor file(open(KEY_FILE, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!file.IsOpen()) return LOCK_NO_KEY;
  }
  const key_t key = LockKey();
  const OwnerPtr owner = AttachOwner(key);
  if (!owner) return LOCK_NO_KEY;
  const int set = OpenOrMakeSet(key);
  if (set < 0) return LOCK_NOT_READY;
  const int32_t result = TakeFreeLevel(set, *owner);
  // Nobody would ever take a set of ours that was never operated on; the next one makes it anew.
  if (result != 0 && !HasBeenUsed(set)) semctl(set, 0, IPC_RMID);
  return result;
}

int32_t libbh_unlock() {
  const int saved_errno = errno;
  const key_t key = LockKey();
  const OwnerPtr owner = AttachOwner(key);
  int set = -1;
  for (int attempt = 0; key != -1 && set < 0 && attempt < FIND_ATTEMPTS; ++attempt)
    set = semget(key, LEVELS, 0);
  if (set >= 0) {
    Release(set, MAIN, owner.get());
    Release(set, INHERITED, owner.get());
  }
  errno = saved_errno;
  return set >= 0 && owner ? 0 : LOCK_NO_KEY;
}

int32_t libbh_checklock() {
  const key_t key = LockKey();
  const OwnerPtr owner = AttachOwner(key);
  if (!owner) return 1;
  const int set = semget(key, LEVELS, 0);
  if (set < 0) return errno == ENOENT ? 0 : 1;
  return Holds(set, MAIN, *owner) || Holds(set, INHERITED, *owner) ? 0 : 1;
}
