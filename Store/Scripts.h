/// What the store does in one piece.  An old holder of the role cannot write: the number that it has is not
/// the store's any more.
#pragma once

#include <string_view>

namespace Store {

/// Takes the role, or keeps it, and tells who is there.  KEYS: lease, meta, agents.  ARGV: id, milliseconds,
/// "1" to take it where nobody has it, the highest number that the asker knows, the newest form of the store
/// that it knows, the channel for roles, "ready" or "away", a name.  Gives the role's number when the asker
/// has it, else 0; the last batch's sequence; the holder, empty for none; the store's form; then id, state
/// and name of every agent.
inline constexpr std::string_view leaseScript = R"lua(
local sequence = tonumber(redis.call('HGET', KEYS[2], 'sequence') or '0')
local schema = tonumber(redis.call('HGET', KEYS[2], 'schema') or '1')
if schema > tonumber(ARGV[5]) then return {0, sequence, '', schema} end
local time = redis.call('TIME')
local now = time[1] * 1000 + math.floor(time[2] / 1000)
redis.call('HSET', KEYS[3], ARGV[1], string.format('%.0f %s %s', now + 3 * ARGV[2], ARGV[7], ARGV[8]))
local agents = {}
local listed = redis.call('HGETALL', KEYS[3])
for i = 1, #listed, 2 do
  local deadline, state, name = string.match(listed[i + 1], '^(%d+) (%a+) (.*)$')
  if not deadline or tonumber(deadline) < now then
    redis.call('HDEL', KEYS[3], listed[i])
  else
    agents[#agents + 1] = listed[i]
    agents[#agents + 1] = state
    agents[#agents + 1] = name
  end
end
local holder = redis.call('GET', KEYS[1])
local fence = tonumber(redis.call('HGET', KEYS[2], 'fence') or '0')
if holder == ARGV[1] and fence >= tonumber(ARGV[4]) then
  redis.call('PEXPIRE', KEYS[1], ARGV[2])
elseif (holder and holder ~= ARGV[1]) or ARGV[3] ~= '1' then
  fence = 0
else
  redis.call('SET', KEYS[1], ARGV[1], 'PX', ARGV[2])
  fence = math.max(fence, tonumber(ARGV[4])) + 1
  redis.call('HSET', KEYS[2], 'schema', ARGV[5], 'fence', fence, 'holder', ARGV[8])
  redis.call('PUBLISH', ARGV[6], ARGV[1])
  holder = ARGV[1]
end
return {fence, sequence, holder or '', schema, unpack(agents)}
)lua";

/// Gives the role to another at once, or back where there is none.  KEYS: lease, meta, agents.  ARGV: id,
/// number, milliseconds, channel, the heir's id, empty for none.  Gives the new number.
inline constexpr std::string_view handOverScript = R"lua(
local fence = tonumber(redis.call('HGET', KEYS[2], 'fence') or '0')
if fence ~= tonumber(ARGV[2]) or redis.call('GET', KEYS[1]) ~= ARGV[1] then
  return redis.error_reply('FENCED ' .. fence)
end
if ARGV[5] == '' then
  redis.call('DEL', KEYS[1])
  redis.call('HDEL', KEYS[3], ARGV[1])
else
  local agent = redis.call('HGET', KEYS[3], ARGV[5]) or ''
  local state, name = string.match(agent, '^%d+ (%a+) (.*)$')
  if state ~= 'ready' then return redis.error_reply('ABSENT ' .. ARGV[5]) end
  redis.call('SET', KEYS[1], ARGV[5], 'PX', ARGV[3])
  redis.call('HSET', KEYS[2], 'holder', name)
end
redis.call('HSET', KEYS[2], 'fence', fence + 1)
redis.call('PUBLISH', ARGV[4], ARGV[5])
return fence + 1
)lua";

/// Writes a batch.  KEYS: meta, records.  ARGV: number, before a path, channel, the writer's clock, then
/// commands of four parts: "new" (begins the hash anew), "set", "del" (fields) or "gone", the path, how many
/// words follow, the words.  Gives the batch's sequence.  What another program made of a key that is ours is
/// thrown away.
inline constexpr std::string_view writeScript = R"lua(
local fence = tonumber(redis.call('HGET', KEYS[1], 'fence') or '0')
if fence ~= tonumber(ARGV[1]) then return redis.error_reply('FENCED ' .. fence) end
local i, n, paths = 5, #ARGV, {}
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
redis.call('HSET', KEYS[1], 'clock', ARGV[4])
redis.call('PUBLISH', ARGV[3], sequence .. '\n' .. table.concat(paths, '\n'))
return sequence
)lua";

}  // namespace Store
