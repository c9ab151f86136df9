// The only code that knows processors: what a function leaves on the stack, and where the kernel keeps the
// registers of interrupted code.
#pragma once

#include <cstdint>
#include <ucontext.h>

// Where code was interrupted.
struct code_position {
    uintptr_t fp, sp, pc;
};

#if defined(__arm__)

// The three words just below fp (-mapcs-frame).
struct frame_record {
    uintptr_t caller_fp, caller_sp, return_address;
};
constexpr uintptr_t frame_record_below_fp = sizeof(frame_record);

// True if such a record can stand at p: above it come the saved pc, the arguments pushed by a variadic
// function, and the caller's stack.
inline bool can_be_frame(const frame_record &record, uintptr_t p)
{
    const uintptr_t above = record.caller_sp - p;
    return above >= 16 && above <= 32;
}

inline code_position position_of(const ucontext_t &context)
{
    const auto &saved = context.uc_mcontext;
    return {saved.arm_fp, saved.arm_sp, saved.arm_pc};
}

#elif defined(__x86_64__)

// The word at fp and the one above.
struct frame_record {
    uintptr_t caller_fp, return_address;
};
constexpr uintptr_t frame_record_below_fp = 0;

// True if such a record can stand at p.
inline bool can_be_frame(const frame_record &, uintptr_t p)
{
    return p % 16 == 0;
}

inline code_position position_of(const ucontext_t &context)
{
    const auto &saved = context.uc_mcontext.gregs;
    return {static_cast<uintptr_t>(saved[REG_RBP]), static_cast<uintptr_t>(saved[REG_RSP]),
            static_cast<uintptr_t>(saved[REG_RIP])};
}

#else
#error "which frames does this processor have?"
#endif
