-- Lua's own features that stress a compiler's view of control flow:
-- errors raised with longjmp and caught by pcall, coroutines switching
-- stacks, and the string and table libraries. Prints lines whose text is
-- known (tests.expected); any difference fails the run.

local function check(name, got, want)
  if got ~= want then
    print(("FAIL %s: got %s, want %s"):format(name, tostring(got), tostring(want)))
    os.exit(1)
  end
  print(("ok %s %s"):format(name, tostring(got)))
end

-- Errors: raised, caught, rethrown, with non-string values and tracebacks.
local caught = 0
for i = 1, 200 do
  local ok, err = pcall(function()
    if i % 3 == 0 then error("three " .. i) end
    if i % 5 == 0 then error({code = i}) end
    return i
  end)
  if not ok then caught = caught + 1 end
end
check("pcall", caught, 93)
local ok, msg = pcall(function()
  local ok2, inner = pcall(error, "inner")
  error("outer after " .. inner, 0)
end)
check("rethrow", msg, "outer after inner")
local depth = 0
local function recurse() depth = depth + 1; return recurse() + 1 end
check("overflow", (select(2, pcall(recurse)):match("stack overflow")), "stack overflow")
check("xpcall", select(2, xpcall(function() error("x", 0) end, function(m) return "handled " .. m end)),
      "handled x")

-- Coroutines: generators, passing values both ways, errors inside them.
local function range(n)
  return coroutine.wrap(function() for i = 1, n do coroutine.yield(i) end end)
end
local sum = 0
for v in range(1000) do sum = sum + v end
check("generator", sum, 500500)
local co = coroutine.create(function(a)
  local b = coroutine.yield(a * 2)
  local c = coroutine.yield(a + b)
  error("done " .. c)
end)
local r1 = select(2, coroutine.resume(co, 5))
local r2 = select(2, coroutine.resume(co, 7))
local okc, errc = coroutine.resume(co, 9)
check("coroutine", table.concat({r1, r2, tostring(okc), errc:match("done %d+")}, " "), "10 12 false done 9")
check("coroutine status", coroutine.status(co), "dead")

-- Strings: patterns, formatting, gsub with functions, packing.
local words = {}
for w in ("the quick brown fox jumps over the lazy dog"):gmatch("%a+") do words[#words + 1] = w end
check("gmatch", #words, 9)
check("gsub", (("hello world"):gsub("o", {o = "0"})), "hell0 w0rld")
check("format", ("%5.2f|%-4s|%x"):format(3.14159, "ab", 255), " 3.14|ab  |ff")
check("rep", #("ab"):rep(1000, ","), 2999)
check("pack", string.unpack("<i4", string.pack("<i4", -123456)), -123456)
local counts = {}
for c in ("mississippi"):gmatch(".") do counts[c] = (counts[c] or 0) + 1 end
check("letters", counts.s * 100 + counts.i * 10 + counts.p, 442)

-- Tables: sorting with a comparator, insert/remove, metatables.
local t = {}
for i = 1, 500 do t[i] = (i * 7919) % 503 end
table.sort(t, function(a, b) return a > b end)
check("sort", t[1] .. " " .. t[500], "502 1")
table.insert(t, 1, -1)
table.remove(t)
check("insert", #t .. " " .. t[1], "500 -1")
local vector = setmetatable({}, {__index = function(_, k) return k * 2 end,
                                 __add = function(a, b) return "added" end})
check("metatable", vector[21] .. " " .. (vector + vector), "42 added")
check("concat", table.concat({1, 2, 3}, "-"), "1-2-3")
check("unpack", select("#", table.unpack({1, 2, nil, 4}, 1, 4)), 4)
print("all passed")
