// The time zone of the process.
#pragma once

// Installs a zone as users write it ("+8", "-3:30", "CST+8": east is "+") unless the environment has one.
// Values too long for a zone are refused with a log line. Always 0.
int init_tz(const char *value);
