// failing_new.cpp - see failing_new.h. By itself, where the compiler looks into no operator.
#include "failing_new.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local int countdown = -1;  // below 0: nothing fails
thread_local bool has_failed = false;

}  // namespace

namespace plexa_test {

void fail_new_after(int successes) {
  countdown = successes;
  has_failed = false;
}

bool stop_failing_new() {
  countdown = -1;
  return std::exchange(has_failed, false);
}

}  // namespace plexa_test

void *operator new(std::size_t size) {
  if (countdown >= 0 && countdown-- == 0) {
    has_failed = true;
    throw std::bad_alloc();
  }
  if (void *const memory = std::malloc(size > 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
void *operator new[](std::size_t size) { return operator new(size); }
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete[](void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void *memory, std::size_t) noexcept { std::free(memory); }
