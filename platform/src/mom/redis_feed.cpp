// The Redis key-event feed: keyspace notifications, through PSUBSCRIBE on an asynchronous
// connection driven by the event thread's libevent base. Every member function runs on the
// thread running that base (start, watch and stop included); nothing here takes a lock.
#include <event2/event.h>
#include <hiredis/adapters/libevent.h>
#include <hiredis/async.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "qv_mom.h"
#include "redis_common.h"

namespace qv::mom::redis {
namespace {

std::string channel_prefix(int db)
{
    return "__keyspace@" + std::to_string(db) + "__:";
}

// "__keyspace@<db>__:<key>" -> db and key; false for anything else.
bool parse_channel(const char *p, size_t n, int *db, std::string *key)
{
    static const char head[] = "__keyspace@";
    const size_t head_len = sizeof head - 1;
    if (n <= head_len || std::string_view(p, head_len) != head) return false;
    size_t i = head_len;
    int value = 0;
    size_t digits = 0;
    for (; i < n && p[i] >= '0' && p[i] <= '9' && digits < 3; ++i, ++digits)
        value = value * 10 + (p[i] - '0');
    if (digits == 0 || n - i < 3 || std::string_view(p + i, 3) != "__:") return false;
    *db = value;
    key->assign(p + i + 3, n - i - 3);
    return true;
}

// How often a server that is still loading its data is asked again whether it is done.
constexpr int kLoadingPollMs = 10;

// Key events of plain and hash records need K (keyspace channel) with g, $ and h, or A.
bool flags_enough(const std::string &flags)
{
    auto has = [&flags](char c) { return flags.find(c) != std::string::npos; };
    return has('K') && (has('A') || (has('g') && has('$') && has('h')));
}

class RedisSubscriber final : public Subscriber {
public:
    explicit RedisSubscriber(std::shared_ptr<Shared> shared)
        : shared_(std::move(shared)), backoff_ms_(shared_->backoff_first_ms)
    {
    }
    ~RedisSubscriber() override { stop(); }
    RedisSubscriber(const RedisSubscriber &) = delete;
    RedisSubscriber &operator=(const RedisSubscriber &) = delete;

    int start(event_base *base, SubscriberListener *listener) override
    {
        if (base == nullptr || listener == nullptr || base_ != nullptr) return QV_MOM_E_INVAL;
        retry_ = evtimer_new(base, &RedisSubscriber::on_retry, this);
        ping_ = evtimer_new(base, &RedisSubscriber::on_ping_timer, this);
        if (retry_ == nullptr || ping_ == nullptr) {
            stop();
            return QV_MOM_E_NOMEM;
        }
        base_ = base;
        listener_ = listener;
        open();
        return QV_MOM_OK;
    }

    void watch(int db, const std::string &name) override
    {
        if (!watched_.emplace(db, name).second) return;
        if (ac_ == nullptr || !ready_) return; // subscribed with the others once the server is ready
        reported_ = false; // on_subscribed() again once this kind is in the feed
        psubscribe(db, name);
    }

    void stop() override
    {
        if (retry_ != nullptr) event_free(retry_);
        retry_ = nullptr;
        if (ping_ != nullptr) event_free(ping_);
        ping_ = nullptr;
        if (ac_ != nullptr) {
            // No callback may reach this object once it is gone; pending replies are dropped.
            ac_->data = nullptr;
            ac_->onConnect = nullptr;
            ac_->onDisconnect = nullptr;
            redisAsyncFree(ac_);
            ac_ = nullptr;
        }
        base_ = nullptr;
        listener_ = nullptr;
    }

private:
    void open()
    {
        const Endpoint &ep = shared_->ep;
        redisAsyncContext *ac = ep.path.empty() ? redisAsyncConnect(ep.host.c_str(), ep.port)
                                                : redisAsyncConnectUnix(ep.path.c_str());
        if (ac == nullptr || ac->err != 0) {
            connect_failed(ac == nullptr ? "out of memory" : ac->errstr);
            if (ac != nullptr) redisAsyncFree(ac);
            return;
        }
        ac->data = this;
        if (redisLibeventAttach(ac, base_) != REDIS_OK) {
            redisAsyncFree(ac);
            connect_failed("cannot attach to the event loop");
            return;
        }
        redisAsyncSetConnectCallback(ac, &RedisSubscriber::on_connect);
        redisAsyncSetDisconnectCallback(ac, &RedisSubscriber::on_disconnect);
        ac_ = ac;
        answered_ = false;
        reported_ = false;
        ready_ = false;
        pending_.clear();
        evtimer_del(ping_);
        ping();
    }

