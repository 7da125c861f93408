-- Shows the network traffic of TALVORN devices and locators in Wireshark and tshark:
-- requests and answers (UDP 4817), status queries and their replies (TCP 4817).
--
-- It reads as the locator does, and says so where the locator drops something or takes it
-- differently than it was meant. All numbers are big-endian; texts are Windows-1252,
-- terminated inside their width. Nothing is read but what was captured, so that no
-- packet, however broken, ends in an error of this script.

local kPort = 4817
local kMagic = "TALVORN"
local kHeaderSize = 16
local kItemHeaderSize = 20
local kItemWordsSize = 24
local kLargestDatagram = 1500  -- what a locator reads of one, and of one reply
local kLargestChain = 1500
local kMostItems = 100  -- that are shown of one record

local kRequest, kShortRecord, kRecord = "000", "100", "101"
local kStatusRequest, kStatusReply = 6, 0x80000006
local kStatusRequestSize = 175
local kCommand = "DEVICE STATUS;"
local kReplyRecordAt = 12
local kRecordSize = 367
local kLongestReply = 3000  -- that is put together; a locator takes half of that

local kMoreSegments = DESEGMENT_ONE_MORE_SEGMENT or 0x0fffffff

local talvorn = Proto("talvorn", "TALVORN device location")

-- Fields.

local frameTypes = {[kStatusRequest] = "status request", [kStatusReply] = "status reply"}

local f = {
  length = ProtoField.uint32("talvorn.length", "Length"),
  magic = ProtoField.string("talvorn.magic", "Magic"),
  type = ProtoField.string("talvorn.type", "Type"),
  cidr = ProtoField.string("talvorn.cidr", "Interface of the locator"),
  timestamp = ProtoField.uint64("talvorn.timestamp", "Time stamp"),
  itemOffset = ProtoField.uint32("talvorn.item_offset", "Offset of the items"),
  ipv4 = ProtoField.string("talvorn.ipv4", "IPv4 address"),
  ipv6 = ProtoField.string("talvorn.ipv6", "IPv6 address"),
  status = ProtoField.string("talvorn.status", "Status"),
  serial = ProtoField.string("talvorn.serial", "Serial number"),
  clip = ProtoField.string("talvorn.clip", "Clip"),
  alias = ProtoField.string("talvorn.alias", "Alias"),
  hostIpv4 = ProtoField.string("talvorn.host.ipv4", "IPv4 address of the host"),
  hostIpv6 = ProtoField.string("talvorn.host.ipv6", "IPv6 address of the host"),
  hostAlias = ProtoField.string("talvorn.host.alias", "Alias of the host"),
  reserved = ProtoField.bytes("talvorn.reserved", "Reserved"),

  items = ProtoField.uint32("talvorn.items", "Items"),
  item = ProtoField.none("talvorn.item", "Item"),
  itemLength = ProtoField.uint32("talvorn.item.length", "Length of the item"),
  identityLength = ProtoField.uint32("talvorn.item.identity_length", "Length of its identity"),
  itemHeader = ProtoField.bytes("talvorn.item.header", "Header"),
  nextOffset = ProtoField.uint32("talvorn.item.next_offset", "Distance to the next item"),
  bodyLength = ProtoField.uint32("talvorn.item.body_length", "Length of the body"),
  body = ProtoField.bytes("talvorn.item.body", "Body"),

  frameLength = ProtoField.uint32("talvorn.frame.length", "Length of the frame"),
  frameType = ProtoField.uint32("talvorn.frame.type", "Type of the frame", base.HEX, frameTypes),
  frameWord = ProtoField.uint32("talvorn.frame.word", "Third word", base.HEX),
  command = ProtoField.string("talvorn.command", "Command"),
  sid = ProtoField.string("talvorn.sid", "SID"),

  requestIn = ProtoField.framenum("talvorn.request_in", "Answers the request in", base.NONE,
                                  frametype.REQUEST),
  time = ProtoField.relative_time("talvorn.time", "Time since that request"),
}
talvorn.fields = f

local malformed, protocol, sequence = expert.group.MALFORMED, expert.group.PROTOCOL,
                                      expert.group.SEQUENCE
local severe, warn, note = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE

