/*
 * The ring's file, and who may have it.
 */
#include "child.h"
#include "trace/ring.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace {

using l2vpn::trace::ring;

/* Rings that are put aside stay mapped while somebody may still write to them. */
TEST(trace_ring, that_is_put_aside_leaves_its_file_to_the_next)
{
    const system_test::temp_dir place;
    const std::string path = place.file("file.trace");
    qerrno cause = EOK;
    std::string problem;
    const std::unique_ptr<ring> first = ring::create(path, 64 * 1024, cause, problem);
    ASSERT_NE(first, nullptr) << problem;
    EXPECT_EQ(ring::create(path, 64 * 1024, cause, problem), nullptr);
    EXPECT_EQ(cause, static_cast<qerrno>(EBUSY));

    first->release_file();
    EXPECT_NE(ring::create(path, 64 * 1024, cause, problem), nullptr) << problem;
}

} // namespace
