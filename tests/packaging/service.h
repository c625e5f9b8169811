/*
 * l2vpnd as a service manager starts it.
 */
#ifndef TESTS_PACKAGING_SERVICE_H
#define TESTS_PACKAGING_SERVICE_H

#include "daemon.h"

#include <sys/stat.h>

namespace process_test {

class service_test : public daemon_test {
protected:
    service_test() { mkdir(runtime_dir().c_str(), 0700); }

    std::string runtime_dir() const { return m_dir.file("run"); }
    std::string owners() const { return runtime_dir() + "/L2VPN.sock"; }
    std::string operators() const { return runtime_dir() + "/L2VPN.ctl"; }

    /* l2vpnd with these as its descriptors 3, 4, ..., as the convention of passed sockets has it. */
    void start_with(const std::vector<int> &sockets, const std::vector<std::string> &more = {})
    {
        std::string script = "export LISTEN_PID=$$ LISTEN_FDS=" + std::to_string(sockets.size()) + "; exec";
        for (size_t i = 0; i < sockets.size(); i++) {
            script += " " + std::to_string(3 + i) + "<&" + std::to_string(sockets[i]);
        }
        script += R"(; exec "$0" "$@")";
        std::vector<std::string> arguments = {
            "-c", script, system_test::binary("l2vpnd"), "--runtime-dir", runtime_dir(), "--nodeid", "7"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        m_daemon = std::make_unique<system_test::child>("/bin/bash", arguments);
    }

    void start_without_sockets(const std::vector<std::string> &more,
                               const std::vector<std::string> &environment = {})
    {
        std::vector<std::string> arguments = {"--runtime-dir", runtime_dir(), "--nodeid", "7"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        m_daemon =
            std::make_unique<system_test::child>(system_test::binary("l2vpnd"), arguments, environment);
    }

    bool serves() const { return m_daemon->says("l2vpnd: ready on " + owners() + "\n"); }

    json status() const
    {
        const auto got = system_test::run(system_test::binary("l2vpnctl"),
                                          {"status", "--json", "--runtime-dir", runtime_dir()});
        return json::parse(got.out, nullptr, false);
    }
};

} // namespace process_test

#endif
