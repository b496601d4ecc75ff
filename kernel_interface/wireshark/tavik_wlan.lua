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

local ATTRIBUTES = {
  [1] = "TUPLES",
  [2] = "DEV",
  [3] = "FWD_FROM",
  [4] = "FWD_TO",
  [5] = "ENCAP_PORT",
  [6] = "SELECTOR",
  [7] = "LL_SRC_ADDR",
  [8] = "LL_DST_ADDR",
  [9] = "LL_SRC_PORT",
  [10] = "LL_DST_PORT",
}

-- Of the container TUPLES, and of an element in it.
local TUPLES_ATTRIBUTES = { [1] = "TUPLE_ELEMENT" }
local ELEMENT_ATTRIBUTES = { [1] = "TUPLE_ATTR" }

local IP_PROTOS = { [4] = "IPV4", [6] = "IPV6" }
local TRANS_PROTOS = { [6] = "TCP", [17] = "UDP", [50] = "ESP" }

local family = Proto("tavik_wlan", "TAVIK_WLAN data path")

local fields = {
  command = ProtoField.uint8("tavik_wlan.command", "Command", base.DEC, COMMANDS),
  version = ProtoField.uint8("tavik_wlan.version", "Version"),
  attribute_length = ProtoField.uint16("tavik_wlan.attribute.length", "Length"),
  attribute_nested = ProtoField.bool("tavik_wlan.attribute.nested", "Nested", 16, nil, 0x8000),
  attribute_type =
    ProtoField.uint16("tavik_wlan.attribute.type", "Type", base.DEC, ATTRIBUTES, 0x3fff),
  tuples_type =
    ProtoField.uint16("tavik_wlan.tuples.type", "Type", base.DEC, TUPLES_ATTRIBUTES, 0x3fff),
  element_type =
    ProtoField.uint16("tavik_wlan.element.type", "Type", base.DEC, ELEMENT_ATTRIBUTES, 0x3fff),
  tuple = ProtoField.string("tavik_wlan.tuple", "Tuple"),
  tuple_port = ProtoField.uint16("tavik_wlan.tuple.port", "Port"),
  tuple_spi = ProtoField.uint32("tavik_wlan.tuple.spi", "SPI", base.HEX),
  tuple_ip_proto =
    ProtoField.uint8("tavik_wlan.tuple.ip_proto", "IP version", base.DEC, IP_PROTOS),
  tuple_trans_proto =
    ProtoField.uint8("tavik_wlan.tuple.trans_proto", "Protocol", base.DEC, TRANS_PROTOS),
  tuple_reserved = ProtoField.uint16("tavik_wlan.tuple.reserved", "Reserved", base.HEX),
  device = ProtoField.string("tavik_wlan.device", "Device"),
  forward_from = ProtoField.string("tavik_wlan.forward_from", "Forward from"),
  forward_to = ProtoField.string("tavik_wlan.forward_to", "Forward to"),
  encap_port = ProtoField.uint16("tavik_wlan.encap_port", "Encapsulation port"),
  selector = ProtoField.uint8("tavik_wlan.selector", "Selector"),
  ll_src_addr = ProtoField.string("tavik_wlan.ll_src_addr", "Source address"),
  ll_dst_addr = ProtoField.string("tavik_wlan.ll_dst_addr", "Destination address"),
  ll_src_port = ProtoField.uint16("tavik_wlan.ll_src_port", "Source port"),
  ll_dst_port = ProtoField.uint16("tavik_wlan.ll_dst_port", "Destination port"),
}
family.fields = fields

local malformed = ProtoExpert.new("tavik_wlan.malformed", "Malformed", expert.group.MALFORMED,
                                  expert.severity.ERROR)
local unexpected = ProtoExpert.new("tavik_wlan.unexpected", "Unexpected", expert.group.PROTOCOL,
                                   expert.severity.WARN)
family.experts = { malformed, unexpected }

