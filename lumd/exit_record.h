// The record of how a service has ended, /tmp/log/NAME.svc.log. It is kept for services whose record exists.
#pragma once

// Appends "WHAT VALUE\n". Failures of the write are logged.
void write_exit_record(const char *name, const char *what, int value);
