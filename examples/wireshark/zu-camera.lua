-- A Wireshark dissector of the channel between a peer and a host, as docs/protocol.md describes it.
--
--     tshark -X lua_script:zu-camera.lua -r FILE -O zucamera
--
-- TCP port 61480 is taken for a channel; any other one with "Decode As" (-d tcp.port==N,zucamera).
--
-- Every byte may be hostile. A length is checked before anything is read, and what does not fit is reported as
-- the expert information zucamera.malformed. Work and tree items per message are bounded. A message whose
-- length is beyond kLongest ends the dissection of its segment, because a capture that begins inside a message
-- looks like that.

local kPort = 61480
local kHeader = 8
local kLongest = 64 * 1024 * 1024
local kRecord, kName = 1304, 516
local kMostCameras, kMostSizes = 64, 2047
local kMostShown = 1000 -- units of one frame, or controls of one answer
local kLongestText = 256

local channel = Proto("zucamera", "Camera channel")
local report = {
    malformed = ProtoExpert.new("zucamera.malformed", "Malformed message", expert.group.MALFORMED,
        expert.severity.ERROR),
    unknown = ProtoExpert.new("zucamera.unknown", "Unknown type: the receiver drops the message",
        expert.group.UNDECODED, expert.severity.WARN),
    note = ProtoExpert.new("zucamera.note", "Unusual message", expert.group.PROTOCOL, expert.severity.NOTE),
}
channel.experts = { report.malformed, report.unknown, report.note }

local types = {
    [1] = "Get camera list", [2] = "Camera list", [3] = "Open camera", [4] = "Close camera", [5] = "Camera state",
    [7] = "Encoded video frame", [8] = "Set property", [9] = "Set format", [10] = "Version request",
    [11] = "Version reply", [128] = "Host notice", [129] = "Get controls", [130] = "Camera controls",
    [131] = "Host information",
}
local states = { [1] = "failed", [2] = "open", [4] = "closed" }
local properties = {
    "brightness", "contrast", "saturation", "hue", "gamma", "sharpness", "backlight", "gain", "white-balance",
    "exposure", "focus", "zoom", "pan", "tilt",
}
local statuses = { [0] = "read", [1] = "the host cannot open the camera" }
local units = {
    [1] = "slice", [2] = "slice data partition A", [3] = "slice data partition B", [4] = "slice data partition C",
    [5] = "slice of a key frame", [6] = "supplemental information", [7] = "sequence parameter set",
    [8] = "picture parameter set", [9] = "access unit delimiter", [10] = "end of sequence", [11] = "end of stream",
    [12] = "filler data",
}

local field, is_signed = {}, {}
local function declare(kind, name, title, ...)
    field[name] = ProtoField[kind]("zucamera." .. name, title, ...)
    is_signed[name] = kind == "int32"
end
declare("uint32", "length", "Length of the body")
declare("uint8", "type", "Type", base.DEC, types)
declare("bytes", "reserved", "Reserved")
declare("bytes", "body", "Body")
declare("uint32", "camera", "Camera")
declare("int32", "width", "Width")
declare("int32", "height", "Height")
declare("int32", "fps", "Frames per second")
declare("uint32", "state", "State", base.DEC, states)
declare("uint32", "version", "Version")
declare("string", "text", "Text")
declare("int32", "property", "Property", base.DEC, properties)
declare("int32", "value", "Value")
declare("int32", "automatic", "Automatic")
declare("uint32", "count", "Number of cameras")
declare("none", "record", "Camera record")
declare("uint8", "in_use", "In use")
declare("string", "name", "Name")
declare("string", "display_name", "Display name")
declare("uint8", "sizes", "Number of sizes, modulo 256")
declare("string", "size", "Size")
declare("uint32", "frame_length", "Length of the picture")
declare("bytes", "picture", "Encoded picture")
declare("uint8", "unit", "NAL unit", base.DEC, units)
declare("uint32", "status", "Status", base.DEC, statuses)
declare("none", "control", "Control")
declare("int32", "minimum", "Minimum")
declare("int32", "maximum", "Maximum")
declare("int32", "step", "Step")
declare("int32", "default", "Default")
declare("uint32", "flags", "Flags", base.HEX)
declare("bool", "flags.has_automatic", "There is an automatic", 32, nil, 1)
declare("bool", "flags.is_automatic", "The automatic is on", 32, nil, 2)
declare("bool", "flags.read_only", "Read-only", 32, nil, 4)
for _, each in pairs(field) do
    table.insert(channel.fields, each)
