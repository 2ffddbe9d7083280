// The configuration lock: who gets which level, and what remains when its holders end.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <atomic>

#include "lib/libbh.h"
#include "tests/files.h"

constexpr const char *KEY_FILE = "/var/log/qrconf_lock";

// Stands before the C library's for the tests and for the settings library.
static bool key_is_private = false;

key_t ftok(const char *path, int project) noexcept {
  static auto *const real = reinterpret_cast<decltype(&ftok)>(dlsym(RTLD_NEXT, "ftok"));
  return key_is_private ? IPC_PRIVATE : real(path, project);
}

namespace {

// The values of both levels (1 is free) and the numbers of their holders.
struct LockState {
  int main;
  int inherited;
  int main_holder;
  int inherited_holder;

  bool operator==(const LockState &) const = default;
};

LockState State() {
  const int set = semget(ftok(KEY_FILE, 0), 0, 0);
  const int segment = shmget(ftok(KEY_FILE, 0), 0, 0);
  auto *record = static_cast<int16_t *>(shmat(segment, nullptr, 0));
  const LockState state = {semctl(set, 0, GETVAL), semctl(set, 1, GETVAL), record[0], record[1]};
  EXPECT_EQ(shmdt(record), 0);
  shmid_ds use = {};
  EXPECT_EQ(shmctl(segment, IPC_STAT, &use), 0);
  EXPECT_EQ(use.shm_nattch, 0U) << "the library has left an attachment";
  return state;
}

// Runs the function in a child, of the number `pid` where the kernel lets it be chosen. Returns its
// result, which fits a byte; 1 when one of its expectations failed.
template <class Function>
int InChild(Function function, uint64_t pid = 0) {
  const uint64_t how[] = {0, 0, 0, 0, SIGCHLD, 0, 0, 0, reinterpret_cast<uintptr_t>(&pid), 1};
  long child = syscall(SYS_clone3, how, sizeof(how));
  if (child < 0) child = fork();
  if (child == 0) {
    const int result = function();
    _exit(testing::Test::HasFailure() ? 1 : result);
  }
  int status = 0;
  EXPECT_EQ(wait(&status), child);
  return static_cast<int8_t>(WEXITSTATUS(status));
}

int SemaphoreSets() {
  struct seminfo use = {};
  semctl(0, 0, SEM_INFO, &use);
  return use.semusz;
}

TEST(Lock, HasNoObjectsUnderThePrivateKey) {
  EXPECT_EQ(libbh_lock(), 0);
  EXPECT_EQ(libbh_unlock(), 0);
  const int before = SemaphoreSets();
  key_is_private = true;
  EXPECT_EQ(libbh_lock(), -1);
  EXPECT_EQ(libbh_unlock(), -1);
  EXPECT_EQ(libbh_checklock(), 1);
  key_is_private = false;
  EXPECT_EQ(SemaphoreSets(), before);
}

TEST(Lock, IsReleasedWithoutItsRecord) {
  EXPECT_EQ(libbh_lock(), 0);
  setenv("BOARD_FAIL", "*/shmat:0:ENOMEM", 1);
  EXPECT_EQ(libbh_unlock(), -1) << "it cannot tell all that the caller holds";
  unsetenv("BOARD_FAIL");
  EXPECT_EQ(State().main, 1);
  EXPECT_EQ(libbh_checklock(), 1);
}

TEST(Lock, IsNobodysBeforeItsFirstUse) {
  fixture::RemoveFile(KEY_FILE);
  EXPECT_EQ(libbh_checklock(), 1);
  EXPECT_EQ(libbh_unlock(), -1);
  EXPECT_EQ(shmget(-1, 0, 0), -1) << "no object without the key file";
}

// What a child of the holder meets: its own level, beside its parent's.
int UseAsTheHoldersChild() {
  EXPECT_EQ(InChild(libbh_lock), -3) << "a grandchild has no level";
  EXPECT_EQ(libbh_unlock(), 0) << "which releases nothing";
  EXPECT_EQ(libbh_lock(), 0);
  EXPECT_EQ(InChild(libbh_lock), -3);
  EXPECT_EQ(State(), (LockState{0, 0, getppid(), static_cast<int16_t>(getpid())}));
  EXPECT_EQ(libbh_checklock(), 0);
  EXPECT_EQ(libbh_unlock(), 0);
  return 0;
}

TEST(Lock, HasALevelForTheHolderAndOneForItsChild) {
  EXPECT_EQ(libbh_lock(), 0);
  EXPECT_EQ(libbh_lock(), -3);
  EXPECT_EQ(libbh_checklock(), 0);
  for (const uint64_t pid : {0U, 32768U, 65536U, 70001U})
    EXPECT_EQ(InChild(UseAsTheHoldersChild, pid), 0) << pid;
  EXPECT_EQ(libbh_unlock(), 0);
  EXPECT_EQ(libbh_unlock(), 0);
  EXPECT_EQ(libbh_checklock(), 1);
}

TEST(Lock, IsNotThatOfItsNumbersNextBearer) {
  EXPECT_EQ(InChild(libbh_lock, 30001), 0);
  // The next process of that number finds itself in the record of a level that it does not hold.
  EXPECT_EQ(InChild(libbh_checklock, 30001), 1);
  EXPECT_EQ(InChild(libbh_unlock, 30001), 0);
  EXPECT_EQ(State(), (LockState{1, 1, 0, 0}));
}

struct Race {
  std::atomic<int> started, holders, faults;
};

// Takes the lock in a race with its siblings; the end of a process is one way to give it back.
[[noreturn]] void RaceForTheLock(Race &race, int number, int siblings) {
  while (race.started < siblings || libbh_lock() != 0)
    sched_yield();
  race.faults += race.holders++;
  sched_yield();
  race.faults += libbh_checklock();
  --race.holders;
  if (number % 3 == 0) libbh_unlock();
  if (number % 3 == 1) raise(SIGKILL);
  _exit(0);
}

TEST(Lock, HasOneHolderAmongManyThatEndInEveryWay) {
  const int file = memfd_create("race", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, sizeof(Race)), 0);
  void *memory = mmap(nullptr, sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  auto &race = *static_cast<Race *>(memory);  // the kernel zeroes it
  for (int i = 0; i < 200; ++i) {
    if (fork() == 0) RaceForTheLock(race, i, 200);
    ++race.started;
  }
  while (wait(nullptr) > 0)
    continue;
  EXPECT_EQ(race.holders, 0);
  EXPECT_EQ(race.faults, 0);
  EXPECT_EQ(State().main, 1);
  EXPECT_EQ(State().inherited, 1);
  munmap(memory, sizeof(Race));
}

TEST(Lock, IsNotReadyBeforeTheFirstOperationOnItsSet) {
  EXPECT_EQ(unshare(CLONE_NEWIPC), 0);
  fixture::WriteFile(KEY_FILE, "");
  const int set = semget(ftok(KEY_FILE, 0), 2, IPC_CREAT | IPC_EXCL);  // both levels held
  EXPECT_EQ(libbh_lock(), -2);
  sembuf free_main = {0, 1, 0};
  EXPECT_EQ(semop(set, &free_main, 1), 0);
  EXPECT_EQ(libbh_lock(), -3);
}

TEST(Lock, IsRefusedWithoutItsParts) {
  EXPECT_EQ(unshare(CLONE_NEWIPC), 0);
  setenv("BOARD_FAIL", "*/shmat:0:ENOMEM", 1);
  EXPECT_EQ(libbh_lock(), -1);
  EXPECT_EQ(libbh_checklock(), 1);
  unsetenv("BOARD_FAIL");
  EXPECT_EQ(libbh_checklock(), 0);
  EXPECT_EQ(libbh_unlock(), -1);
  unshare(CLONE_NEWIPC);
  while (semget(IPC_PRIVATE, 1, 0) >= 0)
    continue;
  EXPECT_EXIT(libbh_lock(), testing::ExitedWithCode(0), "^$");
}

}  // namespace
