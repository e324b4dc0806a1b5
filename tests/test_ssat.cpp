// Debug shell: an in-process server (and a second process's), clients of the public API, and
// raw clients speaking the wire format over the socket.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "ssat.h"
#include "ssat_client.h"
#include "ssat_wire.h"
#include "temp_dir.h"

extern char **environ;

namespace
{
namespace fs = std::filesystem;

std::atomic<bool> g_client_gone{false};

int cmd_echo(const char *args) { return ssat_printf("[%s]\n", args) < 0; }
int cmd_code(const char *args) { return ssat_printf("code %s\n", args) < 0 ? -100 : std::atoi(args); }
int cmd_where(const char *) { return ssat_printf(ssat_out() == stdout ? "stdout\n" : "shell\n") < 0; }
int cmd_pid(const char *) { return ssat_printf("%d\n", static_cast<int>(getpid())) < 0; }

// Prints, waits for the client to go, then keeps printing into the lost session.
int cmd_flood(const char *)
{
    ssat_printf("first\n");
    std::fflush(ssat_out());
    for (int i = 0; i < 500 && !g_client_gone; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (int i = 0; i < 1000; ++i)
        ssat_printf("%s\n", std::string(1024, 'x').c_str());
    return 0;
}

std::string path_of(const char *module)
{
    char buf[256];
    EXPECT_GT(ssat_socket_path(module, buf, sizeof buf), 0);
    return buf;
}

// Runs one line through the public API in module's process pid (0: the only one). The answer as
// one text: the output, the shell's messages after "message: " and "=> code"; or "error: ...".
std::string run_in(const std::string &module, const std::string &line, pid_t pid = getpid())
{
    std::string text;
    auto sink = [](void *to, int kind, const char *s, size_t size) {
        *static_cast<std::string *>(to) +=
            (kind == SSAT_CLIENT_MESSAGE ? "message: " : "") + std::string(s, size);
    };
    ssat_client_t *c = nullptr;
    int code = 0;
    const bool ok = ssat_client_connect(module.c_str(), pid, &c) == 0 &&
                    ssat_client_set_timeout(c, 5000) == 0 &&
                    ssat_client_run(c, line.c_str(), sink, &text, &code) == 0;
    ssat_client_close(c);
    const std::string error = ssat_client_last_error();
    return ok ? text + "=> " + std::to_string(code) : "error: " + error;
}

// A client speaking the wire format itself, for what the public API never sends.
class Wire
{
  public:
    explicit Wire(const char *module)
    {
        std::string error;
        fd_ = ssat_wire::connect_socket(path_of(module), &error);
        EXPECT_GE(fd_, 0) << error;
        timeval tv{5, 0}; // a broken server fails the test instead of hanging it
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Wire() { close(fd_); }

    // Sends bytes as they are (several lines, or none) and reads one answer.
    std::string send(const std::string &bytes)
    {
        EXPECT_TRUE(ssat_wire::send_all(fd_, bytes.data(), bytes.size()));
        return read();
    }
    std::string run(const std::string &line) { return send(line + "\n"); }
    std::string read()
    {
        std::string text, error;
        auto sink = [&text](ssat_wire::Frame t, std::string_view s) {
            text += (t == ssat_wire::Frame::Message ? "message: " : "") + std::string(s);
        };
        int32_t code = 0;
        const bool ok = ssat_wire::read_reply(fd_, sink, &code, &error);
        return ok ? text + "=> " + std::to_string(code) : "error: " + error;
    }
    // Closing with our bytes still unread makes the server's close a reset.
    bool closed_by_server()
    {
        char c;
        ssize_t n = recv(fd_, &c, 1, 0);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    }

  private:
    int fd_ = -1;
};

class SsatTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir_.path().empty());
        setenv("PMX_RUN_DIR", dir_.path().c_str(), 1);
    }
    void TearDown() override
    {
        for (const auto &m : modules_)
            ssat_multi_thread_stop(m.c_str());
        unsetenv("PMX_RUN_DIR");
        unsetenv("XDG_RUNTIME_DIR");
        unsetenv("PMX_SHELL_GROUP");
    }
    int serve(const std::string &module)
    {
        modules_.push_back(module);
        ssat_multi_thread_reg_mod_cmd(module.c_str(), "echo", "print the arguments", cmd_echo);
        ssat_multi_thread_reg_mod_cmd(module.c_str(), "code", "end with the code given", cmd_code);
        ssat_multi_thread_reg_mod_cmd(module.c_str(), "pid", "print the process id", cmd_pid);
        return ssat_multi_thread_init(module.c_str());
    }
    // True when one logged line holds both texts.
    bool logged(const std::string &a, const std::string &b) const
    {
        for (const auto &l : log_.lines())
            if (l.text.find(a) != std::string::npos && l.text.find(b) != std::string::npos)
                return true;
        return false;
    }
    LogCapture log_;
    pmx_test::TempDir dir_;
    std::vector<std::string> modules_;
};

