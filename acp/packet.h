// The ACP packet as it travels: header, command codes, state codes and the records of all bodies,
// those of requests first.
//
// The records mirror the wire byte for byte, so their offsets are pinned below. They hold the
// numbers in host order while a handler or a client works; on the wire every number of the header,
// and every body number named in the conversion table (acp/convert.cpp), has its least significant
// byte first. What a body has behind its record has no fixed length: see its comment.

#ifndef BH_ACP_PACKET_H_
#define BH_ACP_PACKET_H_

#include <cstddef>
#include <cstdint>

constexpr uint16_t ACP_PORT = 22936;
constexpr uint32_t MINIMUM_PACKET = 30;  // shortest datagram that is looked at, in bytes
constexpr uint32_t LOWEST_VERSION = 0x00010000;
constexpr uint32_t REPLY_VERSION = 0x00010007;
constexpr size_t ACP_HEADER_SIZE = 32;
constexpr size_t MAC_SIZE = 6;
constexpr size_t MAX_REPLY = 7478;  // bytes, header included, that an appliance can send

struct ACPHeader {
  uint16_t header_size;  // bytes before the body; 32
  uint16_t reserved1;
  uint32_t packet_version;
  uint16_t command;
  uint16_t option_size;  // bytes of the body
  uint8_t reserved2[4];
  uint8_t src_mac[MAC_SIZE];
  uint8_t dst_mac[MAC_SIZE];
  uint32_t result;  // reply: state code; request: a parameter of the command
};
static_assert(sizeof(ACPHeader) == ACP_HEADER_SIZE);
static_assert(offsetof(ACPHeader, packet_version) == 4);
static_assert(offsetof(ACPHeader, command) == 8);
static_assert(offsetof(ACPHeader, option_size) == 10);
static_assert(offsetof(ACPHeader, src_mac) == 16);
static_assert(offsetof(ACPHeader, dst_mac) == 22);
static_assert(offsetof(ACPHeader, result) == 28);

// Command codes. A reply has the request's code with bit 0x4000 set, but for the end of a firmware
// update, which is answered twice, and ACP_FIRMUP3, which is answered like ACP_FIRMUP2.
enum AcpCommand : uint16_t {
  ACP_DISCOVER = 0x8020,
  ACP_CHANGE_IP = 0x8030,
  ACP_PING = 0x8040,
  ACP_INFO = 0x8050,
  ACP_FIRMUP_END = 0x8070,
  ACP_FIRMUP2 = 0x8080,
  ACP_FIRMUP3 = 0x8081,
  ACP_INFO_HDD = 0x8090,
  ACP_SPECIAL = 0x80A0,
  ACP_PART = 0x80D0,
  ACP_INFO_RAID = 0x80E0,
  ACP_CMD = 0x8A10,
  ACP_RESULT = 0x8A20,

  ACP_DISCOVER_REPLY = 0xC020,
  ACP_CHANGE_IP_REPLY = 0xC030,
  ACP_PING_REPLY = 0xC040,
  ACP_FIRMUP_END_REPLY = 0xC070,
  ACP_FIRMUP_FINISH_REPLY = 0xC071,
  ACP_FIRMUP2_REPLY = 0xC080,
  ACP_INFO_HDD_REPLY = 0xC090,
  ACP_SPECIAL_REPLY = 0xC0A0,
  ACP_PART_REPLY = 0xC0D0,
  ACP_INFO_RAID_REPLY = 0xC0E0,
  ACP_CMD_REPLY = 0xCA10,
  ACP_RESULT_REPLY = 0xCA20,
};

// State codes in the `result` of replies.
enum AcpState : uint32_t {
  ACP_STATE_OK = 0x00000000,
  ACP_STATE_FAILURE = 0xFFFFFFFF,
  ACP_STATE_PASSWORD_ERROR = 0x80000001,
  ACP_STATE_NO_KEY = 0x80000005,
  ACP_STATE_NOT_SUPPORT = 0x80000008,
  ACP_STATE_NOW_LOCKING = 0x80000009,
  ACP_STATE_NOT_PERMIT = 0x8000000A,
  ACP_STATE_TEST_FAIL = 0x8000000C,
  ACP_STATE_NO_SPACE = 0x8000000F,
  ACP_STATE_BAD_PRODUCT = 0x80000010,
  ACP_STATE_BAD_FIRM_TYPE = 0x80000011,
};

