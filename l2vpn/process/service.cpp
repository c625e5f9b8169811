#include "service.h"

namespace l2vpnd {

qerrno service::open(event_mgr_p evm, const l2vpn_ipc_server_options_t &options, l2vpn_process &process,
                     std::string *error)
{
    static constexpr l2vpn_ipc_server_callbacks_t callbacks = {on_accept, on_message, on_closed, on_log};
    m_process = &process;
    const qerrno status = l2vpn_ipc_server_new(evm, "L2VPN", &options, &callbacks, this, &m_server);
    if (status != EOK) {
        *error = l2vpn_ipc_server_error();
    }
    return status;
}

void service::close()
{
    l2vpn_ipc_server_free(m_server);
    m_server = nullptr;
}

qerrno service::send(const owner &to, bytes message)
{
    const iovec piece = {const_cast<uint8_t *>(message.data()), message.size()}; /* only read */
    return l2vpn_ipc_server_sendv(m_server, to.peer, &piece, 1);
}

uint64_t service::queued(const owner &to)
{
    return l2vpn_ipc_server_queued(m_server, to.peer);
}

qerrno service::on_accept(l2vpn_ipc_server_t /*server*/, l2vpn_ipc_peer_t peer,
                          const l2vpn_ipc_peer_info_t *info, void *arg)
{
    owner *made = nullptr;
    const qerrno status = static_cast<service *>(arg)->m_process->accept(peer, *info, &made);
    l2vpn_ipc_peer_set_arg(peer, made);
    return status;
}

void service::on_message(l2vpn_ipc_server_t /*server*/, l2vpn_ipc_peer_t peer, void *message, uint32_t length,
                         void *arg)
{
    owner &from = *static_cast<owner *>(l2vpn_ipc_peer_get_arg(peer));
    static_cast<service *>(arg)->m_process->received(from, {static_cast<const uint8_t *>(message), length});
}

void service::on_closed(l2vpn_ipc_server_t /*server*/, l2vpn_ipc_peer_t peer, qerrno reason, void *arg)
{
    owner &gone = *static_cast<owner *>(l2vpn_ipc_peer_get_arg(peer));
    static_cast<service *>(arg)->m_process->closed(gone, reason);
}

void service::on_log(l2vpn_ipc_server_t /*server*/, int level, const char *text, void *arg)
{
    static_cast<service *>(arg)->m_log.write(topic::transport, level, "%s", text);
}

} // namespace l2vpnd
