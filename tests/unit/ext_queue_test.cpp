// The ring queue: bytes in, the same bytes out, never more than fit.
#include "gst-plexa/ext_queue.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <functional>
#include <numeric>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "faults.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

class QueueTest : public ::testing::Test {
 protected:
  QueueTest() {
    std::memset(&queue_, 0x5A, sizeof queue_);  // as a caller's local is before create
    LogCapture::clear();
  }
  ~QueueTest() override {
    if (created_) ext_queue_destroy(&queue_);
  }

  void create(gint32 size) { created_ = ext_queue_create(&queue_, size) == 1; }
  gint32 destroy() {
    created_ = false;
    return ext_queue_destroy(&queue_);
  }
  gint32 push(const Bytes &data) {
    return ext_queue_push(&queue_, data.data(), static_cast<gint32>(data.size()));
  }
  Bytes pop(gint32 size) {
    Bytes out(static_cast<size_t>(size));
    out.resize(static_cast<size_t>(ext_queue_pop(&queue_, out.data(), size)));
    return out;
  }
  gint32 held() { return ext_queue_get_buffer_size(&queue_); }
  gint32 room() { return ext_queue_get_free_size(&queue_); }

  ExtQueue queue_;

 private:
  bool created_ = false;
};

// --- create, destroy, clear

TEST_F(QueueTest, IsEmptyAfterCreate) {
  EXPECT_EQ(ext_queue_create(&queue_, 8), 1);
  EXPECT_EQ(queue_.initialized, 1u);
  EXPECT_EQ(queue_.capacity, 8);
  EXPECT_EQ(held(), 0);
  EXPECT_EQ(room(), 7);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  EXPECT_EQ(destroy(), 1);
}

TEST_F(QueueTest, CreateWithoutMemoryFails) {
  Faults faults;
  faults.fail("malloc", ENOMEM);
  create(4096);
  EXPECT_EQ(queue_.initialized, 0u);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[TOOLS] [PLG_ERR] malloc failed, buffer_size=[4096]"));
  EXPECT_EQ(ext_queue_destroy(&queue_), 0) << "there is nothing to destroy";
}

TEST_F(QueueTest, CreateRefusesACapacityBelowOne) {
  for (const gint32 size : {0, -1, INT_MIN}) {
    LogCapture::clear();
    EXPECT_EQ(ext_queue_create(&queue_, size), 0);
    EXPECT_EQ(queue_.initialized, 0u);
    EXPECT_EQ(queue_.buffer, nullptr);
    EXPECT_THAT(
        LogCapture::messages(kError),
        ElementsAre("[TOOLS] [PLG_ERR] malloc failed, buffer_size=[" + std::to_string(size) + "]"));
    EXPECT_EQ(push({}), 0) << "the record counts as destroyed";
  }
}

TEST_F(QueueTest, DestroyGivesTheBufferBack) {
  create(8);
  EXPECT_EQ(destroy(), 1);
  EXPECT_EQ(queue_.buffer, nullptr);
  EXPECT_EQ(queue_.initialized, 0u);
}

TEST_F(QueueTest, CanBeCreatedAgainAfterDestroy) {
  create(8);
  push({1, 2, 3});
  destroy();
  create(4);
  EXPECT_EQ(held(), 0);
  EXPECT_EQ(room(), 3);
}

TEST_F(QueueTest, ClearDropsTheContents) {
  create(8);
  push({1, 2, 3, 4, 5});
  pop(2);
  EXPECT_EQ(ext_queue_clear(&queue_), 1);
  EXPECT_EQ(held(), 0);
  EXPECT_EQ(room(), 7);
  EXPECT_EQ(queue_.read_index, 0);
  EXPECT_EQ(queue_.write_index, 0);
}

// --- refusals

struct Call {
  const char *function;
  std::function<gint32(ExtQueue *)> run;
};

const std::vector<Call> &all_calls() {
  static char byte = 0;
  static const std::vector<Call> calls = {
      {"ext_queue_destroy", ext_queue_destroy},
      {"ext_queue_clear", ext_queue_clear},
      {"ext_queue_push", [](ExtQueue *queue) { return ext_queue_push(queue, &byte, 1); }},
      {"ext_queue_pop", [](ExtQueue *queue) { return ext_queue_pop(queue, &byte, 1); }},
      {"ext_queue_get_buffer_size", ext_queue_get_buffer_size},
      {"ext_queue_get_free_size", ext_queue_get_free_size},
      {"ext_global_lock", ext_global_lock},
      {"ext_global_unlock", ext_global_unlock}};
  return calls;
}

