-- One HTTP request: from its line to its answer.
local answers = require "answers"
local authentication = require "authentication"
local background = require "background"
local contract = require "contract"
local files = require "files"
local json = require "json"
local log = require "log"
local messages = require "messages"
local negotiation = require "negotiation"
local privileges = require "privileges"
local queue = require "login_queue"
local requests = require "requests"
local resources = require "resources"
local service = require "service"
local sessions = require "sessions"
local store = require "store"
local temporary = require "temporary_sessions"

local main = {}

local metadataFile = "/usr/local/share/nginx/metadata.xml"

local function refuse(status, id, ...)
    error(messages.problem(status, { messages.new(id, ...) }))
end

local function refuseMethod(allow)
    error(messages.problem(405, { messages.new("ExtendedError.1.2.MethodNotAllowed") },
        { Allow = allow }))
end

local methods = {
    DELETE = true, GET = true, HEAD = true, OPTIONS = true, PATCH = true, POST = true, PUT = true,
}

-- Refuses what is refused at every address.
local function checkRequest(method)
    if not methods[method] then
        refuse(501, "ExtendedError.1.2.MethodNotImplemented")
    end
    local version = ngx.var.http_odata_version
    if version and version ~= "4.0" then
        refuse(412, "ExtendedError.1.2.VersionNotSupported")
    end
    -- All of them: without the 0 the hundredth is the last.
    for name in pairs(ngx.var.args and ngx.req.get_uri_args(0) or {}) do
        if name:sub(1, 1) == "$" then
            refuse(501, "Base.1.12.QueryNotSupported")
        end
    end
end

local function checkAccept(mediaType)
    local given = ngx.var.http_accept
    if not given or given == "*/*" then
        return
    end
    given = ngx.req.get_headers(0).accept
    local accept = type(given) == "table" and table.concat(given, ",") or given
    if not negotiation.accepts(accept, mediaType) then
        refuse(406, "ExtendedError.1.2.MediaTypeNotSupported")
    end
end

-- Returns the bytes of the request's body.
local function bodyText()
    local text = ngx.req.get_body_data()
    local file = not text and ngx.req.get_body_file()
    return text or file and files.read(file) or ""
end

-- Returns the JSON object that is the request's body, which has been received.
local function readBody()
    local mediaType = (ngx.var.http_content_type or ""):match("^%s*([^;%s]*)"):lower()
    if mediaType ~= "application/json" then
        refuse(415, "ExtendedError.1.2.MediaTypeNotSupported")
    end
    local text = bodyText()
    local body = text:find("^%s*{") and json.decode(text)
    if not body then
        refuse(400, "Base.1.12.MalformedJSON")
    end
    return body
end

local function checkPrecondition(resource)
    local wanted = ngx.var.http_if_match
    if wanted and not negotiation.listsEtag(wanted, resource, true) then
        refuse(412, "Base.1.12.PreconditionFailed")
    end
end

-- Answers a GET of a resource that has been read.
local function answerGet(resource)
    local headers = {
        Allow = resource.allowText,
        ETag = resource.etagHeader,
    }
    local known = ngx.var.http_if_none_match
    if known and negotiation.listsEtag(known, resource, false) then
        return { status = 304, headers = headers }
    end
    return {
        status = 200,
        headers = headers,
        type = resource.type,
        body = resources.text(resource),
    }
end

local function versions()
    return { status = 200, body = json.object({ v1 = json.encode(contract.root .. "/") }) }
end

-- The OData service document: what the service root links to.
local function serviceDocument()
    local entries = {}
    local function add(name, uri)
        entries[#entries + 1] = json.object({
            name = json.encode(name),
            kind = json.encode("Singleton"),
            url = json.encode(uri),
        })
    end
    add("Service", contract.root .. "/")
    local root = resources.read(contract.root)
    for field in pairs(root and root.fields or {}) do
        local name, uri = field:match("^" .. contract.kind.uri .. " ([^ ]+) ([^ ]+)$")
        if name then
            add(name, uri)
        end
    end
    table.sort(entries)
    return {
        status = 200,
        body = json.object({
            ["@odata.context"] = json.encode(contract.root .. "/$metadata"),
            value = json.array(entries),
        }),
    }
end

local function metadata()
    checkAccept("application/xml")
    local text = assert(files.read(metadataFile), "the metadata file cannot be read")
    return { status = 200, headers = { ["Content-Type"] = "application/xml" }, body = text }
end

-- What can be read without a session, by its path without a slash at the end.
local public = {
    ["/redfish"] = versions,
    [contract.root] = function()
        local root = resources.read(contract.root)
        if not root then
            error(messages.unavailable())
        end
        return answerGet(root)
    end,
    [contract.root .. "/odata"] = serviceDocument,
    [contract.root .. "/$metadata"] = metadata,
}

-- A user whose password has expired can read the own account, change the password there, and log
-- out, and nothing else.
local function checkPasswordChange(user, method, uri)
    if not user.mustChangePassword or method == "DELETE" and uri == user.session then
        return
    end
    local account = resources.accountOf(user.name)
    if uri ~= account or method ~= "PATCH" and method ~= "GET" then
        refuse(403, contract.message.passwordChangeRequired, account)
    end
end

-- Returns the resource at an address after all checks that precede any method.
local function checkedResource(user, method, uri)
    checkPasswordChange(user, method, uri)
    local resource = user.resource
    if not resource then
        refuse(404, "Base.1.12.ResourceMissingAtURI", uri)
    end
    if not resource.allow[method] then
        refuseMethod(resource.allowText)
    end
    privileges.check(user, method, resource)
    -- The answer to a DELETE has no body.
    if method ~= "DELETE" then
        checkAccept("application/json")
    end
    checkPrecondition(resource)
    return resource
