/* Host debug shell: each process serves its modules' debug commands on Unix sockets of its
 * own, $PMX_RUN_DIR/<module>.<pid>.sock (default: a directory private to the user), so several
 * processes of one program serve side by side; `pmx shell` and ssat_client.h attach to them.
 * A name too long for a socket path is shortened in the file name (ssat_client.h finds it by
 * the full name); every module answers the command ".module", which help does not list, with
 * its full name. */
#ifndef SSAT_H
#define SSAT_H

#include <stdarg.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SSAT_OK = 0,
    SSAT_E_INVAL = -1,  /* null or malformed argument */
    SSAT_E_EXISTS = -2, /* the command is registered already */
    SSAT_E_SOCKET = -3, /* the socket could not be made */
    SSAT_E_NOMEM = -4,
};

/* A command handler: args is the text after the command name ("dbg_level=4"), never null.
 * Its result is sent to the client as the command's result code. */
typedef int (*ssat_cmd_fn)(const char *args);

/* Starts serving module's commands on this process's socket of it; one shell thread of the
 * process serves every module, running one command at a time. A module name has letters,
 * digits, '_', '-' and '.', at most 127 of them, not a leading '.'. Socket files of processes
 * that are gone are removed. A second call for the same module is a no-op. */
int ssat_multi_thread_init(const char *module);
/* Registers a command of module, with a one-line help text, before or after the module is
 * served. "help" is built in (it lists the module's commands); a name taken is SSAT_E_EXISTS. */
int ssat_multi_thread_reg_mod_cmd(const char *module, const char *cmd, const char *help, ssat_cmd_fn fn);
/* Stops serving module, removes its socket and forgets its commands (host programs and tests). */
void ssat_multi_thread_stop(const char *module);
/* This process's socket path of module (copied to buf, cut to size - 1 bytes); the length it
 * needs, SSAT_E_INVAL for a bad name, or SSAT_E_SOCKET when the run directory is too long. */
int ssat_socket_path(const char *module, char *buf, size_t size);

/* The one output function of debug commands: the attached client while a command runs in the
 * shell, standard output otherwise. */
int ssat_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
int ssat_vprintf(const char *format, va_list ap) __attribute__((format(printf, 1, 0)));
/* The calling thread's output stream, as above. */
FILE *ssat_out(void);

#ifdef __cplusplus
}
#endif

#endif /* SSAT_H */
