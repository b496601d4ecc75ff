-- Wireshark dissector of the generic netlink family "TAVIK_WLAN" (kernel_interface/tavik_wlan.h).
--
--   tshark -X lua_script:kernel_interface/wireshark/tavik_wlan.lua -r FILE -Y tavik_wlan
--
-- or copied to the folder that "tshark -G folders" calls "Personal Lua Plugins". The capture must
-- hold the controller's answer that names the family, and come from a little-endian machine.

local COMMANDS = {
  [1] = "ADD_TUPLES",
  [2] = "DEL_TUPLES",
  [3] = "SET_DEV",
  [4] = "UNSET_DEV",
  [5] = "ADD_FWD_INFO",
  [6] = "DEL_FWD_INFO",
  [7] = "SET_ENCAP_PORT",
  [8] = "UNSET_ENCAP_PORT",
  [9] = "RESET",
  [10] = "ENCAP_PORT_ACT_PASS_THROUGH",
  [11] = "ENCAP_PORT_ACT_DROP",
  [12] = "LL_ADDR_ADD",
  [13] = "LL_ADDR_FLUSH",
  [14] = "GET_TUPLES",
}

local IP_PROTOS = { [4] = "IPV4", [6] = "IPV6" }
local TRANS_PROTOS = { [6] = "TCP", [17] = "UDP", [50] = "ESP" }

local NETLINK, GENERIC = 824, 16 -- in the header of the link layer
local ERROR, DONE = 2, 3 -- the types of answers
local REQUEST, CAPPED, ACK_TLVS = 0x1, 0x100, 0x200 -- flags of messages
local ERRORS = { [1] = "EPERM", [2] = "ENOENT", [4] = "EINTR", [11] = "EAGAIN", [12] = "ENOMEM",
  [16] = "EBUSY", [17] = "EEXIST", [22] = "EINVAL", [28] = "ENOSPC", [95] = "EOPNOTSUPP" }

local family = Proto("tavik_wlan", "TAVIK_WLAN data path")
local answers = Proto("tavik_wlan_answers", "TAVIK_WLAN answers")

local fields = {
  command = ProtoField.uint8("tavik_wlan.command", "Command", base.DEC, COMMANDS),
  version = ProtoField.uint8("tavik_wlan.version", "Version"),
  tuple = ProtoField.string("tavik_wlan.tuple", "Tuple"),
  tuple_port = ProtoField.uint16("tavik_wlan.tuple.port", "Port"),
  tuple_spi = ProtoField.uint32("tavik_wlan.tuple.spi", "SPI", base.HEX),
  tuple_ip_proto =
    ProtoField.uint8("tavik_wlan.tuple.ip_proto", "IP version", base.DEC, IP_PROTOS),
  tuple_trans_proto =
    ProtoField.uint8("tavik_wlan.tuple.trans_proto", "Protocol", base.DEC, TRANS_PROTOS),
  tuple_reserved = ProtoField.uint16("tavik_wlan.tuple.reserved", "Reserved", base.HEX),
  request = ProtoField.framenum("tavik_wlan.request", "Request", base.NONE, frametype.REQUEST),
  outcome = ProtoField.string("tavik_wlan.outcome", "Outcome"),
  bad_attribute = ProtoField.string("tavik_wlan.bad_attribute", "Bad attribute"),
  missing_attribute = ProtoField.string("tavik_wlan.missing_attribute", "Missing attribute"),
}

local malformed = ProtoExpert.new("tavik_wlan.malformed", "Malformed", expert.group.MALFORMED,
                                  expert.severity.ERROR)
family.experts = { malformed }

local is_malformed -- whether what is dissected has turned out to be

local function mark_malformed(item, text)
  item:add_proto_expert_info(malformed, text)
  is_malformed = true
end

-- What follows shows the payload of one attribute and returns it as text, or nil when it is
-- malformed.

local function has_size(payload, size, item)
  if payload:len() ~= size then
    mark_malformed(item, payload:len() .. " bytes of payload instead of " .. size)
  end
  return payload:len() == size
end

local function show_number(size)
  return function(payload, item, field)
    if has_size(payload, size, item) then
      item:add(field, payload)
      return tostring(payload:uint())
    end
  end
end

local function show_string(payload, item, field)
  if payload:raw():find("\0", 1, true) ~= payload:len() then
    mark_malformed(item, "A string that does not end at its first NUL")
    return nil
  end
  local text = payload:stringz(ENC_UTF_8)
  item:add(field, payload, text)
  return text
end

