/*
 * Room for slots of one size, which stay where they are.
 *
 * Slots stand in chunks, and chunks are allocated many at a time, in arenas: each as large as all before it, up to
 * a size. Fresh pages are the largest part of what it costs to store an AC, so large arenas ask for huge ones. What
 * is not used of an arena yet is address space, not memory.
 */
#ifndef L2VPND_SLOT_ARRAY_H
#define L2VPND_SLOT_ARRAY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace l2vpnd {

class slot_array {
public:
    explicit slot_array(uint32_t size) : m_size(size) {}

    uint8_t *at(uint32_t slot) const
    {
        return m_chunks[slot / chunk_slots] + static_cast<size_t>(slot % chunk_slots) * m_size;
    }

    /* Makes room for slots below `slots`. Throws bad_alloc, with nothing lost. */
    void reserve(size_t slots);
    void release();

    /* Bytes of the slots that there is to be room for. */
    uint64_t memory() const { return uint64_t{m_reserved} * m_size; }

private:
    static constexpr uint32_t chunk_slots = 256;

    struct arena_delete {
        void *mapping; /* null: allocated */
        size_t size;   /* of the mapping */
        void operator()(uint8_t *memory) const;
    };
    using arena = std::unique_ptr<uint8_t, arena_delete>;

    static arena allocate(size_t least);
    void add_arena(size_t chunks);

    uint32_t m_size;
    size_t m_reserved = 0;
    std::vector<arena> m_arenas;
    std::vector<uint8_t *> m_chunks; /* parts of the arenas */
};

} // namespace l2vpnd

#endif
