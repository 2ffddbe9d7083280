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

using Ints = std::vector<int>;
constexpr const char *KEY_FILE = "/var/log/qrconf_lock";

// The values of both levels and their owners; nothing when attachments of these are left.
static Ints State() {
  const int set = semget(ftok(KEY_FILE, 0), 0, 0), segment = shmget(ftok(KEY_FILE, 0), 0, 0);
  auto *record = static_cast<int16_t *>(shmat(segment, nullptr, 0));
  const Ints state = {semctl(set, 0, GETVAL), semctl(set, 1, GETVAL), record[0], record[1]};
  shmid_ds use = {};
  return !shmdt(record) && !shmctl(segment, IPC_STAT, &use) && !use.shm_nattch ? state : Ints{};
}

// The function's result in a child, of the number `pid` where the kernel has such numbers.
static int InChild(int (*function)(), uint64_t pid = 0) {
  const uint64_t how[] = {0, 0, 0, 0, SIGCHLD, 0, 0, 0, reinterpret_cast<uintptr_t>(&pid), 1};
  long child = syscall(SYS_clone3, how, sizeof(how));
  if (child < 0) child = fork();
  if (child == 0) _exit(function());
  int status = 0;
  return wait(&status) == child ? static_cast<int8_t>(WEXITSTATUS(status)) : -100;
}

static int SemaphoreSets() {
  struct seminfo use = {};
  semctl(0, 0, SEM_INFO, &use);
  return use.semusz;
}

// Stands before the C library's for the tests and for the settings library.
static bool key_is_private = false;

key_t ftok(const char *path, int project) noexcept {
  static auto *const real = reinterpret_cast<decltype(&ftok)>(dlsym(RTLD_NEXT, "ftok"));
  return key_is_private ? IPC_PRIVATE : real(path, project);
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
  EXPECT_EQ(State()[0], 1);
  EXPECT_EQ(libbh_checklock(), 1);
}

TEST(Lock, HasALevelForTheHolderAndOneForItsChild) {
  fixture::RemoveFile(KEY_FILE);
  EXPECT_EQ((Ints{libbh_checklock(), libbh_unlock(), shmget(-1, 0, 0)}), (Ints{1, -1, -1}));
  EXPECT_EQ((Ints{libbh_lock(), libbh_lock(), libbh_checklock()}), (Ints{0, -3, 0}));
  const auto child = [] {
    const Ints taken = {InChild(libbh_lock), libbh_unlock(), libbh_lock(), InChild(libbh_lock)};
    const Ints held = {0, 0, getppid(), static_cast<int16_t>(getpid())};
    return taken == Ints{-3, 0, 0, -3} && State() == held ? libbh_checklock() + libbh_unlock() : 1;
  };
  for (const uint64_t pid : {0U, 32768U, 65536U, 70001U})
    EXPECT_EQ(InChild(child, pid), 0) << pid;
  EXPECT_EQ((Ints{libbh_unlock(), libbh_unlock(), libbh_checklock()}), (Ints{0, 0, 1}));
}

TEST(Lock, IsNotThatOfItsNumbersNextBearer) {
  // The next bearer finds itself in the record of a level that it does not hold.
  EXPECT_EQ(InChild(libbh_lock, 30001), 0);
  EXPECT_EQ(InChild([] { return libbh_checklock() + libbh_unlock(); }, 30001), 1);
  EXPECT_EQ(State(), (Ints{1, 1, 0, 0}));
}

TEST(Lock, HasOneHolderAmongManyThatEndInEveryWay) {
  const int file = memfd_create("shared", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, 16), 0);
  void *memory = mmap(nullptr, 16, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  auto *shared = static_cast<std::atomic<int> *>(memory);  // holders, faults, processes
  for (int i = 0; i < 200; shared[2] = ++i) {
    if (fork() != 0) continue;
    while (shared[2] < 200 || libbh_lock() != 0)
      sched_yield();
    shared[1] += shared[0]++;
    shared[1] += sched_yield() + libbh_checklock();
    --shared[0];
    _exit(i % 3 == 0 ? libbh_unlock() : i % 3 == 1 ? raise(SIGKILL) : 0);
  }
  while (wait(nullptr) > 0)
    continue;
  EXPECT_EQ((Ints{shared[0], shared[1], State()[0], State()[1]}), (Ints{0, 0, 1, 1}));
}

TEST(Lock, IsRefusedWithoutItsParts) {
  EXPECT_EQ(unshare(CLONE_NEWIPC), 0);
  setenv("BOARD_FAIL", "*/shmat:0:ENOMEM", 1);
  EXPECT_EQ(libbh_lock(), -1);
  EXPECT_EQ(libbh_checklock(), 1);
  unsetenv("BOARD_FAIL");
  EXPECT_EQ(libbh_checklock(), 0);
  EXPECT_EQ(libbh_unlock(), -1);
  const int set = semget(ftok(KEY_FILE, 0), 2, IPC_CREAT | IPC_EXCL);  // both held, never used
  sembuf free_main = {0, 1, 0};
  EXPECT_EQ((Ints{libbh_lock(), semop(set, &free_main, 1), libbh_lock()}), (Ints{-2, 0, -3}));
  unshare(CLONE_NEWIPC);
  while (semget(IPC_PRIVATE, 1, 0) >= 0)
    continue;
  EXPECT_EXIT(libbh_lock(), testing::ExitedWithCode(0), "^$");
}
