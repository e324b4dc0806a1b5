// Host debug shell: one thread per process serves every module's socket and its sessions;
// commands run one at a time in that thread, their output framed to the attached client.
#include "ssat.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "host_log.h"
#include "qv_mom.h"
#include "qv_thread.h"
#include "qv_zlog.h"
#include "ssat_access.h"
#include "ssat_names.h"
#include "ssat_wire.h"

namespace
{

constexpr int kSendTimeoutSec = 5; // a client that stops reading for this long is dropped
constexpr int kListenBacklog = 16;

qv_zlog_category_t *log_category()
{
    static qv_zlog_category_t *category = qv_zlog_init("ssat");
    return category;
}

#define SSAT_LOG(level, ...) QV_HOST_LOG(log_category(), level, __VA_ARGS__)

std::string errno_text(int err)
{
    return std::generic_category().message(err);
}

struct Command {
    std::string name;
    std::string help;
    ssat_cmd_fn fn;
    bool listed = true; // shown by help
};

struct Module {
    std::vector<Command> commands; // in registration order, the built-in help first
    int listen_fd = -1;
    uint64_t serving_id = 0; // non-zero while the socket is open
    std::string path;
};

struct Session {
    int fd;
    uint64_t serving_id; // of the module's socket it came in on
    std::string module;
    std::string input;   // bytes of the line not complete yet
    bool broken = false; // the client went away or a line was too long: drop it
};

// While a command runs in the shell: its output stream and its module.
thread_local FILE *t_out = nullptr;
thread_local const std::string *t_module = nullptr;
thread_local bool t_in_server = false;
thread_local qv_thread_master_t *t_master = nullptr; // the shell thread's timer master

int help_command(const char *args);
int module_command(const char *args);

bool valid_module(const char *module)
{
    return module != nullptr && ssat_names::valid_module(module);
}

bool valid_command(const char *cmd)
{
    if (cmd == nullptr || *cmd == '\0') return false;
    for (const char *p = cmd; *p != '\0'; ++p)
        if (static_cast<unsigned char>(*p) <= 0x20 || *p == 0x7f) return false;
    return true;
}

using ssat_names::RunDir;

// This process's socket of module in dir; false with *why when dir is too long for one.
bool socket_path(const RunDir &dir, const char *module, std::string *path, std::string *why)
{
    std::string stem;
    if (!ssat_names::socket_stem(dir.path, module, &stem, why)) return false;
    *path = dir.path + "/" + ssat_names::socket_file(stem, getpid());
    return true;
}

// Removes the socket files of processes that are gone and nobody answers on, whatever their
// module: each process has its own, so nothing else ever replaces them.
void remove_stale_sockets(const RunDir &dir)
{
    DIR *d = opendir(dir.path.c_str());
    if (d == nullptr) return;
    while (const dirent *e = readdir(d)) {
        std::string stem;
        pid_t pid = 0;
        if (!ssat_names::parse_socket_file(e->d_name, &stem, &pid) || pid == getpid()) continue;
        if (kill(pid, 0) == 0 || errno != ESRCH) continue;
        std::string path = dir.path + "/" + e->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode) ||
            ssat_names::socket_answers(path))
            continue;
        if (unlink(path.c_str()) == 0)
            SSAT_LOG(QV_ZLOG_LEVEL_INFO, "removed stale socket %s of process %d, which is gone",
                     path.c_str(), static_cast<int>(pid));
    }
    closedir(d);
}

bool fill_addr(const std::string &path, sockaddr_un *addr)
{
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof addr->sun_path) return false;
    std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Opens the listening socket at path, replacing a stale socket file; -1 with *why on failure.