    // A server started with its data answers LOADING until it has read it all, and makes no key
    // events until then: the feed subscribes once it answers, so that the scans after the report
    // can read.
    void ping() { redisAsyncCommand(ac_, &RedisSubscriber::on_ping, this, "PING"); }

    void subscribe()
    {
        ready_ = true;
        // Its answer comes before any subscription's.
        redisAsyncCommand(ac_, &RedisSubscriber::on_config, this,
                          "CONFIG GET notify-keyspace-events");
        for (const auto &w : watched_)
            psubscribe(w.first, w.second);
    }

    void psubscribe(int db, const std::string &name)
    {
        const std::string base = channel_prefix(db) + glob_escape(name);
        for (const std::string &pattern : {base, base + "|*"}) {
            pending_.insert(pattern);
            redisAsyncCommand(ac_, &RedisSubscriber::on_message, this, "PSUBSCRIBE %b",
                              pattern.data(), pattern.size());
        }
    }

    // Tells the listener once the server has answered and every watched kind is subscribed.
    void maybe_report()
    {
        if (!answered_ || !pending_.empty() || reported_) return;
        reported_ = true;
        backoff_ms_ = shared_->backoff_first_ms;
        listener_->on_subscribed();
    }

    void connect_failed(const std::string &why)
    {
        unsigned held = 0;
        if (log_.allow(&held))
            QV_MOM_LOG(
                QV_ZLOG_LEVEL_ERROR,
                "key event feed cannot connect to %s: %s; retrying with back-off up to %d ms%s",
                shared_->ep.url.c_str(), why.c_str(), shared_->backoff_max_ms,
                held_back(held).c_str());
        retry_later();
    }

    void lost(const std::string &why)
    {
        ready_ = false;
        answered_ = false;
        reported_ = false;
        pending_.clear();
        listener_->on_lost(why); // the client logs the loss and its resync
        retry_later();
    }

    void retry_later()
    {
        if (retry_ == nullptr) return;
        timeval tv{backoff_ms_ / 1000, (backoff_ms_ % 1000) * 1000};
        evtimer_add(retry_, &tv);
        backoff_ms_ = std::min(backoff_ms_ * 2, shared_->backoff_max_ms);
    }

    void check_config(const redisReply *r)
    {
        if (r->type == REDIS_REPLY_ARRAY && r->elements == 2 &&
            r->element[1]->type == REDIS_REPLY_STRING) {
            std::string flags(r->element[1]->str, r->element[1]->len);
            if (flags_enough(flags) || flags == bad_flags_) return;
            bad_flags_ = flags;
            QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR,
                       "the server at %s has notify-keyspace-events \"%s\": it needs KA (or at "
                       "least K$hg) to report record changes, which are not followed until then",
                       shared_->ep.url.c_str(), flags.c_str());
            return;
        }
        QV_MOM_LOG(QV_ZLOG_LEVEL_WARN,
                   "cannot check notify-keyspace-events on %s (%s); record changes are followed "
                   "only if it includes KA or K$hg",
                   shared_->ep.url.c_str(),
                   r->type == REDIS_REPLY_ERROR ? r->str : "unexpected reply");
    }

