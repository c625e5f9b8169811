/*
 * The library under test, loaded anew for each test: its state lives as long as the process that loaded it,
 * and a test wants it fresh. The environment may name another than the one that was built beside the tests.
 */
#ifndef TESTS_SUPPORT_AC_LIBRARY_H
#define TESTS_SUPPORT_AC_LIBRARY_H

#include <l2vpn/l2vpn_ac_api.h>

#include <cstdlib>
#include <dlfcn.h>
#include <stdexcept>
#include <string>

class ac_library {
public:
    ac_library() : handle_(dlopen(path(), RTLD_NOW | RTLD_LOCAL))
    {
        if (handle_ == nullptr)
            throw std::runtime_error(dlerror());
        load(connect, "l2vpn_ac_process_connect");
        load(connect_nodeid, "l2vpn_ac_process_connect_nodeid");
        load(disconnect, "l2vpn_ac_process_disconnect");
        load(create, "l2vpn_ac_create");
        load(update, "l2vpn_ac_update");
        load(remove, "l2vpn_ac_delete");
        load(mstp_root, "l2vpn_mstp_root");
        load(mstp_port_request, "l2vpn_mstp_port_request");
        load(msti_vid_map, "l2vpn_msti_vid_map");
        load(mstp_protect, "l2vpn_mstp_protect");
    }
    ~ac_library() { dlclose(handle_); }
    ac_library(const ac_library &) = delete;
    ac_library &operator=(const ac_library &) = delete;

    decltype(&l2vpn_ac_process_connect) connect = nullptr;
    decltype(&l2vpn_ac_process_connect_nodeid) connect_nodeid = nullptr;
    decltype(&l2vpn_ac_process_disconnect) disconnect = nullptr;
    decltype(&l2vpn_ac_create) create = nullptr;
    decltype(&l2vpn_ac_update) update = nullptr;
    decltype(&l2vpn_ac_delete) remove = nullptr;
    decltype(&l2vpn_mstp_root) mstp_root = nullptr;
    decltype(&l2vpn_mstp_port_request) mstp_port_request = nullptr;
    decltype(&l2vpn_msti_vid_map) msti_vid_map = nullptr;
    decltype(&l2vpn_mstp_protect) mstp_protect = nullptr;

private:
    static const char *path()
    {
        const char *const named = std::getenv("L2VPN_AC_LIBRARY");
        return named != nullptr ? named : L2VPN_AC_LIBRARY;
    }

    template <typename F>
    void load(F &function, const char *name)
    {
        function = reinterpret_cast<F>(dlsym(handle_, name));
        if (function == nullptr)
            throw std::runtime_error(std::string("the library does not export ") + name);
    }

    void *handle_;
};

#endif
