/* Every call of the library, as a C program makes it on the device. Silent if all results are right. */
#include "syscfg/client.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int failures;

#define EXPECT(so)                             \
    do {                                       \
        if (!(so)) {                           \
            printf("%d: %s\n", __LINE__, #so); \
            ++failures;                        \
        }                                      \
    } while (0)

static int is(const char *value, const char *wanted)
{
    return value && strcmp(value, wanted) == 0;
}

static int count_title(void *context, const char *name, const char *value)
{
    *(int *)context += is(name, "WEB_TITLE") && is(value, "a b") ? 100 : 1;
    return is(name, "HOSTNAME");
}

int main(void)
{
    char text[SYSCFG_ERROR_SIZE] = "-";
    int listed = 0;
    struct sockaddr_un server;
    const int fd = syscfg_client_open(&server);
    EXPECT(fd >= 0 && server.sun_family == AF_UNIX && is(server.sun_path, "/tmp/.syscfg-server"));
    EXPECT(!syscfg_get("HOSTNAME") && errno == EADDRINUSE);
    close(fd);
    EXPECT(syscfg_request("?MODEL", 6, text, 4) == 4 && memcmp(text, ">gw1", 4) == 0);
    EXPECT(is(syscfg_get("MAC0%-"), "02-00-5E-10-00-2A") && is(syscfg_get("NOTE"), "") &&
           !syscfg_get("NOPE"));
    EXPECT(syscfg_get_r("@version", text, sizeof text) == 0 && is(text, "1.4.0.02"));
    EXPECT(syscfg_command("nosuch", text) == -1 && is(text, ""));
    EXPECT(syscfg_command("wait NOPE=1", text) == -1 && is(text, "NOENT"));
    EXPECT(syscfg_command("apply:NOTE", text) == 0 && syscfg_command("no", NULL) == -1);
    EXPECT(syscfg_set("WEB_TITLE", "a b") == 0 && syscfg_set("MODEL", "x") == -1);
    EXPECT(syscfg_list(count_title, &listed) == 0 && listed > 100);
    EXPECT(syscfg_wait("LANGUAGE", "english") == 0 && syscfg_wait("LANGUAGE", "xx") == -1);
    EXPECT(syscfg_set_flags("NOTE", "now", 0) == 0 && syscfg_set_flags("HOSTNAME", "No Name", 0) == -1);
    EXPECT(syscfg_set_flags("NOTE", "then", SYSCFG_NOREPLY) == 0 && is(syscfg_get("NOTE"), "then"));
    EXPECT(syscfg_apply() == 0 && syscfg_save() == 0 && syscfg_set("WEB_TITLE", "c") == 0);
    EXPECT(syscfg_reload() == 0 && is(syscfg_get("WEB_TITLE"), "a b"));
    EXPECT(syscfg_reset() == 0 && is(syscfg_get("WEB_TITLE"), "Norvik gateway"));
    return failures != 0;
}