TEST_F(SsatTest, RunsLinesWithTheirArgumentsAndCodesAndRefusesBadOnes)
{
    ASSERT_EQ(serve("m1"), SSAT_OK);
    EXPECT_EQ(ssat_multi_thread_init("m1"), SSAT_OK); // a second start is a no-op
    EXPECT_EQ(run_in("m1", "echo dbg_level=4"), "[dbg_level=4]\n=> 0");
    EXPECT_EQ(run_in("m1", "echo"), "[]\n=> 0");
    EXPECT_EQ(run_in("m1", "  echo \t a\tb  c \t"), "[a\tb  c]\n=> 0");
    EXPECT_EQ(run_in("m1", "code -5"), "code -5\n=> -5");
    EXPECT_EQ(run_in("m1", "   "), "=> 0");
    // Two lines in one write get two answers, in order.
    Wire c("m1");
    EXPECT_EQ(c.send("echo a\necho b\n"), "[a]\n=> 0");
    EXPECT_EQ(c.read(), "[b]\n=> 0");

    // The buffer form cuts the text and tells its length; a refused line is not even sent.
    ssat_client_t *api = nullptr;
    ASSERT_EQ(ssat_client_connect("m1", 0, &api), SSAT_CLIENT_OK) << ssat_client_last_error();
    char buf[8];
    size_t length = 0;
    int code = 1;
    EXPECT_EQ(ssat_client_run_buf(api, "echo abcdefghij", buf, sizeof buf, &length, &code), 0);
    EXPECT_TRUE(std::string(buf) == "[abcdef" && length == 13 && code == 0) << buf << length;
    EXPECT_EQ(ssat_client_run(api, "echo a\x01", nullptr, nullptr, &code), SSAT_CLIENT_E_INVAL);
    EXPECT_TRUE(ssat_client_run(api, "code 2", nullptr, nullptr, &code) == 0 && code == 2);
    ssat_client_close(api);

    // The server refuses bad lines clearly, and the session survives them.
    auto refused = [](const std::string &r, const char *why) {
        return r.starts_with("message: ") && r.find(why) != std::string::npos && r.ends_with("=> -1");
    };
    EXPECT_TRUE(refused(c.run("nope x"), "unknown command 'nope' in module m1; 'help' lists"));
    EXPECT_TRUE(refused(c.run("echo a\x01z"), "control character 0x01 at position 7"));
    EXPECT_TRUE(refused(c.send(std::string("echo a\0b\n", 9)), "NUL byte at position 7"));
    EXPECT_TRUE(refused(c.run("echo \x7f"), "0x7f"));
    // A line of exactly the limit is accepted.
    std::string longest = "echo " + std::string(ssat_wire::kMaxLine - 5, 'x');
    EXPECT_EQ(c.run(longest), "[" + longest.substr(5) + "]\n=> 0");
    // One byte more is refused and the session ends, with or without its newline.
    EXPECT_TRUE(refused(c.run(longest + "x"), "4097 bytes"));
    EXPECT_TRUE(c.closed_by_server());
    Wire d("m1");
    EXPECT_TRUE(refused(d.send(std::string(3 * ssat_wire::kMaxLine, 'y')), "at most 4096"));
    EXPECT_TRUE(d.closed_by_server());
}

TEST_F(SsatTest, ClientLeavingMidCommandDoesNotStopTheServer)
{
    ASSERT_EQ(serve("m2"), SSAT_OK);
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("m2", "flood", "", cmd_flood), SSAT_OK);
    g_client_gone = false;
    // The client stops waiting while the command runs: its stream is out of step, so it is done.
    ssat_client_t *c = nullptr;
    int code = 0;
    ASSERT_EQ(ssat_client_connect("m2", 0, &c), SSAT_CLIENT_OK);
    ASSERT_EQ(ssat_client_set_timeout(c, 50), SSAT_CLIENT_OK);
    EXPECT_EQ(ssat_client_run(c, "flood", nullptr, nullptr, &code), SSAT_CLIENT_E_TIMEOUT);
    EXPECT_EQ(ssat_client_run(c, "echo", nullptr, nullptr, &code), SSAT_CLIENT_E_IO);
    ssat_client_close(c);
    g_client_gone = true; // the flood ends, and the next command is served
    EXPECT_EQ(run_in("m2", "echo alive"), "[alive]\n=> 0");
    EXPECT_TRUE(logged("m2", "left during 'flood'"));
}

