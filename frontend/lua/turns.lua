-- The session service checks one password at a time, and a wrong one takes seconds. So an address
-- has few logins under way; its others wait here and do not delay those of other addresses.
local semaphore = require "ngx.semaphore"
local settings = require "settings"

local turns = {}

-- For each address that has or awaits a turn: a semaphore, and how many have or await one.
local lines = {}

local function leave(address, line)
    line.users = line.users - 1
    if line.users == 0 then
        lines[address] = nil
    end
end

-- Waits for a turn of the address. Tells whether it came within so many seconds.
function turns.take(address, seconds)
    local line = lines[address]
    if not line then
        line = { free = semaphore.new(settings.maxLoginsOfAddress), users = 0 }
        lines[address] = line
    end
    line.users = line.users + 1
    if line.free:wait(seconds) then
        return true
    end
    leave(address, line)
    return false
end

-- Ends a turn that was taken.
function turns.give(address)
    local line = lines[address]
    line.free:post(1)
    leave(address, line)
end

return turns
