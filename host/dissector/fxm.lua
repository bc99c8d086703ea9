-- Wireshark's dissector of the management frames of Fenxar cards: one file, to be copied into the folder of Lua plugins.
-- It runs on Wireshark and tshark 4.0 and later.
--
-- A frame comes here by its EtherType, so what the tvb starts with depends on the layout: the body behind a VLAN tag, or
-- the VLAN tag itself where the EtherType stands in front of it. Offsets below count from the first byte of the
-- destination MAC.
--
-- What is known about more than one frame is recorded on the first visit of each, in the order of the capture, and only
-- looked up later. The first visit may come without a tree, and then the fields of Ethernet cannot be read; so records
-- name a MAC by the text of its address.

local fxm = Proto("fxm", "Fenxar Management")

-- The registers that have a name. host/common/registers.cpp is their one source. A test compares the two, and writes
-- these lines with FXM_WRITE_GOLDEN=1.
-- {{{ registers
local fields = {
    {},
    {
        { name = "occupied", first = 0, bits = 1, words = { [0] = "no", [1] = "yes" } },
        { name = "command", first = 0, bits = 2, words = { [0] = "clear", [1] = "read", [3] = "write" } },
        { name = "finished", first = 28, bits = 1, words = { [0] = "no", [1] = "yes" } },
        { name = "refused", first = 29, bits = 1, words = { [0] = "no", [1] = "yes" } },
        { name = "ready", first = 30, bits = 1, words = { [0] = "no", [1] = "yes" } },
        { name = "start", first = 31, bits = 1, words = { [0] = "no", [1] = "yes" } },
    },
    {
        { name = "own", first = 2, bits = 1, words = { [0] = "no", [1] = "yes" } },
        { name = "other", first = 3, bits = 1, words = { [0] = "no", [1] = "yes" } },
    },
    {
        { name = "own", first = 2, bits = 1, words = { [0] = "no", [1] = "yes" } },
        { name = "others", first = 3, bits = 13, words = {} },
    },
    {
        { name = "type", first = 0, bits = 1, words = { [0] = "bit lock", [1] = "ID lock" } },
    },
}
local registers = {
    { address = 0x0000, cards = "all", name = "probe", fields = fields[1] },
    { address = 0x0040, cards = "40G", name = "eeprom.control", fields = fields[2] },
    { address = 0x0044, cards = "40G", name = "eeprom.address", fields = fields[1] },
    { address = 0x0048, cards = "40G", name = "eeprom.read", fields = fields[1] },
    { address = 0x004c, cards = "40G", name = "eeprom.write", fields = fields[1] },
    { address = 0x5010, cards = "1/10G", name = "eeprom.control", fields = fields[2] },
    { address = 0x5014, cards = "1/10G", name = "eeprom.address", fields = fields[1] },
    { address = 0x5018, cards = "1/10G", name = "eeprom.read", fields = fields[1] },
    { address = 0x501c, cards = "1/10G", name = "eeprom.write", fields = fields[1] },
    { address = 0x50f0, cards = "all", name = "eeprom.lock", fields = fields[3] },
    { address = 0x5200, cards = "all", name = "eeprom.owner", fields = fields[4] },
    { address = 0x5204, cards = "all", name = "eeprom.release", fields = fields[4] },
    { address = 0x5208, cards = "all", name = "eeprom.pending", fields = fields[4] },
    { address = 0x520c, cards = "all", name = "eeprom.locktype", fields = fields[5] },
}
-- }}} registers

-- ----------------------------------------------------------------------------------------------------------- kinds

local announcements = { [0x10] = true, [0x11] = true, [0x18] = true, [0x19] = true }
local COMPLETION, RESET, VLAN_SET, REGISTER_WRITE, REGISTER_READ, PAGE = 0x20, 0x30, 0x80, 0x90, 0x91, 0x92
local kind_words = {
    [0x10] = "1G/10G DEVINFO",
    [0x11] = "1G/10G NOTIFY",
    [0x18] = "40G DEVINFO",
    [0x19] = "40G NOTIFY",
    [COMPLETION] = "Completion",
    [RESET] = "Reset",
    [VLAN_SET] = "VLAN set",
    [REGISTER_WRITE] = "Register Write",
    [REGISTER_READ] = "Register Read",
    [PAGE] = "MMS page",
}
-- Of what the library receives it is the length below which it drops a frame; a card ignores shorter ones than its own.
local least_lengths = { [COMPLETION] = 28, [RESET] = 60, [VLAN_SET] = 60, [REGISTER_WRITE] = 60, [REGISTER_READ] = 60,
    [PAGE] = 156 }
local LENGTH_ANY = 28
local PRIORITY = 4
local TPID = 0x8100
local FXSV, FXIO = 0, 1
local class_words = { [FXSV] = "FXSV", [FXIO] = "FXIO" }
local LAST_PAGE, LAST_VLAN = 1023, 4095

-- ---------------------------------------------------------------------------------------------------------- fields

