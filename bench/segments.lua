-- For wrk: requests the paths of a file, a line each, in turn, and says what came: bytes,
-- microseconds, failures.
local requests = {}
local last = 0

function init(arguments)
  for path in io.lines(arguments[1]) do
    requests[#requests + 1] = wrk.format('GET', path)
  end
end

function request()
  last = last % #requests + 1
  return requests[last]
end

function done(summary)
  local errors = summary.errors
  print(string.format('came %d %d %d', summary.bytes, summary.duration,
    errors.connect + errors.read + errors.write + errors.status + errors.timeout))
end