TEST_F(SsatTest, ServesModulesEachWithItsCommandsAndHelpAndStops)
{
    ASSERT_EQ(serve("ma"), SSAT_OK);
    ASSERT_EQ(serve("mb"), SSAT_OK);
    for (const char *taken : {"echo", "help", ".module"})
        EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("ma", taken, "mine", cmd_echo), SSAT_E_EXISTS);
    for (const char *bad : {"a b", "", "a\x01"})
        EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("ma", bad, "", cmd_echo), SSAT_E_INVAL) << bad;
    EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("ma", "x", "", nullptr), SSAT_E_INVAL);
    EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("a/b", "x", "", cmd_echo), SSAT_E_INVAL);
    EXPECT_EQ(ssat_client_list("a/b", nullptr, 0), SSAT_CLIENT_E_INVAL);
    // Registered while serving: available at once. ".module" is answered but not listed.
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("ma", "where", "tell the output stream", cmd_where), 0);
    EXPECT_EQ(run_in("ma", "help"), "help   list the commands (help <command>: that one only)\n"
                                    "echo   print the arguments\ncode   end with the code given\n"
                                    "pid    print the process id\nwhere  tell the output stream\n=> 0");
    EXPECT_EQ(run_in("ma", "help code"), "code  end with the code given\n=> 0");
    EXPECT_EQ(run_in("ma", "help nope"), "no command 'nope' in module ma\n=> -1");
    Wire a("ma"), b("mb");
    EXPECT_EQ(run_in("ma", "echo 2"), "[2]\n=> 0"); // beside a session of the same module
    EXPECT_EQ(b.run("where").find("message: unknown command"), 0u); // ma's command only
    // Inside the shell output goes to the session; elsewhere to standard output.
    EXPECT_EQ(a.run("where"), "shell\n=> 0");
    testing::internal::CaptureStdout();
    ssat_printf("plain %d\n", 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "plain 5\n");

    // Stopping one module ends its sessions and removes its socket; the other goes on.
    ssat_multi_thread_stop("ma");
    EXPECT_TRUE(a.closed_by_server());
    EXPECT_FALSE(fs::exists(path_of("ma")));
    EXPECT_EQ(b.run("echo 3"), "[3]\n=> 0");
    // The last module serving can stop from its own command, which ends the server thread.
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("mb", "stop", "", [](const char *) {
                  ssat_multi_thread_stop("mb");
                  return 3;
              }), SSAT_OK);
    EXPECT_EQ(b.run("stop"), "=> 3");
    EXPECT_TRUE(b.closed_by_server());
    // Stopped, a module forgets its commands; it can be served again, by a new server thread.
    EXPECT_EQ(serve("ma"), SSAT_OK);
    EXPECT_EQ(run_in("ma", "where").find("message: unknown command 'where' in module ma;"), 0u);
}

TEST_F(SsatTest, SocketFileHandling)
{
    auto bind_at = [](const std::string &path, int backlog) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{AF_UNIX, {}};
        std::strcpy(addr.sun_path, path.c_str());
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_TRUE(backlog == 0 || listen(fd, backlog) == 0);
        return fd;
    };
    // A socket file nobody answers on is replaced.
    std::string stale = path_of("stale");
    ::close(bind_at(stale, 0));
    ASSERT_EQ(serve("stale"), SSAT_OK);
    EXPECT_EQ(run_in("stale", "echo s"), "[s]\n=> 0");
    EXPECT_TRUE(logged("removed stale socket", stale));
    const auto st = fs::status(stale);
    EXPECT_TRUE(st.type() == fs::file_type::socket && st.permissions() == fs::perms(0600));

    // A socket a live process answers on, or another file, is left alone.
    std::string live = path_of("live");
    int live_fd = bind_at(live, 1);
    EXPECT_EQ(serve("live"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged("live", "a live process answers"));
    EXPECT_TRUE(fs::exists(live));
    ::close(live_fd);
    std::ofstream(path_of("file")) << "data";
    EXPECT_EQ(serve("file"), SSAT_E_SOCKET);
    EXPECT_TRUE(fs::is_regular_file(path_of("file")));

    // A name whose pid is not plain digits is no socket of a process (kill(-2) would be a group).
    const int neg = bind_at(dir_.path() + "/neg.-2.sock", 1);
    ssat_client_proc_t procs[1] = {};
    EXPECT_EQ(ssat_client_list("neg", procs, 1), 0);
    ::close(neg);
}

