// Debug shell: an in-process server and clients speaking the wire format over its socket.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qv_zlog.h"
#include "ssat.h"
#include "ssat_wire.h"

namespace
{

std::atomic<bool> g_client_gone{false}, g_flood_done{false};

int cmd_echo(const char *args)
{
    return ssat_printf("[%s]\n", args) < 0;
}
int cmd_code(const char *args)
{
    return ssat_printf("code %s\n", args) < 0 ? -100 : std::atoi(args);
}
int cmd_where(const char *)
{
    return ssat_printf(ssat_out() == stdout ? "stdout\n" : "shell\n") < 0;
}
int cmd_stop_self(const char *)
{
    ssat_multi_thread_stop("selfstop");
    return 3;
}

// Prints, waits for the client to go, then keeps printing into the lost session.
int cmd_flood(const char *)
{
    ssat_printf("first\n");
    std::fflush(ssat_out());
    for (int i = 0; i < 500 && !g_client_gone; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (int i = 0; i < 1000; ++i)
        ssat_printf("%s\n", std::string(1024, 'x').c_str());
    g_flood_done = true;
    return 0;
}

std::string path_of(const char *module)
{
    char buf[256];
    EXPECT_GT(ssat_socket_path(module, buf, sizeof buf), 0);
    return buf;
}

struct Reply {
    bool ok = false;
    std::string output, message, error;
    int32_t code = 0;
};

class Client
{
  public:
    explicit Client(const char *module)
    {
        std::string error;
        fd_ = ssat_wire::connect_socket(path_of(module), &error);
        EXPECT_GE(fd_, 0) << error;
        timeval tv{5, 0}; // a broken server fails the test instead of hanging it
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Client() { close(fd_); }
    int fd() const { return fd_; }

    // Sends bytes as they are (several lines, or none) and reads one answer.
    Reply send(const std::string &bytes)
    {
        EXPECT_TRUE(ssat_wire::send_all(fd_, bytes.data(), bytes.size()));
        return read();
    }
    Reply run(const std::string &line) { return send(line + "\n"); }
    Reply read()
    {
        Reply r;
        auto sink = [&r](ssat_wire::Frame t, std::string_view text) {
            (t == ssat_wire::Frame::Output ? r.output : r.message) += text;
        };
        r.ok = ssat_wire::read_reply(fd_, sink, &r.code, &r.error);
        return r;
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

std::mutex g_log_mutex;
std::vector<std::string> g_log;

class SsatTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/ssat_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("PMX_RUN_DIR", tmpl, 1);
        qv_zlog_set_capture(
            [](int, const char *, const char *text, void *) {
                std::lock_guard<std::mutex> lock(g_log_mutex);
                g_log.push_back(text);
            },
            nullptr);
    }
    void TearDown() override
    {
        for (const auto &m : modules_)
            ssat_multi_thread_stop(m.c_str());
        qv_zlog_set_capture(nullptr, nullptr);
        unsetenv("PMX_RUN_DIR");
        unsetenv("XDG_RUNTIME_DIR");
        std::filesystem::remove_all(dir_);
    }
    int serve(const char *module)
    {
        modules_.push_back(module);
        ssat_multi_thread_reg_mod_cmd(module, "echo", "print the arguments", cmd_echo);
        ssat_multi_thread_reg_mod_cmd(module, "code", "end with the code given", cmd_code);
        return ssat_multi_thread_init(module);
    }
    // True when one logged line holds both texts.
    static bool logged(const std::string &a, const std::string &b)
    {
        std::lock_guard<std::mutex> lock(g_log_mutex);
        for (const auto &l : g_log)
            if (l.find(a) != std::string::npos && l.find(b) != std::string::npos) return true;
        return false;
    }
    std::string dir_;
    std::vector<std::string> modules_;
};

TEST_F(SsatTest, RunsCommandsWithTheirArgumentsAndCodes)
{
    ASSERT_EQ(serve("m1"), SSAT_OK);
    EXPECT_EQ(ssat_multi_thread_init("m1"), SSAT_OK); // a second start is a no-op
    Client c("m1");
    Reply r = c.run("echo dbg_level=4");
    EXPECT_TRUE(r.ok && r.output == "[dbg_level=4]\n" && r.code == 0) << r.error << r.output;
    EXPECT_EQ(c.run("echo").output, "[]\n");
    EXPECT_EQ(c.run("  echo \t a\tb  c \t").output, "[a\tb  c]\n");
    r = c.run("code -5");
    EXPECT_EQ(r.output, "code -5\n");
    EXPECT_EQ(r.code, -5);
    EXPECT_EQ(c.run("code 7").code, 7);
    r = c.run("   ");
    EXPECT_TRUE(r.ok && r.output.empty() && r.code == 0);
    // Two lines in one write get two answers, in order.
    EXPECT_EQ(c.send("echo a\necho b\n").output, "[a]\n");
    EXPECT_EQ(c.read().output, "[b]\n");
}

TEST_F(SsatTest, HelpListsCommandsInRegistrationOrder)
{
    ASSERT_EQ(serve("m2"), SSAT_OK);
    EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("m2", "echo", "again", cmd_echo), SSAT_E_EXISTS);
    EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("m2", "help", "mine", cmd_echo), SSAT_E_EXISTS);
    for (const char *bad : {"a b", "", "a\x01"})
        EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("m2", bad, "", cmd_echo), SSAT_E_INVAL) << bad;
    EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("m2", "x", "", nullptr), SSAT_E_INVAL);
    EXPECT_EQ(ssat_multi_thread_reg_mod_cmd("a/b", "x", "", cmd_echo), SSAT_E_INVAL);
    // Registered while serving: available at once.
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("m2", "where", "tell the output stream", cmd_where),
              SSAT_OK);
    Client c("m2");
    Reply r = c.run("help");
    EXPECT_EQ(r.code, 0);
    size_t h = r.output.find("help "), e = r.output.find("echo "), k = r.output.find("code "),
           w = r.output.find("where  tell the output stream\n");
    ASSERT_TRUE(h != std::string::npos && e != std::string::npos && k != std::string::npos &&
                w != std::string::npos)
        << r.output;
    EXPECT_TRUE(h < e && e < k && k < w) << r.output;
    EXPECT_NE(r.output.find("print the arguments"), std::string::npos);
    r = c.run("help code");
    EXPECT_EQ(r.output.find("echo"), std::string::npos);
    EXPECT_NE(r.output.find("end with the code given"), std::string::npos);
    EXPECT_NE(c.run("help nope").code, 0);
    // Inside the shell output goes to the session; elsewhere to standard output.
    EXPECT_EQ(c.run("where").output, "shell\n");
    EXPECT_EQ(ssat_out(), stdout);
    testing::internal::CaptureStdout();
    ssat_printf("plain %d\n", 5);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "plain 5\n");
}

