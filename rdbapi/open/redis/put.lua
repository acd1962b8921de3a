--  The last part of the script that stores values. It checks all keys before it writes. For a value that the server
--  already has, only confirmed_ms and the expiry are renewed: time_ms, the history and the channel are for changes.
--
--      KEYS    tag, value, history of each record
--      ARGV    expiry in seconds or 0, limit of the history, class of a usable tag;
--              type, value, channel of each record;
--              type and import flag of the tag, if the script is to create a tag that is missing or not usable
--      returns {'done'}, {'confirmed'}, {'no-tag'}, {'not-usable'} or {'foreign', key}; with one record, done and
--              confirmed are followed by class, type and import flag of the tag

local expire, limit, usable = ARGV[1], ARGV[2], ARGV[3]
local createsTag = #ARGV > 3 + #KEYS
local definition = {}
local held = {}  -- key of a value -> the value; a further record of the same name is compared with the record before
for i = 1, #KEYS, 3 do
    local tag, foreignTag = readTag(KEYS[i])
    if foreignTag then
        return {'foreign', KEYS[i]}
    end
    if not tag or tag[1] ~= usable then
        if not createsTag then
            return {tag and 'not-usable' or 'no-tag'}
        end
        tag = {usable, ARGV[#ARGV - 1], ARGV[#ARGV]}
        write('HSET', KEYS[i], 'class', tag[1], 'type', tag[2], 'importflag', tag[3], 'imported_ms', now())
    end
    local value, foreignValue = readValue(KEYS[i + 1])
    if foreignValue then
        return {'foreign', KEYS[i + 1]}
    end
    if isForeignHistory(KEYS[i + 2]) then
        return {'foreign', KEYS[i + 2]}
    end
    held[KEYS[i + 1]] = {kind = value and value[2], value = value and value[3]}
    definition = #KEYS == 3 and tag or {}
end

local time = now()
local result = 'confirmed'
for i = 1, #KEYS, 3 do
    local key, history = KEYS[i + 1], KEYS[i + 2]
    local kind, value, channel = ARGV[i + 3], ARGV[i + 4], ARGV[i + 5]
    if held[key].kind == kind and held[key].value == value then
        write('HSET', key, 'confirmed_ms', time)
    else
        result = 'done'
        held[key] = {kind = kind, value = value}
        if limit == '0' then
            write('DEL', history)
        else
            write('RPUSH', history, time .. ' ' .. kind .. ' ' .. value)
            write('LTRIM', history, '-' .. limit, '-1')
        end
        write('HSET', key, 'time_ms', time, 'confirmed_ms', time, 'type', kind, 'value', value)
        write(publish, channel, value)
    end
    writeExpiries(i, expire)
end
execute()
return {result, unpack(definition)}
