// What the Redis connection and the Redis key-event feed share: the parsed server address,
// a log rate limit, and the tuning read from the environment.
#ifndef QV_MOM_REDIS_COMMON_H
#define QV_MOM_REDIS_COMMON_H

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "backend.h"
#include "log.h"

namespace qv::mom::redis {

// A server address: a Unix socket path, or a host and TCP port.
struct Endpoint {
    std::string url;  // as given, for the logs
    std::string path; // Unix socket; empty for TCP
    std::string host;
    int port = 0;
};

// "redis://HOST[:PORT]" (port 6379 by default) or "unix:///absolute/path"; false with the reason.
bool parse_url(const std::string &url, Endpoint *ep, std::string *err);

// The text with the glob characters of a Redis MATCH or PSUBSCRIBE pattern escaped.
std::string glob_escape(const std::string &text);

// Lets one line through per interval, so a server that stays down does not flood the log.
class LogLimiter {
public:
    explicit LogLimiter(std::chrono::milliseconds interval) : interval_(interval) {}
    // True when a line may be written now; *held then says how many were held back before it.
    bool allow(unsigned *held);

private:
    std::mutex mutex_;
    std::chrono::milliseconds interval_;
    std::chrono::steady_clock::time_point last_{};
    bool any_ = false;
    unsigned held_ = 0;
};

// " (N more since the last report)" for a log line after N held back, else empty.
std::string held_back(unsigned n);

// Per back end: the server and what its connections share.
struct Shared {
    explicit Shared(Endpoint e);
    Endpoint ep;
    LogLimiter conn_log{std::chrono::seconds(5)};
    // Reconnect back-off of the key-event feed: the first delay, doubling up to the cap.
    // PMX_DB_BACKOFF_MS sets the first delay (default 100 ms); the cap is 50 times it.
    int backoff_first_ms;
    int backoff_max_ms;
};

std::unique_ptr<Connection> make_connection(std::shared_ptr<Shared> shared);
std::unique_ptr<Subscriber> make_subscriber(std::shared_ptr<Shared> shared);

} // namespace qv::mom::redis

#endif // QV_MOM_REDIS_COMMON_H