local e = {
  magic = ProtoExpert.new("talvorn.bad_magic", "Not the magic of a TALVORN datagram", malformed,
                          severe),
  length = ProtoExpert.new("talvorn.bad_length", "The length is not that of what was sent",
                           malformed, warn),
  cut = ProtoExpert.new("talvorn.cut", "It ends too early", malformed, warn),
  long = ProtoExpert.new("talvorn.too_long", "It is longer than what a locator takes", protocol,
                         warn),
  text = ProtoExpert.new("talvorn.unterminated", "Text without terminator: its last character "
                         .. "does not count", malformed, warn),
  item = ProtoExpert.new("talvorn.item.outside", "Item that is not whole", malformed, severe),
  overlap = ProtoExpert.new("talvorn.item.overlap", "Items overlap", malformed, warn),
  gap = ProtoExpert.new("talvorn.item.gap", "Bytes between two items", protocol, note),
  type = ProtoExpert.new("talvorn.unknown_type", "Not a type that a locator takes", protocol, warn),
  group = ProtoExpert.new("talvorn.wrong_group", "Sent to the other group", protocol, warn),
  pieces = ProtoExpert.new("talvorn.in_pieces", "A reply in more than one segment: a locator "
                           .. "takes it only when it reads all of it at once", protocol, warn),
  silence = ProtoExpert.new("talvorn.another_locator", "Another locator asks", sequence, note),
  disowned = ProtoExpert.new("talvorn.address_disowned", "The third character of the status is "
                             .. "8: the address at which it was asked counts", protocol, note),
}
talvorn.experts = e

-- Groups, by address.

local groups = {
  {address = Address.ip("239.255.240.1"), family = 4, isRequest = true},
  {address = Address.ip("239.255.240.2"), family = 4, isRequest = false},
  {address = Address.ipv6("ff04:4817::1"), family = 6, isRequest = true},
  {address = Address.ipv6("ff04:4817::2"), family = 6, isRequest = false},
}

local function GroupOf(address)
  for _, group in ipairs(groups) do
    if group.address == address then return group end
  end
end

-- What is remembered between packets.

local tcpStream = Field.new("tcp.stream")

local lastRequest  -- {number, time, source} by network (UDP) or stream (TCP)
local answered     -- by number of a packet: the request that it answers
local others       -- by number of a request: the one of another locator before it
local isOurs       -- streams in which a frame was recognised
local waiting      -- directions of streams in which a reply has begun
local inPieces     -- numbers of packets in which a reply ended that had begun before

local function Forget()
  lastRequest, answered, others, isOurs, waiting, inPieces = {}, {}, {}, {}, {}, {}
end
talvorn.init = Forget  -- with each file
Forget()

local function RememberRequest(pinfo, key)
  if pinfo.visited then return end
  local last = lastRequest[key]
  local source = tostring(pinfo.src)
  if last and last.source ~= source then others[pinfo.number] = last end
  lastRequest[key] = {number = pinfo.number, time = pinfo.abs_ts, source = source}
end

local function AddTimes(pinfo, key, tree)
  if not pinfo.visited then answered[pinfo.number] = lastRequest[key] end
  local request = answered[pinfo.number]
  if not request then return end
  tree:add(f.requestIn, request.number):set_generated()
  local micros = math.floor((pinfo.abs_ts - request.time) * 1000000 + 0.5)
  local time = NSTime(math.floor(micros / 1000000), micros % 1000000 * 1000)
  tree:add(f.time, time):set_generated()
end

-- Bytes and texts.

-- The part of `width` bytes at `at` that was captured; none when nothing of it was.
local function Captured(tvb, at, width)
  local have = tvb:captured_len() - at
  if have <= 0 or width <= 0 then return nil end
  return tvb(at, math.min(width, have))
end

local function Number(tvb, at)
  if at + 4 > tvb:captured_len() then return nil end
  return tvb(at, 4):uint()
end

-- Windows-1252 as UTF-8; what could command a terminal as "\x1b". (TvbRange:string() of
-- Wireshark 4.0 loses the end of texts that become longer.)
local kShown = {}
for byte = 0, 255 do
  kShown[string.char(byte)] =
    (byte < 0x20 or byte >= 0x7f and byte < 0xa0) and string.format("\\x%02x", byte) or
    byte >= 0xa0 and string.char(0xc0 + math.floor(byte / 64), 0x80 + byte % 64) or nil
