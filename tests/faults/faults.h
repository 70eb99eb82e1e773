// What libfaults.so, which stands before the C library, makes go wrong.
#pragma once

#include <atomic>

namespace faults {

constexpr int one_byte = -1;

// The call that counts `left` down to 0 fails with `error`, in any thread: ENOMEM malloc and its like; EAGAIN, or reads
// and writes no more than one_byte, read, recv, write and sendmsg; EINTR these, poll and connect; EMFILE socket,
// eventfd and dup3. Those that the SDK or the host bus make are counted.
extern __attribute__((visibility("default"))) std::atomic<int> error, left;

} // namespace faults