local f = {
    card = ProtoField.ether("fxm.card", "Card", "The id of the card: the even MAC of a 40G card"),
    mac_index = ProtoField.uint8("fxm.mac_index", "MAC of the card", base.DEC, { [0] = "MAC 0", [1] = "MAC 1" }),
    layout = ProtoField.uint8("fxm.layout", "Layout", base.DEC,
        { [0] = "tag-first: VLAN tag, EtherType", [1] = "type-first: EtherType, VLAN tag" }),
    priority = ProtoField.uint8("fxm.priority", "Priority"),
    vlan = ProtoField.uint16("fxm.vlan", "VLAN"),
    tag_tpid = ProtoField.uint16("fxm.tpid", "VLAN tag", base.HEX),
    kind = ProtoField.uint8("fxm.kind", "Kind", base.HEX, kind_words),
    padding = ProtoField.bytes("fxm.padding", "Padding"),

    -- DEVINFO and NOTIFY
    flow = ProtoField.uint8("fxm.flow", "Flow id", base.HEX),
    ver = ProtoField.uint8("fxm.ver", "Ver"),
    generation = ProtoField.string("fxm.generation", "Generation"),
    fault0 = ProtoField.bool("fxm.fault0", "Link 0 fault"),
    fault1 = ProtoField.bool("fxm.fault1", "Link 1 fault"),
    uidsw = ProtoField.bool("fxm.uidsw", "UID switch", 8, { "on", "off" }, 0x04),
    power = ProtoField.bool("fxm.power", "Power", 8, { "on", "off" }, 0x08),
    class = ProtoField.uint8("fxm.class", "Class", base.DEC, class_words),
    link_status = ProtoField.uint8("fxm.link_status", "Link status", base.HEX),
    sw_status = ProtoField.bytes("fxm.sw_status", "Status bytes"),
    version = ProtoField.uint8("fxm.version", "Version", base.DEC, nil, 0x0f),
    port0_link = ProtoField.bool("fxm.port0_link", "Port 0 link", 8, { "up", "down" }, 0x20),
    port1_link = ProtoField.bool("fxm.port1_link", "Port 1 link", 8, { "up", "down" }, 0x40),
    presence = ProtoField.bool("fxm.presence", "PCIe presence", 8, { "present", "absent" }, 0x80),
    int_vector = ProtoField.uint8("fxm.int_vector", "Interrupt vector", base.HEX),
    multi_root = ProtoField.bool("fxm.multi_root", "Multi-root"),

    -- A bridge
    primary = ProtoField.uint8("fxm.bridge.primary", "Primary bus"),
    secondary = ProtoField.uint8("fxm.bridge.secondary", "Secondary bus"),
    subordinate = ProtoField.uint8("fxm.bridge.subordinate", "Subordinate bus"),
    command = ProtoField.uint8("fxm.bridge.command", "Command", base.HEX),
    mem_base = ProtoField.uint16("fxm.bridge.mem_base", "Memory base", base.HEX),
    mem_limit = ProtoField.uint16("fxm.bridge.mem_limit", "Memory limit", base.HEX),
    pre_base = ProtoField.uint16("fxm.bridge.pre_base", "Prefetchable base", base.HEX),
    pre_limit = ProtoField.uint16("fxm.bridge.pre_limit", "Prefetchable limit", base.HEX),
    pre_base_upper = ProtoField.uint32("fxm.bridge.pre_base_upper", "Prefetchable base, upper half", base.HEX),
    pre_limit_upper = ProtoField.uint32("fxm.bridge.pre_limit_upper", "Prefetchable limit, upper half", base.HEX),

    -- FXSV
    down_port = ProtoField.uint8("fxm.down.port", "Down port"),
    down_status = ProtoField.uint16("fxm.down.status", "Port status", base.HEX),
    down_connected = ProtoField.bool("fxm.down.connected", "Connected", 16, { "yes", "no" }, 0x0002),
    down_card = ProtoField.ether("fxm.down.card", "FXIO card"),

    -- FXIO
    substate = ProtoField.uint16("fxm.substate", "Sub-state", base.HEX),
    connected = ProtoField.bool("fxm.connected", "Connected", 16, { "yes", "no" }, 0x0002),
    server = ProtoField.ether("fxm.server", "FXSV card"),
    device = ProtoField.uint16("fxm.device", "PCI device id", base.HEX),
    vendor = ProtoField.uint16("fxm.vendor", "PCI vendor id", base.HEX),
    pci_class = ProtoField.uint24("fxm.pci_class", "PCI class code", base.HEX),
    resource = ProtoField.uint16("fxm.resource", "Resource number"),

    -- Commands and answers
    tag = ProtoField.uint8("fxm.tag", "Tag"),
    register = ProtoField.string("fxm.register", "Register"),
    address_word = ProtoField.uint32("fxm.register.address_word", "Address on the wire", base.HEX),
    address = ProtoField.uint32("fxm.register.address", "Address", base.HEX),
    value = ProtoField.uint32("fxm.register.value", "Value", base.HEX),
    reset_status = ProtoField.uint8("fxm.reset.status", "Status", base.HEX),
    new_vlan = ProtoField.uint16("fxm.new_vlan", "New VLAN"),
    page = ProtoField.uint32("fxm.page", "Page"),
    page_data = ProtoField.bytes("fxm.page.data", "Data of the page"),
    eeprom_word = ProtoField.uint32("fxm.eeprom.word", "Address of the EEPROM word", base.HEX),
    eeprom_step = ProtoField.string("fxm.eeprom.step", "EEPROM"),
    response_in = ProtoField.framenum("fxm.response_in", "Answer in", base.NONE, frametype.RESPONSE),
    response_to = ProtoField.framenum("fxm.response_to", "Answer to", base.NONE, frametype.REQUEST),
    response_time = ProtoField.relative_time("fxm.response_time", "Response time"),
    retry = ProtoField.uint32("fxm.retry", "Retry"),
    retry_of = ProtoField.framenum("fxm.retry_of", "First sent in", base.NONE, frametype.RETRANS_PREV),
    retried_in = ProtoField.framenum("fxm.retried_in", "Sent again in", base.NONE, frametype.RETRANS_NEXT),
    duplicate_of = ProtoField.framenum("fxm.duplicate_of", "Answered before in", base.NONE, frametype.DUP_ACK),
}