// Body of ACP_DISCOVER, where a client sends one. Nothing in it is read.
struct DiscoverRequest {
  uint16_t reserved;
};
static_assert(sizeof(DiscoverRequest) == 2);

// Body of ACP_INFO_HDD that names a drive's directory, as a text that may be longer than its field.
// A shorter body asks for the first drive.
struct DiskRequest {
  char directory[64];
};
static_assert(sizeof(DiskRequest) == 64);

// The body of ACP_PART is a text alone, the path of a file system.

// What an ACP_CHANGE_IP request is to change, in its `change_mask`.
enum AcpChange : uint32_t {
  CHANGE_MASK_IP = 0x01,
  CHANGE_MASK_HOSTNAME = 0x02,
  CHANGE_MASK_WORKGROUP = 0x04,
  CHANGE_MASK_DATETIME = 0x10,
  FLAG_CHANGE_INIT = 0x20,  // marks the appliance as initialised
  CHANGE_MASK_GATEWAY = 0x40,
  CHANGE_MASK_TIMEZONE = 0x80,
};
constexpr uint16_t FLAG_DHCP = 0x0001;  // in `flag`: the address comes by DHCP

// Body of ACP_CHANGE_IP. Addresses are numbers whose most significant byte is the first octet of
// the dotted form; texts end with a NUL.
struct ChangeIpRequest {
  uint16_t flag;
  uint8_t reserved1[10];
  uint32_t change_mask;  // AcpChange
  uint32_t address;
  uint32_t netmask;
  char host_name[17];
  char workgroup[35];
  uint16_t year;  // this and the next five: date and time, local
  uint16_t month;
  uint16_t day;
  uint16_t hour;
  uint16_t minute;
  uint16_t second;
  uint32_t gateway;
  uint32_t reserved2[4];
  int32_t time_zone;  // minutes, as libbh_SetTimeZone takes them
};
static_assert(sizeof(ChangeIpRequest) == 112);
static_assert(offsetof(ChangeIpRequest, change_mask) == 12);
static_assert(offsetof(ChangeIpRequest, host_name) == 24);
static_assert(offsetof(ChangeIpRequest, workgroup) == 41);
static_assert(offsetof(ChangeIpRequest, year) == 76);
static_assert(offsetof(ChangeIpRequest, gateway) == 88);
static_assert(offsetof(ChangeIpRequest, time_zone) == 108);

// Body of ACP_FIRMUP2 and ACP_FIRMUP3. Encoded passwords end with their first zero byte. That of an
// ACP_FIRMUP2 may run on behind its field, to the end of the body; in an ACP_FIRMUP3 it ends with
// its field, and the archive's password follows the record.
struct UpdateRequest {
  uint32_t firm_type;    // what is installed, and so where
  uint32_t firm_pid;     // product that the image is for
  uint32_t firm_size;    // bytes of the image
  uint32_t true_chksum;  // of the image
  uint8_t reserved[8];
  uint8_t password[8];    // administrator's, encoded
  uint32_t zip_pass_len;  // ACP_FIRMUP3: not 0 when an archive password follows
};
static_assert(sizeof(UpdateRequest) == 36);
static_assert(offsetof(UpdateRequest, true_chksum) == 12);
static_assert(offsetof(UpdateRequest, password) == 24);
static_assert(offsetof(UpdateRequest, zip_pass_len) == 32);

// Special commands.
enum AcpSpecial : uint8_t {
  SPECIAL_REBOOT = 0x01,
  SPECIAL_SHUTDOWN = 0x02,
  SPECIAL_BOOT_EMERGENCY = 0x03,  // next time
  SPECIAL_BOOT_DISK = 0x04,
  SPECIAL_BLINK = 0x05,
  SPECIAL_SAVE_CONFIG = 0x06,
  SPECIAL_LOAD_CONFIG = 0x07,
  SPECIAL_INIT_WEB = 0x08,
  SPECIAL_CHECK_LOCK = 0x09,
  SPECIAL_LOCK = 0x0A,
  SPECIAL_UNLOCK = 0x0B,
  SPECIAL_VERIFY_PASSWORD = 0x0C,
  SPECIAL_COMMAND_MODE = 0x0D,  // `extra` is SWITCH_ON, or anything else for off
  SPECIAL_TRACE = 0x0E,         // the same
  SPECIAL_SET_MAC = 0x0F,
  SPECIAL_CHANGE_PASSWORD = 0x10,  // PasswordProof
  SPECIAL_CREATE_RAID = 0x11,      // RaidKind
  SPECIAL_SET_LANGUAGE = 0x12,     // LANGUAGE_JAPANESE, or anything else for English
  SPECIAL_TEST_DRIVE = 0x40,       // TestedDrive
  SPECIAL_REMOVE_FILE = 0x41,
  SPECIAL_FILE_CHECKSUM = 0x42,
  SPECIAL_CLEAR_USB = 0x45,
  SPECIAL_TEST_UPS = 0x50,
};

