#include "ac_table.h"

#include <cstring>
#include <random>

namespace l2vpnd {

namespace {

constexpr size_t smallest_index = 64;

uint64_t random_seed()
{
    static const uint64_t seed = (uint64_t{std::random_device{}()} << 32) | std::random_device{}();
    return seed;
}

} // namespace

ac_store::ac_store(uint32_t info_size)
    : m_info_size(info_size), m_seed(random_seed()), m_contents(defn_len + info_size)
{
}

/* Handles often count up, so the hash mixes well; owners choose them, so it is seeded. */
uint32_t ac_store::hash_of(uint32_t node, uint32_t handle) const
{
    uint64_t x = ((uint64_t{node} << 32) | handle) ^ m_seed;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
    return static_cast<uint32_t>(x ^ (x >> 31));
}

/* The entry of an AC, or the free one where it belongs. The index is never full. */
size_t ac_store::probe(uint32_t hash, uint32_t node, uint32_t handle) const
{
    const size_t mask = m_index.size() - 1;
    size_t at = hash & mask;
    while (m_index[at].slot != no_slot) {
        if (m_index[at].hash == hash) {
            const ac_head &ac = head(m_index[at].slot);
            if (ac.node == node && ac.handle == handle) {
                break;
            }
        }
        at = (at + 1) & mask;
    }
    return at;
}

uint32_t ac_store::find(uint32_t node, uint32_t handle) const
{
    return m_index.empty() ? no_slot : m_index[probe(hash_of(node, handle), node, handle)].slot;
}

void ac_store::expect(uint32_t node, uint32_t handle) const
{
    if (!m_index.empty()) {
        __builtin_prefetch(&m_index[hash_of(node, handle) & (m_index.size() - 1)], 1);
    }
}

void ac_store::grow_index(size_t entries)
{
    std::vector<entry> bigger(entries, entry{no_slot, 0});
    for (const entry &old : m_index) {
        if (old.slot != no_slot) {
            size_t at = old.hash & (entries - 1);
            while (bigger[at].slot != no_slot) {
                at = (at + 1) & (entries - 1);
            }
            bigger[at] = old;
        }
    }
    m_index.swap(bigger);
}

void ac_store::reserve(uint32_t more)
{
    const size_t wanted = static_cast<size_t>(m_count) + more;
    size_t entries = m_index.empty() ? smallest_index : m_index.size();
    while (wanted > entries / 4 * 3) {
        entries *= 2;
    }
    if (entries != m_index.size()) {
        grow_index(entries);
    }
    m_heads.reserve(wanted);
    m_contents.reserve(wanted);
}

uint32_t ac_store::take_slot()
{
    if (m_free == no_slot) {
        return m_slots++;
    }
    const uint32_t slot = m_free;
    m_free = head(slot).next;
    return slot;
}

uint32_t ac_store::insert(uint32_t node, uint32_t handle, uint32_t owner)
{
    const uint32_t slot = take_slot();
    const uint32_t hash = hash_of(node, handle);
    m_index[probe(hash, node, handle)] = {slot, hash};
    new (m_heads.at(slot)) ac_head{
        node, handle, owner, no_slot, no_slot, 0, 0, 0, ac_stage::settled, false, false, ac_asker::nobody};
    m_count++;
    return slot;
}

void ac_store::erase(uint32_t slot)
{
    ac_head &ac = head(slot);
    const size_t mask = m_index.size() - 1;
    size_t hole = probe(hash_of(ac.node, ac.handle), ac.node, ac.handle);
    /* Entries behind the hole move up, so that no probe ends too early; nothing is ever marked deleted. */
    for (size_t at = (hole + 1) & mask; m_index[at].slot != no_slot; at = (at + 1) & mask) {
        const size_t home = m_index[at].hash & mask;
        if (((at - home) & mask) >= ((at - hole) & mask)) {
            m_index[hole] = m_index[at];
            hole = at;
        }
    }
    m_index[hole].slot = no_slot;
    ac.owner = no_slot;
    ac.next = m_free;
    m_free = slot;
    if (--m_count == 0) {
        release();
    }
}

void ac_store::release()
{
    m_slots = 0;
    m_free = no_slot;
    m_heads.release();
    m_contents.release();
    m_index.clear();
    m_index.shrink_to_fit();
}

void ac_store::set_definition(uint32_t slot, bytes definition)
{
    memcpy(m_contents.at(slot), definition.data(), defn_len);
}

void ac_store::set_info(uint32_t slot, bytes info)
{
    memcpy(m_contents.at(slot) + defn_len, info.data(), m_info_size);
}

void ac_store::append(ac_list &list, uint32_t slot)
{
    ac_head &ac = head(slot);
    ac.previous = list.last;
    ac.next = no_slot;
    (list.last == no_slot ? list.first : head(list.last).next) = slot;
    list.last = slot;
    list.count++;
}

void ac_store::remove(ac_list &list, uint32_t slot)
{
    const ac_head &ac = head(slot);
    (ac.previous == no_slot ? list.first : head(ac.previous).next) = ac.next;
    (ac.next == no_slot ? list.last : head(ac.next).previous) = ac.previous;
    list.count--;
}

void ac_store::splice(ac_list &to, ac_list &from)
{
    if (from.count == 0) {
        return;
    }
    head(from.first).previous = to.last;
    (to.last == no_slot ? to.first : head(to.last).next) = from.first;
    to.last = from.last;
    to.count += from.count;
    from = {};
}

uint64_t ac_store::memory() const
{
    return m_heads.memory() + m_contents.memory() + m_index.capacity() * sizeof(entry);
}

ac_table::ac_table(uint32_t max_acs) : m_max_acs(max_acs)
{
    m_stores.reserve(class_count);
    for (uint32_t class_id = 0; class_id < class_count; class_id++) {
        m_stores.emplace_back(find_class(class_id)->info_size);
    }
}

uint64_t ac_table::size() const
{
    uint64_t sum = 0;
    for (const ac_store &store : m_stores) {
        sum += store.size();
    }
    return sum;
}

uint64_t ac_table::memory() const
{
    uint64_t sum = 0;
    for (const ac_store &store : m_stores) {
        sum += store.memory();
    }
    return sum;
}

} // namespace l2vpnd
