// Replies as the client takes them apart and shows them.

#include "client/format.h"
#include "fuzz/input.h"
#include "tools/bhctl/text.h"

using namespace bhctl;

namespace {

void ShowBody(Bytes body) {
  const DiscoverInfo info = ReadDiscoverInfo(body);
  const PartitionInfo partition = ReadPartitionInfo(body);
  ReadDiskInfo(body);
  HexText(DiscoverKey(info));
  SafeText({info.host_name, sizeof(info.host_name)});
  for (const RaidInfoEntry &entry : ReadRaidInfo(body).entries)
    SafeText(entry.path);
  SafeText(partition.path);
  UsedText(partition.blocks, partition.blocks_free, partition.blocks_avail);
  SizeText(uint64_t{partition.blocks} * partition.block_size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> datagram(data, data + size);  // not a byte more is there
  ShowBody(datagram);
  const std::optional<Reply> reply = DecodeReply(datagram);
  if (!reply) return 0;
  AnswersRequest(*reply, MakeDiscoverRequest(), {&BROADCAST_MAC, 1}, BROADCAST_MAC);
  StateName(reply->header.result);
  ShowBody(reply->body);
  return 0;
}