end
local kOthers = {
  [0x80] = "€", [0x82] = "‚", [0x83] = "ƒ", [0x84] = "„", [0x85] = "…", [0x86] = "†", [0x87] = "‡",
  [0x88] = "ˆ", [0x89] = "‰", [0x8a] = "Š", [0x8b] = "‹", [0x8c] = "Œ", [0x8e] = "Ž", [0x91] = "‘",
  [0x92] = "’", [0x93] = "“", [0x94] = "”", [0x95] = "•", [0x96] = "–", [0x97] = "—", [0x98] = "˜",
  [0x99] = "™", [0x9a] = "š", [0x9b] = "›", [0x9c] = "œ", [0x9e] = "ž", [0x9f] = "Ÿ",
}
for byte, shown in pairs(kOthers) do kShown[string.char(byte)] = shown end

local function Text(bytes)
  return (bytes:gsub(".", kShown))
end

local function AddNumber(tvb, at, _, field, tree)
  local value = Number(tvb, at)
  if value then return value, tree:add(field, tvb(at, 4)) end
end

local function AddBytes(tvb, at, width, field, tree)
  local range = Captured(tvb, at, width)
  if range then return nil, tree:add(field, range) end
end

local function AddText(tvb, at, width, field, tree)
  local range = Captured(tvb, at, width)
  if not range then return "" end
  local bytes = range:raw()
  local terminator = bytes:find("\0", 1, true)
  local text = Text(bytes:sub(1, (terminator or width) - 1))
  local item = tree:add(field, range, text)
  if not terminator and range:len() == width then item:add_proto_expert_info(e.text) end
  return text, item
end

-- Layouts: field, width, how it is added.

local kHeaderLayout = {
  {"length", 4, AddNumber}, {"magic", 8, AddText}, {"type", 4, AddText},
}
local kRequestLayout = {
  {"cidr", 19, AddText}, {"timestamp", 8, AddBytes},
}
local kShortLayout = {
  {"ipv4", 19, AddText}, {"status", 5, AddText}, {"serial", 8, AddText}, {"clip", 3, AddText},
  {"alias", 25, AddText}, {"hostIpv4", 19, AddText}, {"hostAlias", 64, AddText},
}
local kFullLayout = {
  {"itemOffset", 4, AddNumber}, {"ipv4", 19, AddText}, {"ipv6", 50, AddText},
  {"status", 5, AddText}, {"serial", 8, AddText}, {"clip", 3, AddText}, {"alias", 25, AddText},
  {"hostIpv4", 19, AddText}, {"hostIpv6", 50, AddText}, {"hostAlias", 64, AddText},
  {"reserved", 104, AddBytes},
}

-- Values and tree items by name, and where the layout ends.
local function AddLayout(layout, tvb, at, tree)
  local values, shown = {}, {}
  for _, part in ipairs(layout) do
    local name, width, add = part[1], part[2], part[3]
    values[name], shown[name] = add(tvb, at, width, f[name], tree)
    at = at + width
  end
  return values, shown, at
end

-- Items.

-- Shows one item; returns the distance to the next one, none after the last that counts.
local function AddItem(packet, at, room, tree)
  local tvb = packet.tvb
  local have = tvb:captured_len() - at
  local hashLength, nextOffset = Number(tvb, at), Number(tvb, at + 16)
  local bodyLength = Number(tvb, at + kItemHeaderSize)
  local size = bodyLength and kItemHeaderSize + bodyLength
  local whole = tree:add(f.item, Captured(tvb, at, size or have))
  AddNumber(tvb, at, 4, f.identityLength, whole)
  AddBytes(tvb, at + 4, 12, f.itemHeader, whole)
  AddNumber(tvb, at + 16, 4, f.nextOffset, whole)
  AddNumber(tvb, at + kItemHeaderSize, 4, f.bodyLength, whole)
  if size then
    AddBytes(tvb, at + kItemWordsSize, size - kItemWordsSize, f.body, whole)
    if size < 2 ^ 32 then whole:add(f.itemLength, size):set_generated() end
    whole:append_text(string.format(", %.0f bytes", size))
  end

  local function ends(why)
    if not packet.isSnapped then
      whole:add_proto_expert_info(e.item, why .. ": neither it nor what follows counts")
    end
  end
  if not size then return ends("The item's words are cut") end
  if size > have then return ends("The item reaches beyond the end") end
  if hashLength > have then return ends("The item's identity reaches beyond the end") end
  if size > room then return ends("More than 1500 bytes of items") end
  if bodyLength < 4 then
    whole:add_proto_expert_info(e.item, "The body has no room for its own length: it is left out")
  elseif nextOffset > 0 and nextOffset < size then
    whole:add_proto_expert_info(e.overlap)
  elseif nextOffset > size then
    whole:add_proto_expert_info(e.gap)
  end
  return nextOffset, bodyLength < 4 and 0 or size
