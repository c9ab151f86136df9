// Init scripts: one file an action, without arguments.
#pragma once

// Runs /etc/init.d/NAME, or NAME.ACTION when action is not null, as a child that nobody tracks. Without wait
// the child's pid; with wait its exit code once it has ended, 0 to 255. -1 when its path does not fit 64
// bytes (logged), it cannot be created, or it ended by a signal.
[[nodiscard]] int run_script(const char *name, const char *action, int wait);
