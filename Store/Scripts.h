/// What the store does in one piece.  An old holder of the role cannot write: the number that it has is not
/// the store's any more.
#pragma once

#include <string_view>

namespace Store {

/// Takes the role, or keeps it, and tells who is there.  KEYS: meta, agents.  ARGV: id, milliseconds, "take",
/// "keep" (the asker acts) or "look", the highest number that the asker knows, the lease that it has looked
/// at long enough to know that its holder does not act any more, the newest form of the store that it knows,
/// the channel for roles, "ready" or "away", a name.  Gives the role's number when the asker has it, else 0;
/// the last batch's sequence; the holder's id, empty for none; the store's form; the store's number; the
/// lease as it is now; the milliseconds that it still lasts; then of every agent
/// its id, state and name, and for how many milliseconds it still counts as there.
///
/// A lease that is over by the store's clock is not enough: that clock can be set, and a store can lose what
/// it had.  So only a lease is taken that its asker has seen unchanged by its own clock.
/// It works also where the store is full: that must not cost anybody the role.
inline constexpr std::string_view leaseScript = R"lua(#!lua flags=allow-oom
local meta = redis.call('HMGET', KEYS[1], 'schema', 'fence', 'holder', 'until', 'sequence')
local schema, sequence = tonumber(meta[1] or '1'), tonumber(meta[5] or '0')
if schema > tonumber(ARGV[6]) then return {0, sequence, '', schema, 0, '', 0} end
local time = redis.call('TIME')
local now = time[1] * 1000 + math.floor(time[2] / 1000)
redis.call('HSET', KEYS[2], ARGV[1], string.format('%.0f %s %s', now + ARGV[2], ARGV[8], ARGV[9]))
local agents = {}
local listed = redis.call('HGETALL', KEYS[2])
for i = 1, #listed, 2 do
  local deadline, state, name = string.match(listed[i + 1], '^(%d+) (%a+) (.*)$')
  if not deadline or tonumber(deadline) < now then
    redis.call('HDEL', KEYS[2], listed[i])
  else
    agents[#agents + 1] = listed[i]
    agents[#agents + 1] = state
    agents[#agents + 1] = name
    agents[#agents + 1] = tonumber(deadline) - now
  end
end
local fence, holder, last = tonumber(meta[2] or '0'), meta[3] or '', tonumber(meta[4] or '0')
local known, wish, mine = tonumber(ARGV[4]), ARGV[3], 0
local held = holder ~= '' and last > now
local lease = (meta[2] or '') .. ' ' .. (meta[4] or '')
if holder == ARGV[1] and ((wish == 'keep' and fence == known) or (held and fence > known)) then
  mine = fence
elseif not held and (wish == 'keep' or (wish == 'take' and lease == ARGV[5])) then
  mine = math.max(fence, known) + 1
  redis.call('PUBLISH', ARGV[7], ARGV[1])
end
if mine ~= 0 then
  holder, fence, last = ARGV[1], mine, now + ARGV[2]
  lease = string.format('%d %.0f', fence, last)
  redis.call('HSET', KEYS[1], 'schema', ARGV[6], 'fence', fence, 'holder', holder, 'until',
             string.format('%.0f', last), 'seen', string.format('%.0f', now))
elseif not held then
  holder = ''
end
return {mine, sequence, holder, schema, fence, lease, math.max(0, last - now), unpack(agents)}
)lua";

/// Gives the role to another that is ready, at once.  KEYS: meta, agents.  ARGV: id, number, milliseconds,
/// channel, the heir's id.  Gives the new number.
inline constexpr std::string_view handOverScript = R"lua(#!lua flags=allow-oom
local meta = redis.call('HMGET', KEYS[1], 'fence', 'holder')
local fence = tonumber(meta[1] or '0')
if fence ~= tonumber(ARGV[2]) or meta[2] ~= ARGV[1] then return redis.error_reply('FENCED ' .. fence) end
if not string.match(redis.call('HGET', KEYS[2], ARGV[5]) or '', '^%d+ ready ') then
  return redis.error_reply('ABSENT ' .. ARGV[5])
end
local time = redis.call('TIME')
local last = time[1] * 1000 + math.floor(time[2] / 1000) + ARGV[3]
redis.call('HSET', KEYS[1], 'fence', fence + 1, 'holder', ARGV[5], 'until', string.format('%.0f', last))
redis.call('PUBLISH', ARGV[4], ARGV[5])
return fence + 1
)lua";

/// Writes a batch.  KEYS: meta, records.  ARGV: number, before a path, channel, the writer's clock, "1" when
/// the store has everything after it or else "0", then
/// commands of four parts: "new" (begins the hash anew), "set", "del" (fields) or "gone", the path, how many
/// words follow, the words.  Gives the batch's sequence.  What another program made of a key that is ours is
/// thrown away.
inline constexpr std::string_view writeScript = R"lua(
local fence = tonumber(redis.call('HGET', KEYS[1], 'fence') or '0')
if fence ~= tonumber(ARGV[1]) then return redis.error_reply('FENCED ' .. fence) end
local i, n, paths = 6, #ARGV, {}
while i <= n do
  local what, path, count = ARGV[i], ARGV[i + 1], tonumber(ARGV[i + 2])
  local key = ARGV[2] .. path
  i = i + 3
  if what == 'gone' then
    redis.call('DEL', key)
    redis.call('SREM', KEYS[2], path)
  elseif what == 'new' then
    redis.call('DEL', key)
    redis.call('SADD', KEYS[2], path)
  elseif count > 0 then
    local command = what == 'set' and 'HSET' or 'HDEL'
    local done = redis.pcall(command, key, unpack(ARGV, i, i + count - 1))
    if type(done) == 'table' and done.err then
      if string.sub(done.err, 1, 9) ~= 'WRONGTYPE' then return done end
      redis.call('DEL', key)
      if what == 'set' then redis.call('HSET', key, unpack(ARGV, i, i + count - 1)) end
    end
  end
  i = i + count
  if paths[#paths] ~= path then paths[#paths + 1] = path end
end
local sequence = redis.call('HINCRBY', KEYS[1], 'sequence', 1)
redis.call('HSET', KEYS[1], 'clock', ARGV[4], 'whole', ARGV[5])
redis.call('PUBLISH', ARGV[3], sequence .. '\n' .. table.concat(paths, '\n'))
return sequence
)lua";

}  // namespace Store
