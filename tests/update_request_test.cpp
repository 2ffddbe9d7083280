// The request that begins a firmware update: who may send it, and where its image is to go.

#include "lib/libbh.h"
#include "tests/firmware_fixture.h"

using namespace fixture;

using UpdateAdmission = FirmwareTest;

namespace {

constexpr uint32_t FAILURE = 0xFFFFFFFF;
constexpr uint32_t PASSWORD_ERROR = 0x80000001;
constexpr uint32_t NO_KEY = 0x80000005;
constexpr uint32_t NO_SPACE = 0x8000000F;
constexpr uint32_t BAD_PRODUCT = 0x80000010;
constexpr uint32_t BAD_TYPE = 0x80000011;

const string LONGEST_ZIP = string(504, 'x') + "FernGat";

void Nothing() {}

void SetLongPassword() {  // "FernGateLong"
  WriteFile("/www/.htpasswd", "root:$1$saltsalt$E5KeHmE3OKSR6P4LGNeKs0");
}

void MountArray(const char *megabytes) {
  RunCommandLine(FormatText("mount -t tmpfs -o size=%sm array /mnt/array1", megabytes));
}

void Fail(const char *call) {
  setenv("BOARD_FAIL", call, 1);
}

void DropKey() {
  CleanKey(0);
}

void EnableAnotherClient() {
  daemon_state.enable_mac[5] = 2;
}

}  // namespace

