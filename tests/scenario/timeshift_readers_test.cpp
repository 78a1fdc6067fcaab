// Many threads on live time-shift recordings, while their fronts are cut off.
#include <gtest/gtest.h>

#include <barrier>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "library_state.h"
#include "temp_dir.h"
#include "timeshift_support.h"

using namespace plexa_test;

namespace {

// A span of twelve units that loses three at a time.
constexpr uint32_t kKeep = 12000;
constexpr uint32_t kFirstCut = 15000;

class TimeshiftReaders : public testing::Test {
 protected:
  ~TimeshiftReaders() override {
    EXPECT_TRUE(registry_is_empty());
    EXPECT_EQ(open_descriptors(), descriptors_);
  }

  void add_readers(const Recording &recording, int count) {
    for (int i = 0; i < count; ++i) {
      readers_.push_back(
          std::make_unique<Reader>(recording, complaints_, static_cast<unsigned>(i)));
      EXPECT_TRUE(readers_.back()->open()) << "reader " << i;
    }
  }

  // The first one at live, the others all over the span.
  void let_them_read() {
    for (size_t i = 0; i < readers_.size(); ++i) {
      Reader *const reader = readers_[i].get();
      if (i == 0) {
        threads_.start([reader](const std::atomic<bool> &stop) { reader->follow(stop); });
      } else {
        threads_.run([reader] {
          reader->look_around(10);
          std::this_thread::sleep_for(std::chrono::milliseconds(2));
        });
      }
    }
  }

  void stop_reading() {
    threads_.stop();
    for (const auto &reader : readers_) {
      EXPECT_GT(reader->bytes_read(), 0);
      EXPECT_EQ(reader->close(), 1);
    }
    readers_.clear();
  }

