// Start-up's view of the periodic-task scheduler.
#pragma once

namespace zt {

// Marks the library initialised and starts the periodic thread on the shared
// pool when tasks are waiting for it.
void periodic_start();
// Marks the library shut down; the thread itself ends with the pool.
void periodic_stop();
// Frees every task record and forgets the thread (after the pool, and with it
// the thread, has gone).
void periodic_free_all();

}  // namespace zt
