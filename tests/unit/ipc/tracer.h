/*
 * A process that sends on a link, traced by the link's other end: the system calls that it makes, and what arrives. Each
 * message is taken as soon as it is there, so that there is always room for the next one.
 */
#ifndef TESTS_UNIT_IPC_TRACER_H
#define TESTS_UNIT_IPC_TRACER_H

#include <cstdint>
#include <sys/types.h>
#include <sys/uio.h>
#include <vector>

namespace ipc_test {

inline constexpr uint32_t header_size = 16;

/* A system call; of a sendmsg(), what it was told to send. */
struct call {
    uint64_t number = 0;
    std::vector<iovec> pieces; /* in the sender's memory */
    int64_t result = 0;
};

struct traffic {
    std::vector<call> calls;
    std::vector<int64_t> arrived; /* sizes of the messages */
};

/* In the sender: stops it for its tracer. */
bool be_traced();
/* In the sender: what it does between two of these is looked at. */
void mark();

class tracer {
public:
    /* Of a child, and the other end of its link. */
    tracer(pid_t sender, int peer) : sender_(sender), peer_(peer) {}

    /* Waits for the sender to stop itself, with all that it has sent so far taken. */
    bool begin();
    /* What happens between its next two marks. */
    traffic between_marks();
    /* Lets it run to its end, which is its parent's to wait for. */
    void end() const;

private:
    bool wait();
    bool next_stop();
    std::vector<iovec> pieces_of(uint64_t message) const;
    void take_arrived(std::vector<int64_t> *to) const;

    pid_t sender_;
    int peer_;
    int status_ = 0;
};

} // namespace ipc_test

#endif
