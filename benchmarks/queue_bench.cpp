// queue_bench.cpp - transport packets, seven at a time, from one thread to another.
//
// Both ends of the queue do a copy and take a lock for every piece. Two floors do the same two
// copies and the same two mutex pairs a piece, and no lock of theirs is ever contended:
//   one_thread   on one thread. It also leaves out what no queue between two threads can: every
//                piece and the lock move from one core's cache to the other's.
//   two_threads  one thread fills a queue's capacity, then the other empties it, turn by turn and
//                never both at once. The data moves between the cores as it does in the queue; what
//                the queue adds to this floor is its own work, and gains is that both ends run at
//                the same time.
#include <gst-plexa/ext_queue.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "ratio.h"

namespace {

constexpr gint32 kPiece = 1316;
constexpr int kPieces = 20000;
constexpr int kPlaces = 256;  // pieces that the queue holds

class Floor {
 public:
  void fill(const guint8 *in, int piece) { _copy_locked(_place(piece), in); }
  void empty(guint8 *out, int piece) { _copy_locked(out, _place(piece)); }

 private:
  guint8 *_place(int piece) { return storage_.data() + (piece % kPlaces) * kPiece; }

  void _copy_locked(void *to, const void *from) {
    pthread_mutex_lock(&mutex_);
    std::memcpy(to, from, kPiece);
    benchmark::ClobberMemory();
    pthread_mutex_unlock(&mutex_);
  }

  std::vector<guint8> storage_ = std::vector<guint8>(kPiece * kPlaces);
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// What both sides carry, from where and to where.
struct Ends {
  std::vector<guint8> in = std::vector<guint8>(kPiece, 1);
  std::vector<guint8> out = std::vector<guint8>(kPiece);
};

void on_one_thread(Floor &floor, Ends &ends) {
  for (int i = 0; i < kPieces; ++i) {
    floor.fill(ends.in.data(), i);
    floor.empty(ends.out.data(), i);
  }
}

// Works on the pieces of every other turn's batch: of the even turns, or of the odd ones.
template <class Work>
void take_turns(std::atomic<int> &turn, int parity, Work &&work) {
  for (int i = 0; i < kPieces;) {
    while (turn.load(std::memory_order_acquire) % 2 != parity) std::this_thread::yield();
    for (const int end = std::min(i + kPlaces, kPieces); i < end; ++i) work(i);
    turn.fetch_add(1, std::memory_order_release);
  }
}

void on_two_threads(Floor &floor, Ends &ends) {
  std::atomic<int> turn = 0;
  std::thread producer([&] { take_turns(turn, 0, [&](int i) { floor.fill(ends.in.data(), i); }); });
  take_turns(turn, 1, [&](int i) { floor.empty(ends.out.data(), i); });
  producer.join();
}

void through_the_queue(ExtQueue &queue, Ends &ends) {
  std::thread producer([&] {
    for (int i = 0; i < kPieces;) {
      gint32 room = ext_queue_get_free_size(&queue) / kPiece;
      if (room == 0) std::this_thread::yield();
      for (; room > 0 && i < kPieces; --room, ++i) ext_queue_push(&queue, ends.in.data(), kPiece);
    }
  });
  for (int i = 0; i < kPieces;) {
    gint32 held = ext_queue_get_buffer_size(&queue) / kPiece;
    if (held == 0) std::this_thread::yield();
    for (; held > 0; --held, ++i) ext_queue_pop(&queue, ends.out.data(), kPiece);
  }
  producer.join();
}

void queue_between_threads(benchmark::State &state, void (*floor_work)(Floor &, Ends &)) {
  Ends ends;
  Floor floor;
  ExtQueue queue{};
  if (ext_queue_create(&queue, kPiece * kPlaces + 1) != 1) return state.SkipWithError("no queue");
  plexa_bench::compare(
      state, 2.0, [&] { floor_work(floor, ends); }, [&] { through_the_queue(queue, ends); });
  ext_queue_destroy(&queue);
}
BENCHMARK_CAPTURE(queue_between_threads, one_thread, on_one_thread)
    ->UseManualTime()
    ->Iterations(200);
BENCHMARK_CAPTURE(queue_between_threads, two_threads, on_two_threads)
    ->UseManualTime()
    ->Iterations(200);

}  // namespace

BENCHMARK_MAIN();
