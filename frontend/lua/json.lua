-- JSON that comes from clients, strictly, and JSON that is put together from stored texts.
local cjson = require("cjson").new()

local maxDepth = 32

cjson.decode_max_depth(maxDepth)
cjson.decode_invalid_numbers(false)

local json = {}

-- The whole of a text that cjson accepts and that is JSON in UTF-8: cjson also accepts control
-- characters in strings, numbers such as "1." and "-.5", and anything behind a zero byte.
local strictText = [=[^(?:[][{}:, \t\r\n]++]=]
    .. [=[|"[^"\\\x00-\x1f]*+(?:\\.[^"\\\x00-\x1f]*+)*+"]=]
    .. [=[|-?(?:0|[1-9]\d*+)(?:\.\d++)?+(?:[eE][+-]?\d++)?+(?![\w.+-])]=]
    .. [=[|true|false|null)*+\z]=]

local function isStrict(text)
    return ngx.re.find(text, strictText, "jou") ~= nil
end

-- Returns the number of names of all objects in a value.
local function countNames(value)
    local count = 0
    if type(value) == "table" then
        for name, inner in pairs(value) do
            count = count + (type(name) == "string" and 1 or 0) + countNames(inner)
        end
    end
    return count
end

-- Tells whether an object of this valid JSON text, which stands for this value, names a property
-- twice: then there are more colons than names.
local function hasDuplicateNames(text, value)
    local structure = text:gsub("\\.", ""):gsub('"[^"]*"', "")
    local _, colons = structure:gsub(":", "")
    return colons ~= countNames(value)
end

-- Tells whether a text is UTF-8, which the parser does not look at.
function json.isUtf8(text)
    return not text:find("[\128-\255]") or ngx.re.find(text, "^", "jou") ~= nil
end

-- Returns the value of a JSON text; nil when it is not JSON, not UTF-8, nested too deeply, or
-- names a property twice, which programs read in different ways.
function json.decode(text)
    local valid, value = pcall(cjson.decode, text)
    if not valid or not isStrict(text) or hasDuplicateNames(text, value) then
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

-- The texts of names with their colons. When there are too many, they begin anew.
local beginnings = {}
local beginningCount = 0
local maxBeginnings = 1000

local function beginningOf(name)
    local text = beginnings[name]
    if not text then
        text = json.encode(name) .. ":"
        beginningCount = beginningCount < maxBeginnings and beginningCount + 1 or 1
        beginnings = beginningCount > 1 and beginnings or {}
        beginnings[name] = text
    end
    return text
end

-- Returns the text of an object from its members' texts, in the order of their names.
function json.object(members)
    local names = {}
    for name in pairs(members) do
        names[#names + 1] = name
    end
    table.sort(names)
    for i, name in ipairs(names) do
        names[i] = beginningOf(name) .. members[name]
    end
    return "{" .. table.concat(names, ",") .. "}"
end

-- Returns the text of an array from its elements' texts.
function json.array(elements)
    return "[" .. table.concat(elements, ",") .. "]"
end

return json
