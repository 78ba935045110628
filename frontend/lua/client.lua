-- The client at the other end of the current request's connection.
local ffi = require "ffi"
local contract = require "contract"
local request = require "resty.core.base".get_request

local client = {}

-- The first members of nginx's own structures, which have not changed in its lifetime. nginx tells
-- nothing of a client that says good-bye in TLS before it closes: it takes that for more data.
ffi.cdef [[
struct frontend_connection { void *data; void *read; void *write; int descriptor; };
struct frontend_request { uint32_t signature; struct frontend_connection *connection; };
struct frontend_poll { int descriptor; short events; short happened; };
int poll(struct frontend_poll *descriptors, unsigned long count, int milliseconds);
]]
local requestPointer = ffi.typeof("struct frontend_request *")
local pollEntry = ffi.typeof("struct frontend_poll")
local signature = 0x50545448  -- "HTTP"
local hasClosed = 0x2000      -- POLLRDHUP; errors and hang-ups are told unasked

-- Returns a function that tells, while the current request is being handled, whether its client has
-- closed the connection.
function client.watch()
    local handled = ffi.cast(requestPointer, request())
    assert(handled.signature == signature, "nginx has another layout of its requests")
    local descriptor = handled.connection.descriptor
    return function()
        local polled = pollEntry(descriptor, hasClosed, 0)
        return ffi.C.poll(polled, 1, 0) == 1
    end
end

-- Returns the origin of the page that asks, an empty text when there is none.
function client.origin()
    local origin = ngx.var.http_origin or ""
    return origin ~= contract.temporaryOrigin and origin or ""
end

local mappedPrefix = ("\0"):rep(10) .. "\255\255"

-- Returns where the client is, as far as one client cannot choose: its IPv4 address, or the /64 of
-- its IPv6 address.
function client.network()
    local address = ngx.var.binary_remote_addr
    if #address == 16 and address:sub(1, 12) == mappedPrefix then
        return address:sub(13)
    end
    return address:sub(1, 8)
end

return client
