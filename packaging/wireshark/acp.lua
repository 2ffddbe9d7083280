-- A dissector for ACP in Wireshark and tshark: docs/protocol.md in tables. Fields have the names
-- that they have there, behind that of their message: acp.discover.host_name.
--
-- Numbers have their least significant byte first, but for the key that discovery hands out. No
-- field is read beyond the captured bytes: a datagram may have any content and any length.

local PORT = 22936
local HEADER_SIZE = 32
local LOWEST_VERSION, REPLY_VERSION = 0x00010000, 0x00010007
local REPLY_BIT = 0x4000

local acp = Proto("acp", "ACP, management of storage appliances")

-- What is wrong with a datagram. The names end with the words behind "acp.bad.".
local BAD = {}
for name, text in pairs({
  short = "Shorter than a header",
  length = "Another length than its fields say",
  body = "Body shorter than its record",
  field = "Field cut off by the end of the body",
}) do
  BAD[name] = ProtoExpert.new("acp.bad." .. name, text, expert.group.MALFORMED,
                              expert.severity.ERROR)
end
for name, text in pairs({
  header_size = "header_size is not 32: counts as without a body",
  version = "No version of this protocol",
  command = "No such command code",
  state = "No such state code",
  surplus = "Bytes behind the last field",
  direction = "Command code and ports say different directions",
}) do
  BAD[name] = ProtoExpert.new("acp.bad." .. name, text, expert.group.PROTOCOL, expert.severity.WARN)
end
acp.experts = BAD

local STATES = {
  [0x00000000] = "ACP_STATE_OK",
  [0xFFFFFFFF] = "ACP_STATE_FAILURE",
  [0x80000001] = "ACP_STATE_PASSWORD_ERROR",
  [0x80000005] = "ACP_STATE_NO_KEY",
  [0x80000008] = "ACP_STATE_NOT_SUPPORT",
  [0x80000009] = "ACP_STATE_NOW_LOCKING",
  [0x8000000A] = "ACP_STATE_NOT_PERMIT",
  [0x8000000C] = "ACP_STATE_TEST_FAIL",
  [0x8000000F] = "ACP_STATE_NO_SPACE",
  [0x80000010] = "ACP_STATE_BAD_PRODUCT",
  [0x80000011] = "ACP_STATE_BAD_FIRM_TYPE",
}
local SPECIALS = {
  [0x01] = "SPECIAL_REBOOT", [0x02] = "SPECIAL_SHUTDOWN",
  [0x03] = "SPECIAL_BOOT_EMERGENCY", [0x04] = "SPECIAL_BOOT_DISK",
  [0x05] = "SPECIAL_BLINK", [0x06] = "SPECIAL_SAVE_CONFIG",
  [0x07] = "SPECIAL_LOAD_CONFIG", [0x08] = "SPECIAL_INIT_WEB",
  [0x09] = "SPECIAL_CHECK_LOCK", [0x0A] = "SPECIAL_LOCK",
  [0x0B] = "SPECIAL_UNLOCK", [0x0C] = "SPECIAL_VERIFY_PASSWORD",
  [0x0D] = "SPECIAL_COMMAND_MODE", [0x0E] = "SPECIAL_TRACE",
  [0x0F] = "SPECIAL_SET_MAC", [0x10] = "SPECIAL_CHANGE_PASSWORD",
  [0x11] = "SPECIAL_CREATE_RAID", [0x12] = "SPECIAL_SET_LANGUAGE",
  [0x40] = "SPECIAL_TEST_DRIVE", [0x41] = "SPECIAL_REMOVE_FILE",
  [0x42] = "SPECIAL_FILE_CHECKSUM", [0x45] = "SPECIAL_CLEAR_USB",
  [0x50] = "SPECIAL_TEST_UPS",
}
-- What `extra` means to the special commands that look at it, by value, and any other value.
local SWITCH = {{[0] = "SWITCH_ON"}, "SWITCH_OFF"}
local EXTRAS = {
  [0x0D] = SWITCH,
  [0x0E] = SWITCH,
  [0x10] = {{[0] = "PROOF_OLD_PASSWORD", [0x5B] = "PROOF_NONE"}, "a password verified before"},
  [0x11] = {{[3] = "RAID_KIND_NORMAL", [4] = "RAID_KIND_JBOD", [5] = "RAID_KIND_RAID1",
             [6] = "RAID_KIND_RAID5"}, "no kind of array"},
  [0x12] = {{[0] = "LANGUAGE_JAPANESE"}, "LANGUAGE_ENGLISH"},
  [0x40] = {{[0] = "TESTED_REMOVABLE", [1] = "TESTED_DISK"}, "no kind of drive"},
}
local COMMAND_TYPES = {[0] = "COMMAND_BACKGROUND", [1] = "COMMAND_WAITED", [2] = "COMMAND_TO_FILE",
                       [3] = "COMMAND_CAPTURED"}
