/*
 * Reading the ring of a process, dead or alive. Nothing in the file is trusted, and its writer never notices:
 * what it overwrites before it was read is lost, and counted.
 */
#ifndef L2VPN_CAPTURE_RING_READER_H
#define L2VPN_CAPTURE_RING_READER_H

#include "captured.h"
#include "unique_fd.h"

namespace l2vpn::capture {

class ring_reader {
public:
    /* Throws bad_file, as all of these. */
    explicit ring_reader(const std::string &path);

    [[nodiscard]] const std::string &process() const noexcept { return process_; }
    [[nodiscard]] std::uint32_t pid() const noexcept { return pid_; }

    /* Leaves out what is there already. */
    void skip();
    /* Appends the records that have become complete since the latest call. */
    void read(std::vector<captured> &to);
    /* Once the writer has ended, nothing is added any more. */
    [[nodiscard]] bool writer_ended() const;
    /* Records that can not be read (any more), among all up to the latest one read or, when the writer had ended
     * before the latest read(), among all. After skip(), from the first one read on. */
    [[nodiscard]] std::uint64_t lost() const;

private:
    [[nodiscard]] bool fill(std::span<std::byte> to, std::uint64_t offset) const;
    [[nodiscard]] ring_header read_header() const;
    [[nodiscard]] std::vector<slot> read_slots(std::uint64_t first, std::uint64_t count) const;
    void take_record(std::span<const std::uint8_t> bytes, std::vector<captured> &to);

    platform_posix::unique_fd file_;
    std::string process_;
    std::uint32_t pid_ = 0;
    std::uint64_t slot_count_ = 0;
    std::uint64_t position_ = 0; /* the slot to be read next */
    bool skipped_ = false;
    std::uint64_t all_ = 0;             /* records of a writer that has ended; 0: not known */
    std::uint64_t lowest_ = UINT64_MAX; /* numbers of the records read */
    std::uint64_t highest_ = 0;
    std::uint64_t taken_ = 0;
};

} // namespace l2vpn::capture

#endif
