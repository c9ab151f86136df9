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

/* For syscfg_set_flags: send and return, or fail with EAGAIN when the daemon is behind with its requests. The
   one way to set from the thread that serves them. */
#define SYSCFG_NOREPLY 16

/* Room that the error text of syscfg_command takes, its terminator included. */
#define SYSCFG_ERROR_SIZE 121

/* A socket bound to this process's name, to be closed by the caller, or -1; address becomes the server's. The
   socket takes datagrams of that daemon only which ran when it was opened: another one's needs another. */
int syscfg_client_open(struct sockaddr_un *address);

/* Sends one request and receives one answer, cut to reply_size; request and reply may be the same memory.
   Returns the bytes received, 0 for an empty answer, or a negative value. */
int syscfg_request(const void *request, size_t length, void *reply, size_t reply_size);

/* Has the daemon run a command of at most 32 characters ("apply:NAME"). 0 or -1. error_text may be null; else
   it takes SYSCFG_ERROR_SIZE bytes and becomes what the daemon gave as the reason ("NOENT"), empty without
   one. */
int syscfg_command(const char *command, char *error_text);

/* Load everything again; make the defaults the saved values and load them; write flash and apply; tell the
   services what has changed. 0 or -1. */
int syscfg_reload(void);
int syscfg_reset(void);
int syscfg_save(void);
int syscfg_apply(void);

/* Calls back for every variable; a non-zero result ends the calls. The texts live until the callback returns,
   which cannot make another call; a value ends at a double quote in it, or where name and value have 158
   bytes together. 0 or -1. */
int syscfg_list(int (*callback)(void *context, const char *name, const char *value), void *context);

/* Returns 0 once the variable has that value, -1 when there is no such variable, its type refuses the value,
   or "wait NAME=VALUE" has more than 168 bytes. */
int syscfg_wait(const char *name, const char *value);

/* Sets a variable, which changes nothing for the services before syscfg_apply or syscfg_save. 0 or -1; -1
   also for a name and a value of more than 160 bytes together, which are not sent. */
int syscfg_set_flags(const char *name, const char *value, int flags);
int syscfg_set(const char *name, const char *value);

/* The value of NAME, NAME%OPTION or @NAME (32 bytes of it are looked at), at most 161 bytes of it, or null.
   The text lives until the next call, from whichever thread. */
const char *syscfg_get(const char *name);

/* The same, copied to buffer, where it has no terminator when it fills all size bytes. 0 or -1. */
int syscfg_get_r(const char *name, char *buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
