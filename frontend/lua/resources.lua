-- Resources as they are stored, and their JSON.
local contract = require "contract"
local json = require "json"
local store = require "store"

local resources = {}

local maxDepth = 32

-- Argument: a resource. Collects it and all that it is made of, in one moment. Temporary sessions
-- are left out of their collection.
local collectScript = store.script([[
local maxCollected = 1024
local tree = {hashes = {}, lists = {}}
local pending = {{$kind.object, ARGV[1]}}

local function collectHash(key)
    local fields = run('HGETALL', key) or {}
    tree.hashes[key] = fields
    for i = 1, #fields, 2 do
        local kind, source = string.match(fields[i], '^(&&%a+) [^ ]+ ([^ ]+)$')
        pending[#pending + 1] = kind and {kind, source}
    end
end

local function isHidden(key, uri)
    return key == $sessionMembers and uri
        and run('HGET', uri, $session.origin) == $temporaryOrigin
end

local function collectList(key)
    local elements = {}
    tree.lists[key] = elements
    for _, element in ipairs(run('LRANGE', key, 0, -1) or {}) do
        local kind, source = string.match(element, '^(&&%a+) ([^ ]+)$')
        if not isHidden(key, source) then
            -- The service puts the latest session first. Clients that end all in order come to
            -- their own last.
            table.insert(elements, key == $sessionMembers and 1 or #elements + 1, element)
            pending[#pending + 1] = kind and {kind, source}
        end
    end
end

for _ = 1, maxCollected do
    local next = table.remove(pending)
    if not next then
        break
    end
    local kind, key = next[1], next[2]
    if kind == $kind.object and not tree.hashes[key] then
        collectHash(key)
    elseif kind == $kind.array and not tree.lists[key] then
        collectList(key)
    end
end
return cjson.encode(tree)
]])

local function fieldsOf(tree, key)
    local reply = tree.hashes[key]
    if not reply or #reply == 0 then
        return nil
    end
    local fields = {}
    for i = 1, #reply, 2 do
        fields[reply[i]] = reply[i + 1]
    end
    return fields
end

local function reference(uri)
    return json.object({ [contract.resource.uri] = json.encode(uri) })
end

local convertHash, convertList

-- Returns the JSON text that a reference leads to, nil when there is none; of a list also how many
-- elements it has.
local function convert(tree, kind, source, depth)
    if depth > maxDepth then
        error("a resource is nested too deeply")
    elseif kind == contract.kind.uri then
        return reference(source)
    elseif kind == contract.kind.array then
        return convertList(tree, source, depth)
    elseif kind == contract.kind.object then
        local fields = fieldsOf(tree, source)
        return fields and convertHash(tree, fields, depth)
    end
    return nil
end

local function value(text)
    return json.isValid(text) and text or json.encode(text)
end

-- Returns the string that a JSON text is, nil when it is none.
local function stringOf(text)
    local string = text and (text:match('^"([^"\\%c\128-\255]*)"$') or json.decode(text))
    return type(string) == "string" and string or nil
end

-- Returns what a stored entity tag says, and the tag as a header has it; nil when there is none.
-- Some services store it as a header has it.
local function etagOf(text)
    local etag = stringOf(text)
    if not etag then
        return nil
    end
    local opaque = etag:match('^"([^"%c]*)"$') or etag:match('^W/"([^"%c]*)"$')
    return opaque or etag, opaque and etag or json.encode(etag)
end

-- Returns the members' texts by their names.
local function convertFields(tree, fields, depth)
    local members = {}
    local counts = {}
    for name, text in pairs(fields) do
        if name == contract.resource.etag then
            local _, header = etagOf(text)
            members[name] = header and json.encode(header)
        elseif not contract.isInternal(name) then
            members[name] = value(text)
        else
            local kind, property, source = name:match("^(&&%a+) ([^ ]+) ([^ ]+)$")
            if kind and fields[property] == nil then
                local number
                members[property], number = convert(tree, kind, source, depth + 1)
                counts[contract.countOf(property)] = number
            end
        end
    end
    for name, count in pairs(counts) do
        -- What is counted is what is shown.
        members[name] = members[name] and json.encode(count)
    end
    return members
end

function convertHash(tree, fields, depth)
    return json.object(convertFields(tree, fields, depth))
end

function convertList(tree, key, depth)
    local elements = {}
    for _, element in ipairs(tree.lists[key] or {}) do
        local kind, source = element:match("^(&&%a+) ([^ ]+)$")
        local text
        if kind == contract.kind.array or kind == contract.kind.object
            or kind == contract.kind.uri then
            text = convert(tree, kind, source, depth + 1)
        else
            text = value(element)
        end
        elements[#elements + 1] = text
    end
    return json.array(elements), #elements
end

-- Addresses of resources that consist of more than one hash. A list that is too long begins anew.
local composed = {}
local composedCount = 0
local maxComposed = 1000

local function isComposed(fields)
    for i = 1, #fields, 2 do
        local kind = fields[i]:match("^(&&%a+) [^ ]+ [^ ]+$")
        if kind == contract.kind.array or kind == contract.kind.object then
            return true
        end
    end
    return false
end

local function collect(uri)
    return store.runScript(collectScript, 0, uri)
end

-- Returns the tree of a resource from its hash alone, when it consists of no more.
local function treeOf(fields, uri)
    if not isComposed(fields) then
        return { hashes = { [uri] = fields }, lists = {} }
    end
    if not composed[uri] then
        composedCount = composedCount < maxComposed and composedCount + 1 or 1
        composed = composedCount > 1 and composed or {}
        composed[uri] = true
    end
    return collect(uri)
end

-- Returns the command that reads a resource. Most are one hash.
local function readCommand(uri)
    return composed[uri] and store.call(collectScript, 0, uri) or { "HGETALL", uri }
end

-- Returns the resource at an address, nil when there is none, from the reply to that command or
-- from the fields and values of its hash:
--   uri, tree, fields (as stored), type, etag (without quotes; as a header has it in etagHeader),
--   allow (a set of methods; a list in allowText)
function resources.from(reply, uri)
    local tree = type(reply) == "string" and store.decode(reply) or treeOf(reply or {}, uri)
    local fields = fieldsOf(tree, uri)
    if not fields or stringOf(fields[contract.resource.uri]) ~= uri then
        return nil
    end
    local resource = {
        uri = uri,
        tree = tree,
        fields = fields,
        type = stringOf(fields[contract.resource.type]),
        allowText = fields[contract.resource.methods] or "GET,HEAD",
        allow = {},
    }
    resource.etag, resource.etagHeader = etagOf(fields[contract.resource.etag])
    for method in resource.allowText:gmatch("%a+") do
        resource.allow[method] = true
    end
    return resource
end

-- What decides about a request, of all fields of a resource.
local decisive = {
    contract.resource.uri, contract.resource.etag, contract.resource.methods,
    contract.resource.owner,
}

local function fromDecisive(reply, uri)
    local fields = {}
    for i, name in ipairs(decisive) do
        if reply and reply[i] then
            fields[#fields + 1] = name
            fields[#fields + 1] = reply[i]
        end
    end
    return resources.from(fields, uri)
end

-- Returns the command that reads a resource for a request with this method, and the function that
-- makes the resource of the reply and the address. To remove one, no more of it is read than
-- decides about that.
function resources.reading(uri, method)
    if method == "DELETE" then
        return { "HMGET", uri, unpack(decisive) }, fromDecisive
    end
    return readCommand(uri), resources.from
end

-- Reads the resource at an address, nil when there is none.
function resources.read(uri)
    local command = readCommand(uri)
    local reply = store.with(function(connection)
        return store.runAll(connection, { command })[1]
    end)
    return resources.from(reply, uri)
end

-- Returns the JSON text of a resource; `annotations` are further members, or nil.
function resources.text(resource, annotations)
    local members = convertFields(resource.tree, resource.fields, 0)
    for name, text in pairs(annotations or {}) do
        members[name] = text
    end
    return json.object(members)
end

local accountScript = store.script([[
for _, element in ipairs(run('LRANGE', ARGV[1], 0, -1) or {}) do
    local kind, uri = string.match(element, '^(&&%a+) (.+)$')
    if kind == $kind.uri and run('HGET', uri, $resource.owner) == ARGV[2] then
        return cjson.encode(uri)
    end
end
return false
]])

-- Returns the address of the account of a user, an empty text when there is none.
function resources.accountOf(user)
    return store.runScript(accountScript, 0, contract.accountMembers, user) or ""
end

return resources
