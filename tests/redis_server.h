// Test helper: a private Redis server (scripts/redis-private) on a Unix socket in a temporary
// directory, stopped and removed with the object. A missing redis-server makes start() fail
// with the reason in error(): integration suites assert on it and never skip.
#pragma once

#include <signal.h>
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

namespace pmx_test {

class RedisServer {
public:
    RedisServer()
    {
        const char *tmp = std::getenv("TMPDIR");
        std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pmx-redis.XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr)
            dir_ = tmpl;
        else
            error_ = "cannot make a directory from " + tmpl + ": " + std::strerror(errno);
    }
    ~RedisServer()
    {
        stop();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    RedisServer(const RedisServer &) = delete;
    RedisServer &operator=(const RedisServer &) = delete;

    // Starts the server, empty, on the same socket path every time; false with error() set.
    bool start() { return !dir_.empty() && forget_saved() && script("start"); }
    // Starts it with the data of the last save(), as a server restarted from its snapshot;
    // returns once it has loaded them and answers.
    bool start_with_saved_data() { return !dir_.empty() && script("start"); }
    // Writes what the server holds to its snapshot file (SAVE), for start_with_saved_data().
    bool save()
    {
        const std::string out = dir_ + "/save.out";
        const int status = std::system(
            ("redis-cli -s " + quoted(socket_path()) + " save >" + quoted(out) + " 2>&1").c_str());
        std::stringstream text;
        text << std::ifstream(out).rdbuf();
        if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0 && text.str().rfind("OK", 0) == 0)
            return true;
        return fail("SAVE in " + dir_ + " failed: " + text.str());
    }
    // Shuts the server down and waits until it has exited; true also when it was not running.
    bool stop() { return dir_.empty() || script("stop"); }
    // Kills the server with SIGKILL (nothing is saved) and waits until it is gone.
    bool kill9()
    {
        long pid = 0;
        std::ifstream(dir_ + "/redis.pid") >> pid;
        if (pid <= 0) return fail("no server pid in " + dir_);
        if (::kill(static_cast<pid_t>(pid), SIGKILL) != 0)
            return fail("kill -9 " + std::to_string(pid) + ": " + std::strerror(errno));
        for (int i = 0; i < 500; ++i) { // a killed process is gone within milliseconds
            if (!process_alive(pid)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return fail("server pid " + std::to_string(pid) + " survived SIGKILL");
    }

    std::string url() const { return "unix://" + socket_path(); }
    std::string socket_path() const { return dir_ + "/redis.sock"; }
    const std::string &error() const { return error_; }

    // The private-server script of this source tree.
    static std::string script_path()
    {
        return (std::filesystem::path(__FILE__).parent_path().parent_path() / "scripts" / "redis-private").string();
    }

private:
    bool fail(const std::string &why)
    {
        error_ = why;
        return false;
    }
    bool forget_saved()
    {
        std::error_code ec;
        std::filesystem::remove(dir_ + "/dump.rdb", ec);
        return !ec || fail("cannot remove the snapshot in " + dir_ + ": " + ec.message());
    }
    static std::string quoted(const std::string &s)
    {
        std::string out = "'";
        for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    }

    // Runs "redis-private CMD DIR"; its output becomes error() when it fails.
    bool script(const char *cmd)
    {
        const std::string out = dir_ + "/script.out";
        const int status = std::system(("bash " + quoted(script_path()) + " " + cmd + " " + quoted(dir_) + " >" +
                                        quoted(out) + " 2>&1")
                                           .c_str());
        if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
        std::stringstream text;
        text << std::ifstream(out).rdbuf();
        return fail(script_path() + " " + cmd + " failed: " + text.str());
    }

    // Running, and not an exited process waiting to be reaped.
    static bool process_alive(long pid)
    {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        if (!std::getline(stat, line)) return false;
        size_t close = line.rfind(')');
        return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
    }

    std::string dir_;
    std::string error_;
};

} // namespace pmx_test
