// Test helper: redis-server processes of a test's own, for faults that must not lose data. Each
// server runs in a private directory on a Unix socket, configured as the database client needs it
// (32 databases, keyspace notifications, no pub/sub output limit, as scripts/redis-private does),
// and keeps its data in an append-only file written and synced before each write is answered, so
// what a client was told is stored survives SIGKILL. A server may also listen on a TCP port of
// 127.0.0.1 (a replica reaches its primary only over TCP) or replicate another one.
// A missing redis-server makes start() fail with the reason in error(): suites assert on it and
// never skip.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace pmx_test {

// Starts a program with its standard output and error appended to out, killed with SIGKILL when
// the thread that started it ends (a test that crashes leaves no server or writer behind). 0, or
// the errno of what failed.
inline int spawn_tied(const std::vector<std::string> &args, const std::string &out, pid_t *pid)
{
    std::string path = args.at(0);
    if (path.find('/') == std::string::npos) { // looked up in PATH here: the child may only exec
        const char *env = std::getenv("PATH");
        std::istringstream dirs(env != nullptr ? env : "/usr/bin:/bin");
        std::string found;
        for (std::string d; found.empty() && std::getline(dirs, d, ':');)
            if (::access((d + "/" + path).c_str(), X_OK) == 0) found = d + "/" + path;
        if (found.empty()) return ENOENT;
        path = found;
    }
    std::vector<std::string> words = args;
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) return errno;
    if (child == 0) { // async-signal-safe calls only
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (fd >= 0) {
            ::dup2(fd, STDOUT_FILENO);
            ::dup2(fd, STDERR_FILENO);
        }
        ::execve(path.c_str(), argv.data(), environ);
        ::_exit(127);
    }
    *pid = child;
    return 0;
}

// A directory under $TMPDIR, else /dev/shm (an fsync there costs nothing), else /tmp; removed
// with everything in it.
class FleetDir {
public:
    FleetDir()
    {
        const char *tmp = std::getenv("TMPDIR");
        std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "";
        if (base.empty()) base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string tmpl = base + "/pmx-fleet.XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
    }
    ~FleetDir()
    {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    FleetDir(const FleetDir &) = delete;
    FleetDir &operator=(const FleetDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

class FleetServer {
public:
    struct Config {
        bool tcp = false;     // also listen on 127.0.0.1 (a free port chosen once, kept across restarts)
        int replica_of = 0;   // the TCP port of the primary on 127.0.0.1, or 0
    };

    FleetServer(std::string dir, Config config) : dir_(std::move(dir)), config_(config)
    {
        std::error_code ec;
        std::filesystem::create_directories(dir_, ec);
        broken_ = static_cast<bool>(ec);
        if (broken_) error_ = "cannot make " + dir_ + ": " + ec.message();
        if (config_.tcp) port_ = free_port();
    }
    ~FleetServer() { stop(); }
    FleetServer(const FleetServer &) = delete;
    FleetServer &operator=(const FleetServer &) = delete;

    // Starts the server on the data it has (none the first time) and returns once it answers with
    // that data loaded; false with error() set.
    bool start()
    {
        if (broken_) return false;
        if (pid_ > 0) return fail("the server in " + dir_ + " runs already");
        if (!write_config()) return false;
        std::filesystem::remove(socket_path());
        pid_t pid = 0;
        const int rc = spawn_tied({"redis-server", dir_ + "/redis.conf"}, dir_ + "/redis.out", &pid);
        if (rc != 0)
            return fail(std::string("cannot run redis-server (install the redis-server package, "
                                    "scripts/install-deps): ") + std::strerror(rc));
        pid_ = pid;
        for (int i = 0; i < 1000; ++i) { // 10 s
            if (exited()) return fail("redis-server exited at start: " + log_tail());
            if (loaded()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return fail("redis-server in " + dir_ + " did not answer within 10 s: " + log_tail());
    }
    // SIGKILL: nothing more is written; what was answered is in the append-only file.
    bool kill9()
    {
        if (pid_ <= 0) return fail("no server runs in " + dir_);
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = 0;
        return true;
    }
    // Stops it (SIGTERM: it finishes its file) and waits; true also when it was not running.
    bool stop()
    {
        if (pid_ <= 0) return true;
        ::kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 1000; ++i) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = 0;
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return kill9();
    }

    // One field of INFO section ("" when absent or the server does not answer).
    std::string info(const char *section, const std::string &field) const
    {
        redisContext *c = connect();
        if (c == nullptr) return "";
        std::string value;
        if (auto *r = static_cast<redisReply *>(redisCommand(c, "INFO %s", section)); r != nullptr) {
            if (r->type == REDIS_REPLY_STRING) {
                std::istringstream lines(std::string(r->str, r->len));
                for (std::string line; std::getline(lines, line);) {
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    if (line.rfind(field + ":", 0) == 0) value = line.substr(field.size() + 1);
                }
            }
            freeReplyObject(r);
        }
        redisFree(c);
        return value;
    }
    // A replica whose link to its primary is up.
    bool linked() const { return info("replication", "master_link_status") == "up"; }

    std::string url() const { return "unix://" + socket_path(); }
    std::string socket_path() const { return dir_ + "/redis.sock"; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    const std::string &error() const { return error_; }

private:
    bool fail(const std::string &why)
    {
        error_ = why;
        return false;
    }

    static int free_port()
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0) return -1;
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        int port = -1;
        if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
        ::close(fd);
        return port;
    }

    bool write_config()
    {
        if (config_.tcp && port_ <= 0) return fail("no free TCP port on 127.0.0.1");
        std::ofstream conf(dir_ + "/redis.conf", std::ios::trunc);
        conf << "daemonize no\n"
             << "dir \"" << dir_ << "\"\n"
             << "logfile \"" << dir_ << "/redis.log\"\n"
             << "unixsocket \"" << socket_path() << "\"\n"
             << "unixsocketperm 700\n"
             << "databases 32\n"
             << "notify-keyspace-events KA\n"
             << "client-output-buffer-limit pubsub 0 0 0\n"
             << "save \"\"\n"
             << "appendonly yes\n"
             << "appendfsync always\n";
        if (config_.tcp)
            conf << "bind 127.0.0.1\nport " << port_ << "\n";
        else
            conf << "port 0\n";
        if (config_.replica_of > 0) conf << "replicaof 127.0.0.1 " << config_.replica_of << "\nreplica-read-only yes\n";
        conf.flush();
        return conf ? true : fail("cannot write " + dir_ + "/redis.conf");
    }

    redisContext *connect() const
    {
        const timeval timeout{1, 0};
        redisContext *c = redisConnectUnixWithTimeout(socket_path().c_str(), timeout);
        if (c == nullptr || c->err != 0) {
            if (c != nullptr) redisFree(c);
            return nullptr;
        }
        return c;
    }

    // Answers, and has loaded its data.
    bool loaded() const { return info("persistence", "loading") == "0"; }

    bool exited()
    {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
        pid_ = 0;
        return true;
    }

    std::string log_tail() const
    {
        std::stringstream text;
        text << std::ifstream(dir_ + "/redis.out").rdbuf() << std::ifstream(dir_ + "/redis.log").rdbuf();
        std::string s = text.str();
        return s.size() > 2000 ? s.substr(s.size() - 2000) : s;
    }

    std::string dir_;
    Config config_;
    int port_ = 0;
    pid_t pid_ = 0;
    bool broken_ = false;
    std::string error_;
};

} // namespace pmx_test
