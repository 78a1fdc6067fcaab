// faults.h - make a system call fail, come up short or take its time, for one test.
//
//   Faults faults;                             // undone when it goes out of scope
//   faults.fail("read", ENXIO);                // the next read fails with this errno
//   faults.fail("lseek64", EIO, 2);            // the second lseek64 from now on fails
//   faults.fail_all("calloc", ENOMEM);         // every calloc from now on
//   faults.shorten("read", 100);               // the next read returns at most 100 bytes
//   faults.before("write", [] { ... });        // run this before every write
//   faults.answer("times", 1234);              // the call is not made; this is its result
//   faults.fail("connect", ECONNREFUSED);      // likewise socket, send and recv
//   faults.count("open64")                     // calls since the object was made
//   faults.calls()                             // all counted calls in order, by name
//
// Only calls of the thread that made the object are touched, unless all_threads() was called. One
// object at a time. The calls are caught at link time (-Wl,--wrap), so the test's own calls are
// caught too: arm a fault immediately before the act. A call is named without regard to the
// large-file or 64-bit-time name that the C library gives it ("stat64", "fcntl", "clock_gettime").
// malloc, calloc, realloc and valloc count as calls to fail, but are not listed in calls().
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace plexa_test {

class Faults {
 public:
  Faults();
  ~Faults();
  Faults(const Faults &) = delete;
  Faults &operator=(const Faults &) = delete;

  void fail(const std::string &call, int error, int nth = 1);
  void fail_all(const std::string &call, int error);
  void shorten(const std::string &call, long bytes, int nth = 1);
  void answer(const std::string &call, long result);
  void before(const std::string &call, std::function<void()> action);
  // Called with the arguments that matter: (descriptor or -1, path or null, number or 0), where the
  // number is the byte count of read, write, send and recv, the offset of lseek64, the flags of
  // open64. connect has the dotted address as path and the port as number, popen the command as
  // path and the length of its mode as number.
  void watch(const std::string &call,
             std::function<void(int fd, const char *path, long long number)> watcher);
  void all_threads();

  int count(const std::string &call) const;
  std::vector<std::string> calls() const;
};

// From now on a connect to the port `from` goes to the port `to` of the same address, on all
// threads and whether or not there is a Faults object; watchers still see `from`. A `to` of 0 ends
// it.
void redirect_connect(uint16_t from, uint16_t to);

}  // namespace plexa_test
