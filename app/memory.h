// Owners: heap records and text, descriptors, open files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <unistd.h>
#include <utility>

struct free_deleter {
    void operator()(void *memory) const { free(memory); }
};

struct close_file {
    void operator()(FILE *file) const { fclose(file); }
};

using unique_text = std::unique_ptr<char, free_deleter>;
using unique_file = std::unique_ptr<FILE, close_file>;

// A descriptor, closed at the end of its scope; -1 is none.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// A zero-filled record for free_record, or null if out of memory. A record without a destructor may also be
// given to free().
template <typename Record>
Record *new_record()
{
    void *memory = calloc(1, sizeof(Record));
    if constexpr (std::is_trivially_default_constructible_v<Record>)
        return static_cast<Record *>(memory);
    else
        return memory ? new (memory) Record() : nullptr;
}

// Destroys and frees; null is fine.
template <typename Record>
void free_record(Record *record)
{
    if (record)
        record->~Record();
    free(record);
}

struct record_deleter {
    template <typename Record>
    void operator()(Record *record) const
    {
        free_record(record);
    }
};

template <typename Record>
using unique_record = std::unique_ptr<Record, record_deleter>;

// A heap copy of text for free(), or null if out of memory.
inline char *new_text(std::string_view text)
{
    char *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy) {
        memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}