local NO_FIELDS = {}
local by_address = {}
local register_fields = {}
local all_fields = {}
for _, field in pairs(f) do
    all_fields[#all_fields + 1] = field
end
for _, register in ipairs(registers) do
    by_address[register.address] = by_address[register.address] or {}
    table.insert(by_address[register.address], register)
    -- A register at two addresses has its fields once.
    if register_fields[register.name] == nil then
        local made = {}
        for _, field in ipairs(register.fields) do
            local abbreviation = "fxm." .. register.name .. "." .. field.name
            local mask = (2 ^ field.bits - 1) * 2 ^ field.first
            local is_flag = field.bits == 1 and field.words[1] == "yes"
            made[field.name] = is_flag and ProtoField.bool(abbreviation, field.name, 32, { "yes", "no" }, mask)
                or ProtoField.uint32(abbreviation, field.name, base.HEX, next(field.words) and field.words, mask)
            all_fields[#all_fields + 1] = made[field.name]
        end
        register_fields[register.name] = made
    end
end
fxm.fields = all_fields

local e = {
    length = ProtoExpert.new("fxm.expert.length", "Too short", expert.group.MALFORMED, expert.severity.ERROR),
    truncated = ProtoExpert.new("fxm.expert.truncated", "Not captured to its end", expert.group.UNDECODED,
        expert.severity.NOTE),
    header = ProtoExpert.new("fxm.expert.header", "Neither layout", expert.group.PROTOCOL, expert.severity.ERROR),
    priority = ProtoExpert.new("fxm.expert.priority", "Wrong priority", expert.group.PROTOCOL, expert.severity.ERROR),
    kind = ProtoExpert.new("fxm.expert.kind", "Unknown kind", expert.group.PROTOCOL, expert.severity.ERROR),
    ver = ProtoExpert.new("fxm.expert.ver", "Ver does not fit", expert.group.PROTOCOL, expert.severity.ERROR),
    class = ProtoExpert.new("fxm.expert.class", "Unknown class", expert.group.PROTOCOL, expert.severity.ERROR),
    range = ProtoExpert.new("fxm.expert.range", "Out of range", expert.group.PROTOCOL, expert.severity.WARN),
    retry = ProtoExpert.new("fxm.expert.retry", "Sent again", expert.group.SEQUENCE, expert.severity.NOTE),
    unanswered = ProtoExpert.new("fxm.expert.unanswered", "No answer", expert.group.SEQUENCE, expert.severity.WARN),
    unasked = ProtoExpert.new("fxm.expert.unasked", "No open request", expert.group.SEQUENCE, expert.severity.WARN),
    refused = ProtoExpert.new("fxm.expert.refused", "Access refused", expert.group.RESPONSE_CODE,
        expert.severity.WARN),
}
local all_experts = {}
for _, expert_info in pairs(e) do
    all_experts[#all_experts + 1] = expert_info
end
fxm.experts = all_experts

-- Of the layers around; the last one is the nearest.
local eth_src, eth_dst = Field.new("eth.src"), Field.new("eth.dst")
local vlan_id, vlan_priority = Field.new("vlan.id"), Field.new("vlan.priority")

local function nearest(field)
    local found = { field() }
    return found[#found]
end

-- Without the library of bits, whose results are signed and which differs between versions of Lua.
local function bits(value, first, count)
    return math.floor(value / 2 ^ first) % 2 ^ count
end

local function hex(value, digits)
    return string.format("0x%0" .. digits .. "x", value)
end

-- --------------------------------------------------------------------------------------------- memory of a capture

local generation_of -- of a MAC: true for 40G
local open -- the last request of MAC and tag
local requests -- of the number of a frame
local answers
local last_word -- of a card: the EEPROM word whose address was written last
local words -- of the number of a frame: the EEPROM word that it is about

local function forget()
    generation_of, open, requests, answers, last_word, words = {}, {}, {}, {}, {}, {}
end
forget()
fxm.init = forget -- called for each capture

-- The other MAC of a 40G card, as the text of an address. A MAC that is shown as a name alone has none.
local function sibling(mac)
    local digit = mac:match(":%x(%x)$")
    if digit == nil then
        return mac
    end
    local value = tonumber(digit, 16)
    return mac:sub(1, -2) .. string.format("%x", value % 2 == 0 and value + 1 or value - 1)
end

-- One of the MACs of a card for all of them. Until a card has announced itself it may be one of 40G.
local function card_of(mac)
    local other = sibling(mac)
    return generation_of[mac] ~= false and other < mac and other or mac
end

-- The register at an address of a card. A card that has not announced itself has every register whose address says all.
local function find_register(mac, address)
    local is_40g = generation_of[mac]
    local found
    for _, register in ipairs(by_address[address] or NO_FIELDS) do
        if register.cards == "all" or is_40g == nil or (register.cards == "40G") == is_40g then
            if found ~= nil then
                return nil
            end
            found = register
        end
    end
    return found
end

local function decode_address(word)
    return bits(word, 16, 10) * 0x1000 + bits(word, 0, 12)
end

-- The two forms in which an EEPROM takes the address of a word: bits 11..8 in their place, or at 19..16.
local function decode_word(value)
    return bits(value, 16, 4) * 0x100 + bits(value, 0, 12)
end

local function moment(pinfo)
    return { rel = pinfo.rel_ts, abs = pinfo.abs_ts }
end

-- Relative times are exact, but start anew where the user sets a time reference.
local function seconds_between(from, to)
    local exact = to.rel - from.rel
    local rough = to.abs - from.abs
    return math.abs(exact - rough) < 1e-5 and exact or rough
end

local function remember_request(pinfo, mac, tag, address)
    local key = mac .. "/" .. tag
    local made = { frame = pinfo.number, address = address, time = moment(pinfo), retry = 0 }
    local before = open[key]
    if before ~= nil and before.response_in == nil and before.address == address then
        before.retried_in = made.frame
        made.retry = before.retry + 1
        made.first = before.first or before.frame
    end
    open[key] = made
    requests[made.frame] = made
end

local function remember_answer(pinfo, mac, tag)
    local request = open[mac .. "/" .. tag]
    local other = generation_of[mac] ~= false and open[sibling(mac) .. "/" .. tag]
    local made = {}
    if request == nil or request.response_in ~= nil then
        made.other_mac = other and other.response_in == nil
        if request ~= nil and not made.other_mac then
            made.duplicate_of = request.response_in
            made.request = request
        end
    else
        request.response_in = pinfo.number
        made.request = request
        made.seconds = seconds_between(request.time, moment(pinfo))
        local register = find_register(mac, request.address)
        if register ~= nil and register.name == "eeprom.read" then
            words[pinfo.number] = last_word[card_of(mac)]
        end
    end
    answers[pinfo.number] = made
end

local function remember_write(pinfo, mac, address, value)
    local register = find_register(mac, address)
    if register == nil then
        return
    elseif register.name == "eeprom.address" then
        last_word[card_of(mac)] = decode_word(value)
        words[pinfo.number] = last_word[card_of(mac)]
    elseif register.name == "eeprom.control" and bits(value, 0, 2) ~= 0 then
        words[pinfo.number] = last_word[card_of(mac)]
    end
end

-- What later frames need to know of this one. `body` starts at byte 18.
local function remember(body, pinfo)
    local size = body:len()
    local kind = body(0, 1):uint()
    if announcements[kind] and size >= 4 then
        local mac, ver = tostring(pinfo.dl_src), body(3, 1):uint()
        generation_of[mac] = ver ~= 0
        if ver ~= 0 then
            generation_of[sibling(mac)] = true
        end
    elseif kind == COMPLETION and size >= 10 then
        remember_answer(pinfo, tostring(pinfo.dl_src), body(5, 1):uint())
    elseif kind == REGISTER_READ and size >= 10 then
        remember_request(pinfo, tostring(pinfo.dl_dst), body(5, 1):uint(), decode_address(body(6, 4):uint()))
    elseif kind == REGISTER_WRITE and size >= 14 then
        remember_write(pinfo, tostring(pinfo.dl_dst), decode_address(body(6, 4):uint()), body(10, 4):le_uint())
    end
end

-- ----------------------------------------------------------------------------------------------- registers in words

-- The control register holds a command when it is written and a status when it is read.
local only_written = { command = true, start = true }
local only_read = { occupied = true, finished = true, refused = true, ready = true }

local function fields_of(register, is_write)
    local chosen = {}
    for _, field in ipairs(register.fields) do
        local hidden = register.name == "eeprom.control" and (is_write and only_read or only_written)[field.name]
        if not hidden then
            chosen[#chosen + 1] = field
        end
    end
    return chosen
end

local function value_words(register, value, is_write)
    local found = {}
    for _, field in ipairs(fields_of(register, is_write)) do
        local part = bits(value, field.first, field.bits)
        local word = field.words[part]
        if word == "yes" then
            found[#found + 1] = field.name
        elseif word ~= nil and word ~= "no" then
            found[#found + 1] = field.name .. " " .. word
        elseif word == nil and part ~= 0 then
            found[#found + 1] = field.name .. " " .. string.format("0x%x", part)
        end
    end
    return table.concat(found, ", ")
end

local function of_word(word)
    return word and " of word " .. hex(word, 3) or ""
end

-- Bit 2 is that of fxm in both kinds of lock.
local function holder(value)
    local own, others = bits(value, 2, 1) == 1, value - bits(value, 2, 1) * 4 ~= 0
    return own and (others and "fxm and another holder" or "fxm")
        or (others and "another holder" or "nobody")
end

local write_steps = {
    ["eeprom.control"] = function(value, word)
        local command = bits(value, 0, 2)
        if bits(value, 31, 1) == 0 then
            return "clears the engine"
        end
        return "starts a " .. (command == 3 and "write" or command == 1 and "read" or "command") .. of_word(word)
    end,
    ["eeprom.address"] = function(_, word) return "names word " .. hex(word or 0, 3) end,
    ["eeprom.write"] = function() return "hands over the word to write" end,
    ["eeprom.lock"] = function(value)
        return bits(value, 2, 1) == 1 and "takes the bit lock"
            or value == 0 and "releases the bit lock" or "leaves the bit lock to " .. holder(value)
    end,
    ["eeprom.owner"] = function(value) return "requests the ID lock for " .. holder(value) end,
    ["eeprom.release"] = function(value) return "removes " .. holder(value) .. " from the ID lock" end,
}
local answer_steps = {
    ["eeprom.control"] = function(value)
        if bits(value, 28, 1) == 1 then
            return bits(value, 29, 1) == 1 and "the access was refused" or "the access has finished"
        end
        return bits(value, 30, 1) == 1 and bits(value, 0, 1) == 0 and "the engine is ready" or "the engine is busy"
    end,
    ["eeprom.read"] = function(_, word) return "the content" .. of_word(word) end,
    ["eeprom.lock"] = function(value) return "the bit lock is held by " .. holder(value) end,
    ["eeprom.owner"] = function(value) return "the ID lock is held by " .. holder(value) end,
    ["eeprom.pending"] = function(value) return "the ID lock is requested by " .. holder(value) end,
    ["eeprom.locktype"] = function(value) return bits(value, 0, 1) == 1 and "an ID lock" or "a bit lock" end,
}

-- -------------------------------------------------------------------------------------------------------- one frame

-- A frame that is being shown. Each of its methods adds nothing where the captured bytes end.
local view = {}
view.__index = view

-- The range of bytes of the frame, or nil.
function view:at(offset, size)
    local from = offset - 18
    if from < 0 or from + size > self.body:len() then
        return nil
    end
    return self.body(from, size)
end

function view:add(tree, field, offset, size, little)
    local range = self:at(offset, size)
    if range == nil then
        return nil
    end
    self.reached = math.max(self.reached, offset + size)
    if little then
        tree:add_le(field, range)
        return range:le_uint()
    end
    tree:add(field, range)
    return size <= 4 and range:uint() or range
end

function view:computed(tree, field, value, text)
    local item = tree:add(field, value)
    item:set_generated()
    if text ~= nil then
        item:append_text(" (" .. text .. ")")
    end
end

function view:complain(expert_info, text, tree)
    (tree or self.tree):add_proto_expert_info(expert_info, text)
end

-- ------------------------------------------------------------------------------------------------------ announcements

local function show_bridge(frame, tree, at, title)
    if frame:at(at, 1) == nil then
        return
    end
    local block = frame.body(at - 18, math.min(20, frame.body:len() - (at - 18)))
    local bridge = tree:add(block, title)
    frame:add(bridge, f.primary, at, 1)
    frame:add(bridge, f.secondary, at + 1, 1)
    frame:add(bridge, f.subordinate, at + 2, 1)
    frame:add(bridge, f.command, at + 3, 1)
    frame:add(bridge, f.mem_base, at + 4, 2, true)
    frame:add(bridge, f.mem_limit, at + 6, 2, true)
    frame:add(bridge, f.pre_base, at + 8, 2, true)
    frame:add(bridge, f.pre_limit, at + 10, 2, true)
    frame:add(bridge, f.pre_base_upper, at + 12, 4, true)
    frame:add(bridge, f.pre_limit_upper, at + 16, 4, true)
end

local function show_server(frame, count)
    show_bridge(frame, frame.tree, 28, "Up port")
    local connected = 0
    for i = 0, count - 1 do
        local at = 48 + 28 * i
        local status = frame:at(at, 2)
        if status == nil then
            break
        end
        local entry = frame.body(at - 18, math.min(28, frame.body:len() - (at - 18)))
        local down = frame.tree:add(entry, "Down port " .. i)
        frame:computed(down, f.down_port, i)
        frame:add(down, f.down_status, at, 2)
        frame:add(down, f.down_connected, at, 2)
        frame:add(down, f.down_card, at + 2, 6)
        if bits(status:uint(), 1, 1) == 1 then
            connected = connected + 1
            down:append_text(", connected")
            -- A bridge without a card behind it holds whatever was there before.
            show_bridge(frame, down, at + 8, "Bridge")
        end
        frame.reached = math.max(frame.reached, math.min(at + 28, frame.length))
    end
    return string.format(", %d down port%s", connected, connected == 1 and "" or "s")
end

local function show_device(frame, is_multi_root)
    frame:add(frame.tree, f.substate, 28, 2)
    frame:add(frame.tree, f.connected, 28, 2)
    local server = frame:add(frame.tree, f.server, 30, 6)
    local device = frame:add(frame.tree, f.device, 36, 2, true)
    local vendor = frame:add(frame.tree, f.vendor, 38, 2, true)
    frame:add(frame.tree, f.pci_class, 41, 3, true)
    local info = vendor and string.format(", %04x:%04x", vendor, device) or ""
    if is_multi_root then
        local resource = frame:add(frame.tree, f.resource, 44, 2)
        info = info .. (resource and ", multi-root " .. string.format("%d", resource) or "")
    end
    local state = frame:at(28, 2)
    if server ~= nil and bits(state:uint(), 1, 1) == 1 then
        info = info .. ", server " .. tostring(server:bytes()):gsub("(%x%x)", "%1:"):sub(1, 17):lower()
    end
    return info
end

local function show_announcement(frame)
    local tree = frame.tree
    frame:add(tree, f.flow, 20, 1)
    local ver = frame:add(tree, f.ver, 21, 1)
    local flags = frame:at(22, 1)
    local class = frame:at(23, 1)
    local status = frame:at(26, 1)
    frame.reached = 28
    if ver == nil then
        return kind_words[frame.kind]
    end
    local generation = ver == 0 and "1/10G" or "40G"
    frame:computed(tree, f.generation, generation)
    class = class and class:uint()
    local is_multi_root = class == FXIO and status ~= nil and bits(status:uint(), 0, 4) == 1
    if class == FXIO and status ~= nil then
        -- On a multi-root card the two flags are swapped.
        local a, b = bits(flags:uint(), 0, 1) == 1, bits(flags:uint(), 1, 1) == 1
        tree:add(f.fault0, flags, is_multi_root and b or not is_multi_root and a)
        tree:add(f.fault1, flags, is_multi_root and a or not is_multi_root and b)
    end
    frame:add(tree, f.uidsw, 22, 1)
    frame:add(tree, f.power, 22, 1)
    frame:add(tree, f.class, 23, 1)
    frame:add(tree, f.link_status, 24, 1)
    frame:add(tree, f.sw_status, 25, 3)
    frame:add(tree, f.version, 26, 1)
    frame:add(tree, f.port0_link, 26, 1)
    frame:add(tree, f.port1_link, 26, 1)
    if class == FXIO then
        frame:add(tree, f.presence, 26, 1)
        frame:computed(tree, f.multi_root, is_multi_root)
    end
    local int = frame:add(tree, f.int_vector, 27, 1)

    local is_40g_kind = frame.kind >= 0x18
    if not is_40g_kind and ver ~= 0 then
        frame:complain(e.ver, string.format("A 1G/10G frame has ver 0, and this one has %d: fxm drops it", ver))
    end
    if class ~= nil and class_words[class] == nil then
        frame:complain(e.class, string.format("The class %d does not exist: fxm drops the frame", class))
    end
    local least = LENGTH_ANY
    local body = ""
    if class == FXSV then
        least = is_40g_kind and 496 or 272
        body = show_server(frame, is_40g_kind and 16 or 8)
    elseif class == FXIO then
        least = is_multi_root and 46 or 44
        body = show_device(frame, is_multi_root)
    end
    frame.least = least
    return string.format("%s %s vlan %s %s, int=%s%s", class_words[class] or "unknown class", generation,
        frame.vlan and string.format("%d", frame.vlan) or "?", frame.kind % 8 == 0 and "announces" or "notifies",
        int and string.format("%02x", int) or "?", body)
end

-- -------------------------------------------------------------------------------------------- commands and answers

-- The register in the tree; returns its description and its words for the information column.
local function show_register(frame, tree, address)
    local register = find_register(frame.card_mac, address)
    local shown = register and string.format("%s (0x%04x)", register.name, address) or string.format("0x%04x", address)
    frame:computed(tree, f.register, register and register.name or string.format("0x%04x", address))
    return register, shown
end

-- The value with its fields, and the step of an EEPROM conversation. Returns words for the information column.
local function show_value(frame, register, at, is_write)
    local range = frame:at(at, 4)
    if range == nil then
        return ""
    end
    local value = range:le_uint()
    local item = frame.tree:add_le(f.value, range)
    frame.reached = math.max(frame.reached, at + 4)
    if register == nil then
        return " = " .. hex(value, 8)
    end
    local text = value_words(register, value, is_write)
    if text ~= "" then
        item:append_text(" (" .. text .. ")")
    end
    for _, field in ipairs(fields_of(register, is_write)) do
        item:add_le(register_fields[register.name][field.name], range)
    end
    local word = words[frame.number]
    if word ~= nil then
        frame:computed(frame.tree, f.eeprom_word, word)
    end
    local step = (is_write and write_steps or answer_steps)[register.name]
    if step ~= nil then
        local sentence = step(value, word)
        frame:computed(frame.tree, f.eeprom_step, sentence)
        text = sentence
    end
    if register.name == "eeprom.control" and not is_write and bits(value, 28, 2) == 3 then
        frame:complain(e.refused, "The card refused the EEPROM access", item)
    end
    return " = " .. hex(value, 8) .. (text ~= "" and ", " .. text or "")
end

local function show_address(frame)
    local range = frame:at(24, 4)
    if range == nil then
        return nil
    end
    local word = frame:add(frame.tree, f.address_word, 24, 4)
    local address = decode_address(word)
    frame:computed(frame.tree, f.address, address)
    if bits(word, 12, 4) ~= 0 or bits(word, 26, 6) ~= 0 or address % 4 ~= 0 then
        frame:complain(e.range, "No register has this address: " .. hex(word, 8))
    end
    return address
end

local function show_read(frame)
    local tag = frame:add(frame.tree, f.tag, 23, 1)
    local address = show_address(frame)
    if address == nil then
        return "read"
    end
    local _, shown = show_register(frame, frame.tree, address)
    local info = string.format("read %s tag %d", shown, tag)
    local request = requests[frame.number]
    if request == nil then
        return info
    end
    if request.first ~= nil then
        frame:computed(frame.tree, f.retry, request.retry)
        frame:computed(frame.tree, f.retry_of, request.first)
        frame:complain(e.retry, string.format("Retry %d of frame %d", request.retry, request.first))
        info = string.format("%s, retry %d of frame %d", info, request.retry, request.first)
    end
    if request.response_in ~= nil then
        frame:computed(frame.tree, f.response_in, request.response_in)
    elseif request.retried_in ~= nil then
        frame:computed(frame.tree, f.retried_in, request.retried_in)
    end
    -- On the first visit the answer has not been seen yet.
    if frame.visited and request.response_in == nil then
        info = info .. ", no answer"
        frame:complain(e.unanswered, request.retried_in == nil and "No answer in this capture"
            or string.format("No answer before it was sent again in frame %d", request.retried_in))
    end
    return info
end

local function time_words(seconds)
    return seconds < 0.01 and string.format("%.0f us", seconds * 1e6) or string.format("%.1f ms", seconds * 1e3)
end

local function show_completion(frame)
    local tag = frame:add(frame.tree, f.tag, 23, 1)
    if tag == nil then
        return "answer"
    end
    local info = string.format("answer tag %d: ", tag)
    local answer = answers[frame.number] or NO_FIELDS -- too short to be one
    local request = answer.request
    local register, shown
    if request ~= nil then
        register, shown = show_register(frame, frame.tree, request.address)
        frame:computed(frame.tree, f.address, request.address)
        info = info .. (register and register.name or shown)
    end
    info = info .. show_value(frame, register, 24, false):gsub("^ = ", request and " = " or "")
    if answer.seconds ~= nil then
        frame:computed(frame.tree, f.response_to, request.frame)
        -- Rounded to the nanosecond as a whole, so that no part is out of its range.
        local ns = math.floor(answer.seconds * 1e9 + 0.5)
        local whole = math.floor(ns / 1e9)
        frame:computed(frame.tree, f.response_time, NSTime.new(whole, ns - whole * 1e9))
        return info .. ", " .. time_words(answer.seconds)
    end
    if answer.duplicate_of ~= nil then
        frame:computed(frame.tree, f.duplicate_of, answer.duplicate_of)
        frame:complain(e.unasked, string.format("The request was answered in frame %d: fxm ignores this one",
            answer.duplicate_of))
        return info .. ", duplicate"
    end
    if answer == NO_FIELDS then
        return info
    end
    frame:complain(e.unasked, answer.other_mac
        and "The request went to the other MAC of the card: fxm ignores this answer"
        or "No request with this tag is open")
    return info .. (answer.other_mac and ", from the other MAC" or ", no request")
end

local function show_write(frame)
    local address = show_address(frame)
    if address == nil then
        return "write"
    end
    local register, shown = show_register(frame, frame.tree, address)
    return "write " .. shown .. show_value(frame, register, 28, true)
end

local function show_reset(frame)
    local status = frame:add(frame.tree, f.reset_status, 23, 1)
    return "reset" .. (status and ", status " .. hex(status, 2) or "")
        .. (frame.vlan and string.format(", vlan %d", frame.vlan) or "")
end

local function show_vlan_set(frame)
    local vlan = frame:add(frame.tree, f.new_vlan, 24, 2)
    if vlan ~= nil and vlan > LAST_VLAN then
        frame:complain(e.range, string.format("A VLAN is at most %d", LAST_VLAN))
    end
    return "set vlan" .. (vlan and string.format(" %d", vlan) or "")
        .. (frame.vlan and string.format(", now %d", frame.vlan) or "")
end

local function show_page(frame)
    local page = frame:add(frame.tree, f.page, 24, 4)
    if page ~= nil and page > LAST_PAGE then
        frame:complain(e.range, string.format("The last page is %d", LAST_PAGE))
    end
    local data = frame:at(28, 1)
    if data ~= nil then
        frame:add(frame.tree, f.page_data, 28, math.min(128, frame.body:len() - 10))
    end
    return "write page" .. (page and string.format(" %d", page) or "")
end

local shows = { [COMPLETION] = show_completion, [RESET] = show_reset, [VLAN_SET] = show_vlan_set,
    [REGISTER_WRITE] = show_write, [REGISTER_READ] = show_read, [PAGE] = show_page }

-- --------------------------------------------------------------------------------------------------------- the header

-- The TCI, wherever it is. A tag in front has been read by the dissector of VLAN tags.
local function show_header(frame, tvb)
    local priority, vlan
    if frame.is_type_first then
        frame.tree:add(f.tag_tpid, tvb(0, 2))
        if tvb:len() >= 4 then
            local tci = tvb(2, 2):uint()
            priority, vlan = bits(tci, 13, 3), bits(tci, 0, 12)
        end
    else
        local id, level = nearest(vlan_id), nearest(vlan_priority)
        vlan = id and id.value
        priority = level and level.value
        if vlan == nil then
            frame:complain(e.header, "There is no VLAN tag before or behind the EtherType: fxm drops the frame")
        elseif #{ vlan_id() } > 1 then
            frame:complain(e.header, "There is more than one VLAN tag: fxm drops the frame")
        end
    end
    frame:computed(frame.tree, f.layout, frame.is_type_first and 1 or 0)
    if vlan ~= nil then
        frame.vlan = vlan
        frame:computed(frame.tree, f.vlan, vlan)
    end
    if priority ~= nil then
        frame:computed(frame.tree, f.priority, priority)
        if priority ~= PRIORITY then
            frame:complain(e.priority, string.format("The priority is %d and not %d: the receiver drops the frame",
                priority, PRIORITY))
        end
    end
end

-- The id of the card: its one MAC, or the even one of its two. Of a card that has not announced itself in this capture
-- the even one is taken.
local function show_card(frame, is_from_card)
    local mac = nearest(is_from_card and eth_src or eth_dst)
    if mac == nil or frame.kind == RESET then
        return
    end
    local bytes = mac.range:bytes()
    local last = bytes:get_index(5)
    local is_40g = generation_of[frame.card_mac]
    local ver = announcements[frame.kind] and frame:at(21, 1)
    if ver then
        is_40g = ver:uint() ~= 0
    end
    if is_40g ~= false then
        bytes:set_index(5, last - last % 2)
    end
    local item = frame.tree:add(f.card, mac.range, Address.ether((tostring(bytes):gsub("(%x%x)", "%1:"):sub(1, 17))))
    item:set_generated()
    if is_40g then
        frame:computed(frame.tree, f.mac_index, last % 2)
    end
end

function fxm.dissector(tvb, pinfo, tree)
    local captured, length = tvb:len(), tvb:reported_len()
    pinfo.cols.protocol = "FXM"
    pinfo.cols.info = "not captured"
    local is_type_first = captured >= 2 and tvb(0, 2):uint() == TPID
    local skipped = is_type_first and 4 or 0
    local has_body = captured > skipped
    if has_body and not pinfo.visited then
        remember(tvb(skipped):tvb(), pinfo)
    end

    local root = captured > 0 and tree:add(fxm, tvb()) or tree:add(fxm)
    local shown = setmetatable({ tree = root, is_type_first = is_type_first, number = pinfo.number,
        visited = pinfo.visited, length = length - skipped + 18, reached = 19, least = LENGTH_ANY }, view)
    show_header(shown, tvb)
    if has_body then
        shown.body = tvb(skipped):tvb()
        shown.kind = shown.body(0, 1):uint()
        root:add(f.kind, shown.body(0, 1))
        local is_from_card = announcements[shown.kind] or shown.kind == COMPLETION
        shown.card_mac = tostring(is_from_card and pinfo.dl_src or pinfo.dl_dst)
        local show = announcements[shown.kind] and show_announcement or shows[shown.kind]
        if show == nil then
            shown:complain(e.kind, string.format("There is no kind of frame 0x%02x: the receiver drops it", shown.kind))
            pinfo.cols.info = string.format("unknown kind 0x%02x", shown.kind)
        else
            show_card(shown, is_from_card)
            shown.least = least_lengths[shown.kind] or LENGTH_ANY
            local info = show(shown)
            pinfo.cols.info = info
            root:append_text(", " .. info)
        end
        if shown:at(shown.reached, 1) ~= nil then
            root:add(f.padding, shown.body(shown.reached - 18))
        end
    end
    if shown.length < shown.least then
        shown:complain(e.length, string.format("A frame of this kind has at least %d bytes, and this one has %d",
            shown.least, shown.length))
    elseif captured < length then
        shown:complain(e.truncated, string.format("%d of %d bytes were captured", captured, length))
    end
    return captured
end

-- ------------------------------------------------------------------------------------------------------ preferences

fxm.prefs.ether_type = Pref.string("EtherType", "0x88B6", "The EtherType of the fabric, as in the configuration of fxmd")

local ether_types = DissectorTable.get("ethertype")
local registered = tonumber(fxm.prefs.ether_type)
ether_types:add(registered, fxm)

function fxm.prefs_changed()
    local wanted = tonumber(fxm.prefs.ether_type)
    if wanted == nil or wanted < 0 or wanted > 0xffff or wanted % 1 ~= 0 or wanted == registered then
        return
    end
    ether_types:remove(registered, fxm)
    ether_types:add(wanted, fxm)
    registered = wanted
end
