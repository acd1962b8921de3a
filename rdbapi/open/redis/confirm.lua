--  The first part of the script that stores values handles the most frequent case: the server already has the one value
--  of the request. To be fast, this part defines no functions and itself creates no table except its result. The rest
--  of the script handles all other cases. It could also handle this case, but would take about 1.6 times as long.

if #KEYS == 3 then
    local call, expire = redis.call, ARGV[1]
    local tag = call('HMGET', KEYS[1], 'class', 'type', 'importflag')
    local held = call('HMGET', KEYS[2], 'time_ms', 'type', 'value')
    local find, byte = string.find, '^%d%d?%d?$'
    local known = tag[1] == ARGV[3] and find(tag[2] or '', byte) and find(tag[3] or '', byte)
        and find(held[1] or '', '^%d+$')
    if known and held[2] == ARGV[4] and held[3] == ARGV[5] then
        local history = expire ~= '0' and call('TYPE', KEYS[3]).ok or 'none'
        if history == 'list' or history == 'none' then
            local time = call('TIME')
            call('HSET', KEYS[2], 'confirmed_ms', time[1] .. string.sub(1000000 + time[2], 2, 4))
            if expire ~= '0' then
                call('EXPIRE', KEYS[1], expire)
                call('EXPIRE', KEYS[2], expire)
                if history == 'list' then
                    call('EXPIRE', KEYS[3], expire)
                end
            end
            return {'confirmed', tag[1], tag[2], tag[3]}
        end
    end
end