int open_listener(const char *module, const std::string &path, const ssat_access::Access &access,
                  std::string *why)
{
    sockaddr_un addr;
    if (!fill_addr(path, &addr)) {
        *why = "the socket path " + path + " is too long";
        return -1;
    }
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            *why = path + " exists and is not a socket";
            return -1;
        }
        if (ssat_names::socket_answers(path)) {
            *why = path + " is in use: a live process answers on it";
            return -1;
        }
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            *why = "cannot remove the stale socket " + path + ": " + errno_text(errno);
            return -1;
        }
        SSAT_LOG(QV_ZLOG_LEVEL_INFO, "module %s: removed stale socket %s", module, path.c_str());
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *why = "cannot make a socket: " + errno_text(errno);
        return -1;
    }
    // Nobody can connect before listen(), so the mode is set before the socket is reachable.
    if (bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        *why = "cannot bind " + path + ": " + errno_text(errno);
        close(fd);
        return -1;
    }
    if (!ssat_access::open_socket(path, access, why)) {
        close(fd);
        unlink(path.c_str());
        return -1;
    }
    if (listen(fd, kListenBacklog) != 0) {
        *why = "cannot listen on " + path + ": " + errno_text(errno);
        close(fd);
        unlink(path.c_str());
        return -1;
    }
    return fd;
}

ssize_t output_write(void *cookie, const char *buf, size_t size)
{
    auto *s = static_cast<Session *>(cookie);
    if (!s->broken && !ssat_wire::send_text(s->fd, ssat_wire::Frame::Output, buf, size))
        s->broken = true;
    return static_cast<ssize_t>(size); // a lost client swallows the output: the command goes on
}

void reply_message(Session &s, const std::string &text, int code)
{
    if (!ssat_wire::send_text(s.fd, ssat_wire::Frame::Message, text.data(), text.size()) ||
        !ssat_wire::send_end(s.fd, code))
        s.broken = true;
}

class Server
{
  public:
    int init(const char *module);
    int reg(const char *module, const char *cmd, const char *help, ssat_cmd_fn fn);
    void stop(const char *module);
    std::vector<Command> commands(const std::string &module);

  private:
    struct Listener {
        int fd;
        uint64_t serving_id;
        std::string module;
    };

    Module &module_locked(const std::string &name);
    void wake();
    void loop(uint64_t generation);
    void accept_session(const Listener &l, std::vector<Session> *sessions);
    bool serve_input(Session &s);
    void run_line(Session &s, std::string_view line);

    std::mutex mu_;
    std::condition_variable cv_;
    std::map<std::string, Module> modules_;
    std::vector<int> retired_; // listening sockets the server thread closes before its next poll
    std::thread thread_;
    uint64_t generation_ = 0; // a server thread of an older generation ends
    uint64_t next_serving_id_ = 1;
    int wake_[2] = {-1, -1};
};

// Never destroyed: the server thread may outlive static destruction at exit.
Server &server()
{
    static Server *s = new Server;
    return *s;
}

Module &Server::module_locked(const std::string &name)
{
    auto it = modules_.find(name);
    if (it != modules_.end()) return it->second;
    Module &m = modules_[name];
    m.commands.push_back(
        {"help", "list the commands (help <command>: that one only)", help_command});
    m.commands.push_back({std::string(ssat_names::kModuleQuery), "print the full module name",
                          module_command, false});
    return m;
}

void Server::wake()
{
    char c = 1;
    ssize_t n = write(wake_[1], &c, 1); // a full pipe already wakes the thread
    (void)n;
}

