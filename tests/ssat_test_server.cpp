// Serves the debug-shell module "demo" with three commands. Given a command line, it runs that
// program while serving (with SSAT_TEST_SERVER_PID set to this process's id) and exits with its
// status; without one it serves until killed. Unless PMX_RUN_DIR is set, the socket goes to a
// fresh directory of its own, which a nested server run as that program shares.
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

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
    if (ssat_multi_thread_init("demo") != SSAT_OK) return 1;

    int status = 0, sig = 0;
    pid_t pid;
    if (argc < 2) {
        sigwait(&stop_signals, &sig);
    } else if (setenv("SSAT_TEST_SERVER_PID", std::to_string(getpid()).c_str(), 1) != 0 ||
               posix_spawnp(&pid, argv[1], nullptr, nullptr, argv + 1, environ) != 0) {
        perror(argv[1]);
        status = 127;
    } else if (waitpid(pid, &status, 0) == pid) {
        status = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }
    ssat_multi_thread_stop("demo");
    if (!own_dir.empty()) std::filesystem::remove_all(own_dir);
    return status;
}