// One line at error level, by this function, that names the source line it stands on.
void expect_refusal_of(const std::string &function) {
  const auto lines = LogCapture::lines();
  ASSERT_EQ(lines.size(), 1u) << function;
  EXPECT_EQ(lines[0].priority, kError);
  EXPECT_EQ(lines[0].function, function);
  std::smatch match;
  ASSERT_TRUE(
      std::regex_match(lines[0].text, match,
                       std::regex("ext_queue\\.cpp: \\w+\\(([0-9]+)\\) > .*"
                                  "\\]\\[TOOLS\\] \\[PLG_ERR\\] ext_queue, line=\\[([0-9]+)\\]")))
      << lines[0].text;
  EXPECT_EQ(match[1], match[2]);
}

TEST_F(QueueTest, EveryCallRefusesANullRecord) {
  EXPECT_EQ(ext_queue_create(nullptr, 8), 0);
  expect_refusal_of("ext_queue_create");
  for (const Call &call : all_calls()) {
    LogCapture::clear();
    EXPECT_EQ(call.run(nullptr), 0) << call.function;
    expect_refusal_of(call.function);
  }
}

TEST_F(QueueTest, EveryCallRefusesADestroyedRecord) {
  create(8);
  destroy();
  for (const Call &call : all_calls()) {
    LogCapture::clear();
    EXPECT_EQ(call.run(&queue_), 0) << call.function;
    expect_refusal_of(call.function);
  }
}

TEST_F(QueueTest, PushAndPopRefuseNegativeSizes) {
  create(8);
  push({1, 2, 3});
  char byte = 0;
  for (const gint32 size : {-1, INT_MIN}) {
    LogCapture::clear();
    EXPECT_EQ(ext_queue_push(&queue_, &byte, size), 0);
    expect_refusal_of("ext_queue_push");
    LogCapture::clear();
    EXPECT_EQ(ext_queue_pop(&queue_, &byte, size), 0);
    expect_refusal_of("ext_queue_pop");
  }
  EXPECT_THAT(pop(7), ElementsAre(1, 2, 3));
}

TEST_F(QueueTest, PushAndPopRefuseANullBuffer) {
  create(8);
  EXPECT_EQ(ext_queue_push(&queue_, nullptr, 1), 0);
  expect_refusal_of("ext_queue_push");
  push({1});
  LogCapture::clear();
  EXPECT_EQ(ext_queue_pop(&queue_, nullptr, 1), 0);
  expect_refusal_of("ext_queue_pop");
  EXPECT_EQ(held(), 1);
}

// --- push and pop

