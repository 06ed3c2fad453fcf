-- The timed workload: an interpreter's hot paths (calls, closures, tables,
-- strings, sorting, coroutines) in a loop of SCALE rounds (argument 1).
local scale = tonumber(arg and arg[1]) or 1
local function fib(n) if n < 2 then return n end return fib(n - 1) + fib(n - 2) end
local total = 0
for round = 1, scale do
  total = total + fib(24)
  local t = {}
  for i = 1, 20000 do t[i] = (i * 7919 + round) % 10007 end
  table.sort(t)
  local parts = {}
  for i = 1, 2000 do parts[#parts + 1] = ("%d:%s"):format(t[i], ("x"):rep(i % 7)) end
  local s = table.concat(parts, ",")
  for word in s:gmatch("%d+") do total = total + #word end
  local gen = coroutine.wrap(function() for i = 1, 5000 do coroutine.yield(i) end end)
  for i = 1, 5000 do total = total + gen() end
  local objects = {}
  for i = 1, 5000 do objects[i] = setmetatable({v = i}, {__index = {get = function(o) return o.v end}}) end
  for i = 1, 5000 do total = total + objects[i]:get() end
  for i = 1, 300 do pcall(error, i) end
end
print(total)