TEST_F(SsatTest, SeveralProcessesServeOneModule)
{
    // Another process serves "demo" in the same directory; it is killed at the latest on return.
    struct Other {
        pid_t pid = 0;
        ~Other() { if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0); }
    } other;
    // The server's command may start with an emulator's words; exec keeps the spawned pid.
    char *argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                    const_cast<char *>("exec " SSAT_TEST_SERVER), nullptr};
    ASSERT_EQ(posix_spawn(&other.pid, "/bin/sh", nullptr, nullptr, argv, environ), 0);
    ASSERT_EQ(serve("demo"), SSAT_OK);
    const pid_t child = other.pid, self = getpid();
    ssat_client_proc_t procs[3] = {};
    for (int i = 0; i < 500 && ssat_client_list("demo", procs, 3) < 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(ssat_client_list("demo", procs, 3), 2) << ssat_client_last_error();
    EXPECT_TRUE(procs[0].pid == std::min(child, self) && procs[1].pid == std::max(child, self));
    EXPECT_EQ(std::string(procs[0].path),
              dir_.path() + "/demo." + std::to_string(procs[0].pid) + ".sock");
    EXPECT_EQ(ssat_client_list(nullptr, procs, 1), 2); // all of them, more than asked for
    for (pid_t pid : {child, self})
        EXPECT_EQ(run_in("demo", "pid", pid), std::to_string(pid) + "\n=> 0");
    EXPECT_EQ(run_in("demo", "pid", 0),
              "error: module demo is served by 2 processes (" + std::to_string(std::min(child, self)) +
                  ", " + std::to_string(std::max(child, self)) + "): pick one by its process id");

    // Its socket outlives it: skipped while listed, removed by the next start.
    ASSERT_TRUE(kill(child, SIGKILL) == 0 &&
                waitpid(std::exchange(other.pid, 0), nullptr, 0) == child);
    const std::string left = dir_.path() + "/demo." + std::to_string(child) + ".sock";
    ASSERT_TRUE(fs::exists(left));
    EXPECT_EQ(run_in("demo", "pid", 0), std::to_string(self) + "\n=> 0");
    ASSERT_EQ(serve("again"), SSAT_OK);
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(logged("removed stale socket", left));
}

