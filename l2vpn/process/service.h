/*
 * Between the process and the links of its owners: the server end of the IPC library.
 */
#ifndef L2VPND_SERVICE_H
#define L2VPND_SERVICE_H

#include "process.h"

#include <platform/ipc_server.h>
#include <string>

namespace l2vpnd {

class service : public transport {
public:
    explicit service(event_log &log) : m_log(log) {}
    ~service() override { close(); }
    service(const service &) = delete;
    service &operator=(const service &) = delete;

    /* Listens. Not EOK: `*error` is a line that says what and where. `process` must outlive close(). */
    qerrno open(event_mgr_p evm, const l2vpn_ipc_server_options_t &options, l2vpn_process &process,
                std::string *error);
    void close();
    std::string path() const { return l2vpn_ipc_server_path(m_server); }

    qerrno send(const owner &to, bytes message) override;
    uint64_t queued(const owner &to) override;

private:
    static qerrno on_accept(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer,
                            const l2vpn_ipc_peer_info_t *info, void *arg);
    static void on_message(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, void *message, uint32_t length,
                           void *arg);
    static void on_closed(l2vpn_ipc_server_t server, l2vpn_ipc_peer_t peer, qerrno reason, void *arg);
    static void on_log(l2vpn_ipc_server_t server, int level, const char *text, void *arg);

    event_log &m_log;
    l2vpn_process *m_process = nullptr;
    l2vpn_ipc_server_t m_server = nullptr;
};

} // namespace l2vpnd

#endif
