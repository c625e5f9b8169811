/*
 * Requests of 2^31 records and more: such a count is negative where messages are cut. It is checked and converted
 * whole, nothing is sent, and the request succeeds.
 *
 * The arrays alias a small piece of memory, mapped over and over, so that the addresses are real. So do the
 * entries for the platform's check: this program stands in front of mmap() for them.
 */
#include "contract_test.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t huge = 0x80000000u;
constexpr std::size_t window = std::size_t{1} << 26; /* 64 MiB of memory behind every array */

int new_memory()
{
    const int fd = memfd_create("huge", MFD_CLOEXEC);
    return fd >= 0 && ftruncate(fd, window) == 0 ? fd : -1;
}

/* Behind the arrays of a test, and behind the entries. */
const int array_memory = new_memory();
const int entry_memory = new_memory();

using mmap_fn = void *(*)(void *, std::size_t, int, int, int, off_t);

void *real_mmap(void *at, std::size_t size, int protection, int flags, int fd, off_t offset)
{
    static const auto next = reinterpret_cast<mmap_fn>(dlsym(RTLD_NEXT, "mmap"));
    return next(at, size, protection, flags, fd, offset);
}

/* `size` bytes of address space, every 64 MiB of which are the same memory. */
void *map_aliased(std::size_t size, int memory)
{
    auto *const base = static_cast<std::uint8_t *>(
        real_mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    if (base == MAP_FAILED)
        return base;
    for (std::size_t at = 0; at < size; at += window) {
        if (real_mmap(base + at, std::min(window, size - at), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
                      memory, 0) == MAP_FAILED)
            return MAP_FAILED;
    }
    return base;
}

enum class entries { aliased, refused } s_entries = entries::aliased;

} // namespace

extern "C" __attribute__((visibility("default"))) void *mmap(void *at, std::size_t size, int protection,
                                                             int flags, int fd, off_t offset) noexcept
{
    constexpr std::size_t needed = std::size_t{huge} * 8, huge_page = std::size_t{1} << 21;
    if (at == nullptr && fd == -1 && size >= needed &&
        size <= needed + huge_page) /* to begin with a huge page */
        return s_entries == entries::aliased ? map_aliased(size, entry_memory) : (errno = ENOMEM, MAP_FAILED);
    return real_mmap(at, size, protection, flags, fd, offset);
}

namespace {

class huge_request : public contract {
protected:
    ~huge_request() override
    {
        if (array_ != MAP_FAILED)
            munmap(array_, size_);
    }

    /* 2^31 records, all of them in the window. */
    template <typename T>
    T *array()
    {
        size_ = std::size_t{huge} * sizeof(T);
        array_ = map_aliased(size_, array_memory);
        EXPECT_NE(array_, MAP_FAILED);
        auto *const bytes = static_cast<std::uint8_t *>(array_);
        for (std::size_t i = 0; i < window; ++i)
            bytes[i] = pattern(i);
        return static_cast<T *>(array_);
    }

    bool array_is_restored() const
    {
        const auto *const bytes = static_cast<const std::uint8_t *>(array_);
        for (std::size_t i = 0; i < window; ++i) {
            if (bytes[i] != pattern(i))
                return false;
        }
        return true;
    }

    static std::uint8_t pattern(std::size_t i) { return static_cast<std::uint8_t>(i * 7 + i / 256 + 1); }

private:
    void *array_ = MAP_FAILED;
    std::size_t size_ = 0;
};

TEST_F(huge_request, delete_is_checked_and_sends_nothing)
{
    const auto hd = connect_up(4);
    auto *const ifh = array<ifhtype>();
    std::uint32_t checked = 0;
    /* The platform's own check would refuse a handle of 0 among the aliased ones: the test answers for it. */
    world.decide(fn::l2vpn_ac_data_sanitize, [&](std::uint64_t) {
        ++checked;
        return std::optional<qerrno>(0);
    });
    EXPECT_EQ(lib.remove(hd, 0, huge, ifh), 0u);
    EXPECT_EQ(checked, 1u);
    EXPECT_EQ(world.calls(fn::l2vpn_ac_data_sanitize).back().args[4], huge);
    EXPECT_TRUE(array_is_restored());
    EXPECT_THAT(sent(4), IsEmpty());
}

TEST_F(huge_request, whose_entries_have_no_room_is_refused)
{
    const auto hd = connect_up(4);
    auto *const ifh = array<ifhtype>();
    l2vpn_ac_defn_t defn = {};
    l2vpn_ac_info_t info = {};
    s_entries = entries::refused;
    EXPECT_EQ(lib.remove(hd, 0, huge, ifh), 12u);
    EXPECT_EQ(lib.update(hd, 0, huge, ifh, &info), 12u);
    EXPECT_EQ(lib.create(hd, L2VPN_AC_FLAG_CREATE_START, huge, ifh, &defn, &info), 12u);
    s_entries = entries::aliased;
    EXPECT_TRUE(array_is_restored());
    EXPECT_EQ(called(fn::l2vpn_ac_data_sanitize), 0u);
    EXPECT_THAT(sent(4), IsEmpty());

    acs a(1);
    EXPECT_EQ(create(hd, 0, a), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 2, 1, 3})) << "no batch was opened";
}

TEST_F(huge_request, vlan_map_is_converted_there_and_back_and_sends_nothing)
{
    const auto hd = connect_up(4);
    auto *const map = array<l2vpn_msti_vid_map_t>();
    EXPECT_EQ(lib.msti_vid_map(hd, L2VPN_MSTP_FLAG_BEGIN, map, huge), 0u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_TRUE(array_is_restored());

    l2vpn_msti_vid_map_t one = {1, 2};
    EXPECT_EQ(lib.msti_vid_map(hd, 0, &one, 1), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 9, 1, 0})) << "it had opened the batch";

    EXPECT_EQ(lib.msti_vid_map(hd, L2VPN_MSTP_FLAG_END, map, huge), 0u);
    EXPECT_EQ(lib.msti_vid_map(hd, 0, &one, 1), 0u);
    EXPECT_EQ(sent_headers(4).back().flags, 3u) << "and closed it";
    EXPECT_EQ(sent(4).size(), 2u);
}

TEST_F(huge_request, root_is_converted_there_and_back_and_sends_nothing)
{
    const auto hd = connect_up(4);
    auto *const roots = array<l2vpn_msti_root_t>();
    EXPECT_EQ(lib.mstp_root(hd, L2VPN_MSTP_FLAG_BEGIN | L2VPN_MSTP_FLAG_END, roots, huge), 0u);
    EXPECT_THAT(sent(4), IsEmpty());
    EXPECT_TRUE(array_is_restored());

    l2vpn_msti_root_t one = {1, 2, {}};
    EXPECT_EQ(lib.mstp_root(hd, 0, &one, 1), 0u);
    EXPECT_THAT(sent_headers(4), ElementsAre(header{3, 14, 1, 3})) << "opened and closed at once";
}

TEST_F(huge_request, info_messages_that_find_no_memory)
{
    const auto hd = connect_up(4);
    auto *const ifh = array<ifhtype>();
    l2vpn_ac_info_t info = {};
    world.decide(fn::l2vpn_ac_data_sanitize, [](std::uint64_t) { return std::optional<qerrno>(0); });
    world.fail(fn::calloc_named, 1, 12);
    EXPECT_EQ(lib.update(hd, 0, huge, ifh, &info), 12u);
    EXPECT_EQ(world.calls(fn::calloc_named).back().args[0], huge);
    EXPECT_TRUE(array_is_restored());
    EXPECT_THAT(sent(4), IsEmpty());
}

} // namespace
