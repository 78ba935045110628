-- JSON that comes from clients, strictly, and JSON that is put together from stored texts.
local cjson = require("cjson").new()

local maxDepth = 32

cjson.decode_max_depth(maxDepth)
cjson.decode_invalid_numbers(false)

local json = {}

-- Tells whether a text that cjson accepts is JSON: it also accepts control characters in strings,
-- and numbers such as "1." and "-.5".
local function isStrict(text)
    local strict = true
    local rest = text:gsub("\\.", ""):gsub('"([^"]*)"', function(characters)
        strict = strict and not characters:find("[%z\1-\31]")
        return ""
    end)
    for number in rest:gmatch("[%d.+-][%w.+-]*") do
        local tail = number:match("^%-?%d+(.*)$")
        tail = tail and tail:match("^%.%d+(.*)$") or tail
        strict = strict and tail and (tail == "" or tail:find("^[eE][+-]?%d+$"))
    end
    return strict
end

-- Tells whether an object of this valid JSON text names a property twice.
local function hasDuplicateNames(text)
    local names = {}
    local depth = 0
    local at = 1
    while true do
        local start = text:find('["{}]', at)
        if not start then
            return false
        end
        local found = text:sub(start, start)
        at = start + 1
        if found == "{" then
            depth = depth + 1
            names[depth] = {}
        elseif found == "}" then
            depth = depth - 1
        else
            repeat
                at = text:find('["\\]', at)
                local escape = text:sub(at, at) == "\\"
                at = at + (escape and 2 or 1)
            until not escape
            if text:find("^[ \t\r\n]*:", at) then
                local name = cjson.decode("[" .. text:sub(start, at - 1) .. "]")[1]
                if names[depth][name] then
                    return true
                end
                names[depth][name] = true
            end
        end
    end
end

-- Tells whether a text is UTF-8, which the parser does not look at.
function json.isUtf8(text)
    return not text:find("[\128-\255]") or ngx.re.find(text, "^", "jou") ~= nil
end

-- Returns the value of a JSON text; nil when it is not JSON, not UTF-8, nested too deeply, or
-- names a property twice, which programs read in different ways.
function json.decode(text)
    local valid, value = pcall(cjson.decode, text)
    if not valid or not json.isUtf8(text) or not isStrict(text) or hasDuplicateNames(text) then
        return nil
    end
    return value
end

-- Tells whether a text is JSON as it stands.
function json.isValid(text)
    if text:find('^"[^"\\%c]*"$') or text == "null" then
        -- By far the most frequent values.
        return true
    end
    local valid, values = pcall(cjson.decode, "[" .. text .. "]")
    return valid and #values == 1 and isStrict(text)
end

-- Returns the JSON text of a string, number, boolean or null.
function json.encode(value)
    if type(value) == "number" then
        return string.format("%.14g", value)
    elseif type(value) == "string" and not value:find('["\\%c\127]') then
        return '"' .. value .. '"'
    end
    -- The escaped "/" of cjson is allowed but hard to read.
    return (cjson.encode(value):gsub("\\/", "/"))
end

-- Returns the JSON text of a string, in ASCII and without control characters. What is not UTF-8 is
-- replaced.
function json.encodeAscii(text)
    if not json.isUtf8(text) then
        text = text:gsub("[\128-\255]", "\239\191\189")
    end
    return (json.encode(text):gsub("[\194-\244][\128-\191]+", function(character)
        local code = character:byte()
        -- The first byte's own bits: 5, 4 or 3 of them.
        code = code < 224 and code - 192 or code < 240 and code - 224 or code - 240
        for i = 2, #character do
            code = code * 64 + character:byte(i) - 128
        end
        if code < 0x10000 then
            return string.format("\\u%04x", code)
        end
        code = code - 0x10000
        return string.format("\\u%04x\\u%04x", 0xd800 + math.floor(code / 1024),
            0xdc00 + code % 1024)
    end))
end

-- Returns the text of an object from its members' texts, in the order of their names.
function json.object(members)
    local names = {}
    for name in pairs(members) do
        names[#names + 1] = name
    end
    table.sort(names)
    for i, name in ipairs(names) do
        names[i] = json.encode(name) .. ":" .. members[name]
    end
    return "{" .. table.concat(names, ",") .. "}"
end

-- Returns the text of an array from its elements' texts.
function json.array(elements)
    return "[" .. table.concat(elements, ",") .. "]"
end

return json
