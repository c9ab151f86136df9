// Init scripts: one file an action, without arguments.
#pragma once

// Runs /etc/init.d/NAME, or NAME.ACTION when action is not null, as an untracked child. Returns its pid at
// once, or, with wait, its exit code (0 to 255) after its end. -1 when the path does not fit 64 bytes or the
// child cannot be created (both logged), or when it ended by a signal.
[[nodiscard]] int run_script(const char *name, const char *action, int wait);
