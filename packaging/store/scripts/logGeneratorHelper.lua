-- Creates an entry in a log. The seven keys are: the operation CREATE, the entry
-- collection, the time stamp, the message identifier, the resource of origin, the
-- number of message arguments (1) and the argument.
--
-- Answers 1 when the entry was made, 0 when the log is full, 2 when entries of the
-- message's severity are not wanted, {"INVALID", reason} when the input is of no use.
--
-- The collection's hash holds the settings: &&MaxEntries (none: no limit), &&WhenFull
-- ("overwrite": the oldest entry makes room) and &&Severities, the wanted ones with a
-- comma between (none: all).

local messages = {
  ['AuditEvent.1.1.UserLogin'] = {severity = 'OK', text = 'User %1 logged in.'},
  ['AuditEvent.1.1.UserLogout'] = {severity = 'OK', text = 'User %1 logged out.'},
}

local function invalid(reason)
  return {'INVALID', reason}
end

-- cjson writes a slash as \/, which is valid but differs from what other writers store.
local function json(value)
  return (cjson.encode(value):gsub('\\/', '/'))
end

if #KEYS ~= 7 or #ARGV > 0 then
  return invalid('Seven keys and no arguments are needed.')
end
local operation, collection, timeStamp, messageId, origin, argumentCount, argument = unpack(KEYS)
if operation ~= 'CREATE' then
  return invalid('Unknown operation ' .. operation .. '.')
end
if argumentCount ~= '1' then
  return invalid('One message argument is needed.')
end
local message = messages[messageId]
if not message then
  return invalid('Unknown message ' .. messageId .. '.')
end
if redis.call('TYPE', collection).ok ~= 'hash' then
  return invalid('No log entry collection ' .. collection .. '.')
end

local severities, maximum, whenFull =
  unpack(redis.call('HMGET', collection, '&&Severities', '&&MaxEntries', '&&WhenFull'))
if severities and not (',' .. severities .. ','):find(',' .. message.severity .. ',', 1, true) then
  return 2
end
local members = '&&' .. collection .. '/Members'
maximum = tonumber(maximum or '')
local added = 1
if maximum and redis.call('LLEN', members) >= maximum then
  if whenFull ~= 'overwrite' then
    return 0
  end
  local oldest = redis.call('RPOP', members)
  if oldest then
    redis.call('UNLINK', (oldest:gsub('^&&ObjectRef ', '')))
    added = 0
  end
end

local identifier = tostring(redis.call('HINCRBY', collection, '&&LastId', 1))
local entry = collection .. '/' .. identifier
redis.call('HSET', entry,
  '@odata.id', json(entry),
  '@odata.type', '"#LogEntry.v1_9_0.LogEntry"',
  'Id', '"' .. identifier .. '"',
  'Name', '"Log Entry"',
  'EntryType', '"Event"',
  'Created', json(timeStamp),
  'Severity', '"' .. message.severity .. '"',
  'Message', json((message.text:gsub('%%1', function() return argument end))),
  'MessageId', '"' .. messageId .. '"',
  'MessageArgs', '[' .. json(argument) .. ']',
  'Links', '{"OriginOfCondition":{"@odata.id":' .. json(origin) .. '}}',
  '&&AllowMethod', 'GET,HEAD')
redis.call('LPUSH', members, '&&ObjectRef ' .. entry)
if added > 0 then
  redis.call('HINCRBY', collection, 'Members@odata.count', added)
end
return 1