end

-- Shows the chain of items at `at`; returns how many count.
local function AddItems(packet, at, tree)
  local room, count = kLargestChain, 0
  for shown = 1, kMostItems + 1 do
    if at >= packet.tvb:captured_len() then
      if not packet.isSnapped then
        tree:add_proto_expert_info(e.item, "An item begins beyond the end")
      end
      break
    elseif shown > kMostItems then
      tree:add_proto_expert_info(e.long, "No more items are shown")
      break
    end
    local nextOffset, size = AddItem(packet, at, room, tree)
    if not nextOffset then break end
    room = room - size
    if size > 0 then count = count + 1 end
    if nextOffset == 0 then break end
    at = at + nextOffset
  end
  tree:add(f.items, count):set_generated()
  return count
end

-- Datagrams and records.

-- The length word, against what is there and what its layout needs.
local function CheckLength(packet, length, shown, layoutEnd)
  local size = packet.tvb:reported_len()
  if packet.isSnapped then size = math.max(size, layoutEnd) end
  if length and length < kHeaderSize then
    shown:add_proto_expert_info(e.length, "Shorter than a header: locators drop it")
  elseif length and (length < layoutEnd or length > size) and not packet.isSnapped then
    shown:add_proto_expert_info(
      e.length, string.format("The length says %.0f, of %d bytes", length, size))
  end
  if size < layoutEnd then
    packet.tree:add_proto_expert_info(
      e.cut, string.format("%d of %d bytes: the others count as zero", size, layoutEnd))
  end
end

-- What the Info column says of a record.
local function Describe(what, values, items)
  local text = string.format("%s %s '%s' %s", what, values.serial or "", values.alias or "",
                             values.status or "")
  if items == 1 then return text .. ", 1 item" end
  return items > 0 and string.format("%s, %d items", text, items) or text
end

local function AddFullRecord(packet, what)
  local values, shown, at = AddLayout(kFullLayout, packet.tvb, kHeaderSize, packet.tree)
  local items = 0
  local offset = values.itemOffset
  if offset and offset > 0 then
    if offset < kRecordSize then
      shown.itemOffset:add_proto_expert_info(e.overlap, "The items begin inside the record")
    end
    items = AddItems(packet, offset, packet.tree)
  end
  return Describe(what, values, items), at, values, shown
end

local function AddRequest(packet)
  local tvb = packet.tvb
  local values, shown, at = AddLayout(kRequestLayout, tvb, kHeaderSize, packet.tree)
  local seconds = Number(tvb, at - 4)
  if seconds then
    shown.timestamp:append_text(os.date("! (%Y-%m-%d %H:%M:%S, the locator's local time)", seconds))
  end
  local from = values.cidr or ""
  return from == "" and "Request" or "Request from " .. from, at
end

local function AddRequestState(packet)
  local pinfo = packet.pinfo
  local group = GroupOf(pinfo.dst)
  RememberRequest(pinfo, group and group.family or 4)
  local other = others[pinfo.number]
  if other then
    packet.tree:add_proto_expert_info(e.silence, string.format(
      "Another locator, %s, asked in packet %d: who hears the other's request is silent for "
      .. "a while", other.source, other.number))
  end
end

