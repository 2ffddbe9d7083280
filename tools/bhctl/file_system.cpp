#include "tools/bhctl/file_system.h"

#include "client/format.h"

namespace bhctl {

std::string FileSystemName(uint32_t magic) {
  static constexpr struct {
    uint32_t magic;
    const char *name;
  } NAMES[] = {
      {0xEF53, "ext3"},  // ext2 and ext4 have the same number
      {0x58465342, "xfs"},      {0x4D44, "vfat"},         {0x01021994, "tmpfs"},
      {0x858458F6, "ramfs"},    {0x72B6, "jffs2"},        {0x28CD3D45, "cramfs"},
      {0x73717368, "squashfs"}, {0x52654973, "reiserfs"}, {0x3153464A, "jfs"},
      {0x5346544E, "ntfs"},     {0x9660, "iso9660"},      {0x6969, "nfs"},
      {0x9FA0, "proc"},         {0x794C7630, "overlay"},  {0x9123683E, "btrfs"},
  };
  for (const auto &known : NAMES)
    if (known.magic == magic) return known.name;
  return acp::HexText(magic);
}

}  // namespace bhctl
