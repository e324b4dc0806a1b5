// The Redis back end: a server named by a URL, reached through hiredis. Each thread gets its
// own synchronous connection (redis_conn.cpp); the key-event feed is an asynchronous connection
// on the event thread's libevent base (redis_feed.cpp).
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <sys/un.h>

#include "redis_common.h"

namespace qv::mom::redis {

bool parse_url(const std::string &url, Endpoint *ep, std::string *err)
{
    static const std::string unix_scheme = "unix://";
    static const std::string tcp_scheme = "redis://";
    ep->url = url;
    if (url.compare(0, unix_scheme.size(), unix_scheme) == 0) {
        ep->path = url.substr(unix_scheme.size());
        if (ep->path.empty() || ep->path[0] != '/') {
            *err = "\"" + url +
                   "\": a Unix socket URL needs an absolute path (unix:///path/redis.sock)";
            return false;
        }
        if (ep->path.size() >= sizeof(sockaddr_un::sun_path)) {
            *err = "\"" + url + "\": the socket path is longer than a Unix socket address allows";
            return false;
        }
        return true;
    }
    if (url.compare(0, tcp_scheme.size(), tcp_scheme) != 0) {
        *err = "\"" + url + "\": not a database URL (embedded, redis://HOST:PORT or unix:///path)";
        return false;
    }
    std::string rest = url.substr(tcp_scheme.size());
    std::string port_text;
    if (!rest.empty() && rest[0] == '[') { // [IPv6]:port
        size_t close = rest.find(']');
        if (close == std::string::npos) {
            *err = "\"" + url + "\": unterminated [address]";
            return false;
        }
        ep->host = rest.substr(1, close - 1);
        rest.erase(0, close + 1);
        if (!rest.empty() && rest[0] != ':') {
            *err = "\"" + url + "\": expected :PORT after the address";
            return false;
        }
        if (!rest.empty()) port_text = rest.substr(1);
    } else {
        size_t colon = rest.find(':');
        ep->host = rest.substr(0, colon);
        if (colon != std::string::npos) port_text = rest.substr(colon + 1);
    }
    if (ep->host.empty()) {
        *err = "\"" + url + "\": no host (redis://HOST:PORT)";
        return false;
    }
    if (ep->host.find_first_of("/@?#") != std::string::npos) {
        *err = "\"" + url + "\": only redis://HOST:PORT is understood (no path, user or options)";
        return false;
    }
    ep->port = 6379;
    if (!port_text.empty() || url.back() == ':') {
        char *end = nullptr;
        long port = std::strtol(port_text.c_str(), &end, 10);
        if (port_text.empty() || *end != '\0' || port < 1 || port > 65535 ||
            port_text.find_first_not_of("0123456789") != std::string::npos) {
            *err = "\"" + url + "\": the port must be a number from 1 to 65535";
            return false;
        }
        ep->port = static_cast<int>(port);
    }
    return true;
}

std::string glob_escape(const std::string &text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

std::string held_back(unsigned n)
{
    return n == 0 ? std::string() : " (" + std::to_string(n) + " more since the last report)";
}

bool LogLimiter::allow(unsigned *held)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto now = std::chrono::steady_clock::now();
    if (any_ && now - last_ < interval_) {
        ++held_;
        return false;
    }
    any_ = true;
    last_ = now;
    *held = held_;
    held_ = 0;
    return true;
}

namespace {

int env_backoff_ms()
{
    const char *text = std::getenv("PMX_DB_BACKOFF_MS");
    if (text == nullptr || *text == '\0') return 100;
    char *end = nullptr;
    long ms = std::strtol(text, &end, 10);
    if (*end != '\0' || ms < 1 || ms > 60000) return 100;
    return static_cast<int>(ms);
}

// A write to a connection the server has closed must fail with EPIPE, not end the process.
void ignore_sigpipe_once()
{
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction old {};
        if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
            std::signal(SIGPIPE, SIG_IGN);
            QV_MOM_LOG(QV_ZLOG_LEVEL_INFO, "SIGPIPE is now ignored: a lost database connection "
                                           "is reported as an error instead");
        }
    });
}

class RedisBackend final : public Backend {
public:
    explicit RedisBackend(Endpoint ep) : shared_(std::make_shared<Shared>(std::move(ep))) {}
    const std::string &url() const override { return shared_->ep.url; }
    std::unique_ptr<Connection> connect() override { return make_connection(shared_); }
    std::unique_ptr<Subscriber> subscriber() override { return make_subscriber(shared_); }

private:
    std::shared_ptr<Shared> shared_;
};

} // namespace

Shared::Shared(Endpoint e)
    : ep(std::move(e)), backoff_first_ms(env_backoff_ms()), backoff_max_ms(50 * backoff_first_ms)
{
}

} // namespace qv::mom::redis

namespace qv::mom {

std::shared_ptr<Backend> open_redis(const std::string &url, std::string *err)
{
    redis::Endpoint ep;
    std::string why;
    if (!redis::parse_url(url, &ep, &why)) {
        if (err != nullptr) *err = why;
        return nullptr;
    }
    redis::ignore_sigpipe_once();
    return std::make_shared<redis::RedisBackend>(std::move(ep));
}

} // namespace qv::mom
