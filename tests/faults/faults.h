// What libfaults.so, which stands before the C library, makes go wrong.
#pragma once

namespace faults {

enum Kind {
    none,
    no_memory,   // malloc, calloc, realloc: NULL
    short_read,  // read, recv: one byte
    short_write, // write, send, sendmsg, writev: one byte
    eintr,       // the same four groups and poll: -1, EINTR
    eagain,      // read, write groups: -1, EAGAIN
    emfile,      // socket, eventfd, pipe2, dup3 and the like: -1, EMFILE
};

// The n-th call (from 1) that `kind` is about fails, in any thread; only calls of the SDK and the host bus count.
void arm(Kind kind, int n);
// Ends it and tells whether the n-th call came.
bool disarm();

} // namespace faults