end

-- Carries out the user's request on a resource and returns the answer.
local function serve(user, method, uri)
    local resource = checkedResource(user, method, uri)
    local answer
    if method == "GET" then
        answer = answerGet(resource)
    elseif method == "DELETE" and uri:find(contract.memberPattern(contract.sessions)) then
        sessions.remove(uri)
        answer = { status = 204 }
    elseif method == "PATCH" and uri == contract.service then
        answer = service.patch(readBody(), resource)
    end
    if not answer then
        -- The resource belongs to a service that this front end does not know.
        refuse(501, "ExtendedError.1.2.MethodNotImplemented")
    end
    return answer
end

local function handle()
    local method = ngx.req.get_method()
    checkRequest(method)
    method = method == "HEAD" and "GET" or method
    local uri = ngx.var.uri:gsub("(.)/$", "%1")
    if not json.isUtf8(uri) then
        -- An answer that names it would not be UTF-8 either.
        refuse(400, "ExtendedError.1.2.MalformedRequest")
    end

    if public[uri] then
        if method ~= "GET" then
            refuseMethod("GET,HEAD")
        end
        if uri ~= contract.root .. "/$metadata" then
            checkAccept("application/json")
        end
        return public[uri]()
    end
    -- nginx ends the request in here when the body is too large or too slow: before anything has
    -- been started that would have to be undone.
    ngx.req.read_body()
    if method == "POST"
        and (uri == contract.sessions or uri == contract.sessions .. "/Members") then
        checkAccept("application/json")
        return sessions.create(readBody())
    end

    local user = authentication.identify(uri, method)
    local succeeded, answer = pcall(serve, user, method, uri)
    authentication.release(user)
    if not succeeded then
        error(answer, 0)
    end
    return answer
end

-- Returns the schema's address for a type such as "#Session.v1_3_0.Session".
local function schemaOf(type)
    local name = type and type:match("^#(.+)%.[^.]+$")
    return name and "http://redfish.dmtf.org/schemas/v1/" .. name .. ".json"
end

-- They have been looked at; nginx would apply them once more to the answer.
local conditions = {
    "If-Match", "If-None-Match", "If-Modified-Since", "If-Unmodified-Since",
}

local function send(answer)
    for _, condition in ipairs(conditions) do
        ngx.req.clear_header(condition)
    end
    ngx.status = answer.status
    ngx.header["OData-Version"] = "4.0"
    ngx.header["Cache-Control"] = "no-store"
    local schema = schemaOf(answer.type)
    if schema then
        ngx.header["Link"] = "<" .. schema .. ">; rel=describedby"
    end
    for name, value in pairs(answer.headers or {}) do
        ngx.header[name] = value
    end
    if answer.body then
        ngx.header["Content-Length"] = #answer.body
        ngx.print(answer.body)
    else
        ngx.header["Content-Type"] = nil
    end
end

local function answerOf(problem)
    if type(problem) == "table" and problem.status then
        return {
            status = problem.status,
            headers = problem.headers,
            body = messages.errorBody(problem.messages),
        }
    end
    if store.hasFailed(problem) then
        log.warn("the store: " .. tostring(problem.text))
        return answerOf(messages.unavailable())
    end
    -- A fault of the front end's own.
    log.error(tostring(problem))
    return answerOf(messages.problem(500, { messages.new("Base.1.12.InternalError") }))
end

-- Prepares a worker for its requests.
function main.start()
    ngx.timer.every(1, function(premature)
        background.look()
        log.write(premature)
    end)
    answers.start({
        takeUnexpected = requests.takeUnexpected,
        hasten = function()
            temporary.endAll()
            background.look()
        end,
        isBusy = function()
            return temporary.exist() or queue.isBusy() or requests.areEnding()
        end,
    })
end

-- Answers the current request.
function main.answer()
    local succeeded, result = pcall(handle)
    send(succeeded and result or answerOf(result))
end

-- The messages of nginx's own refusals, by their status.
local refusals = {
    [405] = { "ExtendedError.1.2.MethodNotAllowed" },
    [408] = { "ExtendedError.1.2.MalformedRequest" },
    [413] = { "ExtendedError.1.2.RequestTooLarge" },
    [414] = { "ExtendedError.1.2.RequestTooLarge" },
    [500] = { "Base.1.12.InternalError" },
    [501] = { "ExtendedError.1.2.MethodNotImplemented" },
    [503] = { contract.message.serviceTemporarilyUnavailable, "1" },
}

-- Answers a request that nginx itself refuses: malformed, too large, too slow, one too many, a
-- method that it does not know, or a change of the page's files.
function main.refuse()
    if not ngx.req.is_internal() then
        -- A client has asked for this address.
        return main.answer()
    end
    local status = ngx.status
    if status == 405 and not methods[ngx.var.request:match("^%S*")] then
        status = 501
    end
    log.warn("refused by the web server with status " .. status)
    local message = refusals[status] or { "ExtendedError.1.2.MalformedRequest" }
    local headers = {
        ["Allow"] = status == 405 and "GET,HEAD" or nil,
        ["Retry-After"] = message[2],
    }
    local problem = messages.problem(status, { messages.new(unpack(message)) }, headers)
    send(answerOf(problem))
end

return main
