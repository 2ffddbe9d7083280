// The one record of the daemon's process state, and the accessors of its mode word.
//
// It is zero-filled at start except for the values below. A forked child works on its own copy;
// nothing is shared back. Fields that a signal handler writes are volatile.

#ifndef BH_DAEMON_STATE_H_
#define BH_DAEMON_STATE_H_

#include <sys/types.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>

// Bits of `mode_flags`.
constexpr uint32_t MODE_DEBUG = 0x1;            // the trace is written
constexpr uint32_t MODE_NOSTANDALONE = 0x2;     // nothing is served
constexpr uint32_t MODE_NOFORK = 0x4;           // serve in the foreground, trace to the terminal
constexpr uint32_t MODE_COMMAND_ENABLED = 0x8;  // remote commands are accepted

// The daemon's own settings file, and its key that is "1" once a client has marked the appliance as
// initialised.
constexpr const char *STATE_FILE = "/etc/bh_servd.log";
constexpr const char *INITIALIZED_KEY = "INITIALIZE";

struct KeyEntry;

struct DaemonState {
  int sock = -1;  // service UDP socket
  const char *result_file = "/var/tmp/results.txt";
  const char *result_tmp_file = "/var/tmp/results.tmp";
  std::string ifname;        // served interface, empty until the command line is read
  volatile pid_t cmd_chpid;  // running remote-command child, 0 when none
  uint32_t mode_flags;
  uint16_t ip_id;  // identification of the next IPv4 packet
  uint32_t product_id;
  FILE *trace_fp;  // trace file of -a
  uint8_t enable_mac[6];
  int enable_state = -1;              // 0 while command mode is enabled for enable_mac
  int password_verified = -1;         // 0 after the administrator password was verified
  pid_t led_pid;                      // last blink child
  pid_t firm_down_chpid;              // image receiver started by the last update request
  uint8_t own_mac[6];                 // destination filter of the dispatcher, read on first use
  volatile sig_atomic_t installing;   // nonzero from an image's acceptance to the last reply:
                                      // an exit waits for its end
  volatile sig_atomic_t fw_updating;  // nonzero while a firmware image is being written: an exit
                                      // is refused
  char password_file[128];
  char firm_mem_path[128] = "/tmp/kv_firm_mem";
  const char *firm_dev;  // install target of the running update
  uint32_t firm_chksum;  // expected checksum of the uploaded image
  char system_part[64];  // mount directories of a disk installation
  char zip_part[64];
  char zip_pass[512];
  int recv_fd = -1, listen_fd = -1, accept_fd = -1, max_fd = -1;  // of the image receiver
  KeyEntry *key_list;
  uint8_t mac_buffer[6];  // address last parsed by the MAC programming

  // Children that may be signalled and waited for; 0 once they are collected, when their numbers
  // may already be somebody else's.
  volatile pid_t live_led;
  volatile pid_t live_receivers[4];  // of image uploads, the oldest first

  // Who may clean up, and when: see daemon/signals.
  pid_t server_pid;                    // this server; 0 until the process serves
  volatile sig_atomic_t waiting;       // nonzero around every wait
  volatile sig_atomic_t exit_pending;  // signal number whose exit awaits the next wait
};

extern DaemonState daemon_state;

uint32_t get_mode_flags();
void set_mode_flags(uint32_t value);
int is_fw_updating();

// Whether this is a product of the ZEPH family, which keeps its administrator among the system's
// accounts.
bool is_zeph_product();

#endif  // BH_DAEMON_STATE_H_
