/*
 * The links to the L2VPN process: registrations, sending, and the test's end of a link.
 */
#include "links.h"
#include "calls.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace l2vpn::sim {

namespace {

constexpr std::size_t header_length = 16;
constexpr std::uint32_t max_pieces = 16;

using pieces_list = std::span<const iovec>;

[[nodiscard]] std::size_t length_of(pieces_list pieces)
{
    return std::accumulate(pieces.begin(), pieces.end(), std::size_t{0},
                           [](std::size_t sum, const iovec &piece) { return sum + piece.iov_len; });
}

[[nodiscard]] bytes assembled(pieces_list pieces)
{
    bytes message;
    message.reserve(length_of(pieces));
    for (const iovec &piece : pieces) {
        const auto *from = static_cast<const std::uint8_t *>(piece.iov_base);
        if (from != nullptr)
            message.insert(message.end(), from, from + piece.iov_len);
    }
    return message;
}

[[nodiscard]] bool well_formed(pieces_list pieces)
{
    const bool whole = std::ranges::all_of(
        pieces, [](const iovec &piece) { return piece.iov_base != nullptr || piece.iov_len == 0; });
    return !pieces.empty() && pieces.size() <= max_pieces && whole && length_of(pieces) >= header_length;
}

/* What becomes of a send that nobody has fail. */
[[nodiscard]] qerrno send_status(core &world, l2vpn_ipc_client_t client, std::uint32_t class_id,
                                 std::uint32_t destination, pieces_list pieces)
{
    const std::uint32_t number = world.number_of(client);
    if (!world.clients.contains(number) || destination != L2VPN_IPC_DEST_L2VPN || !well_formed(pieces))
        return EINVAL;
    const registration *registered = world.registered(class_id);
    if (registered == nullptr || registered->client != number)
        return ENOENT;
    const link_state &link = world.link_of(class_id);
    if (link.down)
        return ENOTCONN;
    if (world.set.enforce_mtu && length_of(pieces) > link.mtu.value_or(world.set.mtu))
        return EMSGSIZE;
    return world.sends > world.set.max_sends ? ENOBUFS : EOK;
}

/* Both kinds of send. The message is put together only when somebody wants it. */
qerrno send(fn function, argument_list args, l2vpn_ipc_client_t client, std::uint32_t class_id,
            std::uint32_t destination, pieces_list pieces)
{
    const invocation self(function);
    core *const world = self.world();
    if (world == nullptr)
        return ENOENT;
    std::unique_lock guard(world->lock);
    ++world->sends;
    const qerrno status =
        self.failing() ? self.status() : send_status(*world, client, class_id, destination, pieces);
    const bool sent = !self.failing() && status == EOK;
    link_state &link = world->link_of(class_id);
    const auto handler = sent ? link.on_send : nullptr;
    call *const entry = self.record(args, status);
    if (entry == nullptr && handler == nullptr)
        return status;

    bytes message = assembled(pieces);
    if (entry != nullptr) {
        entry->message = message;
        if (function == fn::l2vpn_ipc_ucastv) {
            for (const iovec &piece : pieces) {
                entry->pieces.push_back(piece.iov_len);
                entry->bases.push_back(piece.iov_base);
            }
        }
        if (sent)
            link.sent.push_back(message);
    }
    guard.unlock();
    if (handler != nullptr)
        (*handler)(message);
    return status;
}

} // namespace

link_state &core::link_of(std::uint32_t class_id)
{
    return links[class_id];
}

const registration *core::registered(std::uint32_t class_id) const
{
    const auto found = links.find(class_id);
    return found != links.end() && found->second.registered ? &*found->second.registered : nullptr;
}

void core::withdraw(std::uint32_t class_id)
{
    link_state &link = links.at(class_id);
    link.registered.reset();
    link.down = false;
    const auto of_class = [class_id](const auto &what) {
        if constexpr (requires { what.class_id; })
            return what.class_id == class_id;
        else
            return false;
    };
    std::erase_if(queue, [&](const delivery &item) { return std::visit(of_class, item.what); });
}

link &core::facade_of(std::uint32_t class_id)
{
    const std::lock_guard guard(lock);
    link_state &state = link_of(class_id);
    if (state.facade == nullptr)
        state.facade.reset(new link(std::make_unique<link::impl>(*this, class_id, state)));
    return *state.facade;
}

/* --- the test's end --- */

link::link(std::unique_ptr<impl> what) : impl_(std::move(what)) {}
link::~link() = default;

std::uint32_t link::class_id() const
{
    return impl_->class_id;
}

bool link::registered() const
{
    const std::lock_guard guard(impl_->owner.lock);
    return impl_->state.registered.has_value();
}

std::uint32_t link::nodeid() const
{
    const std::lock_guard guard(impl_->owner.lock);
    return impl_->state.nodeid;
}

void *link::cookie() const
{
    const std::lock_guard guard(impl_->owner.lock);
    return impl_->state.cookie;
}

void link::up(std::uint32_t arg, std::uint32_t peer)
{
    const std::lock_guard guard(impl_->owner.lock);
    impl_->state.down = false;
    impl_->owner.enqueue(link_event{impl_->class_id, L2VPN_IPC_EVT_CONNECTED, arg, peer});
}

