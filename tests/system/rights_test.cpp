// Every command that needs a right, asked for without it: the right state comes back, and nothing
// has run.

#include <algorithm>
#include <string_view>

#include "tests/system/fixture.h"

using std::string;
using wire::Bytes;
using wire::Packet;

namespace {

enum State : uint32_t {
  kDone = 0,
  kFailure = 0xFFFFFFFF,
  kWrongPassword = 0x80000001,
  kNoKey = 0x80000005,
  kNotPermitted = 0x8000000A,
  kBadProduct = 0x80000010,
};

Bytes Special(int code, uint8_t extra = 0, const Bytes &text = {}, const Bytes &old = {}) {
  Bytes body(48);
  body[0] = static_cast<uint8_t>(code);
  body[4] = extra;
  std::copy(text.begin(), text.end(), body.begin() + 8);
  std::copy(old.begin(), old.end(), body.begin() + 24);
  return Packet(0x80A0, body);
}

Bytes Text(std::string_view text) {
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  return bytes;
}

// Everything that it can change, in all fields.
Bytes ChangeIp() {
  Bytes body(112);
  body[12] = 0xF7;
  return Packet(0x8030, body);
}

Bytes Update(uint16_t command, const Bytes &password) {
  Bytes body(64);
  body[0] = 1;
  std::copy(password.begin(), password.end(), body.begin() + 24);
  return Packet(command, body);
}

Bytes RemoteCommand() {
  Bytes body = {14, 0, 0, 0, 3, 0, 0, 0};
  const Bytes text = Text("touch /tmp/ran");
  body.insert(body.end(), text.begin(), text.end());
  body.resize(body.size() + 2);
  return Packet(0x8A10, body);
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
    EXPECT_EQ(wire::Number(reply, 28), state) << std::hex << +request[8] << " " << +request[32];
  }
  // What only the client that has enabled the command mode may do.
  void ExpectNotEnabled() {
    for (const int code : {0x01, 0x02, 0x03, 0x04, 0x0C, 0x40, 0x45, 0x50})
      Expect(kNotPermitted, Special(code, 1, Text("/dev/hda")));
    Expect(kNotPermitted, Special(0x0F, 0, Text("02:0b:4a:09:09:09")));
    Expect(kNotPermitted, Special(0x41, 0, Text("/etc/hosts")));
    for (const int code : {0x10, 0x11, 0x12})
      Expect(zeph ? kNotPermitted : kBadProduct, Special(code, code == 0x10 ? 0x5B : 3));
    Expect(kFailure, RemoteCommand());
    Expect(kFailure, Packet(0x8A20, {}));
    Expect(kWrongPassword, ChangeIp());
    if (zeph) Expect(kWrongPassword, Update(0x8080, Encoded("admin")));
  }

  bool zeph = false;
  string before;
};

TEST_P(Rights, NothingRunsForAnyButTheEnabledClient) {
  ExpectNotEnabled();
  Bytes other = wire::Request(kDiscover);
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

TEST_P(Rights, NothingRunsWithoutPasswordAndKey) {
  Expect(kWrongPassword, Special(0x0D, 0, Encoded("ferngate")));
  ExpectNotEnabled();
  Expect(kDone, Special(0x0D, 0, Encoded("FernGate")));
  const auto unverified = [this] {
    Expect(kWrongPassword, ChangeIp());
    if (zeph) Expect(kWrongPassword, Update(0x8081, Encoded("admin")));
    if (zeph) Expect(kWrongPassword, Special(0x10, 7, Encoded("hash")));
  };
  unverified();
  Expect(kDone, Special(0x0C, 0, Encoded("admin")));
  Expect(kWrongPassword, Special(0x0C, 0, Encoded("Admin")));  // ends what was verified
  unverified();
  const State wrong = zeph ? kWrongPassword : kBadProduct;
  Expect(wrong, Special(0x10, 0, Encoded("hash"), Encoded("Admin")));
  if (!zeph) Expect(kWrongPassword, Update(0x8080, Encoded("Admin")));

  ASSERT_EQ(OnBoard({"date", "-s", "+1801 seconds"}).exit_code, 0);  // the key's life
  board::WriteFile(board, board::kCallLog, "");
  for (const int code : {0x0C, 0x0D})
    Expect(kNoKey, Special(code, 0, Encoded("admin")));
  Expect(zeph ? kNoKey : kBadProduct, Special(0x10, 0, Encoded("hash"), Encoded("admin")));
  if (!zeph) Expect(kNoKey, Update(0x8080, Encoded("admin")));
}

INSTANTIATE_TEST_SUITE_P(Products, Rights, testing::Values("0x0010", "0x2001"));
