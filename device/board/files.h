// The board's files, by their names below its directory, and the part of the board that answers for PHYs.
// Uses bare system calls only: wrapped or preloaded ones would come back here.
#pragma once

#include <fcntl.h>
#include <span>
#include <string_view>

// The descriptor of a regular file, or -1 with errno set.
int board_open_file(const char *name, int flags);

// True if the descriptor is open on that file.
bool board_is_file(int fd, const char *name);

// Appends a line with the time to that log. A log that has grown large is renamed NAME.old.
void board_note(const char *log, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The content of a file without surrounding white space, as a string in the buffer; empty if there is
// no file.
std::string_view board_setting(const char *name, std::span<char> buffer);

bool board_has_directory(const char *name); // "" is the board's own
int board_make_directory(const char *name);

// Writes a file of one line; with O_EXCL an existing file is kept. Returns 0, or -1 with errno set.
int board_write_file(const char *name, const char *text, int flags);

// The requests that read PHY registers, and the answers of the interface's PHYs.
bool board_is_mii(unsigned long request);
int board_mii(unsigned long request, void *interface_request);
