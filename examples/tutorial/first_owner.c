/* The owner of docs/tutorial.md: three ports of class 4. */
#include <err.h>
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/event_loop.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { port_class = 4, port_count = 3 };

struct port {
    ifhtype handle;
    const char *name;
    uint32_t speed;
};

static struct port ports[port_count] = {
    {0x00040001, "ser-0/0/0", 64},
    {0x00040002, "ser-0/0/1", 64},
    {0x00040003, "ser-0/0/2", 128},
};

static l2vpn_ac_client_hd_t client;
static event_mgr_p events;

static void create_all(void)
{
    ifhtype handles[port_count];
    l2vpn_ac_defn_t definitions[port_count];
    l2vpn_ac_info_t infos[port_count];

    memset(definitions, 0, sizeof definitions);
    memset(infos, 0, sizeof infos);
    for (int i = 0; i < port_count; i++) {
        handles[i] = ports[i].handle;
        memcpy(definitions[i].opaque, ports[i].name, strlen(ports[i].name));
        infos[i].words[0] = ports[i].speed;
    }
    qerrno status = l2vpn_ac_create(client, 0, port_count, handles, definitions, infos);
    printf("%d ports created: %s\n", port_count, qerr_strerror(status));
}

static qerrno on_status(l2vpn_ac_client_hd_t hd, uint32_t status, uint32_t argument)
{
    (void)hd;
    (void)argument;
    if (status == L2VPN_AC_STATUS_UP) {
        puts("UP");
        create_all();
    } else if (status == L2VPN_AC_STATUS_DOWN) {
        puts("DOWN");
    }
    return EOK;
}

static const char *name_of(ifhtype handle)
{
    for (int i = 0; i < port_count; i++) {
        if (ports[i].handle == handle)
            return ports[i].name;
    }
    return "?";
}

static qerrno on_provisioned(l2vpn_ac_client_hd_t hd, uint32_t count, ifhtype *handles,
                             l2vpn_ac_xcid_data_t *data, uint32_t flags)
{
    (void)hd;
    (void)flags;
    for (uint32_t i = 0; i < count; i++)
        printf("%s is provisioned, cross-connect %u\n", name_of(handles[i]), data[i].words[0]);
    return EOK;
}

static qerrno on_unprovisioned(l2vpn_ac_client_hd_t hd, uint32_t count, ifhtype *handles, uint32_t flags)
{
    (void)hd;
    (void)flags;
    for (uint32_t i = 0; i < count; i++)
        printf("%s is not provisioned any more\n", name_of(handles[i]));
    return EOK;
}

static void change_speed(uint32_t speed)
{
    ifhtype handle = ports[0].handle;
    l2vpn_ac_info_t info = {.words = {speed}};
    ports[0].speed = speed; /* the next create_all() says so, too */
    qerrno status = l2vpn_ac_update(client, 0, 1, &handle, &info);
    printf("%s has speed %u: %s\n", ports[0].name, speed, qerr_strerror(status));
}

static void obey(const char *line)
{
    uint32_t speed = 0;
    if (sscanf(line, "speed %u", &speed) == 1)
        change_speed(speed);
    else if (strcmp(line, "quit") == 0)
        event_mgr_stop(events);
    else
        puts("say 'speed N' or 'quit'");
}

static void on_input(event_fd_watch_t *watch, int fd, uint32_t what, void *argument)
{
    (void)what;
    (void)argument;
    static char line[64];
    static size_t length;
    char typed;
    if (read(fd, &typed, 1) <= 0) {
        event_fd_unwatch(watch);
    } else if (typed != '\n') {
        line[length] = typed;
        length += length < sizeof line - 1;
    } else {
        line[length] = '\0';
        length = 0;
        obey(line);
    }
}

int main(int argc, char **argv)
{
    if (argc > 1)
        errx(2, "takes no arguments, '%s' is one", argv[1]);
    l2vpn_ac_callback_vector_t callbacks = {
        .status_cb = on_status,
        .prov_cb = on_provisioned,
        .unprov_cb = on_unprovisioned,
    };
    setvbuf(stdout, NULL, _IOLBF, 0);
    events = event_mgr_new();
    if (events == NULL)
        err(1, "event manager");
    qerrno status = l2vpn_ac_process_connect(events, 0, port_class, &callbacks, &client);
    if (status != EOK)
        errx(1, "connect: %s", qerr_strerror(status));
    if (event_fd_watch(events, STDIN_FILENO, EVENT_FD_READ, on_input, NULL) == NULL)
        err(1, "standard input");
    puts("waiting for the L2VPN process");
    if (event_mgr_run(events) < 0)
        err(1, "event loop");
    l2vpn_ac_process_disconnect(client);
    puts("left");
    return 0;
}