void link::down(std::uint32_t arg, std::uint32_t peer)
{
    const std::lock_guard guard(impl_->owner.lock);
    impl_->state.down = true;
    impl_->owner.enqueue(link_event{impl_->class_id, L2VPN_IPC_EVT_DISCONNECTED, arg, peer});
}

void link::event(l2vpn_ipc_evt_t number, std::uint32_t arg, std::uint32_t peer)
{
    const std::lock_guard guard(impl_->owner.lock);
    impl_->owner.enqueue(link_event{impl_->class_id, number, arg, peer});
}

void link::inject(std::span<const std::uint8_t> message, std::optional<std::uint32_t> class_argument)
{
    if (message.size() < header_length)
        throw std::invalid_argument("a message of " + std::to_string(message.size()) +
                                    " bytes is shorter than the header of " + std::to_string(header_length));
    const std::lock_guard guard(impl_->owner.lock);
    impl_->owner.enqueue(link_message{impl_->class_id, class_argument.value_or(impl_->class_id),
                                      bytes(message.begin(), message.end())});
}

const std::vector<bytes> &link::sent() const
{
    return impl_->state.sent;
}

void link::clear_sent()
{
    const std::lock_guard guard(impl_->owner.lock);
    impl_->state.sent.clear();
}

void link::on_send(send_handler handler)
{
    auto wanted = shared_if(std::move(handler));
    const std::lock_guard guard(impl_->owner.lock);
    impl_->state.on_send.swap(wanted);
}

} // namespace l2vpn::sim

using namespace l2vpn::sim;

qerrno l2vpn_ipc_client_init(event_mgr_p evm, const char *service, l2vpn_ipc_client_t *client)
{
    const auto work = [&](core &world) -> qerrno {
        const std::uint32_t number = world.number_of(evm);
        if (!world.event_managers.contains(number) || service == nullptr || *service == '\0' ||
            client == nullptr)
            return EINVAL;
        world.clients.emplace(++world.clients_made, number);
        *client = world.handle_of<l2vpn_ipc_client_t>(world.clients_made);
        return EOK;
    };
    return invoke<qerrno>(fn::l2vpn_ipc_client_init, arguments(evm, service, client), ENODEV, work,
                          [&](call &entry) { entry.text = service == nullptr ? "" : service; });
}

qerrno l2vpn_ipc_class_init(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t nodeid,
                            l2vpn_ipc_msg_cb_t msg_cb, l2vpn_ipc_evt_cb_t evt_cb, void *spare, void *cookie)
{
    const auto args = arguments(client, class_id, nodeid, msg_cb, evt_cb, spare, cookie);
    return invoke<qerrno>(fn::l2vpn_ipc_class_init, args, ENODEV, [&](core &world) -> qerrno {
        const std::uint32_t number = world.number_of(client);
        if (!world.clients.contains(number) || msg_cb == nullptr || evt_cb == nullptr)
            return EINVAL;
        link_state &link = world.link_of(class_id);
        if (link.registered)
            return EEXIST;
        link.registered = registration{number, msg_cb, evt_cb};
        link.nodeid = nodeid;
        link.cookie = cookie;
        return EOK;
    });
}

qerrno l2vpn_ipc_class_deinit(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t options)
{
    const auto args = arguments(client, class_id, options);
    return invoke<qerrno>(fn::l2vpn_ipc_class_deinit, args, ENOENT, [&](core &world) -> qerrno {
        const std::uint32_t number = world.number_of(client);
        if (!world.clients.contains(number))
            return EINVAL;
        const registration *registered = world.registered(class_id);
        if (registered == nullptr || registered->client != number)
            return ENOENT;
        world.withdraw(class_id);
        return EOK;
    });
}

qerrno l2vpn_ipc_transport_mtu_get(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t *mtu)
{
    const auto args = arguments(client, class_id, mtu);
    return invoke<qerrno>(fn::l2vpn_ipc_transport_mtu_get, args, ENOENT, [&](core &world) -> qerrno {
        const std::uint32_t number = world.number_of(client);
        if (!world.clients.contains(number) || mtu == nullptr)
            return EINVAL;
        const registration *registered = world.registered(class_id);
        if (registered == nullptr || registered->client != number)
            return ENOENT;
        *mtu = world.link_of(class_id).mtu.value_or(world.set.mtu);
        return EOK;
    });
}

qerrno l2vpn_ipc_ucast(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                       const void *message, uint32_t length, uint32_t options)
{
    const iovec piece{const_cast<void *>(message), length};
    return send(fn::l2vpn_ipc_ucast, arguments(client, class_id, destination, message, length, options),
                client, class_id, destination, {&piece, 1});
}

qerrno l2vpn_ipc_ucastv(l2vpn_ipc_client_t client, uint32_t class_id, uint32_t destination,
                        const struct iovec *pieces, uint32_t count, uint32_t options)
{
    return send(fn::l2vpn_ipc_ucastv, arguments(client, class_id, destination, pieces, count, options),
                client, class_id, destination, {pieces, pieces == nullptr ? 0 : count});
}
