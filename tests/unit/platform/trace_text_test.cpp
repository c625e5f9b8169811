/* A record in the trace file has its text, whoever was first to write that text down and whoever looks when. */
#include "child.h"
#include "trace_file.h"

#include <platform/config.h>
#include <platform/debug.h>

#include <cstddef>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

/* Takes the C library's place, so that a test can do something between the reads of a reader. */
namespace {
std::function<void()> before_read;
}
extern "C" __attribute__((visibility("default"))) ssize_t pread(int fd, void *to, size_t size, off_t offset)
{
    if (before_read) {
        before_read();
    }
    using function = ssize_t (*)(int, void *, size_t, off_t);
    return reinterpret_cast<function>(::dlsym(RTLD_NEXT, "pread"))(fd, to, size, offset);
}

namespace {

using namespace l2vpn::trace_reader;
using l2vpn::trace::text;
using l2vpn::trace::text_count;
using l2vpn::trace::texts_offset;
using ::testing::Each;
using ::testing::Field;
using ::testing::SizeIs;

/* The formats of these tests are made while they run. */
void (*const give)(std::uint32_t, const char *, ...) = gen_ltrace;

class trace_text : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(platform_trace_set(path.c_str()), EOK); }
    void TearDown() override
    {
        before_read = nullptr;
        EXPECT_EQ(platform_trace_set("off"), EOK);
    }

    system_test::temp_dir place;
    std::string path = place.file("trace");
};

TEST_F(trace_text, is_known_when_it_is_new_while_the_file_is_read)
{
    unsigned made = 0;
    before_read = [&] { give(1, ("new text " + std::to_string(made++)).c_str()); };
    const contents read = read_file(path);
    ASSERT_FALSE(read.entries.empty());
    for (const entry &each : read.entries) {
        EXPECT_EQ(each.text, "new text " + std::to_string(each.number));
    }
    EXPECT_GT(made, read.entries.size()) << "some were made after the records were read";
}

/* What a thread leaves that was stopped when it had found a place for the text, and not yet written it. */
TEST_F(trace_text, is_known_when_the_thread_that_was_first_never_wrote_it)
{
    give(1, "a text of two threads");
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    constexpr std::size_t length = texts_offset + text_count * sizeof(text);
    void *const map = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    ASSERT_NE(map, MAP_FAILED);
    auto *const texts = reinterpret_cast<text *>(static_cast<std::byte *>(map) + texts_offset);
    unsigned begun = 0;
    for (std::size_t index = 0; index < text_count; ++index) {
        begun += texts[index].hash != 0 ? 1 : 0;
        texts[index].ready = 0;
        texts[index].bytes.fill('\0');
    }
    ::munmap(map, length);
    ASSERT_EQ(begun, 1U);

    give(1, "a text of two threads");
    const contents read = read_file(path);
    ASSERT_THAT(read.entries, SizeIs(2));
    EXPECT_THAT(read.entries, Each(Field(&entry::text, "a text of two threads")));
}

} // namespace
