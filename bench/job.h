/*
 * What there is to do: the arrays of a request as an owner holds them, with different bytes in every record,
 * and how it is cut into messages. The library and its rivals are given the same.
 */
#ifndef BENCH_JOB_H
#define BENCH_JOB_H

#include <l2vpn/l2vpn_ac_api.h>

#include <cstdint>
#include <vector>

struct create_job {
    create_job(uint32_t class_id, uint32_t mtu, uint32_t count);

    uint32_t class_id;
    uint32_t mtu;
    uint32_t count;
    uint32_t info_size; /* on the wire */
    std::vector<ifhtype> handles;
    std::vector<l2vpn_ac_defn_t> definitions;
    std::vector<l2vpn_ac_info_t> infos;

    uint32_t acs_a_create() const { return (mtu - L2VPN_AC_HDR_LEN) / (info_size + 620); }
    uint32_t acs_an_update() const { return (mtu - L2VPN_AC_HDR_LEN) / (info_size + 4); }
    uint32_t acs_a_delete() const { return (mtu - L2VPN_AC_HDR_LEN) / 4; }
};

/* The ACs of one provision message, as the owner is to see them; `first` makes them others than another message's. */
struct provision_job {
    provision_job(uint32_t class_id, uint32_t count, uint32_t first = 0);

    static uint32_t acs_a_message(uint32_t class_id, uint32_t mtu);

    /* Exactly that was decoded. */
    bool is(uint32_t count, const ifhtype *handles, const l2vpn_ac_xcid_data_t *data) const;

    uint32_t class_id;
    uint32_t count;
    std::vector<ifhtype> handles;
    std::vector<l2vpn_ac_xcid_data_t> data; /* zeros behind what the class has */
};

#endif
