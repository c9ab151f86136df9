// The control FIFO, through which other programs ask for services to be started and stopped
// (docs/operations.md).
#pragma once

struct lumd;

// Opens the FIFO for the manager and registers it with the loop. 0, or -1 with errno set.
[[nodiscard]] int open_control_fifo(lumd *manager);
