// The files of the board, by their names below its directory, and the part of it that answers for the PHYs.
// All goes by bare system calls: whoever is wrapped or preloaded would come back here.
#pragma once

#include <fcntl.h>
#include <span>
#include <string_view>

// A descriptor of a regular file, or -1 with errno set.
int board_open_file(const char *name, int flags);

// Whether the descriptor is open on that file.
bool board_is_file(int fd, const char *name);

// A line for the log of that name, behind the time. A log that has grown large is put aside as NAME.old.
void board_note(const char *log, const char *format, ...) __attribute__((format(printf, 2, 3)));

// What a file says, without the white space around it, as a string in the buffer; empty when there is no
// file.
std::string_view board_setting(const char *name, std::span<char> buffer);

bool board_has_directory(const char *name); // "" is the board's own
int board_make_directory(const char *name);

// A line as the content of a file. With O_EXCL a file that is there stays as it is. 0, or -1 with errno set.
int board_write_file(const char *name, const char *text, int flags);

// The requests by which PHY registers are read, and what the PHYs of the interface answer.
bool board_is_mii(unsigned long request);
int board_mii(unsigned long request, void *interface_request);
