#include "slot_array.h"

#include <algorithm>
#include <new>
#include <sys/mman.h>

namespace l2vpnd {

namespace {

constexpr size_t huge_page = size_t{2} << 20;
constexpr size_t arena_max = size_t{64} << 20;

} // namespace

void slot_array::arena_delete::operator()(uint8_t *memory) const
{
    if (mapping != nullptr) {
        munmap(mapping, size);
    } else {
        ::operator delete(memory);
    }
}

/* A large one is a mapping of its own: an allocator would keep it when it goes. Not every kernel places a mapping
 * where its huge pages begin; what is asked for more is never touched. */
slot_array::arena slot_array::allocate(size_t least)
{
    if (least < huge_page) {
        return {static_cast<uint8_t *>(::operator new(least)), arena_delete{nullptr, 0}};
    }
    const size_t wanted = (least + huge_page - 1) / huge_page * huge_page;
    const size_t size = wanted + huge_page;
    void *const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) {
        throw std::bad_alloc();
    }
    const uintptr_t behind = reinterpret_cast<uintptr_t>(mapping) % huge_page;
    uint8_t *const begin = static_cast<uint8_t *>(mapping) + (behind > 0 ? huge_page - behind : 0);
    (void)madvise(begin, wanted, MADV_HUGEPAGE); /* refused, it only takes longer */
    return {begin, arena_delete{mapping, size}};
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
        try {
            add_arena(std::clamp<size_t>(m_chunks.size(), 1, most));
        } catch (const std::bad_alloc &) {
            add_arena(1); /* where there is little left */
        }
    }
    m_reserved = std::max(m_reserved, slots);
}

void slot_array::release()
{
    *this = slot_array(m_size);
}

} // namespace l2vpnd
