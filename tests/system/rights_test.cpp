// Every command that needs a right, asked for without it: the right state comes back, and nothing
// has run.

#include "tests/system/fixture.h"

using std::string;
using wire::Bytes;
using wire::Request;
using wire::Text;

namespace {

enum State : uint32_t {
  kDone = 0,
  kFailure = 0xFFFFFFFF,
  kWrongPassword = 0x80000001,
  kNotPermitted = 0x8000000A,
  kBadProduct = 0x80000010,
};

Bytes Special(int code, uint8_t extra = 0, const Bytes &text = {}) {
  Bytes body = {static_cast<uint8_t>(code), 0, 0, 0, extra, 0, 0, 0};
  wire::Append(body, text);
  return Request(kSpecial, body);
}

// Everything that it can change, in all fields.
Bytes ChangeIp() {
  Bytes body(112);
  body[12] = 0xF7;
  return Request(0x8030, body);
}

Bytes RemoteCommand() {
  Bytes body = {14, 0, 0, 0, 3, 0, 0, 0};
  wire::Append(body, Text("touch /tmp/ran", 14 + 3));
  return Request(0x8A10, body);
}

}  // namespace

class Rights : public SystemTest, public testing::WithParamInterface<const char *> {
 protected:
  void SetUp() override {
    BootBoard({.product_id = GetParam()});
    StartDaemon();
    TakeKey();
    zeph = string(GetParam()) == "0x2001";
    before = Files();
  }
  void TearDown() override {
    EXPECT_EQ(Files(), before);
    EXPECT_EQ(board::ReadFile(board, board::kCallLog), "");
    SystemTest::TearDown();
  }
  string Files() {
    return OnBoard({"sh", "-c",
                    "{ find /etc /www /mnt /dev /var/tmp -printf '%p %s %T@\n'; "
                    "find /tmp -maxdepth 1 -type f; } | sort | cksum"})
        .output;
  }
  void Expect(uint32_t state, const Bytes &request) {
    const Bytes reply = Ask(request);
    ASSERT_GE(reply.size(), 32U);
    EXPECT_EQ(wire::Number(reply, 28), state) << testing::PrintToString(request);
  }
  // What only the client that has enabled the command mode may do.
  void ExpectNotEnabled() {
    for (const int code : {0x01, 0x02, 0x03, 0x04, 0x0C, 0x40, 0x45, 0x50})
      Expect(kNotPermitted, Special(code, 1, Text("/dev/hda", 9)));
    Expect(kNotPermitted, Special(0x0F, 0, Text("02:0b:4a:09:09:09", 18)));
    Expect(kNotPermitted, Special(0x41, 0, Text("/etc/hosts", 11)));
    for (const int code : {0x10, 0x11, 0x12})
      Expect(zeph ? kNotPermitted : kBadProduct, Special(code, code == 0x10 ? 0x5B : 3));
    Expect(kFailure, RemoteCommand());
    Expect(kFailure, Request(0x8A20));
    Expect(kWrongPassword, ChangeIp());
    Bytes update = {1};
    update.resize(24);
    wire::Append(update, Encoded("admin"));
    if (zeph) Expect(kWrongPassword, Request(0x8080, update));
  }

  bool zeph = false;
  string before;
};

TEST_P(Rights, NothingRunsForAnyButTheEnabledClient) {
  ExpectNotEnabled();
  Bytes other = Request(kDiscover);
  other[21] = 9;
  discovered = Ask(other);
  Bytes enable = Special(0x0D, 0, Encoded("FernGate"));
  enable[21] = 9;
  Expect(kDone, enable);
  TakeKey();
  ExpectNotEnabled();
  Expect(kDone, Special(0x0D, 0, Encoded("FernGate")));
  Expect(kDone, Special(0x0D, 1));  // and off again
  ExpectNotEnabled();
}

INSTANTIATE_TEST_SUITE_P(Products, Rights, testing::Values("0x0010", "0x2001"));
