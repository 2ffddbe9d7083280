// Plays the examples of docs/protocol.md to a daemon, on a processor of either byte order: every
// request is answered by the bytes that stand there.

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "access/cipher.h"
#include "acp/packet.h"
#include "lib/descriptor.h"
#include "tests/system/fixture.h"

namespace {

constexpr int ANY = -1;

struct Row {
  char kind = ' ';  // '$', '>', '<' or '^'
  int line = 0;
  std::string text;
};

// The rows of all blocks that are marked as examples.
std::vector<Row> ReadRows() {
  std::vector<Row> rows;
  std::ifstream file(PROTOCOL_PAGE);
  bool example = false;
  int line = 0;
  for (std::string text; std::getline(file, text);) {
    ++line;
    if (text.starts_with("```")) {
      example = text == "```acp";
    } else if (example && text[0] == ' ') {
      rows.back().text += text;
    } else if (example) {
      rows.push_back({text[0], line, text.substr(1)});
    }
  }
  return rows;
}

wire::Bytes EncodedBlock(const std::string &text, uint32_t key) {
  const wire::Bytes clear = wire::Text(text, CIPHER_BLOCK);
  wire::Bytes encoded(CIPHER_BLOCK);
  EncryptBlock(encoded.data(), clear.data(), key);
  return encoded;
}

// "20 00x3 ?? {admin}": bytes as hexadecimal digits, one repeated, one that may be any, and a text
// encoded under the key.
std::vector<int> Pattern(const std::string &text, uint32_t key) {
  std::vector<int> pattern;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (word[0] == '{') {
      for (const uint8_t byte : EncodedBlock(word.substr(1, word.size() - 2), key))
        pattern.push_back(byte);
      continue;
    }
    const size_t sign = word.find('x');
    const int times = sign == word.npos ? 1 : std::stoi(word.substr(sign + 1));
    for (int i = 0; i < times; ++i) {
      for (size_t at = 0; at < std::min(sign, word.size()); at += 2)
        pattern.push_back(word[at] == '?' ? ANY : std::stoi(word.substr(at, 2), nullptr, 16));
    }
  }
  return pattern;
}

bool Matches(const wire::Bytes &bytes, const std::vector<int> &pattern) {
  return std::equal(bytes.begin(), bytes.end(), pattern.begin(), pattern.end(),
                    [](uint8_t byte, int wanted) { return wanted == ANY || wanted == byte; });
}

// Returns once the appliance has closed the connection.
void Upload(const wire::Bytes &image) {
  const Descriptor upload(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in appliance = {};
  appliance.sin_family = AF_INET;
  appliance.sin_port = htons(ACP_PORT);
  inet_pton(AF_INET, "192.168.40.2", &appliance.sin_addr);
  ASSERT_EQ(connect(upload.Get(), reinterpret_cast<sockaddr *>(&appliance), sizeof(appliance)), 0);
  ASSERT_EQ(send(upload.Get(), image.data(), image.size(), 0), std::ssize(image));
  char end = 0;
  EXPECT_EQ(recv(upload.Get(), &end, 1, 0), 0);
}

}  // namespace

class Protocol : public SystemTest {};

TEST_F(Protocol, ExamplesAreAnsweredByteByByte) {
  StartDaemon();
  const std::vector<Row> rows = ReadRows();
  ASSERT_GT(rows.size(), 70U);
  uint32_t key = 0;
  for (const Row &row : rows) {
    SCOPED_TRACE("line " + std::to_string(row.line));
    if (row.kind == '$') {
      EXPECT_EQ(OnBoard({"/bin/sh", "-c", row.text}).exit_code, 0);
      continue;
    }
    const std::vector<int> pattern = Pattern(row.text, key);
    if (row.kind == '^') Upload({pattern.begin(), pattern.end()});
    if (row.kind == '>') wire::Send(client, {pattern.begin(), pattern.end()});
    if (row.kind != '<') continue;
    const wire::Bytes reply = wire::Receive(client).value_or(wire::Bytes{});
    ASSERT_TRUE(Matches(reply, pattern)) << testing::PrintToString(reply);
    if (reply.size() == ACP_HEADER_SIZE + sizeof(DiscoverInfo))
      key = ntohl(wire::Number(reply, ACP_HEADER_SIZE + offsetof(DiscoverInfo, key)));
  }
  EXPECT_FALSE(wire::Receive(client, wire::milliseconds(100))) << "a reply too many";
}

// Rows of "| 12345678 | FernGate | 5470658d63f14751 |".
TEST(ProtocolPage, EncodedTextsAreWhatTheCipherMakes) {
  std::ifstream file(PROTOCOL_PAGE);
  std::string line;
  while (std::getline(file, line) && line != "| key | clear text | encoded |") {
  }
  std::getline(file, line);  // the rule below the titles
  int rows = 0;
  for (; std::getline(file, line) && !line.empty(); ++rows) {
    std::istringstream cells(line);
    std::string bar, key, clear, encoded;
    cells >> bar >> key >> bar >> clear >> bar >> encoded;
    std::string made;
    for (size_t at = 0; at < clear.size(); at += CIPHER_BLOCK) {
      for (const uint8_t byte : EncodedBlock(clear.substr(at, CIPHER_BLOCK),
                                             static_cast<uint32_t>(std::stoul(key, nullptr, 16)))) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", byte);
        made += digits;
      }
    }
    EXPECT_EQ(made, encoded) << clear;
  }
  EXPECT_EQ(rows, 3);
}