TEST_F(UpdateAdmission, AdmittedOneChoosesTheTarget) {
  const Order for_array = {.type = 6, .size = 0x800000, .zip = "zip-word"};
  const struct {
    const char *name;
    uint32_t product;
    void (*before)();
    Order order;
    const char *device;
    const char *folder = "/tmp";  // of the segment's key file
  } cases[] = {
      {"no bytes", FIRST, Nothing, {.size = 0}, "/dev/mtdblock0"},
      {"long password", FIRST, SetLongPassword, {.password = "FernGateLong"}, "/dev/mtdblock0"},
      {"longest archive password", FIRST, Nothing, {.zip = LONGEST_ZIP}, "/dev/mtdblock0"},
      {"no receiver", FIRST, [] { Fail("*/fork:0:EAGAIN"); }, {.type = 2}, "/dev/mtdblock1"},
      {"largest in /tmp", FIRST, Nothing, {.type = 4, .size = 0x7FFFFF}, "/dev/hda1"},
      {"disk", FIRST, Nothing, {.type = 4, .size = 0x800000}, "/dev/hda1", "/mnt/hda3"},
      {"ZEPH", ZEPH, Nothing, {}, "/dev/mtd0"},
      {"ZEPH, no key", 0x2002, DropKey, {.type = 2, .size = 0x800000}, "/dev/mtd1"},
      {"array", ZEPH, [] { MountArray("200"); }, for_array, "/dev/hda1", "/mnt/array1"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    Reset(test.product);
    test.before();
    EXPECT_EQ(Begin(test.order), STARTED);
    EXPECT_STREQ(daemon_state.firm_dev, test.device);
    EXPECT_EQ(daemon_state.firm_mem_path, test.folder + string("/kv_firm_mem"));
    EXPECT_EQ(daemon_state.zip_pass, test.order.zip);
    EXPECT_EQ(Content().size(), test.order.size + 256);
    EXPECT_EQ(libbh_checklock(), 1) << "the lock is still held";
    GiveUp();
  }
  for (const char *lines :
       {"ACP_FIRMUP2_REPLY ACP_STATE_OK >>>>>>>>>>>>\n   ip=0xc0a82801 port=0x",
        "SHM_MEM_FOR_FIRM=/mnt/array1/kv_firm_mem\ninitialize shared memory.\nfirm_recive() \n",
        "firm_recive() fialed.\n"})
    EXPECT_NE(Count(TRACE, lines), 0) << lines;
}

TEST_F(UpdateAdmission, RefusedOneTellsWhy) {
  const Order nothing_right = {.type = 3, .product = 0x11, .password = "fernGate"};
  const Order long_password = {.password = "FernGateLong", .zip = "zip-word"};
  const struct {
    const char *name;
    uint32_t product;
    void (*before)();
    Order order;
    uint32_t state;
  } cases[] = {
      {"no key", FIRST, DropKey, nothing_right, NO_KEY},
      {"wrong password", FIRST, Nothing, nothing_right, PASSWORD_ERROR},
      {"long password before another", FIRST, SetLongPassword, long_password, PASSWORD_ERROR},
      {"archive password too long", FIRST, Nothing, {.zip = LONGEST_ZIP + "e"}, PASSWORD_ERROR},
      {"another product's image", FIRST, Nothing, {.product = 0x11}, FAILURE},
      {"type of the other family", FIRST, Nothing, {.type = 5}, FAILURE},
      {"system partition", FIRST, [] { Fail("*/mount=/dev/hda1:0:EIO"); }, {.type = 4}, FAILURE},
      {"archive partition", FIRST, [] { Fail("*/mount=/dev/hda3:0:EIO"); }, {.type = 4}, FAILURE},
      {"segment of 32 bits", FIRST, Nothing, {.size = 0xFFFFFF00}, FAILURE},
      {"ZEPH, not enabled", ZEPH, EnableAnotherClient, nothing_right, PASSWORD_ERROR},
      {"ZEPH, not verified", ZEPH, [] { daemon_state.password_verified = -1; }, nothing_right,
       PASSWORD_ERROR},
      {"ZEPH, unknown type", 0x2002, Nothing, {.type = 4}, BAD_TYPE},
      {"ZEPH, another product's", ZEPH, Nothing, nothing_right, BAD_PRODUCT},
      {"ZEPH, array too small", ZEPH, [] { MountArray("199"); }, {.type = 6}, NO_SPACE},
      {"ZEPH, no array", ZEPH, [] { RemoveFile("/mnt/array1"); }, {.type = 6}, NO_SPACE},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    Reset(test.product);
    test.before();
    EXPECT_EQ(Begin(test.order), FormatText("C080:%08X ", test.state));
    EXPECT_EQ(daemon_state.firm_dev, nullptr);
    EXPECT_STREQ(daemon_state.zip_pass, "");
    EXPECT_EQ(Content(), "");
    EXPECT_EQ(libbh_checklock(), 1) << "the lock is still held";
  }
  for (const char *lines :
       {"ACP_FIRMUP2_REPLY not equal FIRM PID=0x11 ProductID=0x10\n", "array1 size=192 MB\n",
        "ACP_FIRMUP2_REPLY failed libbh_Mount()\nACP_FIRMUP2_REPLY result != ACP_STATE_OK >>>>>>",
        "ACP_FIRMUP_ZEPH_REPLY Unknown FIRM_TYPE acpfirm3->firm_type=0x3\nACP_FIRMUP_ZEPH_REPLY n",
        "statfs() faild!!!\n"})
    EXPECT_NE(Count(TRACE, lines), 0) << lines;
}

TEST_F(UpdateAdmission, LockOfAnotherProcessComesFirst) {
  const pid_t locker = ForkStopped([] { libbh_lock(); });
  for (const uint32_t product : {FIRST, ZEPH}) {
    Reset(product);
    DropKey();
    EnableAnotherClient();
    EXPECT_EQ(Begin({}), "C080:80000009 ") << product;
    EXPECT_EQ(libbh_lock(), -3) << "the other's lock is gone";
  }
  kill(locker, SIGKILL);
  EXPECT_EQ(Count(TRACE, "ACP_FIRMUP2_REPLY NOW_LOCKING==libbh_lock() >>>>>>>>\n"), 1);
}

TEST_F(UpdateAdmission, MayEndAnywhere) {
  const Bytes first = BodyOf({.zip = "zip-word"});
  const Bytes zeph = BodyOf({.product = ZEPH});
  for (size_t length = 0; length <= first.size(); ++length) {
    SCOPED_TRACE(length);
    daemon_state.product_id = FIRST;
    EXPECT_EQ(Ask(0x8081, 0, first, length), length < 32 ? "C080:80000001 " : STARTED);
    EXPECT_EQ(daemon_state.zip_pass == string("zip-word"), length == 44);
    GiveUp();
    daemon_state.product_id = ZEPH;
    EXPECT_EQ(Ask(0x8080, 0, zeph, length), length < 8 ? "C080:80000010 " : STARTED);
    GiveUp();
  }
}

// It counts with what stands behind it, up to a zero.
TEST_F(UpdateAdmission, PasswordBeforeAnArchivePasswordHasThirtyTwoBytes) {
  Bytes body = wire::Part(BodyOf({}), 0, 32);
  body.resize(24 + 32, 0x11);
  body.push_back(0);
  EXPECT_EQ(Ask(0x8081, 0, body), STARTED);
  body.back() = 0x11;
  body.push_back(0);
  EXPECT_EQ(Ask(0x8081, 0, body), "C080:80000001 ");
}
