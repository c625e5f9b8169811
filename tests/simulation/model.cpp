/*
 * Initialisation, connect and disconnect.
 */
#include "model.h"

#include <algorithm>
#include <utility>

namespace simulation {

namespace {

const std::string connecting = "l2vpn_ac_process_connect_internal";
} // namespace

model::model(std::uint64_t seed, fault mistake, coverage &seen) : platform_(seed, seen), mistake_(mistake) {}

/* --- initialisation ---------------------------------------------------------------------------------- */

model::client_ptr model::find(std::uint64_t handle) const
{
    const auto found = clients_.find(handle);
    return initialised() && found != clients_.end() ? found->second : nullptr;
}

std::uint32_t model::init(std::uint32_t nodeid)
{
    static const std::string where = "l2vpn_ac_lib_init";
    const auto failed = [&](fn function, feature what) -> std::optional<std::uint32_t> {
        const auto status = platform_.verdict(function);
        if (status)
            hit(what);
        return status;
    };

    auto status = failed(fn::l2vpn_debug_init, feature::init_debug_failed);
    platform_.say({"l2vpn_debug_init", {status.value_or(0)}});
    if (status)
        return *status;

    if (nodeid == invalid_nodeid) {
        status = failed(fn::platform_get_my_nodeid, feature::init_no_nodeid);
        platform_.say({"platform_get_my_nodeid", {status.value_or(0)}});
        if (status) {
            platform_.debug(where, "Failed to get nodeid:" + text_of(*status));
            return *status;
        }
        nodeid = platform_.nodeid;
        if (nodeid == invalid_nodeid)
            throw fatal_assertion{"nodeid != NODEID_INVALID"};
    } else {
        hit(feature::initialised_with_nodeid);
    }

    status = failed(fn::l2vpn_ipc_client_init, feature::init_no_ipc);
    platform_.say({"l2vpn_ipc_client_init", {status.value_or(0)}, "L2VPN"});
    if (status) {
        platform_.debug(where, "Failed to init IPC DLL:" + text_of(*status));
        return *status;
    }

    status = failed(fn::event_async_attach_event, feature::init_no_event);
    platform_.say({"event_async_attach_event", {128, 0, status ? ~std::uint64_t{0} : 0}});
    if (status) {
        platform_.debug(where, "event_async_attach " + text_of(*status));
        if (*status == 0)
            hit(feature::init_no_event_no_cause);
        return *status; /* without a cause the connect goes on, uninitialised */
    }
    platform_.handler_attached = true;

    tree_ = !failed(fn::mgd_timer_tree_new, feature::init_no_tree);
    platform_.say({"mgd_timer_tree_new", {1, tree_}});
    if (!tree_) {
        platform_.debug(where, "Failed to init root timer " + text_of(0));
        return 2;
    }
    if (failed(fn::mgd_timer_parent_new, feature::init_no_parent)) {
        tree_ = false;
        platform_.say({"mgd_timer_parent_new", {0}});
        platform_.say({"mgd_timer_tree_free", {}});
        platform_.debug(where, "Failed to init parent timer " + text_of(0));
        return 12;
    }
    platform_.say({"mgd_timer_parent_new", {1}});

    status = failed(fn::wavl_init, feature::init_no_client_tree);
    platform_.say({"wavl_init", {1, status.value_or(0)}});
    if (status) {
        tree_ = false;
        platform_.debug(where, "Failed to init client wavl:" + text_of(*status));
        platform_.say({"mgd_timer_tree_free", {}});
        platform_.say({"mgd_timer_parent_free", {}});
        return *status;
    }
    nodeid_ = nodeid;
    hit(feature::initialised);
    return 0;
}

/* --- connect ----------------------------------------------------------------------------------------- */

std::uint32_t model::connect(const step &what, std::uint64_t &handle_number)
{
    const auto odd = static_cast<oddity>(what.variant);
    if (odd == oddity::invalid_nodeid) {
        hit(feature::connect_invalid_nodeid);
        return einval;
    }
    if (odd == oddity::no_callbacks || odd == oddity::no_evm || odd == oddity::class_too_large ||
        odd == oddity::no_hd || odd == oddity::no_status_cb) {
        hit(feature::connect_bad_argument);
        return einval;
    }
    if (!initialised()) {
        const std::uint32_t status =
            init(odd == oddity::nodeid ? static_cast<std::uint32_t>(1 + what.value) : invalid_nodeid);
        if (status != 0)
            return status;
    } else if (odd == oddity::another_evm) {
        throw fatal_assertion{"evm == s_l2vpn_ac_global.evm"};
    }

    const bool made = !platform_.verdict(fn::calloc_named);
    platform_.say({"calloc_named", {1, 0, made}, "L2VPN AC Client ctx"});
    if (!made) {
        hit(feature::connect_no_context);
        return 12;
    }
    const std::uint64_t number = ++contexts_made_;
    const std::uint64_t address = contexts_taken_ < given_.contexts.size()
                                      ? given_.contexts[contexts_taken_++]
                                      : 0xfade000000000000 + number; /* in a child that ends soon */
    return connect_client(std::make_shared<client>(client{address, number, what.class_id, what.flags}),
                          handle_number);
}

std::uint32_t model::connect_client(const client_ptr &made, std::uint64_t &handle_number)
{
    enum class taken { timer, node, registration };
    const auto undo = [&](taken last, feature why, std::uint32_t status) {
        hit(why);
        if (last >= taken::registration && platform_.class_deinit(made->class_id) != 0)
            hit(feature::connect_undo_failed);
        if (last >= taken::node) {
            platform_.say({"wavl_delete", {}});
            clients_.erase(made->address);
        }
        platform_.leaf_free(made->leaf);
        return status;
    };

    made->leaf = platform_.leaf_new(tree_);
    if (made->leaf == 0) {
        hit(feature::connect_no_timer);
        platform_.debug(connecting, "Failed to alloc AC/MA client timer");
        return 12;
    }
    const auto refused = platform_.verdict(fn::mgd_timer_leaf_set_addl_context);
    platform_.say(
        {"mgd_timer_leaf_set_addl_context", {made->leaf, 0, made->number, refused ? ~std::uint64_t{0} : 0}});
    if (refused) {
        platform_.debug(connecting, "Failed to store context for leaf timer: " + text_of(*refused));
        return undo(taken::timer, feature::connect_no_timer_context, 2);
    }
    platform_.context_of_leaf[made->leaf] = made->address;

    const bool inserted = !platform_.verdict(fn::wavl_insert);
    platform_.say({"wavl_insert", {inserted}});
    if (!inserted) {
        platform_.debug(connecting, "Failed to insert AC/MA client in wavl");
        return undo(taken::timer, feature::connect_not_inserted, 17);
    }
    clients_[made->address] = made;

    std::uint32_t status = platform_.class_init(made->class_id, nodeid_, made->number, made->address);
    if (status != 0) {
        platform_.debug(connecting, "Failed to init AC/MA class");
        return undo(taken::node, feature::connect_class_refused, status);
    }
    status = platform_.mtu_get(made->class_id, mtu_);
    if (status != 0) {
        platform_.debug(connecting, "Failed to get transport MTU: " + text_of(status));
        return undo(taken::registration, feature::connect_no_mtu, status);
    }
    if (!ac_classes::valid(made->class_id)) {
        platform_.debug(connecting,
                        "Unable to get info message size for class id " + std::to_string(made->class_id));
        return undo(taken::registration, feature::connect_class_15, einval);
    }
    set_limits(made->class_id);
    status = platform_.ucast(made->class_id, join_message());
    if (status != 0) {
        platform_.debug(connecting, "Failed to unicast a JOIN MSG to L2VPN: " + text_of(status));
        return undo(taken::registration, feature::connect_join_failed, status);
    }

    hit(clients_.size() > 1 ? feature::connected_again_at_another_class : feature::connected);
    made->state = client::joining;
    made->retry_secs = mistaken(fault::first_retry_after_5) ? 5 : 4;
    handle_number = made->number;
    status = activate_timer(*made);
    const auto signed_text = [](std::uint32_t value) {
        return std::to_string(static_cast<std::int32_t>(value));
    };
    platform_.debug(connecting, "lib AC connect INIT: MTU=" + signed_text(mtu_) + ", max_create=" +
                                    signed_text(max_create_) + ", max_updt=" + signed_text(max_update_) +
                                    ", max_del=" + signed_text(max_delete_));
    return status;
}

void model::set_limits(std::uint32_t class_id)
{
    if (mtu_ < header_size)
        hit(feature::connect_tiny_mtu);
    const std::uint64_t room = std::uint64_t{mtu_} - header_size;
    const auto share = [room](std::uint64_t size) { return static_cast<std::uint32_t>(room / size); };
    const std::uint64_t info = info_size(class_id);
    max_create_ = share(info + 620);
    max_update_ = share(info + 4);
    max_delete_ = share(4);
    max_root_ = share(mistaken(fault::root_limit_by_record) ? root_size : 12);
    max_port_ = share(port_size);
    max_vid_ = share(vid_size);
}

/* --- disconnect -------------------------------------------------------------------------------------- */

std::uint32_t model::disconnect(std::uint64_t handle)
{
    const client_ptr leaving = find(handle);
    if (leaving == nullptr) {
        hit(initialised() ? feature::disconnect_unknown : feature::disconnect_uninitialised);
        return einval;
    }
    if (!leaving->busy || !mistaken(fault::refused_disconnect_keeps_timer))
        platform_.leaf_free(leaving->leaf);
    if (leaving->busy && !mistaken(fault::busy_client_goes)) {
        hit(feature::disconnect_busy);
        return 35;
    }
    const std::uint32_t status = platform_.class_deinit(leaving->class_id);
    if (status != 0) {
        hit(feature::disconnect_class_kept);
        return status;
    }
    hit(noticing_ == handle ? feature::disconnect_from_notice : feature::disconnected);
    platform_.say({"wavl_delete", {}});
    clients_.erase(handle);
    return 0;
}

} // namespace simulation
