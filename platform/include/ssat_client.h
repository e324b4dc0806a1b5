/* Client of the host debug shell: finds the processes that serve modules' debug commands
 * (ssat.h), attaches to one and runs command lines in it.
 *
 * Each process serving a module has a socket of its own in the run directory ($PMX_RUN_DIR,
 * else $XDG_RUNTIME_DIR/pmx, else /tmp/pmx-<uid>), so several processes of one program can
 * serve the same module; a process is picked by module name and process id. Calls may be made
 * from any thread; one connection is used by one thread at a time. */
#ifndef SSAT_CLIENT_H
#define SSAT_CLIENT_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SSAT_CLIENT_MODULE_SIZE 128 /* a module name has at most 127 characters */
#define SSAT_CLIENT_PATH_SIZE 108   /* a socket path has at most 107 bytes */

/* Results of the calls below. After any failure, ssat_client_last_error() tells what failed. */
enum {
    SSAT_CLIENT_OK = 0,
    SSAT_CLIENT_E_INVAL = -1, /* null or malformed argument: module name, pid, command line */
    SSAT_CLIENT_E_NOT_SERVING =
        -2,                     /* no process serves the module (or none with the pid asked for) */
    SSAT_CLIENT_E_SEVERAL = -3, /* several processes serve the module and no pid picks one */
    SSAT_CLIENT_E_IO = -4,      /* the connection failed or broke, or the answer is malformed */
    SSAT_CLIENT_E_TIMEOUT = -5, /* no answer within the connection's timeout */
    SSAT_CLIENT_E_RUN_DIR = -6, /* the run directory cannot be read, or is too long for a socket */
    SSAT_CLIENT_E_NOMEM = -7,
};

/* A process serving a module. */
typedef struct ssat_client_proc {
    char module[SSAT_CLIENT_MODULE_SIZE]; /* the full module name */
    pid_t pid;
    char path[SSAT_CLIENT_PATH_SIZE]; /* its socket */
} ssat_client_proc_t;

/* Lists the processes that serve module (every module when module is NULL) and accept
 * connections; socket files nobody answers on are skipped. Ordered by module name, then pid.
 * Fills at most max entries of procs (which may be NULL when max is 0) and returns how many
 * processes serve, which may be more than max; or a negative code. A run directory that does
 * not exist lists none. */
int ssat_client_list(const char *module, ssat_client_proc_t *procs, size_t max);

typedef struct ssat_client ssat_client_t;

/* Attaches to the process pid serving module; pid 0 picks the only process serving it
 * (SSAT_CLIENT_E_SEVERAL when there are more, SSAT_CLIENT_E_NOT_SERVING when there is none).
 * On success *client is the connection, to be closed with ssat_client_close. */
int ssat_client_connect(const char *module, pid_t pid, ssat_client_t **client);

/* Longest wait for an answer, in milliseconds; 0, the default, waits as long as the command
 * runs. */
int ssat_client_set_timeout(ssat_client_t *client, int timeout_ms);

/* The kinds of answer text: what the command printed, and the shell's own messages (unknown
 * command, rejected line), which a client shows as errors. */
enum { SSAT_CLIENT_OUTPUT = 0, SSAT_CLIENT_MESSAGE = 1 };
typedef void (*ssat_client_text_fn)(void *ctx, int kind, const char *text, size_t size);

/* Runs one command line (the command name, then its argument text; printable text and tabs,
 * at most 4096 bytes) and reads its answer: fn (may be NULL) sees each piece of text as it
 * arrives, *code gets the command's result code (the shell's own -1 for a command it does not
 * know or a line it refuses). SSAT_CLIENT_OK when an answer came, whatever its code. After
 * SSAT_CLIENT_E_IO or SSAT_CLIENT_E_TIMEOUT the connection is of no further use. */
int ssat_client_run(ssat_client_t *client, const char *line, ssat_client_text_fn fn, void *ctx,
                    int *code);
/* The same, with the answer's text (output, and messages each ended by a newline, in order)
 * copied to buf, cut to size - 1 bytes and NUL-terminated; *length (may be NULL) gets the full
 * length. buf may be NULL when size is 0. */
int ssat_client_run_buf(ssat_client_t *client, const char *line, char *buf, size_t size,
                        size_t *length, int *code);

/* Ends the connection and frees it; NULL is ignored. */
void ssat_client_close(ssat_client_t *client);

/* What the calling thread's last call of this header failed on; "" after a success. */
const char *ssat_client_last_error(void);

#ifdef __cplusplus
}
#endif

#endif /* SSAT_CLIENT_H */
