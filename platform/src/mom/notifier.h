// Wakes an event base from any thread: notify() makes on_wake run on the thread running the
// base's loop (once for any number of notifies since it last ran).
#ifndef QV_MOM_NOTIFIER_H
#define QV_MOM_NOTIFIER_H

#include <atomic>
#include <functional>
#include <memory>

struct event;
struct event_base;

namespace qv::mom {

class Notifier {
public:
    // Null when the pipe or the event cannot be made.
    static std::unique_ptr<Notifier> create(event_base *base, std::function<void()> on_wake);
    // Must run on the base's thread, or once its loop has stopped.
    ~Notifier();
    Notifier(const Notifier &) = delete;
    Notifier &operator=(const Notifier &) = delete;

    void notify();

private:
    Notifier() = default;
    static void on_readable(int fd, short what, void *arg);

    int read_fd_ = -1;
    int write_fd_ = -1;
    event *ev_ = nullptr;
    std::function<void()> on_wake_;
    std::atomic<bool> pending_{false};
};

} // namespace qv::mom

#endif // QV_MOM_NOTIFIER_H
