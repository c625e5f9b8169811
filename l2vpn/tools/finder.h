/*
 * Which ACs are meant by a handle or a name, as messages and the process tell.
 */
#ifndef L2VPNCTL_FINDER_H
#define L2VPNCTL_FINDER_H

#include "chain.h"
#include "recordings.h"

namespace l2vpnctl {

class finder {
public:
    struct found_ac {
        std::string name;          /* empty: not known */
        std::set<uint64_t> owners; /* as the process counts them */
    };

    finder(const record_choice &choice, std::optional<uint32_t> handle, std::string name)
        : m_choice(choice), m_handle(handle), m_name(std::move(name))
    {
    }

    /* Looks at a message. False: part of it was not kept that could have named one. */
    bool take(const captured &record);
    /* Of the process's answer. */
    void add(const json &row);

    const std::map<ac_key, found_ac> &found() const { return m_found; }
    json to_json(size_t most) const;

private:
    bool is_wanted(const captured &record) const;

    const record_choice &m_choice;
    std::optional<uint32_t> m_handle;
    std::string m_name;
    std::map<ac_key, found_ac> m_found;
};

} // namespace l2vpnctl

#endif
