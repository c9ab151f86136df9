/*
 * libsyscfg: the device's configuration, for every program of the device (docs/library.md, syscfg(3)).
 *
 * Each call opens a socket of its own, sends one request to the daemon, waits for the answer and closes the
 * socket. A call blocks without a time limit; a signal whose handler was set without SA_RESTART ends it as a
 * failure. The socket bears the id of the process, so a process can have one call in progress at a time: a
 * second one fails. A failure is -1 (or a null pointer) with errno as the failing system call left it, after
 * at most one line on standard error.
 */
#ifndef SYSCFG_CLIENT_H
#define SYSCFG_CLIENT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct sockaddr_un;

/* For syscfg_set_flags: send and return, or fail with EAGAIN if the daemon is behind with its requests. The
   thread that serves requests can set in no other way. */
#define SYSCFG_NOREPLY 16

/* Size of the error text of syscfg_command, including its terminator. */
#define SYSCFG_ERROR_SIZE 121

/* A socket bound to this process's name, to be closed by the caller, or -1; address becomes the server's. The
   socket hears only the daemon that ran when it was opened: after a restart, open another. */
int syscfg_client_open(struct sockaddr_un *address);

/* Sends one request and receives one answer, cut to reply_size; request and reply may be the same memory.
   Returns the bytes received, 0 for an empty answer, or a negative value. */
int syscfg_request(const void *request, size_t length, void *reply, size_t reply_size);

/* Sends a command of at most 32 characters ("apply:NAME"). 0 or -1. error_text may be null; otherwise it has
   SYSCFG_ERROR_SIZE bytes and receives the daemon's reason ("NOENT"), or an empty text. */
int syscfg_command(const char *command, char *error_text);

/* Load everything again; make the defaults the saved values and load them; write flash and apply; report
   changes to the services. 0 or -1. */
int syscfg_reload(void);
int syscfg_reset(void);
int syscfg_save(void);
int syscfg_apply(void);

/* Calls back for every variable; a non-zero result ends the calls. The texts live until the callback returns,
   which cannot make another call; a value ends at a double quote in it, or where name and value have 158
   bytes together. 0 or -1. */
int syscfg_list(int (*callback)(void *context, const char *name, const char *value), void *context);

/* Returns 0 once the variable has that value; -1 if there is no such variable, its type refuses the value, or
   "wait NAME=VALUE" has more than 168 bytes. */
int syscfg_wait(const char *name, const char *value);

/* Sets a variable. The services see it after syscfg_apply or syscfg_save. 0 or -1; name and value of more
   than 160 bytes together are not sent, and fail. */
int syscfg_set_flags(const char *name, const char *value, int flags);
int syscfg_set(const char *name, const char *value);

/* The value of NAME, NAME%OPTION or @NAME, at most 161 bytes, or null. Only the first 32 bytes of the name
   count. The text lives until the next call, from any thread. */
const char *syscfg_get(const char *name);

/* The same, copied to buffer; no terminator if the value fills all size bytes. 0 or -1. */
int syscfg_get_r(const char *name, char *buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
