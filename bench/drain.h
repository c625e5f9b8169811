/*
 * A socket like the one to the L2VPN process, and a process that takes out what comes.
 */
#ifndef BENCH_DRAIN_H
#define BENCH_DRAIN_H

#include "counting_platform.h"

#include <sys/types.h>

/* Room for as many messages of so many bytes as the Linux platform makes. */
void fit_socket(int socket, size_t bytes);

class drain final : public counting::outlet {
public:
    /* Early: the process is a fork, and memory that it shares would be copied when it is written. */
    drain();
    ~drain();

    void fit(uint32_t mtu) { fit_socket(socket_, mtu); }

    /* One system call; waits for room. */
    void put(const iovec *pieces, size_t count) override;

    drain(const drain &) = delete;
    drain &operator=(const drain &) = delete;

private:
    int socket_;
    pid_t process_;
};

#endif