local function show_tuple(payload, item)
  if not has_size(payload, 8, item) then
    return nil
  end
  local ip_proto = payload(4, 1):uint()
  local trans_proto = payload(5, 1):uint()
  local is_esp = TRANS_PROTOS[trans_proto] == "ESP"
  local text = string.format("%s %s " .. (is_esp and "0x%08x" or "%d"),
    (IP_PROTOS[ip_proto] or "ip?"):lower(), (TRANS_PROTOS[trans_proto] or "protocol?"):lower(),
    is_esp and payload(0, 4):uint() or payload(0, 2):uint())
  local tuple = item:add(fields.tuple, payload, text)
  if is_esp then
    tuple:add(fields.tuple_spi, payload(0, 4))
  else
    tuple:add(fields.tuple_port, payload(0, 2))
  end
  tuple:add(fields.tuple_ip_proto, payload(4, 1))
  tuple:add(fields.tuple_trans_proto, payload(5, 1))
  tuple:add(fields.tuple_reserved, payload(6, 2))
  return text
end

-- A number of an extended acknowledgement is in host byte order.
local function show_host_number(payload, item)
  return has_size(payload, 4, item) and tostring(payload:le_uint()) or nil
end

-- A row of a table of attributes: its name, how to show it, and as which field.
local function row(name, show, field_type, abbreviation, label)
  local field = field_type and ProtoField[field_type]("tavik_wlan." .. abbreviation, label)
  fields[name] = field
  return { name = name, show = show, field = field }
end

local IN_ELEMENT = { [1] = row("TUPLE", show_tuple) }
local IN_TUPLES = { [1] = { name = "ELEMENT", inside = IN_ELEMENT } }
local ATTRIBUTES = {
  [1] = { name = "TUPLES", inside = IN_TUPLES },
  [2] = row("DEV", show_string, "string", "device", "Device"),
  [3] = row("FWD_FROM", show_string, "string", "forward_from", "Forward from"),
  [4] = row("FWD_TO", show_string, "string", "forward_to", "Forward to"),
  [5] = row("ENCAP_PORT", show_number(2), "uint16", "encap_port", "Encapsulation port"),
  [6] = row("SELECTOR", show_number(1), "uint8", "selector", "Selector"),
  [7] = row("LL_SRC_ADDR", show_string, "string", "ll_src_addr", "Source address"),
  [8] = row("LL_DST_ADDR", show_string, "string", "ll_dst_addr", "Destination address"),
  [9] = row("LL_SRC_PORT", show_number(2), "uint16", "ll_src_port", "Source port"),
  [10] = row("LL_DST_PORT", show_number(2), "uint16", "ll_dst_port", "Destination port"),
}
-- What an answer says besides its error number (extended acknowledgement).
local EXTACK = {
  [1] = row("MSG", show_string, "string", "extack.message", "Message"),
  [2] = row("OFFS", show_host_number),
  [3] = { name = "COOKIE" },
  [4] = { name = "POLICY" },
  [5] = row("MISS_TYPE", show_host_number),
  [6] = row("MISS_NEST", show_host_number),
}
family.fields = fields