int Server::init(const char *module)
{
    if (!valid_module(module)) {
        SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "invalid module name '%s'",
                 module != nullptr ? module : "(null)");
        return SSAT_E_INVAL;
    }
    std::lock_guard<std::mutex> lock(mu_);
    Module &m = module_locked(module);
    if (m.serving_id != 0) return SSAT_OK;
    if (wake_[0] < 0 && pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "module %s: cannot make the wake-up pipe: %s", module,
                 errno_text(errno).c_str());
        return SSAT_E_SOCKET;
    }
    RunDir dir = ssat_names::run_dir();
    std::string path, why;
    if (!socket_path(dir, module, &path, &why)) {
        SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "module %s: cannot serve: %s", module, why.c_str());
        return SSAT_E_SOCKET;
    }
    int fd = -1;
    ssat_access::Access access;
    if (ssat_access::from_environment(&access, &why) && ssat_access::prepare_dir(dir, access, &why)) {
        const std::string warning = ssat_access::reach_warning(dir, access);
        if (!warning.empty()) SSAT_LOG(QV_ZLOG_LEVEL_WARN, "module %s: %s", module, warning.c_str());
        remove_stale_sockets(dir);
        fd = open_listener(module, path, access, &why);
    }
    if (fd < 0) {
        SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "module %s: cannot serve on %s: %s", module, path.c_str(),
                 why.c_str());
        return SSAT_E_SOCKET;
    }
    if (!thread_.joinable()) {
        try {
            thread_ = std::thread([this, gen = generation_] { loop(gen); });
        } catch (const std::system_error &e) {
            SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "module %s: cannot start the shell thread: %s", module,
                     e.what());
            close(fd);
            unlink(path.c_str());
            return SSAT_E_NOMEM;
        }
    }
    m.listen_fd = fd;
    m.path = path;
    m.serving_id = next_serving_id_++;
    wake();
    SSAT_LOG(QV_ZLOG_LEVEL_INFO, "module %s: serving debug commands on %s", module, path.c_str());
    return SSAT_OK;
}

int Server::reg(const char *module, const char *cmd, const char *help, ssat_cmd_fn fn)
{
    if (!valid_module(module) || !valid_command(cmd) || fn == nullptr) {
        SSAT_LOG(QV_ZLOG_LEVEL_ERROR,
                 "module %s: cannot register command '%s': invalid name or no handler",
                 module != nullptr ? module : "(null)", cmd != nullptr ? cmd : "(null)");
        return SSAT_E_INVAL;
    }
    std::lock_guard<std::mutex> lock(mu_);
    Module &m = module_locked(module);
    for (const auto &c : m.commands) {
        if (c.name == cmd) {
            SSAT_LOG(QV_ZLOG_LEVEL_WARN, "module %s: command '%s' is registered already", module,
                     cmd);
            return SSAT_E_EXISTS;
        }
    }
    m.commands.push_back({cmd, help != nullptr ? help : "", fn});
    return SSAT_OK;
}

void Server::stop(const char *module)
{
    if (module == nullptr) return;
    std::thread ending;
    {
        std::unique_lock<std::mutex> lock(mu_);
        auto it = modules_.find(module);
        if (it == modules_.end()) return;
        if (it->second.serving_id != 0) {
            unlink(it->second.path.c_str());
            retired_.push_back(it->second.listen_fd);
            SSAT_LOG(QV_ZLOG_LEVEL_INFO, "module %s: stopped serving on %s", module,
                     it->second.path.c_str());
        }
        modules_.erase(it);
        bool serving = false;
        for (const auto &entry : modules_)
            serving = serving || entry.second.serving_id != 0;
        if (!thread_.joinable()) return;
        if (!serving) {
            ++generation_;
            // From a command, the thread ends by itself once the command returns.
            if (t_in_server)
                thread_.detach();
            else
                ending = std::move(thread_);
        }
        wake();
        if (!t_in_server && !ending.joinable()) cv_.wait(lock, [this] { return retired_.empty(); });
    }
    if (ending.joinable()) ending.join();
}

std::vector<Command> Server::commands(const std::string &module)
{
    std::lock_guard<std::mutex> lock(mu_);
    auto it = modules_.find(module);
    return it != modules_.end() ? it->second.commands : std::vector<Command>{};
}

// Commands run like any platform thread's code: with a database context and a timer master
// whose timers fire in this thread (polled every kTimerPollMs while any is pending). The context
// lives for one command, so it never outlives the process's database handle.
constexpr int kTimerPollMs = 100;

bool attach_database(qv_thread_master_t *master)
{
    qv_mom_glb_t *glb = qv_mom_glb_default();
    if (glb != nullptr && qv_mom_thread_attach(glb, master) != nullptr) return true;
    SSAT_LOG(QV_ZLOG_LEVEL_WARN, "the shell thread has no database context; commands that read it fail");
    return false;
}

