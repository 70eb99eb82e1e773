// The event loop of the library: uloop's initialisation, and the thread that serves what is asynchronous.
#pragma once

namespace tavrik {

// Makes the loop thread look again at what it waits for. Harmless without a thread.
void wake_loop();

// Is the calling thread the loop thread?
bool on_loop_thread();

} // namespace tavrik
