-- Dissector of corvalin media packets for Wireshark and tshark.
--
-- Copy it into the folder of personal or global Lua plugins, or: tshark -X lua_script:corvalin_media.lua
-- It is heuristic: every UDP datagram that begins with the marker is taken, on whatever port. "Decode As" works too.
--
-- The sequence of seq is followed for each session and for each pair of end points, since the router counts anew towards
-- its nodes. It is worked out on the first pass over the packets; what is shown later comes from there, as packets are
-- then looked at in any order.

local media = Proto("corvalin", "Corvalin Media Packet")

local MARKER = 0x00FF00FF
local HEADER_BYTES = 48
local START_BYTES = 88
local DATA_BYTES = 56
local MAX_BYTES = 1376

local START, TERMINATE, DATA = 0x81, 0x82, 0x83
local TYPE_NAMES = { [START] = "start", [TERMINATE] = "terminate", [DATA] = "data" }

local fields = {
    marker = ProtoField.uint32("corvalin.marker", "Marker", base.HEX),
    type = ProtoField.uint8("corvalin.type", "Type", base.HEX, TYPE_NAMES),
    version = ProtoField.uint8("corvalin.version", "Version", base.DEC),
    side = ProtoField.uint8("corvalin.side", "Side", base.DEC),
    flags = ProtoField.uint8("corvalin.flags", "Flags", base.HEX),
    flags_writer = ProtoField.bool("corvalin.flags.writer", "Writer node wanted", 8, nil, 0x80),
    flags_media = ProtoField.bool("corvalin.flags.media", "Media node wanted", 8, nil, 0x40),
    id = ProtoField.uint64("corvalin.id", "Session id", base.DEC),
    uuid = ProtoField.string("corvalin.uuid", "Session uuid"),
    seq = ProtoField.uint64("corvalin.seq", "Sequence number", base.DEC),
    mt = ProtoField.uint64("corvalin.mt", "Media time", base.DEC),
    ts = ProtoField.uint64("corvalin.ts", "Start time stamp", base.DEC),
    sync_ts = ProtoField.uint64("corvalin.sync_ts", "Synchronisation time stamp", base.DEC),
    sync_mt = ProtoField.uint64("corvalin.sync_mt", "Synchronisation media time", base.DEC),
    rule = ProtoField.uint64("corvalin.rule", "Rule", base.DEC),
    reserved = ProtoField.bytes("corvalin.reserved", "Reserved"),
    call_id_length = ProtoField.uint16("corvalin.call_id_length", "Call id length", base.DEC),
    call_id = ProtoField.string("corvalin.call_id", "Call id"),
    m_flg = ProtoField.uint16("corvalin.m_flg", "Media flags", base.HEX),
    m_num = ProtoField.uint16("corvalin.m_num", "Number of 16-bit units", base.DEC),
    m_off = ProtoField.uint32("corvalin.m_off", "Media offset", base.DEC),
    payload = ProtoField.bytes("corvalin.payload", "Payload"),
    lost = ProtoField.uint64("corvalin.lost", "Packets missing before this one", base.DEC),
}
media.fields = fields

local experts = {
    length = ProtoExpert.new("corvalin.length.wrong", "Wrong length", expert.group.MALFORMED, expert.severity.ERROR),
    version = ProtoExpert.new("corvalin.version.unknown", "Unknown version", expert.group.PROTOCOL,
        expert.severity.ERROR),
    type = ProtoExpert.new("corvalin.type.unknown", "Unknown type", expert.group.PROTOCOL, expert.severity.ERROR),
    gap = ProtoExpert.new("corvalin.seq.gap", "Gap in the sequence", expert.group.SEQUENCE, expert.severity.WARN),
    backward = ProtoExpert.new("corvalin.seq.backward", "Late or repeated packet", expert.group.SEQUENCE,
        expert.severity.WARN),
}
media.experts = experts

-- By stream: the highest seq so far. By frame: what the first pass found there.
local highest = {}
local findings = {}

function media.init()
    highest = {}
    findings = {}
end

local function uuid_text(range)
    local hex = tostring(range:bytes()):lower()
    return table.concat({ hex:sub(1, 8), hex:sub(9, 12), hex:sub(13, 16), hex:sub(17, 20), hex:sub(21, 32) }, "-")
end

-- The length that the packet's own fields ask for; nil if they are not all there, or the type is unknown.
local function expected_length(buffer, kind)
    if kind == TERMINATE then
        return HEADER_BYTES
    elseif kind == START and buffer:len() >= START_BYTES then
        return START_BYTES + buffer(86, 2):le_uint()
    elseif kind == DATA and buffer:len() >= DATA_BYTES then
        return DATA_BYTES + 2 * buffer(50, 2):le_uint()
    end
    return nil
end