// Body of ACP_SPECIAL. A text follows the record to the end of the body: a path, a MAC address or
// an encoded password, as the command wants it.
struct SpecialRequest {
  uint8_t code;  // AcpSpecial
  uint8_t reserved[3];
  uint32_t extra;  // an argument of the command
};
static_assert(sizeof(SpecialRequest) == 8);
static_assert(offsetof(SpecialRequest, extra) == 4);

// The text of a SPECIAL_CHANGE_PASSWORD with PROOF_OLD_PASSWORD; the old password follows it. Both
// are encoded.
struct PasswordChange {
  uint8_t new_password[16];  // as the account database stores it
};
static_assert(sizeof(PasswordChange) == 16);

// `extra` of the commands that have one.
constexpr uint32_t SWITCH_ON = 0;
constexpr uint32_t SWITCH_OFF = 1;
constexpr uint32_t LANGUAGE_JAPANESE = 0;
constexpr uint32_t LANGUAGE_ENGLISH = 1;
enum PasswordProof : uint32_t {  // any other: a password verified before
  PROOF_OLD_PASSWORD = 0,
  PROOF_NONE = 0x5B,
};
enum RaidKind : uint32_t {
  RAID_KIND_NORMAL = 3,
  RAID_KIND_JBOD = 4,
  RAID_KIND_RAID1 = 5,
  RAID_KIND_RAID5 = 6,
};
enum TestedDrive : uint32_t {
  TESTED_REMOVABLE = 0,
  TESTED_DISK = 1,
};

// How an ACP_CMD request wants its command run.
enum AcpCommandType : uint32_t {
  COMMAND_BACKGROUND = 0,  // its words, and nobody waits
  COMMAND_WAITED = 1,      // its words; the reply's result is the wait status
  COMMAND_TO_FILE = 2,     // by a shell, its output for ACP_RESULT
  COMMAND_CAPTURED = 3,    // by a shell, its output in the reply
};

// Body of ACP_CMD. The command's text follows, and COMMAND_TAIL bytes, its NUL first.
struct CommandRequest {
  uint32_t length;  // of the text without its NUL
  uint32_t type;    // AcpCommandType
};
static_assert(sizeof(CommandRequest) == 8);
constexpr size_t COMMAND_TAIL = 3;

// Bits of DiscoverInfo's status.
enum DiscoverStatus : uint32_t {
  DISCOVER_DHCP_LEASE = 0x02,   // the served interface has its address by DHCP
  DISCOVER_DHCP_SERVER = 0x04,  // the appliance's DHCP server runs
  DISCOVER_INITIALIZED = 0x10,  // a client has marked the appliance as initialised
  DISCOVER_TIMER_SLEEP = 0x40,
  DISCOVER_TIMER_BACKUP = 0x80,
};

// What system the appliance runs, in DiscoverInfo's product_state.
enum DiscoverProductState : uint8_t {
  PRODUCT_STATE_UNKNOWN = 0,
  PRODUCT_STATE_NORMAL = 1,
  PRODUCT_STATE_EMERGENCY = 2,
};

