/*
 * What one owner has said about spanning trees.
 *
 * Roots and port states are kept by interface handle and MSTI, protections by name: a later record takes the
 * place of an earlier one of the same key, at once, whether its batch is still open or not. The map of VLANs to
 * MSTIs is one thing: the entries of a batch are gathered aside and take the place of the whole map when the
 * batch ends. Entries that come outside any batch are put into the map as they are.
 *
 * Records are kept as they came. All of it goes when the owner's link ends.
 */
#ifndef L2VPND_MSTP_TABLE_H
#define L2VPND_MSTP_TABLE_H

#include "batch.h"
#include "decoder.h"

#include <array>
#include <map>
#include <memory>

namespace l2vpnd {

/* Records of all owners together are bounded. */
struct record_budget {
    uint64_t limit;
    uint64_t used = 0;
};

/* VLAN id to MSTI, 16 bits each. Takes memory only once it has an entry. */
class vlan_map {
public:
    static constexpr uint32_t vlans = 65536;

    void set(uint16_t vlan, uint16_t msti);
    bool has(uint32_t vlan) const { return m_msti != nullptr && (*m_msti)[vlan] >= 0; }
    uint16_t msti(uint32_t vlan) const { return static_cast<uint16_t>((*m_msti)[vlan]); }
    uint32_t size() const { return m_size; }
    void clear();
    void swap(vlan_map &other) noexcept;

private:
    std::unique_ptr<std::array<int32_t, vlans>> m_msti; /* -1: no entry */
    uint32_t m_size = 0;
};

class mstp_table {
public:
    /* A handle above an MSTI of 16 bits, so that records sort by handle. */
    using place = uint64_t;
    using name = std::array<uint8_t, name_len>;
    using roots_map = std::map<place, std::array<uint8_t, 8>>;
    using states_map = std::map<place, std::array<uint8_t, 96>>;
    using protections_map = std::map<name, std::array<uint8_t, 72>>;

    explicit mstp_table(record_budget &budget) : m_budget(budget) {}
    ~mstp_table() { m_budget.used -= records(); }
    mstp_table(const mstp_table &) = delete;
    mstp_table &operator=(const mstp_table &) = delete;

    /* drop::limit: not all of the message's new records fit, and none was taken. May throw bad_alloc, with
     * nothing taken either. */
    drop take_roots(const message &msg) { return take(m_roots, msg); }
    drop take_states(const message &msg) { return take(m_states, msg); }
    drop take_protection(const message &msg) { return take(m_protections, msg); }
    void take_vlans(const message &msg, const batch_step &step);
    /* The batch is complete: what was gathered is the map from now on. */
    void end_vlans();

    const roots_map &roots() const { return m_roots; }
    const states_map &states() const { return m_states; }
    const protections_map &protections() const { return m_protections; }
    const vlan_map &vlans() const { return m_vlans; }
    const vlan_map &gathered() const { return m_gathered; }
    uint64_t records() const { return m_roots.size() + m_states.size() + m_protections.size(); }

private:
    template <typename Map>
    drop take(Map &map, const message &msg);

    record_budget &m_budget;
    roots_map m_roots;
    states_map m_states;
    protections_map m_protections;
    vlan_map m_vlans;
    vlan_map m_gathered;
};

} // namespace l2vpnd

#endif
