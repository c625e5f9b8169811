/*
 * What a link of the public interface refers to.
 */
#ifndef L2VPN_SIM_LINKS_H
#define L2VPN_SIM_LINKS_H

#include "core.h"

namespace l2vpn::sim {

struct link::impl {
    impl(core &world, std::uint32_t id, link_state &link) : owner(world), class_id(id), state(link) {}

    core &owner;
    std::uint32_t class_id;
    link_state &state;
};

} // namespace l2vpn::sim

#endif
