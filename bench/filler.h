/*
 * A socket like an owner's to the L2VPN process, and a process that fills it: with the messages of a stream, from the
 * first to the last, and again, for as long as there is room.
 */
#ifndef BENCH_FILLER_H
#define BENCH_FILLER_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/types.h>
#include <vector>

/* Messages, each 8-aligned. */
class stream {
public:
    void add(std::span<const uint64_t> message, size_t size);

    size_t count() const { return places_.size(); }
    size_t longest() const;
    std::span<std::byte> operator[](size_t i)
    {
        return {reinterpret_cast<std::byte *>(words_.data() + places_[i].first), places_[i].size};
    }

private:
    struct place {
        size_t first; /* word */
        size_t size;  /* in bytes */
    };
    std::vector<uint64_t> words_;
    std::vector<place> places_;
};

/* The limit of whatever copies: each message into one place. */
void copy_all(stream &from, std::span<std::byte> room);

class filler {
public:
    /* The process sends the stream as it is now. */
    explicit filler(stream &from);
    ~filler();

    /* The next message, by one system call; its bytes are good until the next one. */
    std::span<std::byte> take();

    filler(const filler &) = delete;
    filler &operator=(const filler &) = delete;

private:
    std::vector<uint64_t> room_;
    int socket_;
    pid_t process_;
};

#endif
