// Serves the debug-shell module "demo" with three commands. Given a command line, it runs that
// program while serving (with SSAT_TEST_SERVER_PID set to this process's id) and exits with its
// status; without one it serves until killed. Unless PMX_RUN_DIR is set, the socket goes to a
// fresh directory of its own, which a nested server run as that program shares.
//
// The program is started before the server thread exists and held on a pipe until the module
// serves: user-mode emulators (qemu-arm) fork a threaded process unreliably, and a child that
// crashed before its exec failed a test now and then.
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ssat.h"

extern char **environ;

int main(int argc, char **argv)
{
    std::string own_dir;
    if (getenv("PMX_RUN_DIR") == nullptr) {
        char tmpl[] = "/tmp/ssat_server.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return 1;
        own_dir = tmpl;
        setenv("PMX_RUN_DIR", tmpl, 1);
    }
    // Serving until killed: blocked before the server thread starts, so only sigwait sees them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    if (argc < 2) pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    // The program, through a shell that waits for a line on descriptor 3 before it runs it.
    int go[2] = {-1, -1};
    pid_t pid = -1;
    if (argc >= 2) {
        if (pipe(go) != 0 || setenv("SSAT_TEST_SERVER_PID", std::to_string(getpid()).c_str(), 1) != 0) return 1;
        std::vector<char *> words = {const_cast<char *>("/bin/sh"), const_cast<char *>("-c"),
                                     const_cast<char *>("read -r _ <&3 || exit 127; exec 3<&-; exec \"$@\""),
                                     const_cast<char *>("sh")};
        words.insert(words.end(), argv + 1, argv + argc);
        words.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, go[0], 3);
        posix_spawn_file_actions_addclose(&actions, go[1]);
        const int rc = posix_spawn(&pid, words[0], &actions, nullptr, words.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(go[0]);
        if (rc != 0) {
            fprintf(stderr, "ssat_test_server: cannot start %s: %s\n", argv[1], strerror(rc));
            return 127;
        }
    }

    ssat_multi_thread_reg_mod_cmd("demo", "echo", "print the arguments", [](const char *args) {
        ssat_printf("%s\n", args);
        return 0;
    });
    ssat_multi_thread_reg_mod_cmd("demo", "fail", "end with the code given (default 1)",
                                  [](const char *args) {
                                      int code = *args != '\0' ? atoi(args) : 1;
                                      ssat_printf("failing with %d\n", code);
                                      return code;
                                  });
    ssat_multi_thread_reg_mod_cmd("demo", "pid", "print the process id", [](const char *) {
        ssat_printf("%d\n", static_cast<int>(getpid()));
        return 0;
    });
    const bool serving = ssat_multi_thread_init("demo") == SSAT_OK;

    int status = 1, sig = 0;
    if (argc < 2) {
        if (!serving) return 1;
        sigwait(&stop_signals, &sig);
        status = 0;
    } else {
        // The go line only when serving; without it the shell ends with 127.
        if (serving && write(go[1], "\n", 1) != 1) perror("ssat_test_server: go");
        close(go[1]);
        if (waitpid(pid, &status, 0) == pid) status = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
        if (!serving) status = 1;
    }
    ssat_multi_thread_stop("demo");
    if (!own_dir.empty()) std::filesystem::remove_all(own_dir);
    return status;
}