// Body of ACP_DISCOVER_REPLY. A text as long as its field has no NUL in it. Addresses are numbers
// whose most significant byte is the first octet of the dotted form.
struct DiscoverInfo {
  uint32_t address;  // of the served interface
  uint32_t netmask;
  uint32_t status;  // DiscoverStatus
  uint8_t key[4];   // requester's key, most significant byte first, never converted
  char host_name[16];
  char workgroup[16];
  char product_name[64];
  uint16_t reserved1;
  uint16_t daemon_version;  // major version in the high byte, minor in the low one
  uint8_t reserved2[8];
  uint16_t year;  // this and the next five: local date and time
  uint16_t month;
  uint16_t day;
  uint16_t hour;
  uint16_t minute;
  uint16_t second;
  uint32_t gateway;  // 0 when there is none
  uint32_t reserved3[4];
  uint8_t firmware_major;  // of the installed firmware
  uint8_t firmware_minor;
  uint8_t reserved4[2];
  uint32_t product_id;
  char firmware_build_date[24];
  char firmware_sub_version[31];
  uint8_t reserved5;
  uint8_t system_major;  // of the running system
  uint8_t system_minor;
  uint8_t product_state;  // DiscoverProductState
  char system_sub_version[31];
  uint8_t reserved6;
  char system_build_date[24];
  uint8_t eth0_mac[MAC_SIZE];  // eth0's, whichever interface is served
  uint8_t reserved7[3];
};
static_assert(sizeof(DiscoverInfo) == 288);
static_assert(offsetof(DiscoverInfo, key) == 12);
static_assert(offsetof(DiscoverInfo, host_name) == 16);
static_assert(offsetof(DiscoverInfo, workgroup) == 32);
static_assert(offsetof(DiscoverInfo, product_name) == 48);
static_assert(offsetof(DiscoverInfo, daemon_version) == 114);
static_assert(offsetof(DiscoverInfo, year) == 124);
static_assert(offsetof(DiscoverInfo, gateway) == 136);
static_assert(offsetof(DiscoverInfo, firmware_major) == 156);
static_assert(offsetof(DiscoverInfo, product_id) == 160);
static_assert(offsetof(DiscoverInfo, firmware_build_date) == 164);
static_assert(offsetof(DiscoverInfo, firmware_sub_version) == 188);
static_assert(offsetof(DiscoverInfo, system_major) == 220);
static_assert(offsetof(DiscoverInfo, product_state) == 222);
static_assert(offsetof(DiscoverInfo, system_sub_version) == 223);
static_assert(offsetof(DiscoverInfo, system_build_date) == 255);
static_assert(offsetof(DiscoverInfo, eth0_mac) == 279);

// Body of ACP_INFO_HDD_REPLY: the drive's identification words as the kernel publishes them.
struct DiskInfo {
  uint16_t words[256];
};
static_assert(sizeof(DiskInfo) == 512);

enum RaidType : uint32_t {
  RAID_TYPE_SINGLE = 1,
  RAID_TYPE_USB = 2,
  RAID_TYPE_JBOD = 3,
  RAID_TYPE_RAID1 = 4,
  RAID_TYPE_RAID5 = 5,
};

struct RaidInfoEntry {
  uint32_t type;        // RaidType; 0 marks an entry that is not used
  uint32_t index;       // arrays: the entry's own position in the body; disks: 0
  uint32_t fs_type;     // file-system magic
  uint32_t block_size;  // bytes
  uint32_t blocks;      // of block_size each, like the next two
  uint32_t blocks_free;
  uint32_t blocks_avail;  // for unprivileged users
  char path[64];          // mount point, NUL-terminated
};
static_assert(sizeof(RaidInfoEntry) == 92);
static_assert(offsetof(RaidInfoEntry, path) == 28);

// What an entry shows while its path is not mounted; its other counts are 0 then.
constexpr uint32_t UNMOUNTED_BLOCK_SIZE = 512;
constexpr uint32_t UNMOUNTED_BLOCKS = 2048;

// Body of ACP_INFO_RAID_REPLY.
constexpr size_t RAID_ENTRIES = 8;
struct RaidInfo {
  RaidInfoEntry entries[RAID_ENTRIES];
};
static_assert(sizeof(RaidInfo) == 736);

// Body of ACP_PART_REPLY; all zero when the query failed.
struct PartitionInfo {
  uint32_t fs_type;
  uint32_t block_size;  // bytes
  uint32_t blocks;
  uint32_t blocks_free;
  uint32_t blocks_avail;
  uint32_t inodes;
  uint32_t inodes_free;
  char path[64];  // the queried path, cut to fit, NUL-terminated
};
static_assert(sizeof(PartitionInfo) == 92);
static_assert(offsetof(PartitionInfo, path) == 28);

// What the bodies of the reply to COMMAND_CAPTURED and of ACP_RESULT_REPLY begin with. A text
// follows, and OUTPUT_TAIL or RESULT_TAIL bytes, its NUL first.
struct OutputReply {
  uint32_t length;  // of the text without its NUL; 0 in the reply to ACP_CMD
  uint32_t type;    // 0
};
static_assert(sizeof(OutputReply) == 8);
constexpr size_t OUTPUT_TAIL = 3;    // of a captured reply
constexpr size_t RESULT_TAIL = 4;    // of a line's reply
constexpr size_t MAX_OUTPUT = 1427;  // bytes that a captured reply holds

#endif  // BH_ACP_PACKET_H_