void Server::loop(uint64_t generation)
{
    t_in_server = true;
    qv_thread_master_t *master = qv_thread_master_create("ssat");
    t_master = master;
    std::vector<Session> sessions;
    std::vector<Listener> listeners;
    std::vector<pollfd> fds;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            for (int fd : retired_)
                close(fd);
            retired_.clear();
            cv_.notify_all();
            if (generation != generation_) break;
            listeners.clear();
            for (const auto &[name, m] : modules_)
                if (m.serving_id != 0) listeners.push_back({m.listen_fd, m.serving_id, name});
        }
        // Sessions of a module that stopped serving end with it.
        std::erase_if(sessions, [&](const Session &s) {
            for (const auto &l : listeners)
                if (l.serving_id == s.serving_id) return false;
            close(s.fd);
            return true;
        });

        fds.clear();
        fds.push_back({wake_[0], POLLIN, 0});
        for (const auto &s : sessions)
            fds.push_back({s.fd, POLLIN, 0});
        for (const auto &l : listeners)
            fds.push_back({l.fd, POLLIN, 0});
        const int timeout = master != nullptr && qv_thread_master_pending(master) > 0 ? kTimerPollMs : -1;
        const int ready = poll(fds.data(), fds.size(), timeout);
        if (master != nullptr) qv_thread_master_run_for(master, nullptr);
        if (ready < 0) {
            if (errno != EINTR)
                SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "poll failed: %s", errno_text(errno).c_str());
            continue;
        }
        if (fds[0].revents != 0) {
            char buf[64];
            while (read(wake_[0], buf, sizeof buf) > 0) {
            }
        }
        size_t n_sessions = sessions.size();
        for (size_t i = 0; i < n_sessions; ++i) {
            if (fds[1 + i].revents != 0 && !serve_input(sessions[i])) {
                close(sessions[i].fd);
                sessions[i].fd = -1;
            }
        }
        std::erase_if(sessions, [](const Session &s) { return s.fd < 0; });
        for (size_t i = 0; i < listeners.size(); ++i)
            if (fds[1 + n_sessions + i].revents != 0) accept_session(listeners[i], &sessions);
    }
    for (const auto &s : sessions)
        close(s.fd);
    t_master = nullptr;
    if (master != nullptr) qv_thread_master_free(master);
}

void Server::accept_session(const Listener &l, std::vector<Session> *sessions)
{
    int fd = accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
            SSAT_LOG(QV_ZLOG_LEVEL_WARN, "module %s: cannot accept a client: %s", l.module.c_str(),
                     errno_text(errno).c_str());
        return;
    }
    timeval tv{};
    tv.tv_sec = kSendTimeoutSec;
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sessions->push_back({fd, l.serving_id, l.module, {}, false});
    SSAT_LOG(QV_ZLOG_LEVEL_DEBUG, "module %s: client attached", l.module.c_str());
}

// Reads what the client sent and runs its complete lines; false when the session ends.
bool Server::serve_input(Session &s)
{
    char buf[4096];
    ssize_t n = recv(s.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0) return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK;
    s.input.append(buf, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t nl; !s.broken && (nl = s.input.find('\n', start)) != std::string::npos;
         start = nl + 1)
        run_line(s, std::string_view(s.input).substr(start, nl - start));
    s.input.erase(0, start);
    if (!s.broken && s.input.size() > ssat_wire::kMaxLine)
        run_line(s, s.input); // answers "too long" and ends the session
    return n > 0 && !s.broken;
}

