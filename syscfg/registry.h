// Named blobs in a raw flash partition. A partition begins with a header that names up to eight blobs,
// reserves a capacity for each and records how many bytes each holds; an MD5 digest protects it. Flash is
// written in whole 4,096-byte blocks, each read before it is changed, and only the blocks of the header and
// the blob.
//
// A header is not trusted: a read or write fails if a capacity runs past 2 GiB or a length exceeds its
// capacity. Failures are printed on standard error.
#pragma once

#include <cstdint>
#include <sys/types.h>

constexpr size_t registry_header_size = 212;

// True if the 212 bytes begin with the magic and hold the digest of their table.
bool registry_header_valid(const uint8_t *header);

// Bytes read into buffer (the first buffer_size of the blob), or -1. base is the header's offset on the
// device.
int readregistry(const char *device, const char *name, void *buffer, int buffer_size, off_t base);

// Returns length once all of data is on the device and synced; -1 may leave the device half-written. A device
// without a valid header gets the default one: "hwinfo" of 512 and "syscfg" of 65,536 bytes. Null data is
// refused like data that does not fit; length is then that of a text too long to build.
int writeregistry(const char *device, const char *name, const void *data, int length, off_t base);

// The two partitions of the device: hardware information and everything else.
int registry_read_hwinfo(void *buffer, int size);
int registry_write_hwinfo(const void *data, int length);
int registry_read(const char *name, void *buffer, int size);
int registry_write(const char *name, const void *data, int length);
