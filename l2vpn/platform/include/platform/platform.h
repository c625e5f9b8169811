/*
 * The platform contract: everything that the L2VPN AC client library calls, and nothing else. Any
 * implementation of these declarations can stand in for the platform.
 */
#ifndef PLATFORM_PLATFORM_H
#define PLATFORM_PLATFORM_H

#include <platform/ac_data.h>
#include <platform/debug.h>
#include <platform/event_mgr.h>
#include <platform/ipc.h>
#include <platform/lock_monitor.h>
#include <platform/memory.h>
#include <platform/mgd_timer.h>
#include <platform/node.h>
#include <platform/qerr.h>
#include <platform/wavl.h>

#endif
