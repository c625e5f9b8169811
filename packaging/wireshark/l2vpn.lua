-- Wireshark's dissector for recorded L2VPN messages (link type 147, LINKTYPE_USER0): what l2vpnctl capture writes.
-- To be put into Wireshark's folder of personal or global Lua plugins, or used with -X lua_script:l2vpn.lua.

-- Installed for everybody and for one user, or named beside: the first one is enough.
local found, known = pcall(Dissector.get, "l2vpn")
if found and known then return end

local l2vpn = Proto("l2vpn", "L2VPN attachment circuits")

local head_length = 64
local record_version = 1

-- Names ----------------------------------------------------------------------------------------------------

local kinds = {[1] = "message", [2] = "link up", [3] = "link down", [4] = "link refused"}
local directions = {[0] = "none", [1] = "to process", [2] = "to owner"}
local observers = {[1] = "process", [2] = "owner"}

local to_process, to_owner = 1, 2

-- Of each type: its name, its direction, the bits that begin and end a batch, and the size of its records. A
-- type that is not `counted` has one record, whatever its header says.
local types = {
    [0] = {name = "JOIN", direction = to_process},
    [2] = {name = "CREATE", direction = to_process, first = 0x1, last = 0x2},
    [3] = {name = "UPDATE", direction = to_process, first = 0x4, last = 0x8},
    [6] = {name = "DELETE", direction = to_process, first = 0x10, last = 0x20},
    [7] = {name = "PROV", direction = to_owner, notice = 0x2},
    [8] = {name = "UNPROV", direction = to_owner, notice = 0x2},
    [9] = {name = "VID_MAP", direction = to_process, first = 0x1, last = 0x2},
    [11] = {name = "STATE", direction = to_process, first = 0x1, last = 0x2},
    [12] = {name = "PROTECTED", direction = to_process, uncounted = true},
    [13] = {name = "BULK_NOTIFY", direction = to_owner, notice = 0x2},
    [14] = {name = "IS_ROOT", direction = to_process, first = 0x1, last = 0x2},
    -- Its receiver looks at the last word as it lies in the message.
    [15] = {name = "HDR_NOTIFY", direction = to_owner, notice = 0x02000000},
}

local type_names = {}
for code, row in pairs(types) do type_names[code] = row.name end

-- Layouts --------------------------------------------------------------------------------------------------
-- A layout is a list of {name, kind, size [, how many]}: "u" a number, "b" bytes, "t" a NUL-padded text, "f" the
-- byte of six bit-fields.