TEST_F(SsatTest, RejectsBadLinesClearly)
{
    ASSERT_EQ(serve("m3"), SSAT_OK);
    Client c("m3");
    auto refused = [](const Reply &r, const char *why) {
        return r.ok && r.code != 0 && r.output.empty() && r.message.find(why) != std::string::npos;
    };
    EXPECT_TRUE(refused(c.run("nope x"), "unknown command 'nope' in module m3; 'help' lists"));
    EXPECT_TRUE(refused(c.run("echo a\x01"
                              "b"),
                        "control character 0x01 at position 7"));
    EXPECT_TRUE(refused(c.send(std::string("echo a\0b\n", 9)), "NUL byte at position 7"));
    EXPECT_TRUE(refused(c.run("echo \x7f"), "0x7f"));
    // The session survives all of that; a line of exactly the limit is accepted.
    std::string longest = "echo " + std::string(ssat_wire::kMaxLine - 5, 'x');
    Reply r = c.run(longest);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output.size(), ssat_wire::kMaxLine - 5 + 3);
    // One byte more is refused and the session ends, with or without its newline.
    EXPECT_TRUE(refused(c.run(longest + "x"), "4097 bytes"));
    EXPECT_TRUE(c.closed_by_server());
    Client d("m3");
    EXPECT_TRUE(refused(d.send(std::string(3 * ssat_wire::kMaxLine, 'y')), "at most 4096"));
    EXPECT_TRUE(d.closed_by_server());
}

TEST_F(SsatTest, ClientLeavingMidCommandDoesNotStopTheServer)
{
    ASSERT_EQ(serve("m4"), SSAT_OK);
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("m4", "flood", "", cmd_flood), SSAT_OK);
    g_client_gone = false;
    g_flood_done = false;
    {
        Client c("m4");
        ASSERT_TRUE(ssat_wire::send_all(c.fd(), "flood\n", 6));
        char first;
        ASSERT_EQ(recv(c.fd(), &first, 1, 0), 1); // the command is running
    }
    g_client_gone = true;
    for (int i = 0; i < 500 && !g_flood_done; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(g_flood_done);
    Client next("m4");
    EXPECT_EQ(next.run("echo alive").output, "[alive]\n");
    EXPECT_TRUE(logged("m4", "left during 'flood'"));
}