local function AddDatagram(packet)
  local tvb, tree = packet.tvb, packet.tree
  local header, shown = AddLayout(kHeaderLayout, tvb, 0, tree)
  local digits = Captured(tvb, 12, 3)  -- what is compared
  local kind = digits and digits:raw() or ""
  local group = GroupOf(packet.pinfo.dst)
  local info, layoutEnd
  if tvb(4, math.min(#kMagic, tvb:captured_len() - 4)):raw() ~= kMagic then
    shown.magic:add_proto_expert_info(e.magic, "Bad magic: locators drop it")
    return "Bad magic"
  elseif kind == kRequest then
    info, layoutEnd = AddRequest(packet)
    if not group or group.isRequest then AddRequestState(packet) end
  elseif kind == kRecord then
    info, layoutEnd = AddFullRecord(packet, "Answer")
  elseif kind == kShortRecord then
    local values
    values, _, layoutEnd = AddLayout(kShortLayout, tvb, kHeaderSize, tree)
    info = Describe("Answer", values, 0) .. " (older layout)"
  else
    info, layoutEnd = "Unknown type " .. header.type, kHeaderSize
    if shown.type then shown.type:add_proto_expert_info(e.type) end
  end

  if shown.length then CheckLength(packet, header.length, shown.length, layoutEnd) end
  if kind == kRecord or kind == kShortRecord then
    AddTimes(packet.pinfo, group and group.family or 4, tree)
  end
  if group and group.isRequest ~= (kind == kRequest) then
    tree:add_proto_expert_info(e.group, group.isRequest and
      "Sent to the group of requests: locators take it for another locator's" or
      "Sent to the group of answers: it is no device's")
  end
  if tvb:reported_len() > kLargestDatagram then
    tree:add_proto_expert_info(e.long, "A locator reads 1500 bytes of it")
  end
  return info
end

-- Only what bears the magic is ours, or came to one of our groups at our port.
local function IsDatagram(tvb, pinfo)
  local have = tvb:captured_len()
  if have >= 4 + #kMagic and tvb(4, #kMagic):raw() == kMagic then return true end
  return have > 4 and pinfo.dst_port == kPort and GroupOf(pinfo.dst) ~= nil
end

local function DissectDatagram(tvb, pinfo, root)
  if not IsDatagram(tvb, pinfo) then return 0 end
  pinfo.cols.protocol:set("TALVORN")
  local packet = {tvb = tvb, pinfo = pinfo, tree = root:add(talvorn, tvb()),
                  isSnapped = tvb:captured_len() < tvb:reported_len()}
  local info = AddDatagram(packet)
  packet.tree:append_text(", " .. info)
  pinfo.cols.info:set(info)
  return tvb:captured_len()
end

-- Status queries.

-- Length of the reply at `at`: up to the end of its last item. None as long as more has to
-- come to know it; false when its items lead too far for any reply.
local function ReplyLength(tvb, at)
  local have = tvb:captured_len() - at
  local offset = Number(tvb, at + kReplyRecordAt + kHeaderSize)
  if not offset then return nil end
  local shortest = kReplyRecordAt + kRecordSize
  if offset == 0 then return shortest end
  local first = kReplyRecordAt + offset
  local item = first
  while item <= kLongestReply do
    if item + kItemWordsSize > have then return nil end
    local nextOffset = Number(tvb, at + item + 16)
    if nextOffset == 0 then
      local stop = item + kItemHeaderSize + Number(tvb, at + item + kItemHeaderSize)
      local length = math.max(shortest + stop - first, stop)
      return length <= kLongestReply and length
    end
    item = item + nextOffset
  end
  return false
end

local function IsStatusRequest(tvb, at)
  local command = Captured(tvb, at + kReplyRecordAt, #kCommand)
  return Number(tvb, at + 4) == kStatusRequest and command ~= nil and command:raw() == kCommand
end

local function IsStatusReply(tvb, at)
  return Number(tvb, at + 4) == kStatusReply
end

local function FrameLength(tvb, at)
  if not Number(tvb, at + 4) then return nil end
  if IsStatusRequest(tvb, at) then return kStatusRequestSize end
  return IsStatusReply(tvb, at) and ReplyLength(tvb, at)
end

local function AddStatusRequest(packet, stream)
  local tvb, tree = packet.tvb, packet.tree
  local command = AddText(tvb, kReplyRecordAt, 81, f.command, tree)
  local sid = command:match("^" .. kCommand .. "SID=(.*)")
  local range = Captured(tvb, kReplyRecordAt + #kCommand + 4, 81 - #kCommand - 4)
  if sid and range then tree:add(f.sid, range, sid) end
  RememberRequest(packet.pinfo, stream)
  return "Status request"
end

local function AddStatusReply(packet, stream)
  local tree, frame = packet.tree, packet.tvb
  if frame:captured_len() <= kReplyRecordAt then return "Status reply" end
  packet.tvb = frame(kReplyRecordAt):tvb()
  local header = AddLayout(kHeaderLayout, packet.tvb, 0, tree)
  local info, _, values, shown = AddFullRecord(packet, "Status reply")
  if header.magic ~= kMagic or header.type ~= kRecord then
    tree:add_proto_expert_info(e.type, "Magic or type is not that of a record; clients get it so")
  end
  if values.itemOffset and values.itemOffset > kRecordSize then
    shown.itemOffset:add_proto_expert_info(
      e.gap, "The items do not follow the record: a locator loses its place behind this reply")
  end
  local third = Captured(packet.tvb, 91, 1)
  if third and third:raw() == "8" then shown.status:add_proto_expert_info(e.disowned) end
  if packet.isInPieces then tree:add_proto_expert_info(e.pieces) end
  AddTimes(packet.pinfo, stream, tree)
  return info
end

local function AddFrame(packet, stream)
  local tvb, tree = packet.tvb, packet.tree
  local length, shownLength = AddNumber(tvb, 0, 4, f.frameLength, tree)
  local _, shownKind = AddNumber(tvb, 4, 4, f.frameType, tree)
  AddNumber(tvb, 8, 4, f.frameWord, tree)
  if length and length ~= tvb:captured_len() and not packet.isSnapped then
    shownLength:add_proto_expert_info(
      e.length, string.format("The length says %.0f, of %d bytes", length, tvb:captured_len()))
  end
  if packet.isCut and not packet.isSnapped then
    tree:add_proto_expert_info(e.cut, "The frame does not end here: locators drop it")
  end
  if tvb:captured_len() > kLargestDatagram then
    tree:add_proto_expert_info(e.long, "Longer than 1500 bytes: locators drop it")
  end
  if IsStatusRequest(tvb, 0) then return AddStatusRequest(packet, stream) end
  if IsStatusReply(tvb, 0) then return AddStatusReply(packet, stream) end
  if shownKind then shownKind:add_proto_expert_info(e.type) end
  return "Frame of another type"
end

local function StreamOf()
  local all = {tcpStream()}
  return "tcp " .. (#all > 0 and tostring(all[#all].value) or "")
end

local function DissectStream(tvb, pinfo, root)
  local stream = StreamOf()
  -- Their first bytes tell a query and a reply. In a stream that has them, anything is a frame.
  if not (isOurs[stream] or IsStatusRequest(tvb, 0) or IsStatusReply(tvb, 0)) then return 0 end
  isOurs[stream] = true
  local direction = stream .. " " .. pinfo.src_port
  local have = tvb:captured_len()
  local isSnapped = have < tvb:reported_len()
  if not pinfo.visited and waiting[direction] then inPieces[pinfo.number] = true end

  pinfo.cols.protocol:set("TALVORN")
  local infos, at = {}, 0
  while at < have do
    local length = FrameLength(tvb, at)
    local isCut = length == nil or length and length > have - at
    if isCut and pinfo.can_desegment > 0 and not isSnapped then
      waiting[direction] = true
      pinfo.desegment_offset = at
      pinfo.desegment_len = length and length - (have - at) or kMoreSegments
      break
    end
    length = math.min(length or have - at, have - at)
    waiting[direction] = nil
    local frame = tvb(at, length)
    local packet = {tvb = frame:tvb(), pinfo = pinfo, tree = root:add(talvorn, frame),
                    isSnapped = isSnapped, isCut = isCut,
                    isInPieces = at == 0 and inPieces[pinfo.number]}
    infos[#infos + 1] = AddFrame(packet, stream)
    packet.tree:append_text(", " .. infos[#infos])
    at = at + length
  end
  if #infos > 0 then pinfo.cols.info:set(table.concat(infos, "; ")) end
  return have
end

function talvorn.dissector(tvb, pinfo, root)
  if tvb:captured_len() == 0 then return 0 end
  if pinfo.port_type == 2 then return DissectStream(tvb, pinfo, root) end  -- TCP
  return DissectDatagram(tvb, pinfo, root)
end

DissectorTable.get("udp.port"):add(kPort, talvorn)
DissectorTable.get("tcp.port"):add(kPort, talvorn)