TEST_F(SsatTest, LongModuleNames)
{
    // Two names of the longest kind that differ only past the part kept in the file name.
    const std::string a = std::string(126, 'n') + "a", b = std::string(126, 'n') + "b";
    ASSERT_EQ(serve(a), SSAT_OK);
    ASSERT_EQ(serve(b), SSAT_OK);
    EXPECT_EQ(run_in(a, ".module", 0), a + "\n=> 0");
    ssat_client_proc_t procs[2];
    ASSERT_EQ(ssat_client_list(nullptr, procs, 2), 2);
    EXPECT_TRUE(procs[0].module == a && procs[1].module == b &&
                procs[1].path == path_of(b.c_str()));
    EXPECT_EQ(ssat_multi_thread_init((a + "x").c_str()), SSAT_E_INVAL); // 128 characters

    // A run directory that leaves no room for any socket name is named, with the way out.
    const std::string deep = dir_.path() + "/" + std::string(90, 'd');
    setenv("PMX_RUN_DIR", deep.c_str(), 1);
    EXPECT_EQ(serve("m"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged(deep + " is too long", "set PMX_RUN_DIR"));
    EXPECT_EQ(ssat_client_list("m", procs, 2), SSAT_CLIENT_E_RUN_DIR);
}

TEST_F(SsatTest, DefaultDirectoryMustBePrivate)
{
    unsetenv("PMX_RUN_DIR");
    unsetenv("XDG_RUNTIME_DIR");
    const std::string pid = std::to_string(getpid()), dir = dir_.path();
    EXPECT_EQ(path_of("x"), "/tmp/pmx-" + std::to_string(geteuid()) + "/x." + pid + ".sock");
    char small[8];
    EXPECT_EQ(ssat_socket_path("x", small, sizeof small), static_cast<int>(path_of("x").size()));
    EXPECT_EQ(std::string(small), path_of("x").substr(0, 7));
    for (const char *bad : {"", ".hidden", "../x", "a/b", "a b"})
        EXPECT_EQ(ssat_socket_path(bad, small, sizeof small), SSAT_E_INVAL) << bad;

    setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
    std::string run = dir + "/pmx";
    ASSERT_EQ(serve("d1"), SSAT_OK);
    EXPECT_EQ(fs::symlink_status(run).permissions(), fs::perms(0700));
    EXPECT_EQ(path_of("d1"), run + "/d1." + pid + ".sock");

    chmod(run.c_str(), 0750);
    EXPECT_EQ(serve("d2"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged(run, "mode 0750"));
    chmod(run.c_str(), 0700);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(run.c_str(), 65534, 65534), 0);
        EXPECT_EQ(serve("d3"), SSAT_E_SOCKET);
        EXPECT_TRUE(logged(run, "is owned by uid 65534"));
        ASSERT_EQ(chown(run.c_str(), 0, 0), 0);
    }
    // A link in place of the directory is refused even when it leads to a private one.
    fs::rename(run, dir + "/real");
    fs::create_directory_symlink(dir + "/real", run);
    EXPECT_EQ(serve("d4"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged(run, "is not a directory"));
}

// Connects to path as another user (uid, gid, its groups), in a child that asks the shell one
// line; 0 when answered, else the errno of the connect (or -1 for no answer).
int attach_as(const std::string &path, uid_t uid, gid_t gid, std::vector<gid_t> groups)
{
    int pipefd[2];
    if (pipe(pipefd) != 0) return -2;
    const pid_t child = fork();
    if (child == 0) {
        int result = -1;
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(3);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
            result = errno;
        } else {
            char c;
            if (write(fd, "echo hi\n", 8) == 8 && read(fd, &c, 1) == 1) result = 0;
        }
        if (write(pipefd[1], &result, sizeof result) != sizeof result) _exit(4);
        _exit(0);
    }
    close(pipefd[1]);
    int result = -3;
    if (read(pipefd[0], &result, sizeof result) != sizeof result) result = -4;
    close(pipefd[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return result;
}

TEST_F(SsatTest, OnlyTheOwnerAndTheNamedGroupMayAttach)
{
    if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
    unsetenv("PMX_RUN_DIR");
    ASSERT_EQ(chmod(dir_.path().c_str(), 0711), 0); // others may pass through, not list
    const std::string xdg = dir_.path();
    setenv("XDG_RUNTIME_DIR", xdg.c_str(), 1);
    const gid_t operators = 4242;
    const std::string run = xdg + "/pmx";

    // A group named by its number: the directory and the socket are given to it.
    setenv("PMX_SHELL_GROUP", "4242", 1);
    ASSERT_EQ(serve("g1"), SSAT_OK);
    struct stat st{};
    ASSERT_EQ(lstat(run.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(st.st_gid, operators);
    const std::string sock = path_of("g1");
    ASSERT_EQ(lstat(sock.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(st.st_gid, operators);
    EXPECT_EQ(attach_as(sock, 5001, 5001, {operators}), 0) << "a member of the group is let in";
    EXPECT_EQ(attach_as(sock, 5002, 5002, {}), EACCES) << "anyone else is refused";
    EXPECT_EQ(attach_as(sock, 5003, operators, {}), 0) << "the group as primary group counts";

    // Without the variable, the same directory is closed again and the member refused.
    ssat_multi_thread_stop("g1");
    unsetenv("PMX_SHELL_GROUP");
    EXPECT_EQ(serve("p1"), SSAT_E_SOCKET) << "a 0750 directory is not private";
    EXPECT_TRUE(logged(run, "mode 0750"));
    ASSERT_EQ(chmod(run.c_str(), 0700), 0);
    ASSERT_EQ(serve("p2"), SSAT_OK);
    ASSERT_EQ(lstat(path_of("p2").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(attach_as(path_of("p2"), 5001, 5001, {operators}), EACCES);

    // A group found with other modes is set right; one open to others is refused; a name this
    // machine does not know is refused with the variable's name.
    setenv("PMX_SHELL_GROUP", "4242", 1);
    ASSERT_EQ(serve("g2"), SSAT_OK);
    ASSERT_EQ(lstat(run.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    chmod(run.c_str(), 0755);
    EXPECT_EQ(serve("g3"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged(run, "is open to others (mode 0755)"));
    chmod(run.c_str(), 0750);
    setenv("PMX_SHELL_GROUP", "no-such-group-here", 1);
    EXPECT_EQ(serve("g4"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged("PMX_SHELL_GROUP names group 'no-such-group-here'", "does not know"));
    setenv("PMX_SHELL_GROUP", "4294967295", 1); // chown would read it as "keep the group"
    EXPECT_EQ(serve("g5"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged("PMX_SHELL_GROUP=4294967295", "is no group number"));
    unsetenv("PMX_SHELL_GROUP");
}

} // namespace
