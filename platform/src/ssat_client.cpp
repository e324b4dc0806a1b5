// Client of the debug shell: finds the serving processes by their socket files and runs
// command lines over the wire format.
#include "ssat_client.h"

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "ssat_names.h"
#include "ssat_wire.h"

struct ssat_client {
    int fd = -1;
    bool broken = false; // an answer was lost half-way: the stream is out of step
};

namespace
{

// Asking a process for the full name behind a shortened stem must not hold up a listing.
constexpr int kNameQueryTimeoutMs = 1000;

thread_local std::string t_error;

int fail(int code, std::string text)
{
    t_error = std::move(text);
    return code;
}

struct Proc {
    std::string module;
    pid_t pid;
    std::string path;
};

void set_timeout(int fd, int timeout_ms)
{
    timeval tv{};
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = (timeout_ms % 1000) * 1000;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

int run(ssat_client *c, const char *line, const ssat_wire::TextSink &sink, int *code)
{
    if (c == nullptr || line == nullptr || code == nullptr)
        return fail(SSAT_CLIENT_E_INVAL, "null client, command line or result code");
    if (c->broken) return fail(SSAT_CLIENT_E_IO, "the connection broke during an earlier command");
    std::string problem = ssat_wire::line_problem(line);
    if (!problem.empty()) return fail(SSAT_CLIENT_E_INVAL, problem);
    int32_t result = 0;
    std::string error;
    if (!ssat_wire::run_line(c->fd, line, sink, &result, &error)) {
        c->broken = true;
        return fail(error == ssat_wire::kNoAnswerInTime ? SSAT_CLIENT_E_TIMEOUT : SSAT_CLIENT_E_IO,
                    error);
    }
    *code = result;
    return SSAT_CLIENT_OK;
}

// The full module name behind a shortened stem, asked of the process; the stem when it does not
// tell in time.
std::string ask_name(const Proc &p)
{
    std::string error, out;
    int fd = ssat_wire::connect_socket(p.path, &error);
    if (fd < 0) return p.module;
    ssat_client c;
    c.fd = fd;
    set_timeout(fd, kNameQueryTimeoutMs);
    int code = -1;
    std::string line(ssat_names::kModuleQuery);
    int rc = run(
        &c, line.c_str(),
        [&out](ssat_wire::Frame type, std::string_view text) {
            if (type == ssat_wire::Frame::Output) out += text;
        },
        &code);
    close(fd);
    if (rc == SSAT_CLIENT_OK && code == 0 && !out.empty() && out.back() == '\n') out.pop_back();
    return rc == SSAT_CLIENT_OK && code == 0 && ssat_names::valid_module(out) ? out : p.module;
}

// The processes serving module (every module when empty) in dir.
int find(const std::string &module, std::vector<Proc> *procs)
{
    const ssat_names::RunDir dir = ssat_names::run_dir();
    std::string stem, why;
    if (!module.empty() && !ssat_names::socket_stem(dir.path, module, &stem, &why))
        return fail(SSAT_CLIENT_E_RUN_DIR, why);
    DIR *d = opendir(dir.path.c_str());
    if (d == nullptr) {
        if (errno == ENOENT) return SSAT_CLIENT_OK;
        return fail(SSAT_CLIENT_E_RUN_DIR, "cannot read the run directory " + dir.path + ": " +
                                               std::generic_category().message(errno));
    }
    while (const dirent *e = readdir(d)) {
        std::string file_stem;
        pid_t pid = 0;
        if (!ssat_names::parse_socket_file(e->d_name, &file_stem, &pid)) continue;
        if (!module.empty() && file_stem != stem) continue;
        std::string path = dir.path + "/" + e->d_name;
        if (path.size() > ssat_names::kMaxPath || !ssat_names::socket_answers(path)) continue;
        procs->push_back({module.empty() ? file_stem : module, pid, path});
    }
    closedir(d);
    for (Proc &p : *procs)
        if (ssat_names::shortened(p.module)) p.module = ask_name(p);
    std::sort(procs->begin(), procs->end(), [](const Proc &a, const Proc &b) {
        return a.module != b.module ? a.module < b.module : a.pid < b.pid;
    });
    return SSAT_CLIENT_OK;
}

bool check_module(const char *module)
{
    if (module != nullptr && ssat_names::valid_module(module)) return true;
    fail(SSAT_CLIENT_E_INVAL,
         "invalid module name '" + std::string(module != nullptr ? module : "(null)") +
             "': use letters, digits, '_', '-' and '.', not leading '.', at most " +
             std::to_string(ssat_names::kMaxModule) + " characters");
    return false;
}

void copy(const std::string &from, char *to, size_t size)
{
    if (size == 0) return;
    size_t n = std::min(from.size(), size - 1);
    std::memcpy(to, from.data(), n);
    to[n] = '\0';
}

int connect_to(const char *module, pid_t pid, ssat_client_t **client)
{
    if (client == nullptr) return fail(SSAT_CLIENT_E_INVAL, "null client");
    *client = nullptr;
    if (!check_module(module)) return SSAT_CLIENT_E_INVAL;
    if (pid < 0) return fail(SSAT_CLIENT_E_INVAL, "invalid process id " + std::to_string(pid));
    std::string path;
    if (pid == 0) {
        std::vector<Proc> procs;
        if (int rc = find(module, &procs); rc != SSAT_CLIENT_OK) return rc;
        if (procs.empty())
            return fail(SSAT_CLIENT_E_NOT_SERVING,
                        "module " + std::string(module) +
                            " is not serving: no process answers on a socket of it in " +
                            ssat_names::run_dir().path);
        if (procs.size() > 1) {
            std::string pids;
            for (const Proc &p : procs)
                pids += (pids.empty() ? "" : ", ") + std::to_string(p.pid);
            return fail(SSAT_CLIENT_E_SEVERAL, "module " + std::string(module) + " is served by " +
                                                   std::to_string(procs.size()) + " processes (" +
                                                   pids + "): pick one by its process id");
        }
        path = procs[0].path;
    } else {
        const std::string dir = ssat_names::run_dir().path;
        std::string stem, why;
        if (!ssat_names::socket_stem(dir, module, &stem, &why))
            return fail(SSAT_CLIENT_E_RUN_DIR, why);
        path = dir + "/" + ssat_names::socket_file(stem, pid);
    }
    std::string error;
    int fd = ssat_wire::connect_socket(path, &error);
    if (fd < 0) {
        std::string who = pid == 0 ? std::string() : " in process " + std::to_string(pid);
        return fail(SSAT_CLIENT_E_NOT_SERVING,
                    "module " + std::string(module) + " is not serving" + who + ": " + error);
    }
    auto *c = new (std::nothrow) ssat_client;
    if (c == nullptr) {
        close(fd);
        return fail(SSAT_CLIENT_E_NOMEM, "out of memory");
    }
    c->fd = fd;
    *client = c;
    return SSAT_CLIENT_OK;
}

} // namespace

extern "C" int ssat_client_list(const char *module, ssat_client_proc_t *procs, size_t max)
{
    t_error.clear();
    if (module != nullptr && !check_module(module)) return SSAT_CLIENT_E_INVAL;
    if (procs == nullptr && max > 0) return fail(SSAT_CLIENT_E_INVAL, "null process list");
    try {
        std::vector<Proc> found;
        if (int rc = find(module != nullptr ? module : "", &found); rc != SSAT_CLIENT_OK) return rc;
        for (size_t i = 0; i < found.size() && i < max; ++i) {
            copy(found[i].module, procs[i].module, sizeof procs[i].module);
            procs[i].pid = found[i].pid;
            copy(found[i].path, procs[i].path, sizeof procs[i].path);
        }
        t_error.clear(); // a name query that went unanswered is no failure of the listing
        return static_cast<int>(found.size());
    } catch (const std::bad_alloc &) {
        return fail(SSAT_CLIENT_E_NOMEM, "out of memory");
    }
}

extern "C" int ssat_client_connect(const char *module, pid_t pid, ssat_client_t **client)
{
    t_error.clear();
    try {
        return connect_to(module, pid, client);
    } catch (const std::bad_alloc &) {
        return fail(SSAT_CLIENT_E_NOMEM, "out of memory");
    }
}

extern "C" int ssat_client_set_timeout(ssat_client_t *client, int timeout_ms)
{
    t_error.clear();
    if (client == nullptr || timeout_ms < 0)
        return fail(SSAT_CLIENT_E_INVAL, "null client or negative timeout");
    set_timeout(client->fd, timeout_ms);
    return SSAT_CLIENT_OK;
}

extern "C" int ssat_client_run(ssat_client_t *client, const char *line, ssat_client_text_fn fn,
                               void *ctx, int *code)
{
    t_error.clear();
    try {
        return run(
            client, line,
            [fn, ctx](ssat_wire::Frame type, std::string_view text) {
                if (fn != nullptr)
                    fn(ctx,
                       type == ssat_wire::Frame::Output ? SSAT_CLIENT_OUTPUT : SSAT_CLIENT_MESSAGE,
                       text.data(), text.size());
            },
            code);
    } catch (const std::bad_alloc &) {
        return fail(SSAT_CLIENT_E_NOMEM, "out of memory");
    }
}

extern "C" int ssat_client_run_buf(ssat_client_t *client, const char *line, char *buf, size_t size,
                                   size_t *length, int *code)
{
    t_error.clear();
    if (buf == nullptr && size > 0) return fail(SSAT_CLIENT_E_INVAL, "null buffer");
    try {
        std::string answer;
        int rc = run(
            client, line,
            [&answer](ssat_wire::Frame type, std::string_view text) {
                answer += text;
                if (type == ssat_wire::Frame::Message) answer += '\n';
            },
            code);
        copy(answer, buf, size);
        if (length != nullptr) *length = answer.size();
        return rc;
    } catch (const std::bad_alloc &) {
        return fail(SSAT_CLIENT_E_NOMEM, "out of memory");
    }
}

extern "C" void ssat_client_close(ssat_client_t *client)
{
    if (client == nullptr) return;
    close(client->fd);
    delete client;
}

extern "C" const char *ssat_client_last_error(void)
{
    return t_error.c_str();
}
