// The configuration server, from its start, over datagrams that each end at 0xFF. The first byte selects one
// of 32 clients (the low bits) and how many answers are taken from then on: all, three a pass ('@' to '_') or
// none ('`' to 0x7F). The first datagram with '\n' there arrives 1,026 times; with a byte from 0x80 on, the
// datagram becomes the content of all files instead.
#include "syscfg/listing.h"
#include "syscfg/server.h"
#include "syscfg/syscfg.h"
#include "tests/fuzz/machine.h"
#include "tests/syscfg/records.h"

static constexpr std::string_view definition =
    "S string\nL string(8) [a-z]*\nI integer\nB bool\nC choice on,off\nA "
    "ip\nM mac\nD domain\nU url\nN -n sn\n"
    "R -r string\nVENID string(4)\nB alias b\non alias yes\n";
static constexpr const char *files[] = {"/usr/etc/syscfg.constant", "/usr/etc/syscfg.default",
                                        "/etc/resolv.conf",         "/usr/etc/syscfg.default.x",
                                        "/usr/etc/VERSION",         "/proc/net/route"};
static int answers, room;

static requester address_of(unsigned who)
{
    return {{AF_UNIX, {static_cast<char>(who + 1)}}, sizeof(sockaddr_un), who % 3};
}

// The machine's users, three in turn.
extern "C" ssize_t __wrap_recvmsg(int fd, msghdr *message, int flags)
{
    const iovec &text = message->msg_iov[0];
    auto *from = static_cast<sockaddr_un *>(message->msg_name);
    const ssize_t length = __wrap_recvfrom(fd, static_cast<char *>(text.iov_base), text.iov_len, flags, from,
                                           &message->msg_namelen);
    const ucred sender = {1, static_cast<uid_t>(from->sun_path[0] - 1) % 3, 0};
    cmsghdr *control = CMSG_FIRSTHDR(message);
    *control = {CMSG_LEN(sizeof sender), SOL_SOCKET, SCM_CREDENTIALS};
    memcpy(CMSG_DATA(control), &sender, sizeof sender);
    return length;
}

static void receive(unsigned who, std::string_view request, int room_in_pass)
{
    const requester from = address_of(who);
    memcpy(&machine.from, &from.addr, sizeof from.addr);
    machine.arrived = true;
    machine.datagram = request;
    answers = 0;
    room = room_in_pass;
    app_poll_once();
    require(answers > 0 || request.empty() || request.starts_with("%wait"));
}

// Ends waits that nothing could ever answer.
static void end_waits(syscfg_var *var)
{
    while (const syscfg_waiter *waiter = var->waiters) {
        const std::string quote(is_space(*waiter->text()), '"');
        var->flags = VAR_CHANGED;
        receive(0, var->name + ("=" + quote + waiter->text() + quote) + '\0', 1000);
        require(var->waiters != waiter);
    }
}

static void count_changes(cfgdb *, const char *const *names, int count)
{
    require(count <= 1023 && !names[count]);
}

void take(std::string_view input)
{
    static const memory_file declared(definition), flash("");
    require(ftruncate(flash.fd.get(), 0) == 0 && ftruncate(flash.fd.get(), 18 * 4096) == 0);
    std::unique_ptr<memory_file> text;
    machine = {{{"/etc/syscfg.def", declared.path}, {"/dev/mtdblock/5", flash.path}},
               [](std::string_view answer) {
                   require(answer.starts_with('>') || answer.starts_with('!'));
                   ++answers;
                   return --room >= 0;
               }};
    syscfg *db = create_syscfg(nullptr);
    db->changed = count_changes;
    require(db->ops->init(db) == 0);
    int many = 1026;
    while (!input.empty()) {
        const std::string_view request = cut_until(input, '\xFF');
        const unsigned how = request.empty() ? ' ' : static_cast<uint8_t>(request[0]);
        if (how >= 0x80)
            text = std::make_unique<memory_file>(request);
        for (const char *file : files)
            how >= 0x80 ? void(machine.files[file] = text->path) : void();
        for (int i = how >= 0x80 ? 0 : how == '\n' ? std::exchange(many, 1) : 1; i > 0; --i)
            receive(how % 32, request.substr(!request.empty()), how < 0x40 ? 1000 : how < 0x60 ? 3 : 0);
    }
    for (unsigned who = 0; who < 32; ++who)
        end_list(address_of(who));
    for (syscfg_var *var = db->vars; var; var = var->next)
        end_waits(var);
    app_remove_ctx(db);
    app_poll_once(); // lets the loop reclaim its slot
    close(db->server_fd);
    free_records(db);
}
