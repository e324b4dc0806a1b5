// A self-pipe: the write end is poked from any thread, the read end is an event of the base.
#include "notifier.h"

#include "log.h"

#include <event2/event.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qv::mom {

std::unique_ptr<Notifier> Notifier::create(event_base *base, std::function<void()> on_wake)
{
    std::unique_ptr<Notifier> n(new Notifier());
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "cannot make the wake-up pipe of an event thread: %s", std::strerror(errno));
        return nullptr;
    }
    n->read_fd_ = fds[0];
    n->write_fd_ = fds[1];
    n->on_wake_ = std::move(on_wake);
    n->ev_ = event_new(base, n->read_fd_, EV_READ | EV_PERSIST, &Notifier::on_readable, n.get());
    if (n->ev_ == nullptr || event_add(n->ev_, nullptr) != 0) {
        QV_MOM_LOG(QV_ZLOG_LEVEL_ERROR, "cannot add the wake-up event of an event thread");
        return nullptr;
    }
    return n;
}

Notifier::~Notifier()
{
    if (ev_ != nullptr) event_free(ev_);
    if (read_fd_ >= 0) close(read_fd_);
    if (write_fd_ >= 0) close(write_fd_);
}

void Notifier::notify()
{
    if (pending_.exchange(true)) return;
    const char byte = 1;
    // A full pipe already holds a wake-up, so a failed write loses nothing.
    ssize_t rc = write(write_fd_, &byte, 1);
    (void)rc;
}

void Notifier::on_readable(int fd, short what, void *arg)
{
    (void)what;
    auto *self = static_cast<Notifier *>(arg);
    char buf[64];
    while (read(fd, buf, sizeof buf) > 0) {
    }
    // Cleared after the pipe is empty and before on_wake looks at the work: a notify from here
    // on writes a new byte, and one made earlier has its work seen by this on_wake.
    self->pending_.store(false);
    self->on_wake_();
}

} // namespace qv::mom
