-- Dissects the frames of the auditing system's protocol, as docs/protocol.md describes them, for tshark and Wireshark.
--
-- The frames travel inside TLS 1.3, so give the key log of one of the two ends as tls.keylog_file, and name the port. The
-- programs write no key log; tests/tools/KeyLog.cpp, preloaded into one on a machine for tests, does.
--     tshark -X lua_script:tools/qel.lua -d tls.port==7410,qel -o tls.keylog_file:keys.txt -r recording.pcapng
-- Recordings of the bytes inside TLS are read with -d tcp.port==7410,qel instead.

local qel = Proto("qel", "Auditing system")

local kinds = {
    [1] = "Hello", [2] = "Welcome", [3] = "Open", [4] = "Opened", [5] = "Packet",
    [6] = "Close session", [7] = "Close", [8] = "Ping", [9] = "Pong",
}
local session_types = { [3] = "audit events", [4] = "remote calls" }
local packet_types = { [301] = "AuditData", [302] = "AuditDataAck" }

local fields = {
    length = ProtoField.uint32("qel.length", "Length"),
    kind = ProtoField.uint8("qel.kind", "Kind", base.DEC, kinds),
    magic = ProtoField.string("qel.magic", "Magic"),
    oldest = ProtoField.uint16("qel.version.oldest", "Oldest version"),
    newest = ProtoField.uint16("qel.version.newest", "Newest version"),
    version = ProtoField.uint16("qel.version", "Version"),
    frame_limit = ProtoField.uint32("qel.limit.frame", "Largest frame"),
    value_limit = ProtoField.uint32("qel.limit.value", "Largest item"),
    silence = ProtoField.uint32("qel.silence", "Seconds of silence"),
    session = ProtoField.uint32("qel.session", "Session number"),
    session_type = ProtoField.int16("qel.session_type", "Session type", base.DEC, session_types),
    service = ProtoField.string("qel.service", "Service"),
    reason = ProtoField.string("qel.reason", "Reason"),
    packet_type = ProtoField.int16("qel.packet.type", "Packet type", base.DEC, packet_types),
    packet_version = ProtoField.int16("qel.packet.version", "Packet version"),
    time = ProtoField.int64("qel.packet.time", "Time (microseconds since 1970)"),
    item = ProtoField.bytes("qel.packet.item", "Item"),
    elements = ProtoField.bytes("qel.packet.elements", "Elements"),
    payload = ProtoField.bytes("qel.payload", "Payload"),
}
for _, field in pairs(fields) do
    table.insert(qel.fields, field)
end

local malformed = ProtoExpert.new("qel.malformed", "Malformed frame", expert.group.MALFORMED, expert.severity.ERROR)
qel.experts = { malformed }

local header = 5

local function limits(payload, at, tree)
    tree:add(fields.frame_limit, payload(at, 4))
    tree:add(fields.value_limit, payload(at + 4, 4))
    tree:add(fields.silence, payload(at + 8, 4))
end

local function add_rest(field, payload, at, tree)
    if payload:len() > at then
        tree:add(field, payload(at))
    end
end

-- The two audit packets have few elements; those of other packets are shown as bytes.
local function packet(payload, tree)
    tree:add(fields.session, payload(0, 4))
    tree:add(fields.packet_type, payload(4, 2))
    tree:add(fields.packet_version, payload(6, 2))
    local number = payload(4, 2):int()
    local name = packet_types[number] or ("type " .. number)
    if packet_types[number] and payload:len() >= 17 and payload(8, 1):uint() == 0x13 then
        tree:add(fields.time, payload(9, 8))
        if number == 301 and payload:len() > 22 then
            add_rest(fields.item, payload, 22, tree)
        end
        return name .. " " .. tostring(payload(9, 8):int64())
    end
    add_rest(fields.elements, payload, 8, tree)
    return name
end

local dissect = {
    [1] = function(payload, tree)
        tree:add(fields.magic, payload(0, 4))
        tree:add(fields.oldest, payload(4, 2))
        tree:add(fields.newest, payload(6, 2))
        limits(payload, 8, tree)
    end,
    [2] = function(payload, tree)
        tree:add(fields.version, payload(0, 2))
        limits(payload, 2, tree)
    end,
    [3] = function(payload, tree)
        tree:add(fields.session, payload(0, 4))
        tree:add(fields.session_type, payload(4, 2))
        local length = payload(6, 2):uint()
        tree:add(fields.service, payload(8, length))
        return '"' .. payload(8, length):string() .. '"'
    end,
    [4] = function(payload, tree) tree:add(fields.session, payload(0, 4)) end,
    [5] = packet,
    [6] = function(payload, tree)
        tree:add(fields.session, payload(0, 4))
        add_rest(fields.reason, payload, 4, tree)
    end,
    [7] = function(payload, tree) add_rest(fields.reason, payload, 0, tree) end,
    [8] = function(payload, tree) add_rest(fields.payload, payload, 0, tree) end,
    [9] = function(payload, tree) add_rest(fields.payload, payload, 0, tree) end,
}

local function length_of(buffer, _, offset)
    return buffer(offset, 4):uint() + 4
end

local function frame(buffer, info, tree)
    local branch = tree:add(qel, buffer())
    branch:add(fields.length, buffer(0, 4))
    if buffer:len() < header then
        branch:add_proto_expert_info(malformed, "A frame without a kind")
        return buffer:len()
    end
    branch:add(fields.kind, buffer(4, 1))
    local kind = buffer(4, 1):uint()
    local name = kinds[kind] or ("kind " .. kind)
    local payload = buffer:len() > header and buffer(header):tvb() or ByteArray.new():tvb("empty")
    local read = dissect[kind]
    local done, detail = true, nil
    if read then
        done, detail = pcall(read, payload, branch)
    end
    if not read or not done then
        branch:add_proto_expert_info(malformed, read and "The frame is cut short" or "An unknown kind of frame")
        detail = nil
    end
    branch:append_text(": " .. name .. (detail and (" " .. detail) or ""))
    info.cols.info:append((info.cols.info and ", " or "") .. name .. (detail and (" " .. detail) or ""))
    return buffer:len()
end

function qel.dissector(buffer, info, tree)
    info.cols.protocol = "QEL"
    info.cols.info:clear()
    dissect_tcp_pdus(buffer, tree, 4, length_of, frame)
    return buffer:len()
end

DissectorTable.get("tcp.port"):add_for_decode_as(qel)
DissectorTable.get("tls.port"):add_for_decode_as(qel)