-- The first of many, and how many they are.
local function summary(texts)
  local shown = table.concat(texts, ", ", 1, math.min(#texts, 4))
  return #texts <= 4 and shown or string.format("%s, ... %d tuples", shown, #texts)
end

-- Shows the attributes from one place in a buffer to another. Calls each(attribute, text) for those
-- that are known, and adds to `places` where each is: "DEV", "TUPLES[3].TUPLE".
local function show_attributes(buffer, from, to, tree, known, each, places, parent)
  local index = 0
  while from < to do
    local length = to - from >= 4 and buffer(from, 2):le_uint() or 0
    if length < 4 or length > to - from then
      mark_malformed(tree, string.format("Attribute of length %d where %d bytes are left", length,
                                         to - from))
      return
    end
    local attribute_type = buffer(from + 2, 2):le_uint() % 0x4000
    local attribute = known[attribute_type] or { name = "type " .. attribute_type }
    local item = tree:add(buffer(from, length), attribute.name)
    local path = not parent and attribute.name or known == IN_TUPLES and
      parent .. "[" .. index .. "]" or parent .. "." .. attribute.name
    places[#places + 1] = { from = from, to = from + length, path = path }
    local text
    if attribute.inside then
      local texts = {}
      show_attributes(buffer, from + 4, from + length, item, attribute.inside,
        function(_, inner) texts[#texts + 1] = inner end, places, path)
      text = summary(texts)
    elseif attribute.show then
      text = attribute.show(buffer(from + 4, length - 4), item, attribute.field) or "malformed"
    end
    if text then
      item:append_text(" " .. text)
      each(attribute, text)
    end
    from, index = from + length + -length % 4, index + 1
  end
end

-- Puts one message into the columns; a datagram may hold several.
local function show_line(packet, line)
  packet.cols.protocol = "TAVIK_WLAN"
  local before = tostring(packet.cols.info)
  packet.cols.info = (before == "" and "" or before .. "; ") ..
    (is_malformed and "[malformed] " or "") .. line
end

-- The latest request with each sequence number, and which one the answer at a place is to.
local requests, answered = {}, {}
-- What the messages of the family in this packet are, by where their generic headers are.
local shown = {}
function family.init()
  requests, answered = {}, {}
end

local function has_flag(flags, flag)
  return math.floor(flags / flag) % 2 == 1
end

-- The buffer is one message from its generic header on.
function family.dissector(buffer, packet, root)
  is_malformed = false
  local tree = root:add(family, buffer())
  if buffer:len() < 4 then
    mark_malformed(tree, "No generic netlink header")
    show_line(packet, "no header")
    return buffer:len()
  end
  local command = buffer(0, 1):uint()
  tree:add(fields.command, buffer(0, 1))
  tree:add(fields.version, buffer(1, 1))
  local name = COMMANDS[command] or "command " .. command
  local texts, places = {}, {}
  show_attributes(buffer, 4, buffer:len(), tree, ATTRIBUTES, function(attribute, text)
    texts[#texts + 1] = attribute.name .. " " .. text
  end, places)
  local line = #texts == 0 and name or name .. " " .. table.concat(texts, ", ")
  tree:append_text(": " .. line)
  show_line(packet, line)
  shown[buffer:offset()] = { frame = packet.number, line = line, places = places }
  return buffer:len()
end

-- The path of the innermost attribute of a request that holds the byte at an offset, which counts
-- from the netlink header.
local function attribute_at(request, offset)
  local path
  for _, place in ipairs(request.places) do
    if offset and offset - 16 >= place.from and offset - 16 < place.to then
      path = place.path
    end
  end
  return path
end

-- Shows an extended acknowledgement and returns it as text.
local function show_extack(buffer, from, tree, request)
  local found = {}
  show_attributes(buffer, from, buffer:len(), tree, EXTACK, function(attribute, text)
    found[attribute.name] = text
  end, {})
  local text = found.MSG and ": " .. found.MSG or ""
  local bad = attribute_at(request, tonumber(found.OFFS))
  if bad then
    tree:add(fields.bad_attribute, bad):set_generated()
    text = text .. ": " .. bad
  end
  local missing_type = tonumber(found.MISS_TYPE)
  if missing_type then
    local nest = attribute_at(request, tonumber(found.MISS_NEST))
    local missing = nest and nest .. (nest:find("%]$") and ".TUPLE" or ".ELEMENT") or
      (ATTRIBUTES[missing_type] or { name = "type " .. missing_type }).name
    tree:add(fields.missing_attribute, missing):set_generated()
    text = text .. ": missing " .. missing
  end
  return text
end

-- Shows an acknowledgement, an error or the end of a dump that answers a request of the family. The
-- range is the whole message.
local function show_answer(range, packet, root, request)
  is_malformed = false
  local tree = root:add(family, range)
  tree:add(fields.request, request.frame):set_generated()
  local is_error = range(4, 2):le_uint() == ERROR
  if range:len() < (is_error and 36 or 20) then
    mark_malformed(tree, "An answer of " .. range:len() .. " bytes")
    show_line(packet, request.line)
    return
  end
  local number = range(16, 4):le_int()
  local outcome = number == 0 and (is_error and "acknowledged" or "done") or ERRORS[-number] or
    "error " .. -number
  tree:add(fields.outcome, range(16, 4), outcome)
  local flags, text = range(6, 2):le_uint(), ""
  if has_flag(flags, ACK_TLVS) then
    local echoed = not is_error and 0 or has_flag(flags, CAPPED) and 16 or range(20, 4):le_uint()
    local from = 20 + echoed + -echoed % 4
    if from <= range:len() then
      text = show_extack(range:tvb(), from, tree, request)
    else
      mark_malformed(tree, "The request in the answer is longer than the answer")
    end
  end
  tree:append_text(": " .. outcome .. text)
  show_line(packet, request.line .. ": " .. outcome .. text)
end

-- Which request a message is the answer to, by its sequence number and the type that it repeats.
local function request_of(range)
  local request = requests[range(8, 4):le_uint()]
  local is_other = request and range(4, 2):le_uint() == ERROR and range:len() >= 36 and
    range(24, 2):le_uint() ~= request.type
  return not is_other and request or nil
end

-- Runs on each packet, whatever it holds: Wireshark asks no family's dissector for answers.
function answers.dissector(buffer, packet, root)
  local at = 16 -- behind the header of the link layer
  local is_netlink = buffer:len() >= at and buffer(2, 2):uint() == NETLINK and
    buffer(14, 2):uint() == GENERIC
  while is_netlink and buffer:len() - at >= 16 do
    local length = buffer(at, 4):le_uint()
    if length < 16 or length > buffer:len() - at then
      break
    end
    local range = buffer(at, length)
    local message_type, place = range(4, 2):le_uint(), packet.number .. " " .. at
    if message_type ~= ERROR and message_type ~= DONE then
      local request = shown[at + 16]
      if request and not packet.visited and has_flag(range(6, 2):le_uint(), REQUEST) then
        request.type = message_type
        requests[range(8, 4):le_uint()] = request
      end
    else
      answered[place] = packet.visited and answered[place] or request_of(range)
      if answered[place] then
        show_answer(range, packet, root, answered[place])
      end
    end
    at = at + length + -length % 4
  end
  shown = {}
end

DissectorTable.get("genl.family"):add("TAVIK_WLAN", family)
register_postdissector(answers)