local PRODUCT_STATES = {[0] = "PRODUCT_STATE_UNKNOWN", [1] = "PRODUCT_STATE_NORMAL",
                        [2] = "PRODUCT_STATE_EMERGENCY"}
local RAID_TYPES = {[0] = "not used", [1] = "RAID_TYPE_SINGLE", [2] = "RAID_TYPE_USB",
                    [3] = "RAID_TYPE_JBOD", [4] = "RAID_TYPE_RAID1", [5] = "RAID_TYPE_RAID5"}
local FIRM_TYPES = {[1] = "flash", [2] = "flash", [4] = "disk", [5] = "flash", [6] = "array"}

-- Rows are {name, kind, size, names = of its values, bits = {{mask, name, label}}}. A row without a
-- size goes on to the end of the body. Texts are shown to their first NUL.
local KINDS = {  -- constructor, base, size
  u8 = {ProtoField.uint8, base.DEC, 1},
  x8 = {ProtoField.uint8, base.HEX, 1},
  u16 = {ProtoField.uint16, base.DEC, 2},
  x16 = {ProtoField.uint16, base.HEX, 2},
  u32 = {ProtoField.uint32, base.DEC, 4},
  x32 = {ProtoField.uint32, base.HEX, 4},
  i32 = {ProtoField.int32, base.DEC, 4},
  ip = {ProtoField.ipv4, nil, 4},
  mac = {ProtoField.ether, nil, 6},
  key = {ProtoField.uint32, base.HEX, 4},
  bytes = {ProtoField.bytes},
  text = {ProtoField.string},
}

