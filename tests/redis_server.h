// Test helper: a private Redis server (scripts/redis-private) on a Unix socket in a temporary
// directory, stopped and removed with the object. A missing redis-server makes start() fail
// with the reason in error(): integration suites assert on it and never skip.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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

extern char **environ;

namespace pmx_test {

class RedisServer {
public:
    RedisServer()
    {
        const char *tmp = std::getenv("TMPDIR");
        std::string tmpl =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pmx-redis.XXXXXX";
        if (::mkdtemp(tmpl.data()) != nullptr)
            dir_ = tmpl;
        else
            error_ = "cannot make a directory from " + tmpl + ": " + std::strerror(errno);
    }
    ~RedisServer()
    {
        stop();
        if (!dir_.empty()) {
            std::error_code ec;
            std::filesystem::remove_all(dir_, ec);
        }
    }
    RedisServer(const RedisServer &) = delete;
    RedisServer &operator=(const RedisServer &) = delete;

    // Starts the server, empty, on the same socket path every time; false with error() set.
    bool start() { return !dir_.empty() && script("start"); }
    // Shuts the server down and waits until it has exited; true also when it was not running.
    bool stop() { return dir_.empty() || script("stop"); }
    // Kills the server with SIGKILL (nothing is saved) and waits until it is gone.
    bool kill9()
    {
        pid_t pid = server_pid();
        if (pid <= 0) return fail("no server pid in " + dir_);
        if (::kill(pid, SIGKILL) != 0)
            return fail("kill -9 " + std::to_string(pid) + ": " + std::strerror(errno));
        for (int i = 0; i < 500; ++i) { // a killed process is gone within milliseconds
            if (!process_alive(pid)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return fail("server pid " + std::to_string(pid) + " survived SIGKILL");
    }
    bool restart() { return stop() && start(); }

    std::string url() const { return "unix://" + socket_path(); }
    std::string socket_path() const { return dir_ + "/redis.sock"; }
    const std::string &dir() const { return dir_; }
    const std::string &error() const { return error_; }

    // The private-server script of this source tree.
    static std::string script_path()
    {
        return (std::filesystem::path(__FILE__).parent_path().parent_path() / "scripts" /
                "redis-private")
            .string();
    }

private:
    bool fail(const std::string &why)
    {
        error_ = why;
        return false;
    }

    // Runs "redis-private CMD DIR"; its output becomes error() when it fails.
    bool script(const char *cmd)
    {
        const std::string path = script_path();
        const std::string out = dir_ + "/script.out";
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        std::string args[] = {"bash", path, cmd, dir_};
        char *argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(), nullptr};
        pid_t child = 0;
        int rc = posix_spawnp(&child, "bash", &fa, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&fa);
        if (rc != 0) return fail(std::string("cannot run ") + path + ": " + std::strerror(rc));
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
        std::ifstream in(out);
        std::stringstream text;
        text << in.rdbuf();
        return fail(path + " " + cmd + " failed: " + text.str());
    }

    pid_t server_pid() const
    {
        std::ifstream in(dir_ + "/redis.pid");
        long pid = 0;
        in >> pid;
        return static_cast<pid_t>(pid);
    }

    // Running, and not an exited process waiting to be reaped.
    static bool process_alive(pid_t pid)
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