local function join(...)
    local all = {}
    for _, list in ipairs({...}) do
        for _, field in ipairs(list) do all[#all + 1] = field end
    end
    return all
end

local function definition(by_class)
    return join({{"name", "t", 64}, {"octets", "b", 4}, {"word", "u", 4}, {"word2", "u", 4}, {"word3", "u", 4}},
                by_class, {{"opaque", "b", 522}, {"word4", "u", 4}, {"word5", "u", 4}})
end

local plain = definition({{"class_octets", "b", 6}})
local with_word = definition({{"class_word", "u", 4}, {"class_octets", "b", 2}})
local with_half = definition({{"class_octets", "b", 4}, {"class_half", "u", 2}})
local with_halves = definition({{"class_halves", "u", 2, 2}, {"class_octets", "b", 2}})

local definitions = {
    [0] = with_half, [1] = plain, [2] = with_halves, [3] = plain, [4] = with_word, [5] = plain, [6] = with_word,
    [7] = plain, [8] = plain, [10] = plain, [11] = with_word, [12] = plain, [13] = plain, [14] = plain,
    [16] = plain, [17] = with_word,
}

local head = {{"words", "u", 4, 4}}
local half = join(head, {{"octets", "b", 2}, {"half", "u", 2}})

local infos = {
    [0] = half, [1] = half, [2] = join(head, {{"half", "u", 2}, {"half2", "u", 2}}),
    [3] = head, [4] = head, [5] = head,
    [6] = join(head, {
        {"half", "u", 2}, {"octets", "b", 2}, {"word", "u", 4}, {"bits", "f", 1}, {"octet", "b", 1},
        {"half2", "u", 2}, {"word2", "u", 4}, {"word3", "u", 4}, {"octets2", "b", 4}, {"quad", "u", 8},
        {"opaque", "b", 72}, {"quad2", "u", 8}, {"opaque2", "b", 68}, {"word4", "u", 4}}),
    [7] = join(head, {{"opaque", "b", 8}, {"word", "u", 4}, {"opaque2", "b", 12}, {"class_words", "u", 4, 4}}),
    [8] = join(head, {{"opaque", "b", 2340}}),
    [10] = head, [11] = join(head, {{"word", "u", 4}, {"word2", "u", 4}}),
    [12] = head, [13] = head, [14] = head, [16] = half,
}

local common = {{"common", "u", 4, 7}}
local data_half = join(common, {{"octets", "b", 2}, {"half", "u", 2}})

local datas = {
    [0] = data_half, [1] = data_half, [2] = join(common, {{"half", "u", 2}, {"half2", "u", 2}}),
    [3] = common, [4] = common, [5] = common, [6] = common,
    [8] = join(common, {
        {"opaque", "b", 36}, {"word", "u", 4}, {"opaque2", "b", 2560}, {"words", "u", 4, 4}, {"word2", "u", 4},
        {"octets", "b", 4}, {"words2", "u", 4, 4}, {"word3", "u", 4}, {"word4", "u", 4}}),
    [10] = common, [11] = join(common, {{"octets", "b", 39}}),
    [12] = common, [13] = common, [14] = common, [16] = data_half,
}

local records = {
    [9] = {{"msti", "u", 2}, {"vlan", "u", 2}},
    [11] = {{"handle", "u", 4}, {"msti", "u", 2}, {"octets", "b", 2}, {"word2", "u", 4}, {"word3", "u", 4},
            {"half2", "u", 2}, {"opaque", "b", 70}, {"word4", "u", 4}, {"tail", "b", 4}},
    [12] = {{"name", "t", 64}, {"tail", "b", 4}, {"word", "u", 4}},
    [13] = {{"word", "u", 4}, {"half", "u", 2}, {"octets", "b", 2}, {"words", "u", 4, 4}, {"opaque", "b", 4},
            {"word2", "u", 4}},
    [14] = {{"handle", "u", 4}, {"msti", "u", 2}, {"octets", "b", 2}},
}

local packed_heads = 17 -- the class whose information is its heads, one behind the other, and zeros
local packed_info_size = 200
local no_class = 0xFFFFFFFF -- of a link that was refused before it had told one

local function size_of(layout)
    local size = 0
    for _, field in ipairs(layout) do size = size + field[3] * (field[4] or 1) end
    return size
end

-- Fields ---------------------------------------------------------------------------------------------------

local f = {
    version = ProtoField.uint16("l2vpn.version", "Version of the record"),
    kind = ProtoField.uint8("l2vpn.kind", "Kind", base.DEC, kinds),
    direction = ProtoField.uint8("l2vpn.direction", "Direction", base.DEC, directions),
    observer = ProtoField.uint8("l2vpn.observer", "Recorded by", base.DEC, observers),
    class = ProtoField.uint32("l2vpn.class", "Class"),
    node = ProtoField.uint32("l2vpn.node", "Node id", base.HEX),
    pid = ProtoField.uint32("l2vpn.pid", "Process id"),
    uid = ProtoField.uint32("l2vpn.uid", "User id"),
    link = ProtoField.uint64("l2vpn.link", "Link number"),
    number = ProtoField.uint64("l2vpn.number", "Record number"),
    status = ProtoField.uint32("l2vpn.status", "Status"),
    length = ProtoField.uint32("l2vpn.length", "Message length"),
    program = ProtoField.string("l2vpn.program", "Program"),
    mark = ProtoField.uint32("l2vpn.mark", "Mark"),
    type = ProtoField.uint32("l2vpn.type", "Type", base.DEC, type_names),
    count = ProtoField.uint32("l2vpn.count", "Count"),
    flags = ProtoField.uint32("l2vpn.flags", "Flags", base.HEX),
    word2 = ProtoField.uint32("l2vpn.word2", "Word 2", base.HEX),
    word3 = ProtoField.uint32("l2vpn.word3", "Word 3", base.HEX),
    handle = ProtoField.uint32("l2vpn.ac.handle", "Interface handle", base.HEX),
    unused = ProtoField.bytes("l2vpn.info.unused", "Unused"),
    bits_a = ProtoField.uint8("l2vpn.info.bits.a", "a", base.DEC, nil, 0x80),
    bits_b = ProtoField.uint8("l2vpn.info.bits.b", "b", base.DEC, nil, 0x40),
    bits_c = ProtoField.uint8("l2vpn.info.bits.c", "c", base.DEC, nil, 0x20),
    bits_d = ProtoField.uint8("l2vpn.info.bits.d", "d", base.DEC, nil, 0x10),
    bits_e = ProtoField.uint8("l2vpn.info.bits.e", "e", base.DEC, nil, 0x0c),
    bits_f = ProtoField.uint8("l2vpn.info.bits.f", "f", base.DEC, nil, 0x03),
    first = ProtoField.bool("l2vpn.flags.begin", "Batch begins"),
    last = ProtoField.bool("l2vpn.flags.end", "Batch ends"),
    notice = ProtoField.bool("l2vpn.flags.notice", "Notice"),
    malformed = ProtoField.string("l2vpn.malformed", "Malformed"),
}

local makers = {u1 = ProtoField.uint8, u2 = ProtoField.uint16, u4 = ProtoField.uint32, u8 = ProtoField.uint64}

local function declare(prefix, layouts)
    for _, layout in pairs(layouts) do
        for _, field in ipairs(layout) do
            local name, kind, size = field[1], field[2], field[3]
            local key = prefix .. "." .. name .. (kind == "u" and size or "")
            if not f[key] then
                local full = "l2vpn." .. prefix .. "." .. name
                if kind == "u" then
                    local base_of = name == "handle" and base.HEX or base.DEC
                    f[key] = makers["u" .. size](full, name, base_of)
                elseif kind == "t" then
                    f[key] = ProtoField.string(full, name)
                else
                    f[key] = ProtoField.bytes(full, name)
                end
            end
        end
    end
end

declare("definition", definitions)
declare("info", infos)
declare("data", datas)
declare("record", records)
l2vpn.fields = f

local malformed = ProtoExpert.new("l2vpn.expert.malformed", "Malformed message", expert.group.MALFORMED,
                                  expert.severity.ERROR)
local failed = ProtoExpert.new("l2vpn.expert.failed", "Failed", expert.group.RESPONSE_CODE, expert.severity.WARN)
local lost_version = ProtoExpert.new("l2vpn.expert.version", "Unknown version", expert.group.UNDECODED,
                                     expert.severity.ERROR)
l2vpn.experts = {malformed, failed, lost_version}

-- Dissection -----------------------------------------------------------------------------------------------

-- The text in NUL-padded bytes, which need not end in one: as l2vpnctl shows it, other bytes than ASCII's as \xNN.
local function text_in(range)
    local text = range:raw():match("^[^%z]*"):gsub("[^\x20-\x7e]", function(byte)
        return string.format("\\x%02x", byte:byte())
    end)
    return text
end

-- Adds the fields of a layout at `at`, as far as they were recorded.
local function add_fields(tvb, at, prefix, layout, tree)
    for _, field in ipairs(layout) do
        local name, kind, size = field[1], field[2], field[3]
        for _ = 1, field[4] or 1 do
            if at + size > tvb:len() then return end
            local shown = f[prefix .. "." .. name .. (kind == "u" and size or "")]
            local item = kind == "t" and tree:add(shown, tvb(at, size), text_in(tvb(at, size)))
                or tree:add(shown, tvb(at, size))
            if kind == "f" then
                for _, bit in ipairs({"a", "b", "c", "d", "e", "f"}) do
                    item:add(f["bits_" .. bit], tvb(at, 1))
                end
            end
            at = at + size
        end
    end
end

-- What is behind the header of each AC or record: nil when there is no layout for it.
local function parts_of(code, class)
    if code == 6 or code == 8 then return {{"handle", 4}} end
    if code == 2 or code == 3 then
        local info = class == packed_heads and packed_info_size or infos[class] and size_of(infos[class])
        if not info then return nil end
        if code == 3 then return {{"handle", 4}, {"info", info}} end
        return {{"handle", 4}, {"definition", 616}, {"info", info}}
    end
    if code == 7 then
        return datas[class] and {{"handle", 4}, {"data", size_of(datas[class])}}
    end
    return records[code] and {{"record", size_of(records[code])}} or {}
end

local layouts = {definition = definitions, info = infos, data = datas}

local function add_part(tvb, at, size, count, part, code, class, tree)
    if part == "handle" then
        for i = 0, count - 1 do
            if at + 4 * i + 4 > tvb:len() then return end
            tree:add(f.handle, tvb(at + 4 * i, 4))
        end
        return
    end
    local packed = part == "info" and class == packed_heads
    local layout = part == "record" and records[code] or packed and head or layouts[part][class]
    local step = packed and size_of(head) or size
    for i = 0, count - 1 do
        local from = at + step * i
        if from >= tvb:len() then return end
        local shown = math.min(step, tvb:len() - from)
        add_fields(tvb, from, part, layout, tree:add(l2vpn, tvb(from, shown), part .. " " .. (i + 1)))
    end
    local rest = at + step * count
    local stop = math.min(at + size * count, tvb:len())
    if packed and stop > rest then tree:add(f.unused, tvb(rest, stop - rest)) end
end

-- Whether an AC is named by a handle that is nobody's, as far as the handles were recorded.
local function names_no_ac(tvb, count)
    for at = 16, math.min(12 + 4 * count, tvb:len() - 4), 4 do
        local handle = tvb(at, 4):uint()
        if handle == 0 or handle == 0xFFFFFFFF then return true end
    end
    return false
end

-- Why the message is malformed; its records are added where that is sure to be what they are.
local function add_records(tvb, row, code, class, count, length, tree)
    if class > 17 or class == 15 then return "no such class" end
    if row.uncounted then count = 1 end
    if code == 15 then count = 0 end
    local parts = parts_of(code, class)
    if not parts then
        if count > 0 then return "the class has no layout for this message" end
        parts = {}
    end
    local each = 0
    for _, part in ipairs(parts) do each = each + part[2] end
    if length ~= 16 + count * each or (each == 0 and count ~= 0) then
        return "length and header do not agree"
    end
    local at = 16
    for _, part in ipairs(parts) do
        add_part(tvb, at, part[2], count, part[1], code, class, tree)
        at = at + part[2] * count
    end
    if row.direction == to_process and parts[1] and parts[1][1] == "handle" and names_no_ac(tvb, count) then
        return "an interface handle that names no AC"
    end
    return nil
end

local function add_message(tvb, direction, class, length, tree, info)
    if length < 16 then return "shorter than a header" end
    if tvb:len() < 16 then
        info[#info + 1] = "(header not recorded)"
        return nil
    end
    local code, count = tvb(4, 4):uint(), tvb(8, 4):uint()
    local row = types[code]
    tree:add(f.mark, tvb(0, 4))
    tree:add(f.type, tvb(4, 4))
    info[#info + 1] = row and row.name or "type " .. code
    if code == 15 then
        tree:add(f.word2, tvb(8, 4))
    else
        tree:add(f.count, tvb(8, 4))
        info[#info + 1] = "count " .. count
    end
    local flags = tree:add(code == 15 and f.word3 or f.flags, tvb(12, 4))
    for _, name in ipairs({"first", "last", "notice"}) do
        local bit_of = row and row[name]
        if bit_of then
            local is_set = math.floor(tvb(12, 4):uint() / bit_of) % 2 == 1
            flags:add(f[name], tvb(12, 4), is_set)
            if is_set then info[#info + 1] = ({first = "begin", last = "end", notice = "notice"})[name] end
        end
    end
    if direction == to_process and tvb(0, 4):uint() ~= 3 then return "wrong mark in the header" end
    if not row then return "unknown message type" end
    if row.direction ~= direction then return "a message type of the other direction" end
    return add_records(tvb, row, code, class, count, length, tree)
end

function l2vpn.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "L2VPN"
    local tree = root:add(l2vpn, tvb())
    if tvb:len() < head_length or tvb(6, 2):uint() ~= head_length or tvb(0, 2):uint() ~= record_version then
        if tvb:len() >= 2 then tree:add(f.version, tvb(0, 2)) end
        tree:add_proto_expert_info(lost_version, "no record of version " .. record_version)
        pinfo.cols.info = "no record of version " .. record_version
        return tvb:len()
    end
    local kind, direction, class = tvb(2, 1):uint(), tvb(3, 1):uint(), tvb(8, 4):uint()
    local status, length = tvb(40, 4):uint(), tvb(44, 4):uint()
    local record = tree:add(l2vpn, tvb(0, head_length), "Record")
    for _, field in ipairs({
        {f.version, 0, 2}, {f.kind, 2, 1}, {f.direction, 3, 1}, {f.observer, 4, 1}, {f.class, 8, 4}, {f.node, 12, 4},
        {f.pid, 16, 4}, {f.uid, 20, 4}, {f.link, 24, 8}, {f.number, 32, 8}, {f.status, 40, 4}, {f.length, 44, 4},
    }) do
        record:add(field[1], tvb(field[2], field[3]))
    end
    local program = text_in(tvb(48, 16))
    record:add(f.program, tvb(48, 16), program)
    local owner = program .. "[" .. tvb(16, 4):uint() .. "] " .. (class == no_class and "no class" or "class " .. class)
    pinfo.cols.src = direction == to_owner and "l2vpnd" or owner
    pinfo.cols.dst = direction == to_owner and owner or "l2vpnd"
    local info = {}
    if kind == 1 then
        local message = tvb:len() > head_length and tvb(head_length):tvb() or ByteArray.new():tvb("message")
        local inside = tree:add(l2vpn, tvb(tvb:len() > head_length and head_length or 0), "Message")
        local why = add_message(message, direction, class, length, inside, info)
        if why then
            info[#info + 1] = "MALFORMED: " .. why
            inside:add(f.malformed, why):set_generated()
            inside:add_proto_expert_info(malformed, why)
        end
        if tvb:len() - head_length < length then
            info[#info + 1] = "(" .. (tvb:len() - head_length) .. " of " .. length .. " bytes recorded)"
        end
    else
        info[1] = kinds[kind] or "unknown kind of record"
    end
    if status ~= 0 then
        info[#info + 1] = "FAILED: error " .. status
        tree:add_proto_expert_info(failed, "error " .. status)
    end
    pinfo.cols.info = table.concat(info, " ")
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, l2vpn)