end

-- The 32-bit number `at` bytes into the string, which the caller has checked to be long enough.
local function u32(bytes, at)
    local a, b, c, d = bytes:byte(at + 1, at + 4)
    return a + b * 0x100 + c * 0x10000 + d * 0x1000000
end

local function malformed(tree, text)
    tree:add_proto_expert_info(report.malformed, text)
end

-- Adds the numbers of which all 4 bytes are there, and returns their values.
local function add_numbers(tree, body, at, names)
    local values = {}
    for index, name in ipairs(names) do
        local begin = at + 4 * (index - 1)
        if begin + 4 <= #body.bytes then
            local range = body.range(begin, 4)
            tree:add_le(field[name], range)
            values[index] = is_signed[name] and range:le_int() or range:le_uint()
        end
    end
    return values
end

-- The body has exactly these numbers.
local function numbers(...)
    local names = { ... }
    return function(tree, body)
        if #body.bytes ~= 4 * #names then
            malformed(tree, string.format("the body has %d bytes, not %d", #body.bytes, 4 * #names))
        end
        local shown = {}
        for index, value in ipairs(add_numbers(tree, body, 0, names)) do
            local text = names[index] == "state" and states[value] or string.format("%d", value)
            shown[index] = names[index] .. " " .. text
        end
        return shown
    end
end

local function no_body(tree, body)
    if #body.bytes > 0 then
        tree:add(field.body, body.range(0, #body.bytes))
        tree:add_proto_expert_info(report.note, "the receiver ignores the body")
    end
    return {}
end

local function close_camera(tree, body)
    if #body.bytes ~= 4 then
        tree:add_proto_expert_info(report.note, #body.bytes < 4 and "missing bytes of the number count as 0" or
            "the receiver ignores the bytes after the number")
    end
    local camera = add_numbers(tree, body, 0, { "camera" })[1]
    return camera and { string.format("camera %d", camera) } or {}
end

local function text(tree, body)
    if #body.bytes > kLongestText then
        malformed(tree, string.format("a text of %d bytes, more than %d", #body.bytes, kLongestText))
    end
    if #body.bytes > 0 then
        tree:add_packet_field(field.text, body.range(0, math.min(#body.bytes, kLongestText)), ENC_UTF_8)
    end
    return {}
end

local function all_zero(bytes, at, size)
    return bytes:sub(at + 1, at + size) == string.rep("\0", size)
end

-- The number of sizes of each camera, such that the last record ends with the body; nil if there is none. A record
-- has that number modulo 256 only, so counts that are larger by 256, 512, ... are tried, depth first. No offset is
-- tried twice for a camera.
local function counts_of_sizes(bytes, cameras)
    local counts, tried = {}, {}
    local function search(camera, offset)
        if camera > cameras then
            return offset == #bytes
        end
        local key = camera * 0x10000000 + offset
        if #bytes - offset < kRecord or tried[key] then
            return false
        end
        tried[key] = true
        if bytes:byte(offset + 6) ~= 0 or not all_zero(bytes, offset + 522, 4) or
            not all_zero(bytes, offset + 1042, 258) or not all_zero(bytes, offset + 1301, 3) then
            return false
        end
        for count = bytes:byte(offset + 1301), kMostSizes, 256 do
            local after = offset + kRecord + 8 * count
            if after > #bytes then
                return false
            end
            counts[camera] = count
            if search(camera + 1, after) then
                return true
            end
        end
        return false
    end
    return search(1, 4) and counts or nil
end

local function add_name(tree, body, at, name)
    local size = (body.bytes:find("\0", at + 1, true) or at + kName + 1) - at - 1
    size = math.min(size, kName)
    if size > 0 then
        tree:add_packet_field(field[name], body.range(at, size), ENC_UTF_8)
    else
        tree:add(field[name], body.range(at, 1), "")
    end
end

local function camera_list(tree, body)
    local cameras = add_numbers(tree, body, 0, { "count" })[1]
    if not cameras then
        malformed(tree, "the number of cameras is missing")
        return {}
    elseif cameras > kMostCameras then
        malformed(tree, string.format("%d cameras, more than %d", cameras, kMostCameras))
        return {}
    end
    local counts = counts_of_sizes(body.bytes, cameras)
    if not counts then
        malformed(tree, "records and sizes do not fill the body")
        return {}
    end
    local at = 4
    for _, count in ipairs(counts) do
        local record = tree:add(field.record, body.range(at, kRecord + 8 * count))
        add_numbers(record, body, at, { "camera" })
        record:add(field.in_use, body.range(at + 4, 1))
        add_name(record, body, at + 6, "name")
        add_name(record, body, at + 526, "display_name")
        record:add(field.sizes, body.range(at + 1300, 1))
        record:append_text(string.format(": %d, %d sizes", u32(body.bytes, at), count))
        for index = 0, count - 1 do
            local pair = at + kRecord + 8 * index
            record:add(field.size, body.range(pair, 8),
                string.format("%dx%d", u32(body.bytes, pair), u32(body.bytes, pair + 4)))
        end
        at = at + kRecord + 8 * count
    end
    return { string.format("%d cameras", cameras) }
end

-- The NAL units of a picture in Annex B form. Returns whether it is a key frame.
local function add_units(tree, body)
    local key, shown = false, 0
    local at = body.bytes:find("\0\0\1", 9, true)
    while at and at + 3 <= #body.bytes do
        if shown == kMostShown then
            tree:add_proto_expert_info(report.note, "further units are not shown")
            break
        end
        local after = body.bytes:find("\0\0\1", at + 3, true)
        local unit = body.bytes:byte(at + 3) % 32
        tree:add(field.unit, body.range(at + 2, (after or #body.bytes + 1) - at - 3), unit)
        key = key or unit == 5
        shown = shown + 1
        at = after
    end
    return key
end

local function frame(tree, body)
    local values = add_numbers(tree, body, 0, { "camera", "frame_length" })
    local camera, length = values[1], values[2]
    if not length then
        malformed(tree, string.format("the body has %d bytes, fewer than 8", #body.bytes))
        return {}
    end
    if length ~= #body.bytes - 8 then
        malformed(tree, string.format("a picture of %d bytes in a body of %d", length, #body.bytes))
    end
    local key = false
    if #body.bytes > 8 then
        key = add_units(tree:add(field.picture, body.range(8, #body.bytes - 8)), body)
    end
    return { string.format("camera %d, %d bytes%s", camera, length, key and ", key frame" or "") }
end

local function controls(tree, body)
    local values = add_numbers(tree, body, 0, { "camera", "status" })
    if #values < 2 or (#body.bytes - 8) % 28 ~= 0 then
        malformed(tree, string.format("the body has %d bytes, not 8 and 28 for each control", #body.bytes))
    end
    local count = math.max(0, math.floor((#body.bytes - 8) / 28))
    for index = 0, math.min(count, kMostShown) - 1 do
        local at = 8 + 28 * index
        local control = tree:add(field.control, body.range(at, 28))
        local property = add_numbers(control, body, at,
            { "property", "value", "minimum", "maximum", "step", "default" })[1]
        local flags = control:add_le(field.flags, body.range(at + 24, 4))
        for _, name in ipairs({ "has_automatic", "is_automatic", "read_only" }) do
            flags:add_le(field["flags." .. name], body.range(at + 24, 4))
        end
        control:append_text(": " .. (properties[property] or string.format("%d", property)))
    end
    if count > kMostShown then
        tree:add_proto_expert_info(report.note, "further controls are not shown")
    end
    return { string.format("%d controls", count) }
end

-- By type: adds the body to the tree and returns what the summary line shows of it.
local bodies = {
    [1] = no_body, [2] = camera_list, [3] = numbers("camera", "width", "height", "fps"), [4] = close_camera,
    [5] = numbers("state", "camera"), [7] = frame, [8] = numbers("camera", "property", "value", "automatic"),
    [9] = numbers("camera", "width", "height", "fps"), [10] = no_body, [11] = numbers("version"), [128] = text,
    [129] = numbers("camera"), [130] = controls, [131] = text,
}

-- Adds the message of `size` bytes at `offset`, all of which are there. Returns its summary.
local function dissect_message(tvb, offset, size, tree)
    local kind = tvb(offset + 4, 1):uint()
    local name = types[kind] or string.format("Unknown type %d", kind)
    local item = tree:add(channel, tvb(offset, size), "Camera channel: " .. name)
    item:add_le(field.length, tvb(offset, 4))
    local type_item = item:add(field.type, tvb(offset + 4, 1))
    item:add(field.reserved, tvb(offset + 5, 3))
    local body = { bytes = "" }
    if size > kHeader then
        -- A range outside the body is an error, also where the next message has such bytes.
        body.range = tvb(offset + kHeader, size - kHeader):tvb()
        body.bytes = tvb:raw(offset + kHeader, size - kHeader)
    end
    if not bodies[kind] then
        type_item:add_proto_expert_info(report.unknown)
        if #body.bytes > 0 then
            item:add(field.body, body.range(0, #body.bytes))
        end
        return name
    end
    local shown = bodies[kind](item, body)
    return #shown > 0 and name .. " (" .. table.concat(shown, ", ") .. ")" or name
end

-- Reports bytes that are no whole message, and that no later segment will complete.
local function dissect_rest(tvb, offset, tree, text_of_fault)
    local item = tree:add(channel, tvb(offset), "Camera channel: malformed")
    if tvb:len() - offset >= kHeader then
        item:add_le(field.length, tvb(offset, 4))
        item:add(field.type, tvb(offset + 4, 1))
    end
    malformed(item, text_of_fault)
end

function channel.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "zucamera"
    local summaries = {}
    local offset, available = 0, tvb:len()
    -- A packet of which the capture has only the beginning cannot be completed by the next one.
    local whole = available == tvb:reported_len()
    while offset < available do
        local rest = available - offset
        local size = rest >= kHeader and kHeader + tvb(offset, 4):le_uint() or kHeader
        if size > kHeader + kLongest then
            dissect_rest(tvb, offset, tree, string.format("a length of %d bytes: malformed, or the capture " ..
                "begins inside a message", size - kHeader))
            table.insert(summaries, "Malformed")
            break
        elseif size > rest or rest < kHeader then
            if whole and pinfo.can_desegment > 0 then
                pinfo.desegment_offset = offset
                pinfo.desegment_len = size - rest
            else
                dissect_rest(tvb, offset, tree, string.format("the capture has %d of at least %d bytes", rest, size))
                table.insert(summaries, "Malformed")
            end
            break
        end
        table.insert(summaries, dissect_message(tvb, offset, size, tree))
        offset = offset + size
        if offset == available and not whole then
            malformed(tree, string.format("the capture lacks the last %d bytes", tvb:reported_len() - available))
        end
    end
    if #summaries > 0 then
        pinfo.cols.info = table.concat(summaries, "; ", 1, math.min(#summaries, 20))
    end
    return available
end

DissectorTable.get("tcp.port"):add(kPort, channel)
