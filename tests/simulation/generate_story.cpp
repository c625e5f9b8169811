/*
 * Several steps that belong together.
 */
#include "generator.h"

#include <cerrno>

namespace simulation {

void generator::story()
{
    switch (random_.below(8)) {
    case 0:
        return left_registered();
    case 1:
    case 2:
        return connect_fails();
    case 3:
        return provision_without_memory();
    case 4:
        return refused_disconnect();
    default:
        return fatal();
    }
}

/* Things that end the process, in a process of their own. */
void generator::fatal()
{
    step result = plain(op::die, some_class());
    switch (random_.below(5)) {
    case 0:
        steps_.push_back(plain(op::connect, 9));
        result.inner.push_back(request(random_.pick({op::create, op::update}), 9));
        result.inner[0].client = whom::current;
        result.inner[0].size = {0, static_cast<std::int32_t>(random_.below(3))};
        result.inner[0].variant = 0;
        break;
    case 1: {
        step message = plain(op::inject, result.class_id);
        const auto told = random_.pick<std::uint32_t>({7, 9, 17, 15, 3});
        message.class_argument = told;
        message.message = provision_message(random_, told, random_.below(3), 0);
        result.inner = {message, plain(op::run, 0)};
        break;
    }
    case 2:
        result.inner.push_back(plain(op::connect, result.class_id));
        result.inner[0].variant = static_cast<std::uint32_t>(oddity::another_evm);
        break;
    case 3:
        result.inner.push_back(failure(fn::mgd_timer_leaf_get_context));
        result.inner[0].size.more = 1;
        result.inner.push_back(plain(op::advance, 0, an_hour));
        break;
    default: /* a platform that has no node id, asked by the first connect */
        result.variant = 1;
        result.inner.push_back(plain(op::connect, result.class_id));
        if (random_.percent(50))
            steps_.insert(steps_.begin(), result);
        return;
    }
    steps_.push_back(result);
}

/* A first connect that fails when the timer handler is attached already, and the handler's turn. */
void generator::half_initialised()
{
    steps_.push_back(first_call_of(
        random_.pick({fn::mgd_timer_tree_new, fn::mgd_timer_parent_new, fn::wavl_init}), ENOMEM));
    steps_.push_back(plain(op::connect, some_class()));
    step post = plain(op::post, 0);
    post.variant = 128;
    steps_.insert(steps_.end(), {post, plain(op::run, 0)});
}

/* A connect that fails and cannot take its registration back: what then comes has no client. */
void generator::left_registered()
{
    const std::uint32_t class_id = some_class();
    steps_.insert(steps_.end(),
                  {plain(op::disconnect, class_id), first_call_of(fn::l2vpn_ipc_ucast, EPIPE),
                   first_call_of(fn::l2vpn_ipc_class_deinit, EBUSY), plain(op::connect, class_id),
                   plain(op::process_up, class_id), random_message(random_, class_id), plain(op::run, 0)});
}

/* A connect that any of its calls of the platform may fail. */
void generator::connect_fails()
{
    const std::uint32_t class_id = some_class();
    const fn function =
        random_.pick({fn::calloc_named, fn::mgd_timer_leaf_new, fn::mgd_timer_leaf_set_addl_context,
                      fn::wavl_insert, fn::l2vpn_ipc_class_init, fn::l2vpn_ipc_transport_mtu_get});
    add({plain(op::disconnect, class_id), first_call_of(function, EIO), plain(op::connect, class_id),
         plain(op::connect, class_id)});
}

/* ACs are provisioned, and there is no memory for their data. */
void generator::provision_without_memory()
{
    const std::uint32_t class_id = random_.pick<std::uint32_t>({0, 2, 3, 8, 11});
    step message = plain(op::inject, class_id);
    message.message = provision_message(random_, class_id, 1 + random_.below(3), 2);
    add({plain(op::connect, class_id), first_call_of(fn::calloc_named, ENOMEM), message, plain(op::run, 0)});
}

/* A client that is joining tries to leave from inside a callback, and loses its timer by that. */
void generator::refused_disconnect()
{
    const std::uint32_t class_id = some_class();
    step leave = plain(op::react, class_id);
    leave.inner = {plain(op::disconnect, class_id)};
    step notice = plain(op::inject, class_id);
    notice.message = header_of(0, 0, 2);
    add({plain(op::disconnect, class_id), plain(op::connect, class_id), leave, notice, plain(op::run, 0),
         request(random_.pick({op::create, op::root}), class_id), plain(op::process_up, class_id),
         plain(op::run, 0)});
}

} // namespace simulation