    static void on_ping(redisAsyncContext *, void *reply, void *priv)
    {
        if (reply == nullptr) return; // the connection is going away
        auto *self = static_cast<RedisSubscriber *>(priv);
        const auto *r = static_cast<redisReply *>(reply);
        if (self->ready_) return; // a second ping of a connection that was waiting
        if (r->type == REDIS_REPLY_ERROR && std::string_view(r->str, r->len).rfind("LOADING", 0) == 0) {
            unsigned held = 0;
            if (self->log_.allow(&held))
                QV_MOM_LOG(QV_ZLOG_LEVEL_NOTICE, "the server at %s is loading its data; the key event feed waits for it%s",
                           self->shared_->ep.url.c_str(), held_back(held).c_str());
            timeval tv{0, kLoadingPollMs * 1000};
            evtimer_add(self->ping_, &tv);
            return;
        }
        self->subscribe(); // any other answer: the server is there (CONFIG GET reports a refusal)
    }

    static void on_ping_timer(evutil_socket_t, short, void *arg)
    {
        auto *self = static_cast<RedisSubscriber *>(arg);
        if (self->ac_ != nullptr && !self->ready_) self->ping();
    }

    static void on_config(redisAsyncContext *, void *reply, void *priv)
    {
        if (reply == nullptr) return; // the connection is going away
        auto *self = static_cast<RedisSubscriber *>(priv);
        self->answered_ = true;
        self->check_config(static_cast<redisReply *>(reply));
        self->maybe_report();
    }

    static void on_message(redisAsyncContext *, void *reply, void *priv)
    {
        if (reply == nullptr) return;
        auto *self = static_cast<RedisSubscriber *>(priv);
        const auto *r = static_cast<redisReply *>(reply);
        if (r->type != REDIS_REPLY_ARRAY || r->elements < 3 ||
            r->element[0]->type != REDIS_REPLY_STRING)
            return;
        std::string_view kind(r->element[0]->str, r->element[0]->len);
        if (kind == "pmessage" && r->elements == 4) {
            int db = 0;
            std::string key;
            const redisReply *channel = r->element[2];
            const redisReply *event = r->element[3];
            if (channel->type == REDIS_REPLY_STRING && event->type == REDIS_REPLY_STRING &&
                parse_channel(channel->str, channel->len, &db, &key))
                self->listener_->on_key_event(db, key, std::string(event->str, event->len));
        } else if (kind == "psubscribe") {
            self->pending_.erase(std::string(r->element[1]->str, r->element[1]->len));
            self->maybe_report();
        }
    }

    static void on_connect(const redisAsyncContext *ac, int status)
    {
        auto *self = static_cast<RedisSubscriber *>(ac->data);
        if (self == nullptr || status == REDIS_OK) return;
        self->ac_ = nullptr; // hiredis frees it after this call
        self->connect_failed(ac->errstr);
    }

    static void on_disconnect(const redisAsyncContext *ac, int status)
    {
        auto *self = static_cast<RedisSubscriber *>(ac->data);
        if (self == nullptr) return;
        self->ac_ = nullptr; // hiredis frees it after this call
        self->lost(status == REDIS_OK ? std::string("closed") : std::string(ac->errstr));
    }

    static void on_retry(evutil_socket_t, short, void *arg)
    {
        static_cast<RedisSubscriber *>(arg)->open();
    }

    std::shared_ptr<Shared> shared_;
    event_base *base_ = nullptr;
    SubscriberListener *listener_ = nullptr;
    event *retry_ = nullptr;
    event *ping_ = nullptr; // asks a loading server again
    redisAsyncContext *ac_ = nullptr;
    std::set<std::pair<int, std::string>> watched_;
    std::set<std::string> pending_; // patterns sent on this connection and not yet confirmed
    bool ready_ = false;            // the server has answered PING: subscriptions are sent
    bool answered_ = false;         // the server has answered CONFIG GET on this connection
    bool reported_ = false;         // on_subscribed() told for the current watch set
    int backoff_ms_;
    std::string bad_flags_; // the insufficient setting last reported
    LogLimiter log_{std::chrono::seconds(5)};
};

} // namespace

std::unique_ptr<Subscriber> make_subscriber(std::shared_ptr<Shared> shared)
{
    return std::make_unique<RedisSubscriber>(std::move(shared));
}

} // namespace qv::mom::redis
