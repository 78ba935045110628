-- The front end's own lines in the error log. nginx adds to what it logs for a request the client's
-- own words as they came, and its modules log each refusal: so no request logs anything, and what
-- is to be known is written here, by a timer that has no request. What happens often is counted.
local log = {}

-- Seconds between two lines of one text.
local repeatInterval = 60

-- Texts that are remembered at a time; no more than this many are written in repeatInterval.
local maxTexts = 64

-- By text: its level, how often it has not been written yet, when it may be written again.
local entries = {}
local count = 0

-- Returns a text in which nothing steers a terminal or begins another line.
local function escaped(text)
    return (text:gsub("[^\32-\126]", function(character)
        return string.format("\\x%02X", character:byte())
    end))
end

local function add(level, text)
    text = escaped(text)
    local entry = entries[text]
    if not entry then
        if count >= maxTexts then
            return
        end
        count = count + 1
        entry = { level = level, pending = 0, nextTime = 0 }
        entries[text] = entry
    end
    entry.pending = entry.pending + 1
end

function log.warn(text)
    add(ngx.WARN, text)
end

function log.error(text)
    add(ngx.ERR, text)
end

-- Writes what there is, or, at the end of a worker, all that has not been written. To be called
-- every second, without a request.
function log.write(isEnd)
    local now = ngx.now()
    for text, entry in pairs(entries) do
        if isEnd or now >= entry.nextTime then
            if entry.pending == 0 then
                entries[text] = nil
                count = count - 1
            else
                local times = entry.pending > 1 and " (" .. entry.pending .. " times)" or ""
                ngx.log(entry.level, text, times)
                entry.pending = 0
                entry.nextTime = now + repeatInterval
            end
        end
    end
end

return log
