// The logged call stack: which callbacks are running just now, innermost last. The loop and the scheduler
// push what they call; a crash report prints what was never popped.
#pragma once

// Returns the new depth, never 0. Beyond 256 entries the address is only counted, not kept.
int logged_stack_push(const void *addr);

// Takes addr off if it is the innermost entry; anything else is left as it is.
void logged_stack_pop(const void *addr);

// Writes the stack to standard error, innermost first, and empties it.
void logged_stack_print();

// Holds an entry for the time of one call.
class logged_call {
  public:
    explicit logged_call(const void *function) : addr_(function) { logged_stack_push(addr_); }
    ~logged_call() { logged_stack_pop(addr_); }
    logged_call(const logged_call &) = delete;
    logged_call &operator=(const logged_call &) = delete;

  private:
    const void *addr_;
};
