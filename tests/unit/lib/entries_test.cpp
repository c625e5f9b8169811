/*
 * Where the entries of the platform's check stand: how much of the stack they take, what large requests ask of the
 * kernel for them, and that it is gone afterwards. This program stands in front of madvise() and mmap().
 */
#include <l2vpn/l2vpn_ac_api.h>
#include <platform/sim.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <new>
#include <numeric>
#include <pthread.h>
#include <sys/mman.h>
#include <vector>

namespace {

constexpr std::size_t huge_page = std::size_t{2} << 20;
constexpr std::size_t page = 4096;

struct advice {
    std::uintptr_t begin;
    std::size_t size;
    int kind;
    bool mapped; /* all of it, when the advice was given */
};

std::vector<advice> *s_given;
bool s_refuses;
/* Large mappings begin a page behind a huge page's begin: kernels place them as they like. */
bool s_misplaces;

bool is_mapped(std::uintptr_t begin, std::size_t size)
{
    std::vector<unsigned char> pages(size / page + 1);
    return mincore(reinterpret_cast<void *>(begin), size, pages.data()) == 0;
}

l2vpn_ac_client_hd_t connected()
{
    static l2vpn::sim::world world;
    static l2vpn_ac_callback_vector_t callbacks = {};
    callbacks.status_cb = [](l2vpn_ac_client_hd_t, std::uint32_t, std::uint32_t) -> qerrno { return 0; };
    l2vpn_ac_client_hd_t hd = nullptr;
    EXPECT_EQ(l2vpn_ac_process_connect(world.evm(), 0, 0, &callbacks, &hd), 0u);
    return hd;
}

/* What a delete of so many ACs asked for. */
std::vector<advice> advice_for(std::uint32_t acs)
{
    const l2vpn_ac_client_hd_t hd = connected();
    std::vector<ifhtype> handles(acs);
    std::iota(handles.begin(), handles.end(), 1u);
    const std::vector<ifhtype> before = handles;

    std::vector<advice> given;
    given.reserve(4);
    s_given = &given;
    EXPECT_EQ(l2vpn_ac_delete(hd, 0, acs, handles.data()), 0u);
    s_given = nullptr;
    EXPECT_EQ(handles, before);

    handles.back() = 0; /* the last entry is looked at */
    EXPECT_EQ(l2vpn_ac_delete(hd, 0, acs, handles.data()), 22u);
    EXPECT_EQ(l2vpn_ac_process_disconnect(hd), 0u);
    return given;
}

/* The stack of a thread that makes one request, and how deep it went. */
class painted_stack {
public:
    painted_stack()
        : memory_(static_cast<unsigned char *>(
              mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)))
    {
        if (memory_ == MAP_FAILED)
            throw std::bad_alloc();
        std::fill_n(memory_, size, paint);
    }
    ~painted_stack() { munmap(memory_, size); }
    painted_stack(const painted_stack &) = delete;
    painted_stack &operator=(const painted_stack &) = delete;

    void run(void *(*what)(void *), void *with)
    {
        pthread_attr_t attributes;
        pthread_t thread;
        ASSERT_EQ(pthread_attr_init(&attributes), 0);
        ASSERT_EQ(pthread_attr_setstack(&attributes, memory_, size), 0);
        ASSERT_EQ(pthread_create(&thread, &attributes, what, with), 0);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);
        pthread_attr_destroy(&attributes);
    }

    /* Bytes from the first that was written to the stack's upper end. */
    __attribute__((no_sanitize("address"))) std::size_t depth() const
    {
        std::size_t untouched = 0;
        while (untouched < size && memory_[untouched] == paint)
            ++untouched;
        return size - untouched;
    }

private:
    static constexpr std::size_t size = std::size_t{2} << 20;
    static constexpr unsigned char paint = 0xa5;

    unsigned char *memory_;
};

