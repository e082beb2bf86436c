-- POST "/get" of the whole engine document, as the plug-in manager asks for it.
wrk.method = "POST"
wrk.body = '{"Path": "$"}'
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "Basic YW5vbjphbm9u"

function done(summary, latency, requests)
   local e = summary.errors
   local seconds = summary.duration / 1e6
   io.write(string.format("requests/s: %.0f\n", summary.requests / seconds))
   io.write(string.format("errors: %d non-2xx, %d socket (connect %d, read %d, write %d, timeout %d)\n",
                          e.status, e.connect + e.read + e.write + e.timeout,
                          e.connect, e.read, e.write, e.timeout))
   local p99 = latency:percentile(99) / 1000
   io.write(string.format("p99 latency: %.2f ms (target under 10 ms, %s)\n", p99,
                          p99 < 10 and "met" or "missed"))
end