-- Follows seq as the session table of the router does: the start sets it, late packets do not move it.
local function follow(pinfo, kind, id, seq)
    local stream = table.concat({ tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst), pinfo.dst_port,
        tostring(id) }, " ")
    local last = highest[stream]
    local finding = {}
    if kind == START or last == nil then
        highest[stream] = seq
    elseif seq <= last then
        finding.backward = last
    else
        if seq > last + 1 then
            finding.lost = seq - last - 1
        end
        highest[stream] = seq
    end
    -- The id may come again in another call.
    if kind == TERMINATE then
        highest[stream] = nil
    end
    return finding
end

local function dissect_start(buffer, tree)
    tree:add_le(fields.ts, buffer(48, 8))
    tree:add_le(fields.sync_ts, buffer(56, 8))
    tree:add_le(fields.sync_mt, buffer(64, 8))
    tree:add_le(fields.rule, buffer(72, 8))
    tree:add(fields.reserved, buffer(80, 6))
    tree:add_le(fields.call_id_length, buffer(86, 2))
    if buffer:len() > START_BYTES then
        -- Up to the first zero byte, or to the end: the trailer need not have one.
        local text = buffer:raw(START_BYTES):match("^[^%z]*")
        tree:add(fields.call_id, buffer(START_BYTES), text)
    end
end

local function dissect_data(buffer, tree)
    tree:add_le(fields.m_flg, buffer(48, 2))
    tree:add_le(fields.m_num, buffer(50, 2))
    tree:add_le(fields.m_off, buffer(52, 4))
    if buffer:len() > DATA_BYTES then
        tree:add(fields.payload, buffer(DATA_BYTES))
    end
end

local function dissect_sequence(buffer, pinfo, tree, kind)
    local seq = buffer(32, 8):le_uint64()
    if not pinfo.visited then
        findings[pinfo.number] = follow(pinfo, kind, buffer(8, 8):le_uint64(), seq)
    end
    local item = tree:add_le(fields.seq, buffer(32, 8))
    local finding = findings[pinfo.number] or {}
    if finding.lost then
        item:add_proto_expert_info(experts.gap, tostring(finding.lost) .. " packets missing before this one")
        tree:add(fields.lost, buffer(32, 8), finding.lost):set_generated()
    elseif finding.backward then
        item:add_proto_expert_info(experts.backward, "Not above " .. tostring(finding.backward))
    end
end

local function dissect(buffer, pinfo, root)
    local size = buffer:len()
    pinfo.cols.protocol = "CORVALIN"
    local tree = root:add(media, buffer())
    tree:add_le(fields.marker, buffer(0, 4))
    if size < HEADER_BYTES then
        tree:add_proto_expert_info(experts.length, "Shorter than the header of 48 bytes")
        pinfo.cols.info = "Truncated, Len=" .. size
        return size
    end

    local kind = buffer(4, 1):uint()
    local type_item = tree:add(fields.type, buffer(4, 1))
    local version_item = tree:add(fields.version, buffer(5, 1))
    tree:add(fields.side, buffer(6, 1))
    local flags = tree:add(fields.flags, buffer(7, 1))
    flags:add(fields.flags_writer, buffer(7, 1))
    flags:add(fields.flags_media, buffer(7, 1))
    tree:add_le(fields.id, buffer(8, 8))
    tree:add(fields.uuid, buffer(16, 16), uuid_text(buffer(16, 16)))

    local is_known = TYPE_NAMES[kind] ~= nil
    local expected = expected_length(buffer, kind)
    local is_whole = expected == size and size <= MAX_BYTES
    if is_whole and buffer(5, 1):uint() == 0 then
        dissect_sequence(buffer, pinfo, tree, kind)
    else
        tree:add_le(fields.seq, buffer(32, 8)) -- the router refuses the packet, so it moves no sequence
    end
    tree:add_le(fields.mt, buffer(40, 8))
    if kind == START and size >= START_BYTES then
        dissect_start(buffer, tree)
    elseif kind == DATA and size >= DATA_BYTES then
        dissect_data(buffer, tree)
    end

    if buffer(5, 1):uint() ~= 0 then
        version_item:add_proto_expert_info(experts.version)
    end
    if not is_known then
        type_item:add_proto_expert_info(experts.type)
    end
    if size > MAX_BYTES then
        tree:add_proto_expert_info(experts.length, size .. " bytes, more than the " .. MAX_BYTES .. " that are taken")
    elseif is_known and not is_whole then
        tree:add_proto_expert_info(experts.length,
            size .. " bytes, where its fields ask for " .. (expected and tostring(expected) or "more"))
    end
    pinfo.cols.info = string.format("%s id=%s seq=%s Len=%d", TYPE_NAMES[kind] or "unknown type",
        tostring(buffer(8, 8):le_uint64()), tostring(buffer(32, 8):le_uint64()), size)
    return size
end

media.dissector = dissect

media:register_heuristic("udp", function(buffer, pinfo, root)
    if buffer:len() < 4 or buffer(0, 4):le_uint() ~= MARKER then
        return false
    end
    dissect(buffer, pinfo, root)
    return true
end)

DissectorTable.get("udp.port"):add_for_decode_as(media)
