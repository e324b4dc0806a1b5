// The event thread of a glb: it runs a timer master, owns the back end's change feed, and
// delivers key events and data-source events. Every piece of subscription state lives on this
// thread; the registration calls, callable from any thread, hand their work to it. Key events
// are queued as they come and handled in batches once the loop is back from the feed, so that
// the keys of a batch are re-read together.
#ifndef QV_MOM_FOLLOWER_H
#define QV_MOM_FOLLOWER_H

#include "qv_mom.h"

#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "backend.h"
#include "notifier.h"

struct event;

namespace qv::mom {

class Follower final : public SubscriberListener {
public:
    explicit Follower(qv_mom_glb_t *glb);
    ~Follower() override;
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;

    // Starts the thread and waits until it is attached and its feed started; QV_MOM_OK, or a
    // negative code with the reason in *err.
    int start(std::string *err);
    // Stops and joins the thread; not from the thread itself.
    void stop();

    int reg_ds(const std::string &owner, const qv_mom_key_desc_t *in_keys, int n_in);
    int set_ds_opt(int ds, int opt, int value);
    int reg_ds_event(int ds, int event, qv_mom_ds_event_fn fn, void *arg);
    int reg_key_event(const qv_mom_key_desc_t &key, int event, qv_mom_key_event_fn fn);

    void on_subscribed() override;
    void on_lost(const std::string &why) override;
    void on_key_event(int db, const std::string &key, const std::string &event) override;

private:
    struct Kind;
    struct Source;
    struct KeyDesc {
        const ProtobufCMessageDescriptor *key;
        const ProtobufCMessageDescriptor *value;
        std::string owner;
        int db;
    };
    // What other threads may look at: a source's snapshot option and whether it has started.
    struct SourceOptions {
        int snapshot = 1;
        bool started = false;
    };
    // A key event waiting for its batch.
    struct Pending {
        Kind *kind;
        std::string key;
        bool del;
    };

    void run(std::promise<std::string> *ready);
    bool post(std::function<void()> task);
    void drain();

    Kind *kind_for(const KeyDesc &k);
    void add_source(int id, const std::vector<KeyDesc> &keys);
    void add_key_event(const KeyDesc &k, int event, qv_mom_key_event_fn fn);
    void add_ds_event(int ds, qv_mom_ds_event_fn fn, void *arg);
    void maybe_start(Source &s);
    void watch_kinds(const std::vector<Kind *> &kinds);
    void check_loaded(Source &s);
    void sync_kinds(int db, const std::vector<Kind *> &kinds);
    bool sync_kind(Kind &k, const std::vector<std::string> &keys);
    void rescan();
    void schedule_rescan();
    static int on_rescan_timer(qv_thread_t *timer);
    static int on_replica_timer(qv_thread_t *timer);
    static void on_batch(int fd, short what, void *arg);
    void handle_pending();
    int read_values(const std::vector<Connection::Key> &keys, std::vector<StoredValue> *values,
                    std::vector<bool> *ok);
    void update(Kind &k, const std::string &key, const StoredValue &v, bool deliver_add);
    void forget(Kind &k, const std::string &key);
    void deliver(Kind &k, int event, const std::string &key, const ProtobufCMessage *record,
                 qv_mom_key_event_fn only = nullptr);
    Connection *conn() const;

    qv_mom_glb_t *glb_;
    std::string url_;
    std::thread thread_;
    qv_thread_master_t *master_ = nullptr;
    qv_mom_thread_global_t *record_ = nullptr;
    std::unique_ptr<Subscriber> subscriber_;

    std::mutex mutex_; // guards what follows, up to the event-thread state
    bool accepting_ = false;
    std::unique_ptr<Notifier> notifier_;
    std::deque<std::function<void()>> tasks_;
    std::vector<SourceOptions> options_; // by source id

    // Event-thread state.
    std::map<std::pair<int, std::string>, std::unique_ptr<Kind>> kinds_;
    std::vector<std::unique_ptr<Source>> sources_; // by source id
    bool subscribed_once_ = false;
    bool feed_lost_ = false;
    qv_thread_t *rescan_timer_ = nullptr;
    // How often the replication state of the store is looked at, and the last one seen.
    static constexpr long kReplicaPollUs = 250000;
    qv_thread_t *replica_timer_ = nullptr;
    std::string replica_state_;
    std::vector<Pending> pending_; // key events in the order they came, not yet handled
    event *batch_ev_ = nullptr;    // activated when pending_ stops being empty
};

} // namespace qv::mom

#endif // QV_MOM_FOLLOWER_H
