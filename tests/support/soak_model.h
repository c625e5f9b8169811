/*
 * What one owner of the soak believes the process to hold: every record as it must stand there, in the bytes of
 * the wire. The conversions are described here once more, with nothing of the library or the process.
 */
#ifndef TESTS_STRESS_SOAK_MODEL_H
#define TESTS_STRESS_SOAK_MODEL_H

#include <l2vpn/l2vpn_ac_api.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace soak_test {

inline constexpr uint32_t handles_an_owner = 600;

inline uint32_t first_handle(uint32_t class_id)
{
    return class_id * 100000 + 1;
}

/* Both in hexadecimal, as the process shows them. */
struct ac {
    std::string definition;
    std::string info;
    bool operator==(const ac &) const = default;
};

/* What all the tables hold that are kept for an owner. */
struct tables {
    std::map<uint32_t, ac> acs;
    std::map<std::pair<uint32_t, uint32_t>, std::string> roots;  /* handle and MSTI: the record */
    std::map<std::pair<uint32_t, uint32_t>, std::string> states; /* the same */
    std::map<std::string, std::string> protections;              /* name: the record */
    std::map<uint32_t, uint32_t> vlans;                          /* VLAN: MSTI */
    bool operator==(const tables &) const = default;
};

/* The arrays of a request for ACs. */
struct ac_arrays {
    std::vector<ifhtype> ifh;
    std::vector<l2vpn_ac_defn_t> defns;
    std::vector<l2vpn_ac_info_t> infos;

    uint32_t size() const { return static_cast<uint32_t>(ifh.size()); }
};

/* Makes requests up and keeps what they come to. */
class model {
public:
    explicit model(uint32_t class_id) : m_class(class_id), m_random(class_id + 2) {}

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_random()) % limit; }
    const tables &holds() const { return m_holds; }
    /* The process withdraws everything of an owner that leaves. */
    void forget() { m_holds = {}; }

    ac_arrays create(uint32_t most);
    ac_arrays update(uint32_t most);
    ac_arrays remove();
    std::vector<l2vpn_msti_root_t> roots(uint32_t most);
    std::vector<l2vpn_mstp_req_t> states(uint32_t most);
    std::vector<l2vpn_msti_vid_map_t> vlan_map(uint32_t least = 1, uint32_t most = 4094);
    l2vpn_mstp_prot_t protection();

private:
    /* A record of any bytes. */
    template <typename Record>
    Record any()
    {
        std::array<uint32_t, (sizeof(Record) + 3) / 4> words;
        for (uint32_t &word : words)
            word = static_cast<uint32_t>(m_random());
        Record made;
        std::memcpy(&made, words.data(), sizeof made);
        return made;
    }
    l2vpn_ac_info_t any_info(uint32_t handle);

    uint32_t m_class;
    std::mt19937 m_random;
    tables m_holds;
};

/* The head words of an AC's information: the second is the first and the handle, so that whoever gets them back
 * can tell whether they belong together. */
bool heads_belong_to(const uint32_t *words, uint32_t handle);

} // namespace soak_test

#endif
