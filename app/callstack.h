// The logged call stack: the callbacks now running, innermost last. The loop and the scheduler push what they
// call; a crash report prints what was never popped.
#pragma once

// Returns the new depth, never 0. Beyond 256 entries, addresses are counted but not kept.
int logged_stack_push(const void *addr);

// Removes addr if it is the innermost entry; does nothing otherwise.
void logged_stack_pop(const void *addr);

// Writes the stack to standard error, innermost first, and empties it.
void logged_stack_print();

// Pushes an entry for the duration of a call.
class logged_call {
  public:
    explicit logged_call(const void *function) : addr_(function) { logged_stack_push(addr_); }
    ~logged_call() { logged_stack_pop(addr_); }
    logged_call(const logged_call &) = delete;
    logged_call &operator=(const logged_call &) = delete;

  private:
    const void *addr_;
};