-- Calls each(name, payload, item) for every known attribute in a range, with the tree item that has
-- its header.
local function for_each_attribute(range, tree, type_field, names, each)
  local from = 0
  while from < range:len() do
    local rest = range(from)
    local length = rest:len() >= 4 and rest(0, 2):le_uint() or 0
    if length < 4 or length > rest:len() then
      tree:add_proto_expert_info(malformed, string.format(
        "Attribute of length %d where %d bytes are left", length, rest:len()))
      return
    end
    local attribute_type = rest(2, 2):le_uint() % 0x4000
    local name = names[attribute_type]
    local item = tree:add(rest(0, length), name or "Attribute " .. attribute_type)
    item:add_le(fields.attribute_length, rest(0, 2))
    item:add_le(fields.attribute_nested, rest(2, 2))
    item:add_le(type_field, rest(2, 2))
    if name then
      -- A buffer has an empty range at its end, where a range refuses to have one.
      each(name, rest:tvb()(4, length - 4), item)
    else
      item:add_proto_expert_info(unexpected, "Unknown attribute " .. attribute_type)
    end
    from = from + length + -length % 4
  end
end

-- What follows shows the payload of one attribute and returns it as text, or nil when it is
-- malformed.

local function has_size(payload, size, item)
  if payload:len() ~= size then
    item:add_proto_expert_info(malformed, payload:len() .. " bytes of payload instead of " .. size)
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
    item:add_proto_expert_info(malformed, "A string that does not end at its first NUL")
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
  if not IP_PROTOS[ip_proto] or not TRANS_PROTOS[trans_proto] then
    tuple:add_proto_expert_info(unexpected, "Unknown IP version or protocol")
  end
  if payload(6, 2):uint() ~= 0 or not is_esp and payload(2, 2):uint() ~= 0 then
    tuple:add_proto_expert_info(unexpected, "Unused bytes are not 0")
  end
  return text
end

-- The first of many, and how many they are.
local function summary(texts)
  local shown = table.concat(texts, ", ", 1, math.min(#texts, 4))
  return #texts <= 4 and shown or string.format("%s, ... %d tuples", shown, #texts)
end

local function show_tuples(payload, item)
  local texts = {}
  for_each_attribute(payload, item, fields.tuples_type, TUPLES_ATTRIBUTES,
    function(_, element, element_item)
      for_each_attribute(element, element_item, fields.element_type, ELEMENT_ATTRIBUTES,
        function(_, tuple, tuple_item)
          texts[#texts + 1] = show_tuple(tuple, tuple_item)
        end)
    end)
  return summary(texts)
end

local SHOW = {
  TUPLES = { show_tuples },
  DEV = { show_string, fields.device },
  FWD_FROM = { show_string, fields.forward_from },
  FWD_TO = { show_string, fields.forward_to },
  ENCAP_PORT = { show_number(2), fields.encap_port },
  SELECTOR = { show_number(1), fields.selector },
  LL_SRC_ADDR = { show_string, fields.ll_src_addr },
  LL_DST_ADDR = { show_string, fields.ll_dst_addr },
  LL_SRC_PORT = { show_number(2), fields.ll_src_port },
  LL_DST_PORT = { show_number(2), fields.ll_dst_port },
}

-- Shows all attributes and returns them as one line.
local function show_attributes(range, tree)
  local texts = {}
  for_each_attribute(range, tree, fields.attribute_type, ATTRIBUTES, function(name, payload, item)
    local show, field = table.unpack(SHOW[name])
    local text = name .. " " .. (show(payload, item, field) or "malformed")
    item:set_text(text)
    texts[#texts + 1] = text
  end)
  return table.concat(texts, ", ")
end

-- The buffer is one message from its generic header on.
function family.dissector(buffer, packet, root)
  local tree = root:add(family, buffer())
  if buffer:len() < 4 then
    tree:add_proto_expert_info(malformed, "No generic netlink header")
    return buffer:len()
  end
  local command = buffer(0, 1):uint()
  tree:add(fields.command, buffer(0, 1))
  tree:add(fields.version, buffer(1, 1))
  if not COMMANDS[command] then
    tree:add_proto_expert_info(unexpected, "Unknown command " .. command)
  end
  local name = COMMANDS[command] or "command " .. command
  local attributes = show_attributes(buffer(4, buffer:len() - 4), tree)
  local line = attributes == "" and name or name .. " " .. attributes
  tree:append_text(": " .. line)

  packet.cols.protocol = "TAVIK_WLAN"
  -- A datagram may hold several messages.
  local before = tostring(packet.cols.info)
  packet.cols.info = before == "" and line or before .. "; " .. line
  return buffer:len()
end

DissectorTable.get("genl.family"):add("TAVIK_WLAN", family)
