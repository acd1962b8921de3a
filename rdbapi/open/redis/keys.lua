--  The part that the scripts import, put and remove share: functions that check keys, collect writes and execute them.
--
--  If a script fails, the server does not undo its writes. So a script reads and checks all of its keys before it
--  writes.

local writes = {}

local function write(...)
    writes[#writes + 1] = {...}
end

local function writeExpiries(first, expire)
    if expire ~= '0' then
        for i = first, first + 2 do
            write('EXPIRE', KEYS[i], expire)
        end
    end
end

--  The user may lack the permission for a command. From Redis 7 on, the permissions for all writes are tested before
--  the first write: a forbidden command is called at once, and ends the script with the server's own error.
local function execute()
    for _, command in ipairs(redis.acl_check_cmd and writes or {}) do
        if not redis.acl_check_cmd(unpack(command)) then
            redis.call(unpack(command))
        end
    end
    for _, command in ipairs(writes) do
        redis.call(unpack(command))
    end
end

local function isByte(text)
    return text and text:find('^%d%d?%d?$') and tonumber(text) < 256
end

local function exists(key)
    return redis.call('TYPE', key).ok ~= 'none'
end

--  Returns two values: the fields of a tag, or nil if the key has no tag; and whether the key is a hash of another
--  program. A key that is not a hash ends the script with the error WRONGTYPE.
local function readTag(key)
    local fields = redis.call('HMGET', key, 'class', 'type', 'importflag')
    if isByte(fields[1]) and isByte(fields[2]) and isByte(fields[3]) then
        return fields, false
    end
    return nil, exists(key)
end

--  Like readTag, for a value.
local function readValue(key)
    local fields = redis.call('HMGET', key, 'time_ms', 'type', 'value')
    if fields[1] and fields[1]:find('^%d+$') and isByte(fields[2]) and fields[3] then
        return fields, false
    end
    return nil, exists(key)
end

local function isForeignHistory(key)
    local kind = redis.call('TYPE', key).ok
    return kind ~= 'list' and kind ~= 'none'
end

--  Returns the milliseconds since 1970-01-01 UTC.
local function now()
    local time = redis.call('TIME')
    return time[1] .. string.sub(1000000 + time[2], 2, 4)
end