void Server::run_line(Session &s, std::string_view line)
{
    std::string problem = ssat_wire::line_problem(line);
    if (!problem.empty()) {
        SSAT_LOG(QV_ZLOG_LEVEL_WARN, "module %s: rejected a command line: %s", s.module.c_str(),
                 problem.c_str());
        reply_message(s, problem, SSAT_E_INVAL);
        if (line.size() > ssat_wire::kMaxLine) s.broken = true; // the rest of it would follow
        return;
    }
    auto [name, args] = ssat_wire::split_line(line);
    if (name.empty()) {
        if (!ssat_wire::send_end(s.fd, SSAT_OK)) s.broken = true;
        return;
    }

    ssat_cmd_fn fn = nullptr;
    for (const auto &c : commands(s.module))
        if (c.name == name) fn = c.fn;
    if (fn == nullptr) {
        reply_message(s,
                      "unknown command '" + name + "' in module " + s.module +
                          "; 'help' lists the commands",
                      SSAT_E_INVAL);
        return;
    }

    cookie_io_functions_t io{};
    io.write = output_write;
    FILE *out = fopencookie(&s, "w", io);
    if (out == nullptr) {
        reply_message(s, "cannot open the output stream", SSAT_E_NOMEM);
        return;
    }
    const bool attached = attach_database(t_master);
    t_out = out;
    t_module = &s.module;
    int rc = fn(args.c_str());
    if (attached) qv_mom_thread_detach();
    t_out = nullptr;
    t_module = nullptr;
    std::fclose(out);
    if (!s.broken && !ssat_wire::send_end(s.fd, rc)) s.broken = true;
    if (s.broken)
        SSAT_LOG(QV_ZLOG_LEVEL_INFO, "module %s: the client left during '%s'; session dropped",
                 s.module.c_str(), name.c_str());
}

int help_command(const char *args)
{
    std::vector<Command> list = server().commands(*t_module);
    if (*args != '\0') {
        for (const auto &c : list) {
            if (c.name == args) {
                ssat_printf("%s  %s\n", c.name.c_str(), c.help.c_str());
                return SSAT_OK;
            }
        }
        ssat_printf("no command '%s' in module %s\n", args, t_module->c_str());
        return SSAT_E_INVAL;
    }
    int width = 0;
    for (const auto &c : list)
        if (c.listed) width = std::max(width, static_cast<int>(c.name.size()));
    for (const auto &c : list)
        if (c.listed) ssat_printf("%-*s  %s\n", width, c.name.c_str(), c.help.c_str());
    return SSAT_OK;
}

int module_command(const char *)
{
    ssat_printf("%s\n", t_module->c_str());
    return SSAT_OK;
}

} // namespace

extern "C" int ssat_multi_thread_init(const char *module)
{
    try {
        return server().init(module);
    } catch (const std::bad_alloc &) {
        return SSAT_E_NOMEM;
    }
}

extern "C" int ssat_multi_thread_reg_mod_cmd(const char *module, const char *cmd, const char *help,
                                             ssat_cmd_fn fn)
{
    try {
        return server().reg(module, cmd, help, fn);
    } catch (const std::bad_alloc &) {
        return SSAT_E_NOMEM;
    }
}

extern "C" void ssat_multi_thread_stop(const char *module)
{
    try {
        server().stop(module);
    } catch (const std::bad_alloc &) {
        SSAT_LOG(QV_ZLOG_LEVEL_ERROR, "module %s: out of memory while stopping", module);
    }
}

extern "C" int ssat_socket_path(const char *module, char *buf, size_t size)
{
    if (!valid_module(module) || (buf == nullptr && size > 0)) return SSAT_E_INVAL;
    try {
        std::string path, why;
        if (!socket_path(ssat_names::run_dir(), module, &path, &why)) return SSAT_E_SOCKET;
        if (size > 0) {
            size_t n = std::min(path.size(), size - 1);
            std::memcpy(buf, path.data(), n);
            buf[n] = '\0';
        }
        return static_cast<int>(path.size());
    } catch (const std::bad_alloc &) {
        return SSAT_E_NOMEM;
    }
}

extern "C" FILE *ssat_out(void)
{
    return t_out != nullptr ? t_out : stdout;
}

extern "C" int ssat_vprintf(const char *format, va_list ap)
{
    return std::vfprintf(ssat_out(), format, ap);
}

extern "C" int ssat_printf(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    int n = ssat_vprintf(format, ap);
    va_end(ap);
    return n;
}