TEST_F(SsatTest, ServesSeveralClientsAndModules)
{
    ASSERT_EQ(serve("ma"), SSAT_OK);
    ASSERT_EQ(serve("mb"), SSAT_OK);
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("ma", "where", "", cmd_where), SSAT_OK);
    EXPECT_EQ(Client("ma").run("echo 1").output, "[1]\n");
    Client a("ma"), b("mb"), a2("ma");
    EXPECT_EQ(a2.run("echo 2").output, "[2]\n");
    EXPECT_EQ(b.run("where").code, SSAT_E_INVAL); // commands belong to their module
    EXPECT_EQ(a.run("where").output, "shell\n");

    // Stopping one module ends its sessions and removes its socket; the other goes on.
    ssat_multi_thread_stop("ma");
    EXPECT_TRUE(a.closed_by_server());
    struct stat st;
    EXPECT_NE(stat(path_of("ma").c_str(), &st), 0);
    EXPECT_EQ(b.run("echo 3").output, "[3]\n");
    // Stopped, a module forgets its commands; it can be served again.
    EXPECT_EQ(serve("ma"), SSAT_OK);
    EXPECT_EQ(Client("ma").run("where").code, SSAT_E_INVAL);
}

TEST_F(SsatTest, LastModuleCanStopFromItsOwnCommand)
{
    ASSERT_EQ(ssat_multi_thread_reg_mod_cmd("selfstop", "stop", "", cmd_stop_self), SSAT_OK);
    ASSERT_EQ(ssat_multi_thread_init("selfstop"), SSAT_OK);
    Client c("selfstop");
    EXPECT_EQ(c.run("stop").code, 3);
    EXPECT_TRUE(c.closed_by_server());
    ASSERT_EQ(serve("after"), SSAT_OK); // a new server thread
    EXPECT_EQ(Client("after").run("echo x").output, "[x]\n");
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
    EXPECT_EQ(Client("stale").run("echo s").output, "[s]\n");
    EXPECT_TRUE(logged("removed stale socket", stale));
    struct stat st;
    ASSERT_EQ(stat(stale.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode) && (st.st_mode & 0777) == 0600) << std::oct << st.st_mode;

    // A socket a live process answers on, or another file, is left alone.
    std::string live = path_of("live");
    int live_fd = bind_at(live, 1);
    EXPECT_EQ(serve("live"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged("live", "a live process answers"));
    std::string error;
    int probe = ssat_wire::connect_socket(live, &error);
    EXPECT_GE(probe, 0) << error;
    ::close(probe);
    ::close(live_fd);
    std::ofstream(path_of("file")) << "data";
    EXPECT_EQ(serve("file"), SSAT_E_SOCKET);
    EXPECT_TRUE(std::filesystem::is_regular_file(path_of("file")));
}

TEST_F(SsatTest, DefaultDirectoryMustBePrivate)
{
    unsetenv("PMX_RUN_DIR");
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(path_of("x"), "/tmp/pmx-" + std::to_string(geteuid()) + "/x.sock");
    char small[8];
    EXPECT_EQ(ssat_socket_path("x", small, sizeof small), static_cast<int>(path_of("x").size()));
    EXPECT_EQ(std::string(small), path_of("x").substr(0, 7));
    for (const char *bad : {"", ".hidden", "../x", "a/b", "a b"})
        EXPECT_EQ(ssat_socket_path(bad, small, sizeof small), SSAT_E_INVAL) << bad;

    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    std::string run = dir_ + "/pmx";
    ASSERT_EQ(serve("d1"), SSAT_OK);
    struct stat st;
    ASSERT_EQ(lstat(run.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(path_of("d1"), run + "/d1.sock");

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
    std::filesystem::rename(run, dir_ + "/real");
    std::filesystem::create_directory_symlink(dir_ + "/real", run);
    EXPECT_EQ(serve("d4"), SSAT_E_SOCKET);
    EXPECT_TRUE(logged(run, "is not a directory"));
}

} // namespace