/* How deep a delete of so many ACs goes. */
std::size_t depth_for(std::uint32_t acs)
{
    struct arguments {
        l2vpn_ac_client_hd_t hd;
        std::vector<ifhtype> handles;
        qerrno status;
    } given = {connected(), std::vector<ifhtype>(acs), 1};
    std::iota(given.handles.begin(), given.handles.end(), 1u);
    painted_stack stack;
    stack.run(
        [](void *with) -> void * {
            auto &of = *static_cast<arguments *>(with);
            of.status =
                l2vpn_ac_delete(of.hd, 0, static_cast<std::uint32_t>(of.handles.size()), of.handles.data());
            return nullptr;
        },
        &given);
    EXPECT_EQ(given.status, 0u);
    EXPECT_EQ(l2vpn_ac_process_disconnect(given.hd), 0u);
    return stack.depth();
}

} // namespace

extern "C" __attribute__((visibility("default"))) int madvise(void *at, size_t size, int kind) noexcept
{
    const auto begin = reinterpret_cast<std::uintptr_t>(at);
    if (s_given != nullptr)
        s_given->push_back({begin, size, kind, is_mapped(begin, size)});
    if (s_refuses) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

/* Also called before a sanitizer has begun its work, which it must not ask for then. */
extern "C" __attribute__((visibility("default"), no_sanitize("address", "undefined", "thread"))) void *
mmap(void *at, size_t size, int protection, int flags, int fd, off_t offset) noexcept
{
    using function = void *(*)(void *, size_t, int, int, int, off_t);
    const auto next = reinterpret_cast<function>(dlsym(RTLD_NEXT, "mmap"));
    if (!s_misplaces || size < huge_page)
        return next(at, size, protection, flags, fd, offset);
    void *const all = next(at, size + 2 * huge_page, protection, flags, fd, offset);
    if (all == MAP_FAILED)
        return all;
    const auto begin = reinterpret_cast<std::uintptr_t>(all);
    const std::uintptr_t given = (begin + huge_page - 1) / huge_page * huge_page + page;
    munmap(all, given - begin);
    munmap(reinterpret_cast<void *>(given + size), begin + 2 * huge_page - given);
    return reinterpret_cast<void *>(given);
}

namespace {

/* And that they are gone afterwards. */
void expect_whole_huge_pages()
{
    const struct {
        std::uint32_t acs;
        std::size_t size;
    } cases[] = {{32768, huge_page}, {200000, huge_page}, {262144, huge_page}, {262145, 2 * huge_page}};
    for (const auto &it : cases) {
        SCOPED_TRACE(it.acs);
        const std::vector<advice> given = advice_for(it.acs);
        ASSERT_EQ(given.size(), 1u);
        EXPECT_EQ(given[0].kind, MADV_HUGEPAGE);
        EXPECT_EQ(given[0].size, it.size);
        EXPECT_TRUE(given[0].mapped);
        EXPECT_EQ(given[0].begin % huge_page, 0u);
        for (std::size_t at = 0; at <= given[0].size; at += page) /* and what lies behind it */
            EXPECT_FALSE(is_mapped(given[0].begin + at, page));
    }
}

TEST(entries, of_up_to_16384_acs_take_no_more_of_the_stack_than_is_told)
{
    depth_for(1); /* whatever is done only once */
    const std::size_t most = depth_for(16384);
    EXPECT_GE(most, 128u << 10);
    EXPECT_LE(most, depth_for(1) + (128u << 10) + 4 * page);
}

TEST(entries, of_more_acs_take_nothing_of_the_stack)
{
    depth_for(200000); /* whatever is done only once */
    EXPECT_LE(depth_for(16385), depth_for(1) + 4 * page);
    EXPECT_LE(depth_for(200000), depth_for(1) + 4 * page);
}

TEST(entries, of_up_to_256_kibibytes_ask_for_no_huge_page)
{
    for (const std::uint32_t acs : {1u, 16384u, 16385u, 32767u}) {
        SCOPED_TRACE(acs);
        EXPECT_EQ(advice_for(acs).size(), 0u);
    }
}

TEST(entries, of_more_stand_on_whole_huge_pages_for_as_long_as_the_request_takes)
{
    expect_whole_huge_pages();
}

TEST(entries, of_more_stand_on_whole_huge_pages_wherever_the_kernel_has_placed_them)
{
    s_misplaces = true;
    expect_whole_huge_pages();
    s_misplaces = false;
}

TEST(entries, are_there_where_the_advice_is_refused)
{
    s_refuses = true;
    EXPECT_EQ(advice_for(40000).size(), 1u);
    s_refuses = false;
}

} // namespace
