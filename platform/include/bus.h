// The one place where libubox and libubus enter C++: their headers have no guards of their own everywhere.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

// A macro that takes the name of an attribute from C++.
#undef fallthrough
