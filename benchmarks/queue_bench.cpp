// queue_bench.cpp - transport packets, seven at a time, from one thread to another.
#include <gst-plexa/ext_queue.h>

#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "ratio.h"

namespace {

constexpr gint32 kPiece = 1316;
constexpr int kPieces = 20000;

// Both ends of the queue do a copy and take a lock for every piece; the floor does the same two
// copies and the same two mutex pairs on one thread, where no lock is ever contended.
void queue_between_threads(benchmark::State &state) {
  std::vector<guint8> in(kPiece, 1);
  std::vector<guint8> out(kPiece);
  std::vector<guint8> storage(kPiece * 256);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  ExtQueue queue{};
  if (ext_queue_create(&queue, kPiece * 256 + 1) != 1) return state.SkipWithError("no queue");
  const auto copy_locked = [&](void *to, const void *from) {
    pthread_mutex_lock(&mutex);
    std::memcpy(to, from, kPiece);
    benchmark::ClobberMemory();
    pthread_mutex_unlock(&mutex);
  };
  plexa_bench::compare(
      state, 2.0,
      [&] {
        for (int i = 0; i < kPieces; ++i) {
          guint8 *const place = storage.data() + (i % 256) * kPiece;
          copy_locked(place, in.data());
          copy_locked(out.data(), place);
        }
      },
      [&] {
        std::thread producer([&] {
          for (int i = 0; i < kPieces;) {
            gint32 room = ext_queue_get_free_size(&queue) / kPiece;
            if (room == 0) std::this_thread::yield();
            for (; room > 0 && i < kPieces; --room, ++i) ext_queue_push(&queue, in.data(), kPiece);
          }
        });
        for (int i = 0; i < kPieces;) {
          gint32 held = ext_queue_get_buffer_size(&queue) / kPiece;
          if (held == 0) std::this_thread::yield();
          for (; held > 0; --held, ++i) ext_queue_pop(&queue, out.data(), kPiece);
        }
        producer.join();
      });
  ext_queue_destroy(&queue);
}
BENCHMARK(queue_between_threads)->UseManualTime()->Iterations(200);

}  // namespace

BENCHMARK_MAIN();