TEST_F(QueueTest, PopsWhatWasPushedInOrder) {
  create(16);
  EXPECT_EQ(push({1, 2, 3}), 1);
  EXPECT_EQ(push({4}), 1);
  EXPECT_EQ(held(), 4);
  EXPECT_EQ(room(), 11);
  EXPECT_THAT(pop(2), ElementsAre(1, 2));
  EXPECT_THAT(pop(2), ElementsAre(3, 4));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(QueueTest, HoldsOneByteLessThanItsCapacity) {
  create(8);
  EXPECT_EQ(push(Bytes(8, 1)), 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[TOOLS] [PLG_ERR] overflow, push size[8] is bigger than free[7]"));
  EXPECT_EQ(held(), 0);
  EXPECT_EQ(push(Bytes(7, 1)), 1);
  EXPECT_EQ(held(), 7);
  EXPECT_EQ(room(), 0);
}

TEST_F(QueueTest, PushIsAllOrNothing) {
  create(8);
  push({1, 2, 3, 4, 5});
  EXPECT_EQ(push({6, 7, 8}), 0);
  EXPECT_LOGGED(kError, "[TOOLS] [PLG_ERR] overflow, push size[3] is bigger than free[2]");
  EXPECT_EQ(held(), 5);
  EXPECT_EQ(push({6, 7}), 1);
  EXPECT_THAT(pop(7), ElementsAre(1, 2, 3, 4, 5, 6, 7));
}

TEST_F(QueueTest, PushOfNothingSucceedsAlsoWhenFull) {
  create(4);
  EXPECT_EQ(ext_queue_push(&queue_, nullptr, 0), 1);
  push({1, 2, 3});
  EXPECT_EQ(push({}), 1);
  EXPECT_EQ(held(), 3);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(QueueTest, PopOnAnEmptyQueueGivesNothing) {
  create(8);
  EXPECT_THAT(pop(5), IsEmpty());
  EXPECT_THAT(
      LogCapture::messages(kError),
      ElementsAre("[TOOLS] [PLG_ERR] underflow, requeted size[5] is bigger than buffer[0]"));
}

TEST_F(QueueTest, PopGivesWhatThereIs) {
  create(8);
  push({1, 2, 3});
  EXPECT_THAT(pop(10), ElementsAre(1, 2, 3));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(QueueTest, PopOfNothingChangesNothing) {
  create(8);
  push({1, 2, 3});
  EXPECT_EQ(ext_queue_pop(&queue_, nullptr, 0), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  EXPECT_EQ(held(), 3);
}

TEST_F(QueueTest, ACapacityOfOneHoldsNothing) {
  create(1);
  EXPECT_EQ(held(), 0);
  EXPECT_EQ(room(), 0);
  EXPECT_EQ(push({1}), 0);
  EXPECT_LOGGED(kError, "[TOOLS] [PLG_ERR] overflow, push size[1] is bigger than free[0]");
  EXPECT_EQ(push({}), 1);
}

// --- round the end of the buffer

TEST_F(QueueTest, WrapsInTheMiddleOfAPushAndOfAPop) {
  create(8);
  push({1, 2, 3, 4, 5});
  pop(5);
  EXPECT_EQ(push({6, 7, 8, 9, 10, 11}), 1);
  EXPECT_EQ(queue_.write_index, 3);
  EXPECT_EQ(held(), 6);
  EXPECT_EQ(room(), 1);
  EXPECT_THAT(pop(6), ElementsAre(6, 7, 8, 9, 10, 11));
  EXPECT_EQ(queue_.read_index, 3);
}

TEST_F(QueueTest, APushUpToTheEndLeavesTheWriteIndexAtCapacity) {
  create(8);
  push({1, 2, 3, 4, 5});
  pop(5);
  EXPECT_EQ(push({6, 7, 8}), 1);
  EXPECT_EQ(queue_.write_index, 8);
  EXPECT_EQ(held(), 3);
  EXPECT_EQ(room(), 4);
  EXPECT_EQ(push({9, 10}), 1);
  EXPECT_EQ(queue_.write_index, 2) << "goes on at position 0";
  EXPECT_EQ(queue_.buffer[0], 9);
  EXPECT_THAT(pop(7), ElementsAre(6, 7, 8, 9, 10));
}

TEST_F(QueueTest, APopUpToTheEndLeavesTheReadIndexAtCapacity) {
  create(8);
  push({1, 2, 3, 4, 5});
  pop(5);
  push({6, 7, 8, 9});
  EXPECT_THAT(pop(3), ElementsAre(6, 7, 8));
  EXPECT_EQ(queue_.read_index, 8);
  EXPECT_EQ(held(), 1);
  EXPECT_EQ(room(), 6);
  EXPECT_THAT(pop(3), ElementsAre(9));
  EXPECT_EQ(queue_.read_index, 1) << "goes on at position 0";
}

TEST_F(QueueTest, IsFullWithTheWriteIndexAtCapacity) {
  create(8);
  push({1, 2, 3, 4, 5, 6, 7});
  pop(1);
  EXPECT_EQ(push({8}), 1);
  EXPECT_EQ(queue_.write_index, 8);
  EXPECT_EQ(held(), 7);
  EXPECT_EQ(room(), 0);
  EXPECT_EQ(push({9}), 0);
  EXPECT_THAT(pop(7), ElementsAre(2, 3, 4, 5, 6, 7, 8));
}

TEST_F(QueueTest, IsFullWithTheReadIndexAtCapacity) {
  create(8);
  push({1, 2, 3, 4, 5, 6, 7});
  pop(7);
  push({1});
  pop(1);
  EXPECT_EQ(queue_.read_index, 8);
  EXPECT_EQ(push({2, 3, 4, 5, 6, 7, 8}), 1);
  EXPECT_EQ(held(), 7);
  EXPECT_EQ(push({9}), 0);
  EXPECT_THAT(pop(7), ElementsAre(2, 3, 4, 5, 6, 7, 8));
}

TEST_F(QueueTest, IsEmptyWithBothIndicesAtCapacity) {
  create(8);
  push({1, 2, 3, 4, 5, 6, 7});
  pop(7);
  push({8});
  pop(1);
  EXPECT_EQ(queue_.read_index, 8);
  EXPECT_EQ(queue_.write_index, 8);
  EXPECT_EQ(held(), 0);
  EXPECT_EQ(room(), 7);
  EXPECT_THAT(pop(1), IsEmpty());
}

TEST_F(QueueTest, CountsWithoutOverflowAtTheLargestCapacity) {
  create(8);
  queue_.capacity = INT_MAX;  // the buffer is not touched below
  queue_.read_index = INT_MAX - 1;
  queue_.write_index = INT_MAX - 2;
  EXPECT_EQ(held(), INT_MAX - 1);
  queue_.read_index = INT_MAX;
  queue_.write_index = INT_MAX - 1;
  EXPECT_EQ(held(), INT_MAX - 1);
  queue_.read_index = 1;
  queue_.write_index = INT_MAX;
  EXPECT_EQ(held(), INT_MAX - 1);
  EXPECT_EQ(room(), 0);
}

// Every mix of pushes and pops against a model, in buffers of every small capacity.
class QueueModelTest : public QueueTest, public ::testing::WithParamInterface<gint32> {};

TEST_P(QueueModelTest, BehavesAsAListOfBytes) {
  const gint32 capacity = GetParam();
  create(capacity);
  std::deque<uint8_t> model;
  std::mt19937 random(static_cast<unsigned>(capacity));
  std::uniform_int_distribution<int> size_of(0, capacity + 1);
  uint8_t next = 0;
  bool write_rested = false;
  bool read_rested = false;
  for (int step = 0; step < 4000; ++step) {
    Bytes data(static_cast<size_t>(size_of(random)));
    std::iota(data.begin(), data.end(), next);
    const bool fits = data.size() + model.size() < static_cast<size_t>(capacity);
    ASSERT_EQ(push(data), fits || data.empty() ? 1 : 0) << "step " << step;
    if (fits) {
      model.insert(model.end(), data.begin(), data.end());
      next = static_cast<uint8_t>(next + data.size());
    }
    const size_t wanted = static_cast<size_t>(size_of(random));
    const auto end = model.begin() + static_cast<long>(std::min(wanted, model.size()));
    ASSERT_EQ(pop(static_cast<gint32>(wanted)), Bytes(model.begin(), end)) << "step " << step;
    model.erase(model.begin(), end);
    ASSERT_EQ(held(), static_cast<gint32>(model.size()));
    ASSERT_EQ(room(), capacity - 1 - static_cast<gint32>(model.size()));
    write_rested |= queue_.write_index == capacity;
    read_rested |= queue_.read_index == capacity;
    LogCapture::clear();
  }
  EXPECT_EQ(write_rested, capacity > 1);
  EXPECT_EQ(read_rested, capacity > 1);
}

INSTANTIATE_TEST_SUITE_P(Capacities, QueueModelTest, ::testing::Values(1, 2, 3, 4, 5, 7, 8, 13));

// --- several threads

TEST_F(QueueTest, OneProducerAndOneConsumerPassEveryByteInOrder) {
  constexpr size_t kTotal = 2'000'000;
  create(10'007);
  std::atomic<bool> intact{true};
  std::thread producer([&] {
    std::mt19937 random(1);
    std::uniform_int_distribution<size_t> size_of(1, 1316);
    for (size_t sent = 0; sent < kTotal && intact; std::this_thread::yield()) {
      // Only the consumer changes the room meanwhile, and it makes more of it.
      for (size_t left = static_cast<size_t>(room()); left > 0 && sent < kTotal;) {
        const Bytes piece = counting_bytes(std::min({size_of(random), left, kTotal - sent}), sent);
        if (push(piece) != 1) intact = false;
        sent += piece.size();
        left -= piece.size();
      }
    }
  });
  size_t received = 0;
  for (; received < kTotal && intact; std::this_thread::yield()) {
    for (gint32 left = held(); left > 0;) {
      const Bytes piece = pop(std::min(left, 500));
      if (piece.empty() || piece != counting_bytes(piece.size(), received)) intact = false;
      received += piece.size();
      left = intact ? left - static_cast<gint32>(piece.size()) : 0;
    }
  }
  producer.join();
  EXPECT_TRUE(intact);
  EXPECT_EQ(received, kTotal);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

struct Note {
  uint32_t producer;
  uint32_t number;
};

TEST_F(QueueTest, NotesOfManyProducersArriveWholeAndInEachOnesOrder) {
  constexpr uint32_t kProducers = 4;
  constexpr uint32_t kNotes = 5000;
  create(16 * sizeof(Note) + 1);
  std::atomic<bool> intact{true};
  const auto send = [this](const Note &note) {
    ext_global_lock(&queue_);  // asking for room and pushing are one step
    const bool sent = room() >= static_cast<gint32>(sizeof note) &&
                      ext_queue_push(&queue_, &note, sizeof note) == 1;
    ext_global_unlock(&queue_);
    return sent;
  };
  std::vector<std::thread> producers;
  for (uint32_t producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&, producer] {
      for (uint32_t number = 0; number < kNotes && intact;) {
        if (send({producer, number})) {
          ++number;
        } else {
          std::this_thread::yield();
        }
      }
    });
  }
  std::vector<uint32_t> expected(kProducers, 0);
  for (uint32_t received = 0; received < kProducers * kNotes && intact;) {
    Note note{};
    if (held() == 0) {
      std::this_thread::yield();
      continue;
    }
    intact = ext_queue_pop(&queue_, &note, sizeof note) == sizeof note &&
             note.producer < kProducers && note.number == expected[note.producer]++;
    ++received;
  }
  for (std::thread &producer : producers) producer.join();
  EXPECT_TRUE(intact);
  EXPECT_THAT(expected, ::testing::Each(kNotes));
  EXPECT_THAT(LogCapture::messages(), IsEmpty()) << "no push was ever refused";
}

TEST_F(QueueTest, ACallWaitsForTheDataLockHoweverLongItIsHeld) {
  create(8);
  Faults faults;
  std::atomic<bool> sleeps{false};
  faults.all_threads();
  faults.before("pthread_mutex_lock", [&] { sleeps = true; });
  pthread_mutex_trylock(&queue_.data_lock);
  std::atomic<int> result{-1};
  std::thread other([&] { result = ext_queue_push(&queue_, "abc", 3); });
  while (!sleeps) std::this_thread::yield();
  EXPECT_EQ(result, -1);
  pthread_mutex_unlock(&queue_.data_lock);
  other.join();
  EXPECT_EQ(result, 1);
  EXPECT_EQ(held(), 3);
}

// --- the global lock

TEST_F(QueueTest, TheGlobalLockIsHeldFromLockToUnlock) {
  create(8);
  EXPECT_EQ(ext_global_lock(&queue_), 1);
  EXPECT_EQ(pthread_mutex_trylock(&queue_.global_lock), EBUSY);
  EXPECT_EQ(ext_global_unlock(&queue_), 1);
  EXPECT_EQ(pthread_mutex_trylock(&queue_.global_lock), 0);
  pthread_mutex_unlock(&queue_.global_lock);
}

TEST_F(QueueTest, TheGlobalLockKeepsNoCallFromTheQueue) {
  create(8);
  ext_global_lock(&queue_);
  EXPECT_EQ(push({1, 2, 3}), 1);
  EXPECT_EQ(held(), 3);
  EXPECT_EQ(room(), 4);
  EXPECT_THAT(pop(1), ElementsAre(1));
  EXPECT_EQ(ext_queue_clear(&queue_), 1);
  ext_global_unlock(&queue_);
}

// What the log says of the bytes is still true while it says so.
TEST_F(QueueTest, AFailedCallWritesItsLineBeforeItLetsTheDataLockGo) {
  static pthread_mutex_t *lock;
  static std::vector<int> tries;
  lock = &queue_.data_lock;
  tries.clear();
  LogCapture::set_hook([] {
    tries.push_back(pthread_mutex_trylock(lock));
    if (tries.back() == 0) pthread_mutex_unlock(lock);
  });
  {
    Faults faults;
    faults.fail("malloc", ENOMEM);
    create(8);
  }
  create(8);
  push({1, 2, 3, 4, 5, 6, 7, 8});
  pop(1);
  LogCapture::set_hook(nullptr);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[TOOLS] [PLG_ERR] malloc failed, buffer_size=[8]",
                          "[TOOLS] [PLG_ERR] overflow, push size[8] is bigger than free[7]",
                          "[TOOLS] [PLG_ERR] underflow, requeted size[1] is bigger than "
                          "buffer[0]"));
  EXPECT_THAT(tries, ElementsAre(EBUSY, EBUSY, EBUSY));
}

TEST_F(QueueTest, NoCallKeepsTheDataLock) {
  create(4);
  const auto is_free = [this] {
    const bool taken = pthread_mutex_trylock(&queue_.data_lock) == 0;
    if (taken) pthread_mutex_unlock(&queue_.data_lock);
    return taken;
  };
  EXPECT_TRUE(is_free()) << "create";
  push({1});
  EXPECT_TRUE(is_free()) << "push";
  push({1, 2, 3, 4});
  EXPECT_TRUE(is_free()) << "refused push";
  pop(1);
  EXPECT_TRUE(is_free()) << "pop";
  pop(1);
  EXPECT_TRUE(is_free()) << "pop of an empty queue";
  held();
  room();
  EXPECT_TRUE(is_free()) << "sizes";
  ext_queue_clear(&queue_);
  EXPECT_TRUE(is_free()) << "clear";
}

}  // namespace
}  // namespace plexa_test
