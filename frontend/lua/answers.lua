-- The answers of the session service. Each worker has one subscription, which stays open and takes
-- them all.
local rand = require "openssl.rand"
local semaphore = require "ngx.semaphore"
local background = require "background"
local hex = require "hex"
local messages = require "messages"
local settings = require "settings"
local store = require "store"

local answers = {}

-- The subscription has nothing to do while nothing comes. It is woken up when the worker is about
-- to end, but does not depend on that.
local idleMilliseconds = 60000
-- How often it looks then whether the worker may end.
local endMilliseconds = 100

-- Seconds between tries to subscribe: the first pause, and what it is doubled up to.
local firstPause = 0.1
local maxPause = 2

-- Seconds that a request waits for the subscription.
local openTimeout = 0.5

local secondsOfDay = 86400

-- Keys and return channels of this worker begin with it.
local prefix
local requestNumber = 0

-- What is expected, by return channel, which is the request's key.
local expected = {}

-- How many of them there are, with those that wait for the subscription.
local count = 0

local isRunning = false
local isOpen = false

-- Set by answers.start.
local takeUnexpected, hasten, isBusy

local function mayEnd()
    return ngx.worker.exiting() and count == 0 and not isBusy()
end

-- Subscribes and delivers answers until the worker may end. Raises what goes wrong.
local function listen(lost)
    local subscription = store.connect()
    store.run(subscription, "PSUBSCRIBE", prefix .. "*")
    subscription.socket:settimeout(idleMilliseconds)
    isOpen = true
    -- Their answers may have come while nobody listened.
    while #lost > 0 do
        takeUnexpected(table.remove(lost))
    end
    while not mayEnd() do
        if ngx.worker.exiting() then
            hasten()
            subscription.socket:settimeout(endMilliseconds)
        end
        local message, failure = store.receive(subscription)
        local channel = message and message[3]
        local answer = expected[channel]
        if answer then
            answer.hasCome = true
            answers.forget(answer)
            answer.ready:post(1)
        elseif message and channel ~= prefix then
            takeUnexpected(channel)
        elseif not message and failure ~= "timeout" then
            error(failure)
        end
    end
    subscription.socket:close()
end

local function run()
    local pause = firstPause
    local lost = {}
    while not mayEnd() do
        isOpen = false
        local ended, failure = pcall(listen, lost)
        if not ended then
            if isOpen then
                ngx.log(ngx.WARN, "the subscription to answers was lost: ",
                    store.hasFailed(failure) and failure.text or tostring(failure))
            end
            pause = isOpen and firstPause or math.min(2 * pause, maxPause)
            isOpen = false
            for channel, answer in pairs(expected) do
                lost[#lost + 1] = channel
                answer.isLost = true
                answers.forget(answer)
                answer.ready:post(1)
            end
            ngx.sleep(pause)
        end
    end
    isOpen = false
    isRunning = false
end

local function ensureRunning()
    if not isRunning then
        isRunning = true
        background.run(0, run)
    end
end

-- A timer that runs before its time when the worker is told to end. Wakes the subscription up.
local function watchForEnd(premature)
    if not premature then
        return
    end
    hasten()
    pcall(store.with, function(connection)
        return store.run(connection, "PUBLISH", prefix, "")
    end)
end

-- Begins to listen, at the start of a worker. `hooks` are functions:
--   takeUnexpected(channel)  an answer that nobody waits for has come, or may have come
--   hasten()                 the worker is about to end: called again and again
--   isBusy()                 whether the worker must not end yet
function answers.start(hooks)
    takeUnexpected, hasten, isBusy = hooks.takeUnexpected, hooks.hasten, hooks.isBusy
    prefix = "&&/frontend/" .. hex(rand.bytes(8)) .. "/"
    ensureRunning()
    ngx.timer.every(secondsOfDay, watchForEnd)
end

-- Returns an answer to wait for and to forget; its `channel` is where it has to come. Raises the
-- problem 503 when it could not be heard or too much is under way.
function answers.expect()
    if count >= settings.maxRequests then
        error(messages.unavailable())
    end
    -- From here on a worker that ends listens.
    count = count + 1
    ensureRunning()
    local deadline = ngx.now() + openTimeout
    while not isOpen and ngx.now() < deadline do
        ngx.sleep(0.01)
    end
    if not isOpen then
        count = count - 1
        error(messages.unavailable())
    end
    requestNumber = requestNumber + 1
    local answer = { channel = prefix .. requestNumber .. "/request", ready = semaphore.new() }
    expected[answer.channel] = answer
    return answer
end

-- Waits up to so many seconds. Tells whether the answer has come.
function answers.wait(answer, seconds)
    if not answer.isLost then
        answer.ready:wait(math.max(seconds, 0))
    end
    return answer.hasCome == true
end

-- An answer that comes later is unexpected.
function answers.forget(answer)
    if expected[answer.channel] then
        expected[answer.channel] = nil
        count = count - 1
    end
end

return answers
