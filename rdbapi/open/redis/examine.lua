--  Tests whether the user may do what the service does for a name, and whether the server takes writes. The write
--  changes nothing: with a history, LTRIM keeps the whole list; without one, DEL names a list that does not exist. If
--  the list exists although the limit is 0, nothing is written, and the second test is left out. A server that has
--  reached its memory limit still executes LTRIM and DEL.
--
--      KEYS    tag, value, history
--      ARGV    expiry in seconds or 0, limit of the history, command that announces a change, channel
--      returns {'done'}, {'unknown'} for a server before Redis 7, {'denied', permission...}, or the error of a refused
--              write

local expire, limit, publish, channel = ARGV[1], ARGV[2], ARGV[3], ARGV[4]
if not redis.acl_check_cmd then
    return {'unknown'}
end
local answer = {'denied'}

local function need(...)
    local known, allowed = pcall(redis.acl_check_cmd, ...)
    if not (known and allowed) then
        answer[#answer + 1] = '+' .. string.lower((...))
    end
end

need('EVALSHA', string.rep('0', 40), '0')
need('HMGET', KEYS[1], 'class')
need('TYPE', KEYS[1])
need('TIME')
need('HSET', KEYS[2], 'value', '')
if limit == '0' then
    need('DEL', KEYS[3])
else
    need('RPUSH', KEYS[3], '')
    need('LTRIM', KEYS[3], '0', '-1')
end
if expire ~= '0' then
    need('EXPIRE', KEYS[2], expire)
end
need(publish, channel, '')
if #answer > 1 then
    return answer
end
local written
if limit ~= '0' then
    written = redis.pcall('LTRIM', KEYS[3], '0', '-1')
elseif redis.call('TYPE', KEYS[3]).ok == 'none' then
    written = redis.pcall('DEL', KEYS[3])
end
if type(written) == 'table' and written.err then
    return written
end
return {'done'}
