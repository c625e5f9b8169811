#include "slot_array.h"

#include <algorithm>
#include <sys/mman.h>

namespace l2vpnd {

namespace {

constexpr size_t arena_max = size_t{64} << 20;

} // namespace

void slot_array::arena_delete::operator()(uint8_t *memory) const
{
    if (large) {
        ::operator delete(memory, huge_page);
    } else {
        ::operator delete(memory);
    }
}

slot_array::arena slot_array::allocate(size_t bytes)
{
    const bool large = bytes >= static_cast<size_t>(huge_page);
    void *memory = large ? ::operator new(bytes, huge_page) : ::operator new(bytes);
    if (large) {
        (void)madvise(memory, bytes, MADV_HUGEPAGE); /* refused, it only takes longer */
    }
    return {static_cast<uint8_t *>(memory), arena_delete{large}};
}

void slot_array::add_arena(size_t chunks)
{
    const size_t chunk_bytes = size_t{chunk_slots} * m_size;
    m_chunks.reserve(m_chunks.size() + chunks);
    m_arenas.push_back(allocate(chunks * chunk_bytes));
    for (size_t i = 0; i < chunks; i++) {
        m_chunks.push_back(m_arenas.back().get() + i * chunk_bytes);
    }
}

void slot_array::reserve(size_t slots)
{
    while (slots > m_chunks.size() * chunk_slots) {
        const size_t most = arena_max / (size_t{chunk_slots} * m_size);
        add_arena(std::clamp<size_t>(m_chunks.size(), 1, most));
    }
    m_reserved = std::max(m_reserved, slots);
}

void slot_array::release()
{
    *this = slot_array(m_size);
}

} // namespace l2vpnd
