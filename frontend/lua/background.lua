-- What goes on without a request that waits for it.
--
-- nginx runs a timer only while it has a connection to spare, and forgets the timer otherwise. A
-- crowd of connections must not make it forget a turn in the queue, or a session, for ever: what
-- has not begun in time is started again. Only a timer that repeats can look after that.
local background = {}

-- What has not begun, with the looks that are left until its timer counts as forgotten.
local looksLeft = {}

local begin

-- One at a time, as long as nothing begins: nginx logs each timer that it forgets.
local function startForgotten()
    for job, looks in pairs(looksLeft) do
        if looks == 0 then
            ngx.timer.at(0, begin, job)
            return
        end
    end
end

function begin(_, job)
    local looks = looksLeft[job]
    if not looks then
        return
    end
    looksLeft[job] = nil
    if looks == 0 then
        startForgotten()
    end
    job.action(unpack(job.arguments))
end

-- Calls an action with these arguments after so many seconds, or somewhat later; at once when the
-- worker is about to end.
function background.run(seconds, action, ...)
    local job = { action = action, arguments = { ... } }
    looksLeft[job] = math.ceil(seconds) + 1
    ngx.timer.at(seconds, begin, job)
end

-- Looks for what has been forgotten. To be called every second.
function background.look()
    for job, looks in pairs(looksLeft) do
        looksLeft[job] = math.max(looks - 1, 0)
    end
    startForgotten()
end

return background
