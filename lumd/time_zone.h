// The time zone of the process.
#pragma once

// Installs a zone as users write it ("+8", "-3:30", "CST+8": east is "+") unless the environment has one.
// A bare offset of over 127 characters is refused with a log line. Always 0.
int init_tz(const char *value);
