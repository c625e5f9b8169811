/*
 * The ACs, by node, class and handle.
 *
 * One store a class, because ACs of one class are all of one size. In a store every AC has a slot: a head of 36
 * bytes, and apart from it, because heads are looked at far more often, the definition and the info message, both
 * exactly as they came. Slots never move, so a slot number names an AC for its life and a reader can page through a
 * store by slot number while ACs come and go. A hash index of 8 bytes an entry (slot and hash, linear probing, at
 * most three quarters full) finds an AC by node and handle without touching any other slot.
 *
 * Memory per AC: 36 + 616 + info size, and 11 to 22 bytes of the index: 679 to 690 bytes for a class with a
 * head only, 3,019 to 3,030 for class 8. Nine of them are for `explain` alone: created, message, asker. Slots
 * are reused, and their memory is returned when a class has no AC left.
 *
 * The ACs of one owner are chained into lists through their heads; an AC is on exactly one list at a time.
 * Everything belongs to the event manager's thread.
 */
#ifndef L2VPND_AC_TABLE_H
#define L2VPND_AC_TABLE_H

#include "decoder.h"
#include "slot_array.h"

#include <array>
#include <vector>

namespace l2vpnd {

constexpr uint32_t no_slot = 0xFFFFFFFFu;

/* Where an AC is on its way. */
enum class ac_stage : uint8_t {
    batched, /* came in a CREATE batch that is still open */
    settled, /* nothing is to be told to the owner */
    waiting, /* the owner is to be told: provision if `wanted`, else unprovision */
    count
};

/* Who has last asked for it to be provisioned, or not to be. */
enum class ac_asker : uint8_t { nobody, automatic, an_operator, count };

struct ac_head {
    uint32_t node;
    uint32_t handle;
    uint32_t owner; /* the owner's slot; no_slot: this slot is free */
    uint32_t previous;
    uint32_t next;
    uint32_t xcid;    /* 0: was never provisioned */
    uint32_t created; /* seconds since 1970 */
    uint32_t message; /* that created it: the how manieth over its owner's link */
    ac_stage stage;
    bool provisioned; /* the owner was told to provision it, and not told otherwise since */
    bool wanted;
    ac_asker asker;
};

static_assert(sizeof(ac_head) == 36, "as compact as told above");

/* A list of ACs of one store. */
struct ac_list {
    uint32_t first = no_slot;
    uint32_t last = no_slot;
    uint32_t count = 0;
};

class ac_store {
public:
    explicit ac_store(uint32_t info_size);

    uint32_t find(uint32_t node, uint32_t handle) const; /* no_slot: not there */

    /* Asks for the memory that find() or insert() of this AC will look at first, a few ACs before it does. */
    void expect(uint32_t node, uint32_t handle) const;

    /* Makes room for `more` ACs, so that as many inserts do not throw. Throws bad_alloc, with nothing lost. */
    void reserve(uint32_t more);

    /* A slot for an AC that is not there yet and that there is room for: on no list, its bytes undefined. */
    uint32_t insert(uint32_t node, uint32_t handle, uint32_t owner);

    /* Takes an AC out, which is on no list or on one that is not used any more. */
    void erase(uint32_t slot);

    ac_head &head(uint32_t slot) { return *reinterpret_cast<ac_head *>(m_heads.at(slot)); }
    const ac_head &head(uint32_t slot) const { return *reinterpret_cast<const ac_head *>(m_heads.at(slot)); }
    bytes definition(uint32_t slot) const { return {m_contents.at(slot), defn_len}; }
    bytes info(uint32_t slot) const { return {m_contents.at(slot) + defn_len, m_info_size}; }
    void set_definition(uint32_t slot, bytes definition);
    void set_info(uint32_t slot, bytes info);

    void append(ac_list &list, uint32_t slot);
    void remove(ac_list &list, uint32_t slot);
    /* Moves all of `from` to the end of `to`. */
    void splice(ac_list &to, ac_list &from);

    uint32_t size() const { return m_count; }
    uint32_t slots() const { return m_slots; } /* slots ever used: all ACs are below */
    bool used(uint32_t slot) const { return slot < m_slots && head(slot).owner != no_slot; }
    uint64_t memory() const;

private:
    struct entry {
        uint32_t slot;
        uint32_t hash;
    };

    uint32_t hash_of(uint32_t node, uint32_t handle) const;
    uint32_t take_slot();
    size_t probe(uint32_t hash, uint32_t node, uint32_t handle) const;
    void grow_index(size_t entries);
    void release();

    uint32_t m_info_size;
    uint64_t m_seed; /* of the hash */
    uint32_t m_count = 0;
    uint32_t m_slots = 0;
    uint32_t m_free = no_slot;
    slot_array m_heads{sizeof(ac_head)};
    slot_array m_contents;
    std::vector<entry> m_index; /* a power of two */
};

class ac_table {
public:
    explicit ac_table(uint32_t max_acs);

    ac_store &store(uint32_t class_id) { return m_stores[class_id]; }
    const ac_store &store(uint32_t class_id) const { return m_stores[class_id]; }
    uint64_t size() const;
    uint64_t memory() const;
    uint32_t max_acs() const { return m_max_acs; }

private:
    uint32_t m_max_acs;
    std::vector<ac_store> m_stores;
};

} // namespace l2vpnd

#endif