local all_fields, fields_by_name = {}, {}
local function Field(make, name, ...)
  if not fields_by_name[name] then
    fields_by_name[name] = make(name, ...)
    all_fields[#all_fields + 1] = fields_by_name[name]
  end
  return fields_by_name[name]
end

-- The rows with the fields that show them. Rows of one name share a field.
local function Record(prefix, rows)
  for _, row in ipairs(rows) do
    local name, kind = prefix .. "." .. row[1], KINDS[row[2]]
    row.size = row[3] or kind[3]
    if kind[2] then
      row.field = Field(kind[1], name, row[1], kind[2], row.names)
    else
      row.field = Field(kind[1], name, row[1])
    end
    for _, bit in ipairs(row.bits or {}) do
      bit.field = Field(ProtoField.bool, name .. "." .. bit[2], bit[3], 8 * row.size, nil, bit[1])
    end
  end
  return rows
end

local DATE = {{"year", "u16"}, {"month", "u16"}, {"day", "u16"}, {"hour", "u16"}, {"minute", "u16"},
              {"second", "u16"}}
local COUNTS = {{"fs_type", "x32"}, {"block_size", "u32"}, {"blocks", "u32"},
                {"blocks_free", "u32"}, {"blocks_avail", "u32"}}

-- One list of rows of many. Rows that records share are copied.
local function Join(...)
  local joined = {}
  for _, rows in ipairs({...}) do
    for _, row in ipairs(rows) do
      joined[#joined + 1] = {row[1], row[2], row[3], names = row.names, bits = row.bits}
    end
  end
  return joined
end

local COMMANDS = {}
for code, name in pairs({
  [0x8020] = "ACP_DISCOVER", [0x8030] = "ACP_CHANGE_IP",
  [0x8040] = "ACP_PING", [0x8050] = "ACP_INFO",
  [0x8070] = "ACP_FIRMUP_END", [0x8080] = "ACP_FIRMUP2",
  [0x8081] = "ACP_FIRMUP3", [0x8090] = "ACP_INFO_HDD",
  [0x80A0] = "ACP_SPECIAL", [0x80D0] = "ACP_PART",
  [0x80E0] = "ACP_INFO_RAID", [0x8A10] = "ACP_CMD",
  [0x8A20] = "ACP_RESULT",
}) do
  COMMANDS[code] = name
  COMMANDS[code + REPLY_BIT] = name .. "_REPLY"
end
COMMANDS[0xC050], COMMANDS[0xC081] = nil, nil  -- one is never answered, one like ACP_FIRMUP2
COMMANDS[0xC071] = "ACP_FIRMUP_FINISH_REPLY"

local HEADER = Record("acp", {
  {"header_size", "u16"},
  {"reserved1", "bytes", 2},
  {"packet_version", "x32"},
  {"command", "x16", names = COMMANDS},
  {"option_size", "u16"},
  {"reserved2", "bytes", 4},
  {"src_mac", "mac"}, {"dst_mac", "mac"},
  {"result", "x32"},
})
local STATE = Field(ProtoField.uint32, "acp.state", "state", base.HEX, STATES)
local IS_REPLY = Field(ProtoField.bool, "acp.reply", "reply")

local DISCOVER = Record("acp.discover", {{"reserved", "x16"}})
local DISCOVER_REPLY = Record("acp.discover", Join({
  {"address", "ip"}, {"netmask", "ip"},
  {"status", "x32", bits = {
    {0x02, "dhcp_lease", "DISCOVER_DHCP_LEASE"},
    {0x04, "dhcp_server", "DISCOVER_DHCP_SERVER"},
    {0x10, "initialized", "DISCOVER_INITIALIZED"},
    {0x40, "timer_sleep", "DISCOVER_TIMER_SLEEP"},
    {0x80, "timer_backup", "DISCOVER_TIMER_BACKUP"},
  }},
  {"key", "key"},
  {"host_name", "text", 16},
  {"workgroup", "text", 16},
  {"product_name", "text", 64},
  {"reserved1", "x16"}, {"daemon_version", "x16"},
  {"reserved2", "bytes", 8},
}, DATE, {
  {"gateway", "ip"},
  {"reserved3", "bytes", 16},
  {"firmware_major", "u8"}, {"firmware_minor", "u8"},
  {"reserved4", "bytes", 2},
  {"product_id", "x32"},
  {"firmware_build_date", "text", 24},
  {"firmware_sub_version", "text", 31},
  {"reserved5", "x8"},
  {"system_major", "u8"}, {"system_minor", "u8"},
  {"product_state", "u8", names = PRODUCT_STATES},
  {"system_sub_version", "text", 31},
  {"reserved6", "x8"},
  {"system_build_date", "text", 24},
  {"eth0_mac", "mac"}, {"reserved7", "bytes", 3},
}))
local CHANGE_IP = Record("acp.change_ip", Join({
  {"flag", "x16", bits = {{0x0001, "dhcp", "FLAG_DHCP"}}},
  {"reserved1", "bytes", 10},
  {"change_mask", "x32", bits = {
    {0x01, "ip", "CHANGE_MASK_IP"},
    {0x02, "hostname", "CHANGE_MASK_HOSTNAME"},
    {0x04, "workgroup", "CHANGE_MASK_WORKGROUP"},
    {0x10, "datetime", "CHANGE_MASK_DATETIME"},
    {0x20, "init", "FLAG_CHANGE_INIT"},
    {0x40, "gateway", "CHANGE_MASK_GATEWAY"},
    {0x80, "timezone", "CHANGE_MASK_TIMEZONE"},
  }},
  {"address", "ip"}, {"netmask", "ip"},
  {"host_name", "text", 17},
  {"workgroup", "text", 35},
}, DATE, {
  {"gateway", "ip"},
  {"reserved2", "bytes", 16},
  {"time_zone", "i32"},
}))
local PING = Record("acp.ping", {{"data", "bytes"}})
local FIRMUP = {
  {"firm_type", "u32", names = FIRM_TYPES},
  {"firm_pid", "x32"},
  {"firm_size", "u32"},
  {"true_chksum", "x32"},
  {"reserved", "bytes", 8},
}
local FIRMUP2 = Record("acp.firmup", Join(FIRMUP, {{"password", "bytes"}}))
local FIRMUP3 = Record("acp.firmup", Join(FIRMUP, {
  {"password", "bytes", 8},
  {"zip_pass_len", "u32"},
  {"zip_pass_enc", "bytes"},
}))
local INFO_HDD = Record("acp.hdd", {{"directory", "text"}})
local HDD_WORD = Record("acp.hdd", {{"word", "x16"}})[1]
local HDD_TEXTS = {  -- by the offset and size of their words
  {Field(ProtoField.string, "acp.hdd.serial", "serial"), 20, 20},
  {Field(ProtoField.string, "acp.hdd.firmware", "firmware"), 46, 8},
  {Field(ProtoField.string, "acp.hdd.model", "model"), 54, 40},
}
local SPECIAL = Record("acp.special", {
  {"code", "x8", names = SPECIALS},
  {"reserved", "bytes", 3},
  {"extra", "x32"},
})
local SPECIAL_TEXT = Record("acp.special", {{"text", "text"}})
local SPECIAL_PASSWORD = Record("acp.special", {{"password", "bytes"}})
local SPECIAL_NEW = Record("acp.special", {{"new_password", "bytes"}})
local SPECIAL_CHANGE = Record("acp.special", {{"new_password", "bytes", 16},
                                              {"old_password", "bytes"}})
local PART = Record("acp.part", {{"path", "text"}})
local PART_REPLY = Record("acp.part", Join(COUNTS, {{"inodes", "u32"}, {"inodes_free", "u32"},
                                                    {"path", "text", 64}}))
local RAID_ENTRIES, RAID_ENTRY_SIZE = 8, 92
local RAID_ENTRY = Record("acp.raid", Join({{"type", "u32", names = RAID_TYPES}, {"index", "u32"}},
                                           COUNTS, {{"path", "text", 64}}))
local CMD = Record("acp.cmd", {{"length", "u32"}, {"type", "u32", names = COMMAND_TYPES}})
local CMD_TEXT = Record("acp.cmd", {{"command", "text"}})
local OUTPUT = Record("acp.output", {{"length", "u32"}, {"type", "u32"}})
local OUTPUT_TEXT = Record("acp.output", {{"text", "text"}})
local TAIL = Record("acp", {{"tail", "bytes"}})
local SURPLUS = Record("acp", {{"surplus", "bytes"}})
acp.fields = all_fields

-- `packet` has the datagram's `tvb`; `stop`, where its captured bytes end; and `cut`, whether the
-- capture has less than was sent. What is missing then is no fault.
local function Mark(item, bad, text, ...)
  item:add_proto_expert_info(bad, string.format(text, ...))
end

local function BeforeNul(text)
  return text:match("^[^%z]*")
end

local function Show(packet, tree, row, at, size)
  local range, kind = packet.tvb(at, size), row[2]
  if kind == "text" then
    local length = #BeforeNul(range:raw())
    return tree:add(row.field, range, length > 0 and range(0, length):string(ENC_UTF_8) or "")
  elseif kind == "bytes" or kind == "mac" or kind == "key" then
    return tree:add(row.field, range)
  end
  local item = tree:add_le(row.field, range)
  for _, bit in ipairs(row.bits or {}) do item:add_le(bit.field, range) end
  return item
end

-- Shows the rows that are there from `at` on. Returns where the next byte is, and the last item.
local function ShowRecord(packet, tree, rows, at)
  local item = tree
  for _, row in ipairs(rows) do
    local left = packet.stop - at
    local size = row.size or left
    if left <= 0 then break end
    if size > left then
      if not packet.cut then
        Mark(tree, BAD.field, "%s has %d of %d bytes", row[1], left, size)
      end
      return packet.stop, item
    end
    item = Show(packet, tree, row, at, size)
    at = at + size
  end
  return at, item
end

-- A number of the datagram; 0 when it is not there, as the appliance reads it.
local function Number(packet, at, size)
  return at + size <= packet.stop and packet.tvb(at, size):le_uint() or 0
end

local function ShowDrive(packet, tree, at)
  local start, index = at, 0
  local words = tree:add(packet.tvb(at), "words")
  while at + 2 <= packet.stop and index < 256 do
    Show(packet, words, HDD_WORD, at, 2):prepend_text(string.format("%d ", index))
    at, index = at + 2, index + 1
  end
  for _, text in ipairs(HDD_TEXTS) do  -- the high byte of a word is the first character
    local field, offset, size = text[1], text[2], text[3]
    if start + offset + size <= packet.stop then
      local range = packet.tvb(start + offset, size)
      local characters = BeforeNul((range:raw():gsub("(.)(.)", "%2%1")))
      tree:add(field, range, (characters:gsub("[^ -~]", "?"):match("^ *(.-) *$")))
    end
  end
  return at
end

local function ShowArrays(packet, tree, at)
  for index = 0, RAID_ENTRIES - 1 do
    if at >= packet.stop then break end
    local size = math.min(RAID_ENTRY_SIZE, packet.stop - at)
    local entry = tree:add(packet.tvb(at, size), string.format("entry %d", index))
    at = ShowRecord(packet, entry, RAID_ENTRY, at)
  end
  return at
end

local function ShowSpecial(packet, tree, at, note)
  local code, extra = Number(packet, at, 1), Number(packet, at + 4, 4)
  local item
  at, item = ShowRecord(packet, tree, SPECIAL, at)
  note(SPECIALS[code] or string.format("special 0x%02x", code))
  local rows = SPECIAL_TEXT
  if EXTRAS[code] then item:append_text(" " .. (EXTRAS[code][1][extra] or EXTRAS[code][2])) end
  if code == 0x0C or code == 0x0D then rows = SPECIAL_PASSWORD end
  if code == 0x10 then rows = extra == 0 and SPECIAL_CHANGE or SPECIAL_NEW end
  return (ShowRecord(packet, tree, rows, at))
end

-- A text of `length` bytes and a tail of zeros, its NUL first.
local function ShowTextAndTail(packet, tree, rows, at, length, tail)
  local size = math.min(length, packet.stop - at)
  if length + tail > packet.stop - at and not packet.cut then
    Mark(tree, BAD.length, "length says %.0f and a tail of %d bytes, %d are there", length,
         tail, packet.stop - at)
  end
  if size > 0 then
    local item = Show(packet, tree, rows[1], at, size)
    local characters = #BeforeNul(packet.tvb(at, size):raw())
    if characters < size then
      Mark(item, BAD.length, "length says %.0f, the text has %d bytes", length, characters)
    end
  end
  at = at + size
  size = math.min(tail, packet.stop - at)
  if size > 0 then Show(packet, tree, TAIL[1], at, size) end
  return at + size
end

local function ShowCommand(packet, tree, at, note)
  local length = Number(packet, at, 4)
  note(COMMAND_TYPES[Number(packet, at + 4, 4)] or "no such type")
  at = ShowRecord(packet, tree, CMD, at)
  return ShowTextAndTail(packet, tree, CMD_TEXT, at, length, 3)
end

-- The length in it is 0: the text ends where the tail begins.
local function ShowCapturedOutput(packet, tree, at)
  at = ShowRecord(packet, tree, OUTPUT, at)
  return ShowTextAndTail(packet, tree, OUTPUT_TEXT, at, math.max(packet.stop - at - 3, 0), 3)
end

local function ShowResultLine(packet, tree, at)
  local length = Number(packet, at, 4)
  at = ShowRecord(packet, tree, OUTPUT, at)
  return ShowTextAndTail(packet, tree, OUTPUT_TEXT, at, length, 4)
end

-- Of each body: its rows or the function that shows it, and the bytes that it has at least; whether
-- there may be none instead. Commands that are not here have no body.
local BODIES = {
  [0x8020] = {rows = DISCOVER, least = 0},
  [0xC020] = {rows = DISCOVER_REPLY, least = 288},
  [0x8030] = {rows = CHANGE_IP, least = 112},
  [0x8040] = {rows = PING, least = 0},
  [0x8080] = {rows = FIRMUP2, least = 25},
  [0x8081] = {rows = FIRMUP3, least = 36},
  [0x8090] = {rows = INFO_HDD, least = 64, or_none = true},
  [0xC090] = {show = ShowDrive, least = 512},
  [0x80A0] = {show = ShowSpecial, least = 0},
  [0x80D0] = {rows = PART, least = 1},
  [0xC0D0] = {rows = PART_REPLY, least = 92},
  [0xC0E0] = {show = ShowArrays, least = RAID_ENTRIES * RAID_ENTRY_SIZE},
  [0x8A10] = {show = ShowCommand, least = 11},
  [0xCA10] = {show = ShowCapturedOutput, least = 11, or_none = true},
  [0xCA20] = {show = ShowResultLine, least = 12},
}
local PING_REPLY, SPECIAL_REPLY, CMD_REPLY = 0xC040, 0xC0A0, 0xCA10

local function ShowBody(packet, tree, code, note)
  local body, at, size = BODIES[code], HEADER_SIZE, packet.length - HEADER_SIZE
  if body and size < body.least and not (body.or_none and size == 0) then
    Mark(tree, BAD.body, "The body has %d bytes instead of %d", size, body.least)
  end
  if at >= packet.stop then return end
  if body and body.rows then at = ShowRecord(packet, tree, body.rows, at) end
  if body and body.show then at = body.show(packet, tree, at, note) end
  if at >= packet.stop then return end
  local item = Show(packet, tree, SURPLUS[1], at, packet.stop - at)
  Mark(item, BAD.surplus, "%d bytes behind the last field", packet.stop - at)
end

-- The result of a reply is a state. That of a special command or of a command may be its own, and
-- the one of a ping is the request's.
local function ShowState(packet, tree, code, note)
  if code == PING_REPLY then return end
  local state = Number(packet, 28, 4)
  local own = code == SPECIAL_REPLY or code == CMD_REPLY
  note(STATES[state] or string.format("result 0x%x", state))
  if own and not STATES[state] then return end
  local item = tree:add_le(STATE, packet.tvb(28, 4))
  if not STATES[state] then Mark(item, BAD.state, "No state has the code 0x%08x", state) end
end

local function CheckHeader(packet, tree, code, is_reply, pinfo)
  local header_size, option_size = Number(packet, 0, 2), Number(packet, 10, 2)
  local version = Number(packet, 4, 4)
  -- The reply to a ping has the request's sizes, and is a header alone.
  local wanted = code == PING_REPLY and HEADER_SIZE or header_size + option_size
  if wanted ~= packet.length then
    Mark(tree, BAD.length, "The datagram has %d bytes, its sizes say %d", packet.length, wanted)
  end
  if header_size ~= HEADER_SIZE and code ~= PING_REPLY then
    Mark(tree, BAD.header_size, "header_size is %d: counts as without a body", header_size)
  end
  if version < LOWEST_VERSION or is_reply and version ~= REPLY_VERSION then
    Mark(tree, BAD.version, "Not a version to take or send: 0x%08x", version)
  end
  local to_server, from_server = pinfo.dst_port == PORT, pinfo.src_port == PORT
  if COMMANDS[code] and to_server ~= from_server and is_reply ~= from_server then
    Mark(tree, BAD.direction, is_reply and "A reply to an appliance"
                                                or "A request from an appliance")
  end
end

function acp.dissector(tvb, pinfo, root)
  local packet = {tvb = tvb, length = tvb:reported_len(), stop = tvb:captured_len()}
  packet.cut = packet.stop < packet.length
  if packet.stop == 0 then return 0 end
  pinfo.cols.protocol = "ACP"
  pinfo.cols.info = "ACP"
  local tree = root:add(acp, tvb())
  if packet.length < HEADER_SIZE then
    Mark(tree, BAD.short, "The datagram has %d bytes, a header %d", packet.length, HEADER_SIZE)
    packet.cut = true
  end
  local body_stop = packet.stop
  packet.stop = math.min(packet.stop, HEADER_SIZE)
  local header = tree:add(tvb(0, packet.stop), "header")
  ShowRecord(packet, header, HEADER, 0)
  if packet.stop < HEADER_SIZE then return tvb:len() end
  packet.stop = body_stop

  local code = Number(packet, 8, 2)
  local is_reply = math.floor(code / REPLY_BIT) % 2 == 1
  local info = COMMANDS[code] or string.format("command 0x%04x", code)
  local function note(text) info = info .. ", " .. text end
  tree:add(IS_REPLY, tvb(8, 2), is_reply):set_generated()
  CheckHeader(packet, tree, code, is_reply, pinfo)
  if not COMMANDS[code] then
    Mark(tree, BAD.command, "No command has the code 0x%04x", code)
  elseif is_reply then
    ShowState(packet, tree, code, note)
  end
  if Number(packet, 0, 2) == HEADER_SIZE or code == PING_REPLY then
    ShowBody(packet, tree, code, note)
  elseif packet.stop > HEADER_SIZE then
    Show(packet, tree, SURPLUS[1], HEADER_SIZE, packet.stop - HEADER_SIZE)
  end
  pinfo.cols.info = info
  return tvb:len()
end

DissectorTable.get("udp.port"):add(PORT, acp)