  void write_until_cut(Recording &recording, int cuts) {
    const int before = truncations();
    const int most = 1000 + cuts * 20;
    for (int i = 0; i < most && truncations() - before < cuts; ++i) {
      ASSERT_TRUE(recording.write_units(1)) << "unit " << i;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    recording.wait_for_cut();
    EXPECT_GE(truncations() - before, cuts) << "cutting has been switched off";
  }

  const int descriptors_ = [] {
    bytes_cut_off();
    return open_descriptors();
  }();
  TempDir folder_;
  Complaints complaints_;
  std::vector<std::unique_ptr<Reader>> readers_;
  Threads threads_;
};

// The registry takes 100 readers of a recording; the manager's look at the index is one of them.
TEST_F(TimeshiftReaders, NoneOfAHundredEverSeesACut) {
  Recording recording(folder_.file("live"));
  ASSERT_TRUE(recording.open());
  ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
  ASSERT_TRUE(recording.write_units(13));  // the manager has opened the index
  add_readers(recording, 99);
  let_them_read();
  write_until_cut(recording, count_of(20, 1000));
  stop_reading();
  EXPECT_EQ(start_of_stream_file(recording.path()), bytes_cut_off());
  EXPECT_LE(recording.written() - bytes_cut_off(), 25 * kUnit);
  EXPECT_EQ(recording.close(), 1);
  EXPECT_EQ(complaints_.text(), "");
}

TEST_F(TimeshiftReaders, OneOverTheHundredIsRefusedAndTheOthersReadOn) {
  Recording recording(folder_.file("live"));
  ASSERT_TRUE(recording.open());
  ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
  ASSERT_TRUE(recording.write_units(13));
  add_readers(recording, 99);
  Handle one_more;
  EXPECT_EQ(one_more.open_to_read(recording.path()), -1);
  let_them_read();
  write_until_cut(recording, 2);
  stop_reading();
  EXPECT_EQ(recording.close(), 1);
  EXPECT_EQ(complaints_.text(), "");
}

TEST_F(TimeshiftReaders, ComeAndGoDuringCuts) {
  Recording recording(folder_.file("live"));
  ASSERT_TRUE(recording.open());
  ASSERT_TRUE(recording.set_span(kKeep, kFirstCut));
  ASSERT_TRUE(recording.write_units(13));
  std::atomic<int> visits{0};
  for (unsigned i = 0; i < 12; ++i) {
    threads_.run([&, i] {
      Reader reader(recording, complaints_, i + static_cast<unsigned>(visits.load()));
      Handle &handle = reader.handle();
      const gint64 opened =
          patiently(complaints_, "open", [&] { return handle.open_to_read(recording.path()); });
      if (opened != 1) return complaints_.add("open gives %lld", static_cast<long long>(opened));
      reader.tell();  // the oldest byte, wherever it is by now
      reader.look_around(3);
      if (const gint64 closed = reader.close(); closed != 1) {
        complaints_.add("close gives %lld", static_cast<long long>(closed));
      }
      ++visits;
    });
  }
  write_until_cut(recording, count_of(20, 1000));
  threads_.stop();
  EXPECT_GT(visits.load(), 12);
  EXPECT_EQ(start_of_stream_file(recording.path()), bytes_cut_off());
  EXPECT_EQ(recording.close(), 1);
  EXPECT_EQ(complaints_.text(), "");
}

// They share what is known of the cuts, so offsets mean little; bytes stay in order all the same.
TEST_F(TimeshiftReaders, OfTwoRecordingsAtOnceGetUnbrokenPackets) {
  Recording first(folder_.file("first"));
  Recording second(folder_.file("second"));
  for (Recording *recording : {&first, &second}) {
    ASSERT_TRUE(recording->open());
    ASSERT_TRUE(recording->set_span(kKeep, kFirstCut));
    ASSERT_TRUE(recording->write_units(13));
    add_readers(*recording, 4);
  }
  for (const auto &reader : readers_) {
    threads_.run([&reader] { reader->read_unbroken(); });
  }
  std::thread other([&] { EXPECT_TRUE(second.write_units(count_of(60, 3000))); });
  EXPECT_TRUE(first.write_units(count_of(60, 3000)));
  other.join();
  stop_reading();
  for (Recording *recording : {&first, &second}) {
    recording->wait_for_cut();
    EXPECT_EQ(recording->close(), 1);
    EXPECT_TRUE(start_of_stream_file(recording->path()).has_value());
  }
  EXPECT_GT(truncations(), 0);
  EXPECT_EQ(complaints_.text(), "");
}

// The index goes past the library: its handle would be the fourth writer.
TEST_F(TimeshiftReaders, SeeRightBytesWhileThreeWritersTakeTurns) {
  Recording::Shape shape;
  shape.index_way = IndexWriter::Way::kDescriptor;
  Recording recording(folder_.file("live"), shape);
  Handle second;
  Handle third;
  ASSERT_TRUE(recording.open());
  ASSERT_EQ(second.open_to_write(recording.path(), {}), 1);
  ASSERT_EQ(third.open_to_write(recording.path(), {}), 1);
  for (Handle *writer : {&recording.writer(), &second, &third}) {
    ASSERT_TRUE(recording.set_span(*writer, kKeep, kFirstCut));
  }
  // Before its first cut a writer has a position of its own.
  ASSERT_TRUE(recording.write_until_a_cut_begins(30));
  recording.wait_for_cut();
  add_readers(recording, 10);
  let_them_read();
  const int before = truncations();
  const int units = count_of(100, 3000);
  for (int i = 0; i < units; ++i) {
    Handle *const writers[] = {&recording.writer(), &second, &third};
    Handle &writer = *writers[i % 3];
    const gint64 result =
        patiently(complaints_, "write", [&] { return recording.write_unit(writer); });
    ASSERT_EQ(result, kUnit) << "unit " << i;
  }
  recording.wait_for_cut();
  stop_reading();
  EXPECT_GE(truncations() - before, units / 10);
  EXPECT_EQ(start_of_stream_file(recording.path()), bytes_cut_off());
  for (Handle *writer : {&second, &third}) EXPECT_EQ(writer->close(), 1);
  EXPECT_EQ(recording.close(), 1);
  EXPECT_EQ(complaints_.text(), "");
}

// Whose unit comes first is nobody's to say then, and with the first writer that closes goes what
// is known of the cuts. What is cut off must have left the span all the same.
TEST_F(TimeshiftReaders, GoOnWhileThreeWritersWriteAtOnceAndClose) {
  Recording::Shape shape;
  shape.index_way = IndexWriter::Way::kDescriptor;
  Recording recording(folder_.file("live"), shape);
  Handle others[2];
  ASSERT_TRUE(recording.open());
  for (Handle &other : others) ASSERT_EQ(other.open_to_write(recording.path(), {}), 1);
  for (Handle *writer : {&recording.writer(), &others[0], &others[1]}) {
    ASSERT_TRUE(recording.set_span(*writer, kKeep, kFirstCut));
  }
  const int64_t removed_before = bytes_truncated();
  ASSERT_TRUE(recording.write_until_a_cut_begins(30));
  recording.wait_for_cut();
  add_readers(recording, 4);
  for (const auto &reader : readers_) {
    threads_.run([&reader] { reader->read_unbroken_units(); });
  }
  const int units = count_of(60, 2000);
  std::barrier at_once(3);
  std::vector<std::thread> writing;
  for (int i = 0; i < 2; ++i) {
    writing.emplace_back([&, i] {
      const int mine = units * (i + 1) / 3;
      for (int unit = 0; unit < mine; ++unit) {
        at_once.arrive_and_wait();
        const gint64 result =
            patiently(complaints_, "write", [&] { return recording.write_again(others[i]); });
        if (result != kUnit) complaints_.add("write gives %lld", static_cast<long long>(result));
      }
      at_once.arrive_and_drop();
      if (others[i].close() != 1) complaints_.add("a writer does not close");
    });
  }
  for (int unit = 0; unit < units; ++unit) {
    at_once.arrive_and_wait();
    EXPECT_TRUE(recording.write_units(1)) << "unit " << unit;
    recording.wait_for_cut();
    const int64_t outside_of_span = recording.written() - kUnit * (kKeep / 1000);
    EXPECT_LE(bytes_truncated() - removed_before, outside_of_span) << "unit " << unit;
  }
  at_once.arrive_and_drop();
  for (std::thread &thread : writing) thread.join();
  stop_reading();
  recording.wait_for_cut();
  EXPECT_EQ(recording.close(), 1);
  EXPECT_GT(bytes_truncated(), removed_before);
  EXPECT_TRUE(is_made_of_units(recording.path()));
  EXPECT_EQ(complaints_.text(), "");
}

}  // namespace
