// timeshift_support.h - time-shift recordings whose every byte tells its place, for the scenarios.
//
//   Recording recording(folder.file("live"));  // "live.kvf" and "live.mdb"
//   recording.open();
//   recording.set_span(12000, 15000);          // keeps 12 units, cut for the first time at 15
//   recording.write_units(100);
//
// The stream is written in units of 1024 packets, what a cut removes at least; by default a unit
// takes a second. Each packet carries its own number, so that any byte that a reader is given can
// be compared with what belongs at its logical offset. The index goes the way a recorder's does: a
// group of pictures is listed before the time of its data is reported.
//
// Failures of other threads go into Complaints; a test ends by expecting that there are none.
// Counts are small, smallest under the thread sanitizer; with PLEXA_SOAK set in the environment
// they are the full ones. With PLEXA_TIMESHIFT_LOG set the library's log goes to standard error.
#pragma once

#include <gst-plexa/gst_plexa.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace plexa_test {

inline constexpr int64_t kPacket = 188;
inline constexpr int64_t kUnitPackets = 1024;
inline constexpr int64_t kUnit = kUnitPackets * kPacket;

int count_of(int small, int full);

// ---- The stream ----

// Bytes of the stream from a logical offset on.
void fill_stream(int64_t offset, uint8_t *data, int64_t size);
bool is_stream(int64_t offset, const uint8_t *data, int64_t size);
// Logical offset that the packet at `packet` was written for.
int64_t offset_of_packet(const uint8_t *packet);
// What a file holds, all of it: whole packets in unbroken order. Where it begins in the stream;
// none when it is not so, or empty.
std::optional<int64_t> start_of_stream_file(const std::string &path);
// The same for a file whose units may stand in any order.
bool is_made_of_units(const std::string &path);

int64_t bytes_cut_off();  // the total cut that all logical offsets count with at this moment

// ---- What went wrong, in any thread ----

class Complaints {
 public:
  void add(const char *format, ...) __attribute__((format(printf, 2, 3)));
  std::string text() const;  // empty: nothing to complain about

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
};

// ---- The platform's truncate call ----

// Removals that the platform has carried out in this process.
int truncations();
int64_t bytes_truncated();  // in all of them
// Runs before each removal. A result other than 0 becomes errno, and nothing is removed. Set it
// while no cut can run.
void before_truncation(std::function<int()> action);

// ---- Handles ----

class Handle {
 public:
  Handle();
  ~Handle();
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;

  struct Options {
    bool direct = true;
    bool append = false;
    bool atsc3 = false;
  };
  gint64 open_to_write(const std::string &path, Options options);
  gint64 open_to_read(const std::string &path);
  gint64 close();  // -3 is tried again: the handle stays open until the cut is over
  bool is_open() const { return is_open_; }
  GstPvrFile *get() { return &file_; }

 private:
  gint64 opened(gint64 result);

  std::string path_;  // borrowed by the library while the file is open
  GstPvrFile file_{};
  bool is_open_ = false;
};

// Calls until the result is not -3, and complains about a -3 that came without a wait of 2 seconds.
gint64 patiently(Complaints &complaints, const char *what, const std::function<gint64()> &call);

// ---- The writer's side ----

// The index file, through a handle of its own as a recorder has it, or past the library.
class IndexWriter {
 public:
  enum class Way { kHandle, kDescriptor };
  ~IndexWriter();
  bool open(const std::string &path, Way way);
  bool append(const pvr_gop_info_s &gop);
  void close();

 private:
  bool write(const void *data, size_t size);

  Handle handle_;
  int descriptor_ = -1;
};

class Recording {
 public:
  struct Shape {
    int64_t gop_packets = 700;                        // never in step with the units
    std::function<uint32_t(int64_t packet)> time_of;  // ms; by default a unit takes a second
    IndexWriter::Way index_way = IndexWriter::Way::kHandle;
  };
  Recording(const std::string &stem, Shape shape);
  explicit Recording(const std::string &stem) : Recording(stem, Shape{}) {}
  ~Recording();

  const std::string &path() const { return path_; }
  const std::string &index_path() const { return index_path_; }
  Handle &writer() { return writer_; }

  bool open() { return open(Handle::Options{}); }
  bool open(Handle::Options options);
  // Through the table's slot: the front switches cutting off below 6 minutes.
  bool set_span(uint32_t keep, uint32_t first_cut) { return set_span(writer_, keep, first_cut); }
  bool set_span(Handle &writer, uint32_t keep, uint32_t first_cut);

  // Lists what is written, reports its time, and writes the next unit. The write's result.
  gint64 write_unit() { return write_unit(writer_); }
  gint64 write_unit(Handle &writer);
  // Reports the same time and writes the last unit once more, through a writer that the index takes
  // no notice of. Any thread.
  gint64 write_again(Handle &writer);
  // True when all of them went out whole.
  bool write_units(int count);
  // Leaves a gap in the stream, as if units had been written. Between two cuts, please.
  bool skip_units(int64_t count);
  bool write_until_a_cut_begins(int most);
  gint64 close();

  int64_t begun() const { return begun_.load(); }      // bytes that a write has been given
  int64_t written() const { return written_.load(); }  // bytes whose write is over
  bool is_cutting();
  void wait_for_cut();

 private:
  bool list_gops();

  std::string path_;
  std::string index_path_;
  Shape shape_;
  Handle writer_;
  IndexWriter index_;
  int64_t next_gop_ = 0;  // packet with which the next group begins
  std::atomic<int64_t> begun_{0};
  std::atomic<int64_t> written_{0};
};

// ---- The readers' side ----

// One reader, in one thread at a time. It knows where it stands, and that a cut may have moved it
// to the oldest byte kept; everything else that it meets is a complaint.
class Reader {
 public:
  Reader(const Recording &recording, Complaints &complaints, unsigned seed);

  bool open() { return handle_.open_to_read(recording_.path()) == 1; }
  gint64 close() { return handle_.close(); }
  Handle &handle() { return handle_; }

  void jump();  // to somewhere inside the span
  void read();  // on from where it stands
  void tell();
  void size();
  void look_around(int steps);                 // any of these, at random
  void follow(const std::atomic<bool> &stop);  // reads on, waits at the live end
  // For recordings whose offsets a closing writer, or a second recording, may change at any time:
  // what is read is whole packets in order, wherever they belong; from the end it goes back a bit.
  void read_unbroken();
  void read_unbroken_units();  // the same where units stand in any order

  int64_t position() const { return position_; }
  int64_t bytes_read() const { return bytes_read_; }

 private:
  gint64 call(const char *what, const std::function<gint64()> &operation);
  gint64 call_seek(int64_t offset, int whence);
  void jump_to(int64_t target);
  void step_by(int64_t step);
  void jump_back_from_end(int64_t distance);
  bool stands_at(int64_t position) const;
  void check_position(const char *what, gint64 position);
  void check_end(int64_t written);
  void find_place_of(int64_t size);
  int64_t read_from_unit();
  int64_t random(int64_t below);

  const Recording &recording_;
  Complaints &complaints_;
  std::mt19937 engine_;
  Handle handle_;
  std::vector<uint8_t> buffer_;
  int64_t position_ = 0;
  int64_t bytes_read_ = 0;
};

// Threads that end, at the latest, with the object.
class Threads {
 public:
  ~Threads() { stop(); }
  // The work is called again and again until stop().
  void run(const std::function<void()> &work);
  void start(std::function<void(const std::atomic<bool> &stop)> work);
  void stop();

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace plexa_test
