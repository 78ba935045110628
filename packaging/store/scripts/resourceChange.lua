-- Records changes of resources. The keys are the items, in groups of five: action,
-- resource, resource type, the word EventGroupId, group identifier.
--
-- Each group becomes one entry of the stream &&EventStream; its identifier is then published on
-- the channel &&EventStream/Announcements. The stream keeps the latest entries: as many as the
-- field &&MaxEntries of the event service says (none: 1000), or a few more.
-- Answers the number of entries, or {"INVALID", reason} without recording anything.

local stream = '&&EventStream'
local channel = stream .. '/Announcements'
local setting = redis.pcall('HGET', '/redfish/v1/EventService', '&&MaxEntries')
local maxEntries = tonumber(setting or '') or 1000
local groupSize = 5
local actions = {add = true, change = true, delete = true}

local function invalid(reason)
  return {'INVALID', reason}
end

if #ARGV > 0 or #KEYS == 0 or #KEYS % groupSize ~= 0 then
  return invalid('The items do not come in groups of ' .. groupSize .. '.')
end
for first = 1, #KEYS, groupSize do
  if not actions[KEYS[first]] then
    return invalid('Unknown action ' .. KEYS[first] .. '.')
  end
  if KEYS[first + 3] ~= 'EventGroupId' or not KEYS[first + 4]:match('^%d+$') then
    return invalid('An event of ' .. KEYS[first + 1] .. ' lacks its group identifier.')
  end
end

for first = 1, #KEYS, groupSize do
  local entry = redis.call('XADD', stream, 'MAXLEN', '~', maxEntries, '*',
    'Action', KEYS[first],
    'Resource', KEYS[first + 1],
    'ResourceType', KEYS[first + 2],
    'EventGroupId', KEYS[first + 4])
  redis.call('PUBLISH', channel, entry)
end
return #KEYS / groupSize
