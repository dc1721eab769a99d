-- For wrk: one request, again and again. With an argument it is a POST with that file as its body, else a GET. Prints
-- "RESULT requests microseconds bytes errors" at the end.

function init(args)
    if args[1] then
        local file = assert(io.open(args[1], "rb"))
        wrk.method = "POST"
        wrk.body = file:read("*a")
        wrk.headers["Zem-Id"] = "bench"
        file:close()
    end
end

function done(summary, latency, requests)
    local errors = summary.errors
    io.write(string.format("RESULT %d %d %d %d\n", summary.requests, summary.duration, summary.bytes,
        errors.connect + errors.read + errors.write + errors.status + errors.timeout))
end
