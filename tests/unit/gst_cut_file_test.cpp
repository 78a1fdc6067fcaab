// The cut file: its place in the registry, logical offsets, waiting for a cut, and the writer that
// starts one.
#include "gst-plexa/gst_cut_file.h"

#include <gmock/gmock.h>

#include <barrier>
#include <deque>
#include <memory>

#include "gst-plexa/gst_vector.h"
#include "gst_cut_fixture.h"

namespace plexa_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

class CutFileTest : public CutTest {
 protected:
  void given_a_file(gint64 units) { write_file(rec_, bytes_at(0, units * kUnit)); }
  void open_writer() {
    ASSERT_EQ(writer_.open(rec_, kWrites), 1);
    LogCapture::clear();
  }
  void open_reader(guint8 direct_mode = 0) {
    ASSERT_EQ(reader_.open(rec_, kReads, direct_mode), 1);
    LogCapture::clear();
  }
  void fill(int units, gint32 time = 0) {
    for (int i = 0; i < units; ++i) ASSERT_EQ(write_unit(writer_, time), kUnit);
  }
  // A writer of six units with a span of 2 seconds that is to be cut at 5, and an index for it.
  void given_a_recording(int units = 6) {
    write_index(20);
    open_writer();
    ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
    fill(units);
    LogCapture::clear();
  }
  // Takes away everything before second 3.
  void cut() {
    ASSERT_EQ(write_unit(writer_, 5000), kUnit);
    finish_cut(writer_);
    ASSERT_EQ(total_cut(), 3 * kUnit) << LogCapture::dump();
    LogCapture::clear();
  }
  static std::vector<GstPvrFile *> listed(guint32 key = 0) {
    std::vector<GstPvrFile *> out;
    for (gint32 i = 0; i < gst_vector_size(item(key).handle_list); ++i) {
      out.push_back(static_cast<GstPvrFile *>(gst_vector_index(item(key).handle_list, i)));
    }
    return out;
  }

  CutHandle writer_;
  CutHandle reader_;
};

// ---- Open ----

TEST_F(CutFileTest, OpenLogsWhatItOpens) {
  EXPECT_EQ(gst_cut_file_open(writer_.get(), rec_.c_str(), 0, 1, 0, 256), 1);
  EXPECT_EQ(LogCapture::messages().front(),
            fmg("file_path:" + rec_ + ",read_mode:0,direct_mode:1,append_mode:256"));
  EXPECT_EQ(LogCapture::lines().front().priority, kInfo);
  EXPECT_EQ(LogCapture::lines().front().function, "gst_cut_file_open");
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_F(CutFileTest, AWriterIsOpenedWithAManagerOfItsOwn) {
  EXPECT_EQ(writer_.open(rec_, kWrites), 1);
  EXPECT_EQ(writer_.key(), 0u);
  EXPECT_GT(writer_.state().descriptor, 0);
  EXPECT_EQ(writer_.state().read_mode, 0);
  EXPECT_EQ(writer_.state().last_wrote_time, 0u);
  EXPECT_STREQ(writer_.state().file_path, rec_.c_str());
  ASSERT_NE(writer_.mgr(), nullptr);
  EXPECT_STREQ(writer_.mgr()->file_path, rec_.c_str());
  EXPECT_EQ(writer_.mgr()->key, 0u);
  EXPECT_EQ(writer_.mgr()->is_atsc3, 0u);
  EXPECT_FALSE(gst_cut_mgr_get_max_time(writer_.mgr()));
  EXPECT_EQ(item().write_count, 1);
  EXPECT_EQ(running(), 0);
  EXPECT_THAT(listed(), ElementsAre(writer_.get()));
}

TEST_F(CutFileTest, AReaderIsOpenedWithoutAManager) {
  given_a_file(1);
  EXPECT_EQ(reader_.open(rec_, kReads), 1);
  EXPECT_EQ(reader_.state().read_mode, 1);
  EXPECT_EQ(reader_.mgr(), nullptr);
  EXPECT_EQ(item().read_count, 1);
  EXPECT_EQ(item().write_count, 0);
  EXPECT_EQ(running(), 0);
  EXPECT_THAT(listed(), ElementsAre(reader_.get()));
}

TEST_F(CutFileTest, HandlesAreListedInOpeningOrder) {
  open_writer();
  open_reader();
  CutHandle another;
  ASSERT_EQ(another.open(rec_, kReads), 1);
  EXPECT_THAT(listed(), ElementsAre(writer_.get(), reader_.get(), another.get()));
}

TEST_F(CutFileTest, TheBroadcastKindReachesTheManager) {
  EXPECT_EQ(writer_.open(rec_, kWrites, 0, 1), 1);
  EXPECT_EQ(writer_.mgr()->is_atsc3, 1u);
}

struct Opening {
  const char *name;
  guint8 read_mode, direct_mode;
  guint32 append_mode;
  long long flags;
};

class OpeningTest : public CutFileTest, public ::testing::WithParamInterface<Opening> {};

TEST_P(OpeningTest, HasTheseFlags) {
  given_a_file(1);
  long long flags = -1;
  Faults faults;
  faults.watch("open64", [&](int, const char *, long long asked) { flags = asked; });
  EXPECT_EQ(
      writer_.open(rec_, GetParam().read_mode, GetParam().direct_mode, 0, GetParam().append_mode),
      1);
  EXPECT_EQ(flags, GetParam().flags);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, OpeningTest,
    ::testing::Values(Opening{"Reading", 1, 0, 0, O_RDONLY},
                      Opening{"ReadingDirectly", 1, 1, 0, O_RDONLY | O_DIRECT},
                      Opening{"Writing", 0, 0, 0, O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME},
                      Opening{"WritingDirectly", 0, 1, 0,
                              O_WRONLY | O_CREAT | O_TRUNC | O_NOATIME | O_DIRECT},
                      Opening{"Appending", 0, 0, 256, O_WRONLY | O_CREAT | O_APPEND | O_NOATIME}),
    [](const auto &test) { return test.param.name; });

TEST_F(CutFileTest, AFileThatAWriterEmptiesHasLostNothing) {
  open_writer();
  plexa::_add_bytes_cut_off(0, 3 * kUnit);
  CutHandle appends, fails, empties;
  EXPECT_EQ(appends.open(rec_, kWrites, 0, 0, 1), 1);
  EXPECT_EQ(plexa::_bytes_cut_off(0), 3 * kUnit);
  {
    Faults faults;
    faults.fail("open64", EACCES);
    EXPECT_EQ(fails.open(rec_, kWrites), -1);
  }
  EXPECT_EQ(plexa::_bytes_cut_off(0), 3 * kUnit);
  open_reader();
  EXPECT_EQ(plexa::_bytes_cut_off(0), 3 * kUnit);
  EXPECT_EQ(empties.open(rec_, kWrites), 1);
  EXPECT_EQ(plexa::_bytes_cut_off(0), 0);
}

TEST_F(CutFileTest, AnOpenIsCountedWhileItRuns) {
  gint32 counted = -1;
  Faults faults;
  faults.watch("open64", [&](int, const char *, long long) {
    counted = static_cast<gint32>(glance().actioncount);
  });
  EXPECT_EQ(writer_.open(rec_, kWrites), 1);
  EXPECT_EQ(counted, 1);
  EXPECT_EQ(running(), 0);
}

TEST_F(CutFileTest, APathWithoutAnExtensionHasNoKey) {
  EXPECT_EQ(writer_.open(dir_.file("rec"), kWrites), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            fmg_error("key is pre_allocated unsuccessfully, cut_file->key<0"));
  EXPECT_EQ(writer_.state().key, -1);
  EXPECT_FALSE(exists(dir_.file("rec")));
}

TEST_F(CutFileTest, NoPathHasNoKey) {
  EXPECT_EQ(gst_cut_file_open(writer_.get(), nullptr, 0, 0, 0, 0), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            fmg_error("key is pre_allocated unsuccessfully, cut_file->key<0"));
}

TEST_F(CutFileTest, AFifthRecordingHasNoKey) {
  std::deque<CutHandle> others(4);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(others[static_cast<size_t>(i)].open(dir_.file(std::to_string(i) + ".kvf"), kWrites),
              1);
  }
  EXPECT_EQ(writer_.open(rec_, kWrites), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            fmg_error("key is pre_allocated unsuccessfully, cut_file->key<0"));
}

TEST_F(CutFileTest, AFourthWriterIsRefusedAndNotCountedAsRunning) {
  std::deque<CutHandle> others(3);
  for (CutHandle &other : others) ASSERT_EQ(other.open(rec_, kWrites), 1);
  EXPECT_EQ(writer_.open(rec_, kWrites), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            fmg_error("key is allocated unsuccessfully, cut_file->key<0"));
  EXPECT_EQ(writer_.state().key, -1);
  EXPECT_EQ(running(), 0);
  EXPECT_EQ(item().handle_list->len, 3u);
  for (CutHandle &other : others) EXPECT_NE(other.mgr(), writer_.mgr());
}

TEST_F(CutFileTest, AFileThatCannotBeOpenedLeavesNothingBehind) {
  EXPECT_EQ(reader_.open(rec_, kReads), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(),
            fmg_error("gst_file_direct_io_open fails,ret < 0"));
  EXPECT_EQ(reader_.error(), ENOENT);
  EXPECT_EQ(reader_.state().key, -1);
  EXPECT_EQ(running(), 0);
  EXPECT_TRUE(registry_is_empty());
  EXPECT_EQ(reader_->tpbuf, nullptr);
}

TEST_F(CutFileTest, AWriterThatCannotBeOpenedLeavesTheOthersSpanAlone) {
  given_a_recording();
  CutHandle another;
  const int descriptors = open_descriptors();
  {
    Faults faults;
    faults.fail("open64", EACCES);
    EXPECT_EQ(another.open(rec_, kWrites), -1);
  }
  EXPECT_EQ(another.error(), EACCES);
  EXPECT_EQ(another.mgr(), nullptr);
  EXPECT_EQ(span(), 2000);
  EXPECT_EQ(item().write_count, 1);
  EXPECT_THAT(listed(), ElementsAre(writer_.get()));
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_THAT(LogCapture::messages(), Not(Contains(fmg_error("gst_cut_file_close"))));
}

TEST_F(CutFileTest, ACloseAfterAFailedOpenFindsNothing) {
  EXPECT_EQ(reader_.open(rec_, kReads), -1);
  EXPECT_EQ(reader_.close(), -1);
  EXPECT_EQ(reader_.error(), EBADF);
  EXPECT_TRUE(registry_is_empty());
}

TEST_F(CutFileTest, WithoutMemoryForAManagerTheWriterIsOpenedAllTheSame) {
  gst_shared_info_get();
  // The manager's own record is the first malloc of its size; its thread's record a calloc.
  for (const char *const call : {"malloc", "calloc"}) {
    bool was_tried = false;
    for (int nth = 1; nth < 20; ++nth) {
      CutHandle writer;
      gint64 opened;
      {
        Faults faults;
        faults.fail(call, ENOMEM, nth);
        opened = writer.open(rec_, kWrites);
      }
      if (opened < 0 || writer.mgr() != nullptr) continue;
      EXPECT_EQ(writer.write(bytes_at(0, 4096)), 4096) << call << nth;
      EXPECT_EQ(gst_cut_file_set_max_time(writer.get(), 2000, 5000), -1);
      EXPECT_EQ(writer.close(), 1);
      was_tried = true;
    }
    EXPECT_TRUE(was_tried) << call;
  }
}

// ---- Waiting for a cut ----

using Act = std::function<gint64()>;

TEST_F(CutFileTest, WhatWouldWaitLongerThanTwoSecondsGivesMinusThreeAndChangesNothing) {
  given_a_file(2);
  std::deque<CutHandle> files(9);
  for (size_t i = 0; i < 6; ++i) ASSERT_EQ(files[i].open(rec_, kReads), 1);
  for (size_t i = 6; i < 8; ++i) ASSERT_EQ(files[i].open(rec_, kWrites, 0, 0, 1), 1);
  for (size_t i = 0; i < 2; ++i) ASSERT_EQ(files[i].seek(4096), 4096);
  gst_cut_file_set_last_wrote_time(files[6].get(), 1234);
  LogCapture::clear();
  char byte = 0;
  gint64 offset = 55;
  gint32 time = 66;
  const std::vector<Act> acts = {
      [&] { return gst_cut_file_read(files[0].get(), &byte, 1); },
      [&] { return files[1].seek(0); },
      [&] { return files[2].tell(); },
      [&] { return files[3].size(); },
      [&] { return gst_cut_file_close(files[4].get(), &offset, &time); },
      [&] { return gst_cut_file_set_max_time(files[5].get(), 2000, 5000); },
      [&] { return files[6].write(bytes_at(0, 4096)); },
      [&] { return gst_cut_file_set_max_time(files[7].get(), 2000, 5000); },
      [&] { return files[8].open(rec_, kReads); }};
  mark_cut(true);
  std::vector<gint64> results(acts.size());
  std::vector<std::thread> threads;
  const auto begin = std::chrono::steady_clock::now();
  for (size_t i = 0; i < acts.size(); ++i) threads.emplace_back([&, i] { results[i] = acts[i](); });
  for (std::thread &thread : threads) thread.join();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1990));
  EXPECT_THAT(results, ::testing::Each(GST_CUT_FILE_BUSY));
  EXPECT_EQ(running(), 0);
  EXPECT_EQ(item().read_count, 6);
  EXPECT_EQ(item().handle_list->len, 8u);
  EXPECT_EQ(offset, 55);
  EXPECT_EQ(time, 66);
  EXPECT_EQ(files[6].mgr()->current_time, 0) << "the recorded time was not taken either";
  EXPECT_EQ(files[8].state().key, -1);
  mark_cut(false);
  EXPECT_EQ(files[1].tell(), 4096);
  EXPECT_EQ(files[0].read(1), bytes_at(4096, 1));
  EXPECT_EQ(files[3].size(), 2 * kUnit);
  EXPECT_EQ(files[4].tell(), 0) << "still open";
}

TEST_F(CutFileTest, AnOperationGoesOnAsSoonAsTheMarkIsGone) {
  given_a_file(1);
  open_reader();
  mark_cut(true);
  std::vector<uint8_t> read;
  std::thread thread([&] { read = reader_.read(100); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(running(), 0);
  mark_cut(false);
  thread.join();
  EXPECT_EQ(read, bytes_at(0, 100));
}

TEST_F(CutFileTest, AnOperationWaitsAlsoWhenTheMarkIsTakenBackWhileTheCutIsAtWork) {
  given_a_file(1);
  open_reader();
  mark_cut(true);
  ASSERT_EQ(plexa::_begin_cut(0), plexa::CutStart::kStarted);
  mark_cut(false);  // as error processing does
  std::atomic<bool> is_over{false};
  std::thread thread([&] {
    reader_.tell();
    is_over = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(is_over);
  plexa::_end_cut(0);
  thread.join();
}

TEST_F(CutFileTest, TheGettersAndFsyncDoNotWait) {
  open_writer();
  mark_cut(true);
  EXPECT_EQ(gst_cut_file_fsync(writer_.get()), -1);
  EXPECT_EQ(gst_cut_file_get_max_time(), 0);
  EXPECT_EQ(gst_cut_file_set_last_wrote_time(writer_.get(), 1), 1);
  EXPECT_EQ(gst_cut_file_set_offset_backup(writer_.get()), 1);
  EXPECT_EQ(gst_cut_file_get_offset_backup(writer_.get()), 0);
  mark_cut(false);
}

TEST_F(CutFileTest, ACutOfAnotherRecordingIsNotWaitedFor) {
  open_writer();
  mark_cut(true, 1);
  EXPECT_EQ(writer_.tell(), 0);
  mark_cut(false, 1);
}

struct Counted {
  const char *name, *call;
  std::function<gint64(CutHandle &)> act;
};

class CountedTest : public CutFileTest, public ::testing::WithParamInterface<Counted> {};

TEST_P(CountedTest, IsCountedWhileItRuns) {
  given_a_file(1);
  ASSERT_EQ(reader_.open(rec_, kReads), 1);
  ASSERT_EQ(writer_.open(rec_, kWrites, 0, 0, 1), 1);
  CutHandle &file = std::string(GetParam().call) == "write" ? writer_ : reader_;
  gint32 counted = -1;
  {
    Faults faults;
    faults.watch(GetParam().call, [&](int, const char *, long long) {
      counted = static_cast<gint32>(glance().actioncount);
    });
    EXPECT_GE(GetParam().act(file), 0);
  }
  EXPECT_EQ(counted, 1);
  EXPECT_EQ(running(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Every, CountedTest,
    ::testing::Values(
        Counted{"Read", "read",
                [](CutHandle &file) { return static_cast<gint64>(file.read(100).size()); }},
        Counted{"Write", "write", [](CutHandle &file) { return file.write(bytes_at(0, 4096)); }},
        Counted{"Seek", "lseek64", [](CutHandle &file) { return file.seek(0); }},
        Counted{"Tell", "lseek64", [](CutHandle &file) { return file.tell(); }},
        Counted{"Size", "stat64", [](CutHandle &file) { return file.size(); }},
        Counted{"Close", "close", [](CutHandle &file) { return file.close(); }}),
    [](const auto &test) { return test.param.name; });

gint32 count_in_log = -1;

TEST_F(CutFileTest, TheMaximumTimeIsCountedWhileItIsSet) {
  open_writer();
  LogCapture::set_hook([] { count_in_log = static_cast<gint32>(glance().actioncount); });
  EXPECT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
  LogCapture::set_hook(nullptr);
  EXPECT_EQ(count_in_log, 1);
  EXPECT_EQ(running(), 0);
}

// ---- Read, seek, tell, size ----

TEST_F(CutFileTest, ReadsGoThroughTheBounceBufferAlsoWithoutDirectIo) {
  given_a_file(2);
  open_reader();
  EXPECT_NE(reader_->tpbuf, nullptr);
  EXPECT_EQ(reader_.seek(1000), 1000);
  EXPECT_EQ(reader_.read(5000), bytes_at(1000, 5000));
  EXPECT_EQ(reader_.tell(), 6000);
}

TEST_F(CutFileTest, AReadAtTheEndGivesNothing) {
  given_a_file(1);
  open_reader();
  EXPECT_EQ(reader_.seek(0, SEEK_END), kUnit);
  char byte;
  EXPECT_EQ(gst_cut_file_read(reader_.get(), &byte, 1), 0);
}

TEST_F(CutFileTest, AWriterCannotBeRead) {
  open_writer();
  char byte;
  EXPECT_EQ(gst_cut_file_read(writer_.get(), &byte, 1), -1);
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("io->tpbuf is NULL"));
}

TEST_F(CutFileTest, AFailedReadIsTheLayersResult) {
  given_a_file(1);
  open_reader();
  Faults faults;
  faults.fail("read", EIO);
  char byte;
  EXPECT_EQ(gst_cut_file_read(reader_.get(), &byte, 1), -1);
  EXPECT_EQ(reader_.error(), EIO);
}

TEST_F(CutFileTest, OffsetsAreLogicalAfterACut) {
  given_a_file(4);
  open_reader();
  given_total_cut(3 * kUnit);
  EXPECT_EQ(reader_.seek(4 * kUnit + 7), 4 * kUnit + 7);
  EXPECT_EQ(lseek64(reader_.state().descriptor, 0, SEEK_CUR), kUnit + 7);
  EXPECT_EQ(reader_.tell(), 4 * kUnit + 7);
  EXPECT_EQ(reader_.size(), 7 * kUnit);
}

TEST_F(CutFileTest, OnlyOffsetsFromTheStartAreTranslated) {
  given_a_file(4);
  open_reader();
  given_total_cut(3 * kUnit);
  EXPECT_EQ(reader_.seek(-10, SEEK_END), 7 * kUnit - 10);
  EXPECT_EQ(reader_.seek(3, SEEK_CUR), 7 * kUnit - 7);
  EXPECT_EQ(reader_.seek(3 * kUnit), 3 * kUnit);
  EXPECT_EQ(lseek64(reader_.state().descriptor, 0, SEEK_CUR), 0);
}

TEST_F(CutFileTest, OffsetsBeyond32BitsAreTranslated) {
  given_a_file(1);
  open_reader();
  given_total_cut(gint64{5} << 32);
  EXPECT_EQ(reader_.seek((gint64{5} << 32) + 5), (gint64{5} << 32) + 5);
  EXPECT_EQ(reader_.seek(gint64{11} << 32), gint64{11} << 32);
  EXPECT_EQ(reader_.tell(), gint64{11} << 32);
  EXPECT_EQ(reader_.size(), (gint64{5} << 32) + kUnit);
}

TEST_F(CutFileTest, ASeekBeforeTheOldestByteFailsAsTheLayerDoes) {
  given_a_file(1);
  open_reader();
  given_total_cut(kUnit);
  EXPECT_EQ(reader_.seek(kUnit - 1), -1) << "and not the total cut less one";
  EXPECT_EQ(reader_.error(), EINVAL);
  EXPECT_EQ(reader_.tell(), kUnit);
}

class ExtremeSeekTest : public CutFileTest, public ::testing::WithParamInterface<gint64> {};

TEST_P(ExtremeSeekTest, FailsWithoutWrapping) {
  given_a_file(1);
  open_reader();
  given_total_cut(kUnit);
  EXPECT_EQ(reader_.seek(GetParam()), -1);
  EXPECT_EQ(reader_.error(), EINVAL);
}

INSTANTIATE_TEST_SUITE_P(Offsets, ExtremeSeekTest,
                         ::testing::Values(G_MININT64, G_MININT64 + 1, gint64{-1}));

TEST_F(CutFileTest, ALogicalPositionThatNothingCanHoldStaysAtTheEnd) {
  given_a_file(1);
  open_reader();
  given_total_cut(G_MAXINT64 - 10);
  EXPECT_EQ(reader_.size(), G_MAXINT64);
}

class UnknownWhenceTest : public CutFileTest, public ::testing::WithParamInterface<gint32> {};

TEST_P(UnknownWhenceTest, SeeksToZeroWithItAndFails) {
  given_a_file(1);
  open_reader();
  given_total_cut(kUnit);
  long long asked = -1;
  Faults faults;
  faults.watch("lseek64", [&](int, const char *, long long offset) { asked = offset; });
  EXPECT_EQ(reader_.seek(77, GetParam()), -1);
  EXPECT_EQ(asked, 0);
  EXPECT_EQ(reader_.error(), EINVAL);
}

INSTANTIATE_TEST_SUITE_P(Values, UnknownWhenceTest, ::testing::Values(-1, 17, G_MAXINT32));

TEST_F(CutFileTest, NegativeResultsAreNotTranslated) {
  given_a_file(1);
  open_reader();
  given_total_cut(kUnit);
  {
    Faults faults;
    faults.fail_all("lseek64", EIO);
    faults.fail_all("stat64", EACCES);
    EXPECT_EQ(reader_.tell(), -1);
    EXPECT_EQ(reader_.error(), EIO);
    EXPECT_EQ(reader_.size(), -1);
    EXPECT_EQ(reader_.error(), EACCES);
  }
}

TEST_F(CutFileTest, FsyncAlwaysFailsWithItsMessage) {
  given_a_file(1);
  open_reader();
  Faults faults;
  EXPECT_EQ(gst_cut_file_fsync(reader_.get()), -1);
  open_writer();
  EXPECT_EQ(gst_cut_file_fsync(writer_.get()), -1);
  EXPECT_EQ(faults.count("fsync"), 0);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre(fmg_error("This mode does not need fsync, file_path:[" + rec_ + "]")));
  EXPECT_EQ(LogCapture::lines()[0].priority, kError);
}

TEST_F(CutFileTest, FsyncOfAClosedFileHasNoPathToTell) {
  open_writer();
  writer_.close();
  EXPECT_EQ(gst_cut_file_fsync(writer_.get()), -1);
  EXPECT_LOGGED(kError, fmg_error("This mode does not need fsync, file_path:[(null)]"));
}

// ---- The times ----

TEST_F(CutFileTest, TheWriterSetsTheSpan) {
  open_writer();
  EXPECT_EQ(gst_cut_file_set_max_time(writer_.get(), 300000, 360000), 1);
  EXPECT_EQ(writer_.mgr()->fixed_duration, 300000);
  EXPECT_EQ(writer_.mgr()->cutbuf_starttime, 300000);
  EXPECT_EQ(writer_.mgr()->max_time, 360000);
  EXPECT_EQ(gst_cut_file_get_max_time(), 300000) << "whoever asks";
}

TEST_F(CutFileTest, ASpanThatTheManagerRefusesGivesMinusOne) {
  open_writer();
  EXPECT_EQ(gst_cut_file_set_max_time(writer_.get(), 0, 0), -1);
  EXPECT_LOGGED(kError, fmg_error("Parameter is wrong !!, lCutBufStartTime=[0], lMaxTime=[0]"));
  EXPECT_EQ(gst_cut_file_set_max_time(writer_.get(), 0x80000000u, 5000), -1);
  EXPECT_EQ(gst_cut_file_get_max_time(), 0);
}

TEST_F(CutFileTest, AReaderCannotSetTheSpan) {
  given_a_file(1);
  open_reader();
  EXPECT_EQ(gst_cut_file_set_max_time(reader_.get(), 2000, 5000), -1);
  EXPECT_EQ(gst_cut_file_get_max_time(), 0);
}

TEST_F(CutFileTest, TheRecordedTimeIsKeptForTheNextWrite) {
  open_writer();
  EXPECT_EQ(gst_cut_file_set_last_wrote_time(writer_.get(), 4294967295u), 1);
  EXPECT_EQ(writer_.state().last_wrote_time, 4294967295u);
  EXPECT_EQ(writer_.mgr()->current_time, 0);
  EXPECT_EQ(write_unit(writer_, 1234), kUnit);
  EXPECT_EQ(writer_.mgr()->current_time, 1234);
}

// ---- Write ----

TEST_F(CutFileTest, AWriteWithoutACutPointIsPlain) {
  write_index(10);
  open_writer();
  EXPECT_EQ(write_unit(writer_, G_MAXINT32), kUnit);
  EXPECT_EQ(running(), 0);
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(writer_.mgr()->cut_param->task, nullptr);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  EXPECT_EQ(read_file(rec_), bytes_at(0, kUnit));
}

TEST_F(CutFileTest, AWriteBelowTheCutPointPublishesTheStartAndCutsNothing) {
  given_a_recording();
  EXPECT_EQ(write_unit(writer_, 4999), kUnit);
  EXPECT_EQ(start_time(), 2999);
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(writer_.mgr()->cut_param->task, nullptr);
  EXPECT_THAT(removals(), IsEmpty());
}

TEST_F(CutFileTest, AWriteAtTheCutPointMarksTheCutBeforeItWrites) {
  given_a_recording();
  bool was_marked = false;
  gint32 counted = 0;
  {
    Faults faults;
    faults.watch("write", [&](int, const char *, long long) {
      was_marked = glance().cut_mode != 0;
      counted = static_cast<gint32>(glance().actioncount);
    });
    EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  }
  finish_cut(writer_);
  EXPECT_TRUE(was_marked);
  EXPECT_EQ(counted, 1);
  EXPECT_LOGGED(kInfo, fmg("last_wrote_time = [5000], gst_cut_mgr_is_max_time is TRUE"));
  EXPECT_EQ(total_cut(), 3 * kUnit);
  EXPECT_FALSE(is_cutting());
}

TEST_F(CutFileTest, AFailedWriteIsLogged) {
  open_writer();
  Faults faults;
  faults.fail("write", ENOSPC);
  EXPECT_EQ(write_unit(writer_, 0), -1);
  EXPECT_EQ(writer_.error(), ENOSPC);
  EXPECT_EQ(LogCapture::messages(kError).back(), fmg_error("gst_cut_file_write failed,ret<1"));
  EXPECT_EQ(running(), 0);
}

TEST_F(CutFileTest, AWriteOfNothingCountsAsFailed) {
  open_writer();
  EXPECT_EQ(gst_cut_file_write(writer_.get(), "", 0), 0);
  EXPECT_LOGGED(kError, fmg_error("gst_cut_file_write failed,ret<1"));
  EXPECT_EQ(running(), 0);
}

TEST_F(CutFileTest, AFailedWriteIsTakenBackTwiceButARunningReaderStaysProtected) {
  open_writer();
  ASSERT_TRUE(plexa::_enter_operation(0));  // a reader inside
  {
    Faults faults;
    faults.fail("write", ENOSPC);
    EXPECT_EQ(write_unit(writer_, 0), -1);
  }
  EXPECT_EQ(running(), 0);
  EXPECT_FALSE(is_idle());
  plexa::_leave_operation(0);
  EXPECT_EQ(running(), 0);
  EXPECT_TRUE(is_idle());
}

TEST_F(CutFileTest, AFailedWriteAtTheCutPointCutsAllTheSame) {
  given_a_recording();
  {
    Faults faults;
    faults.fail("write", ENOSPC);
    EXPECT_EQ(write_unit(writer_, 5000), -1);
  }
  finish_cut(writer_);
  EXPECT_EQ(total_cut(), 3 * kUnit);
}

TEST_F(CutFileTest, ACutThatCannotBeStartedIsGivenBackAndTheWriteCounts) {
  open_writer();
  ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
  writer_.mgr()->next_update_time = 0;  // only the cut itself asks the index, which is not there
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  EXPECT_EQ(writer_.mgr()->max_time, 0);
  EXPECT_FALSE(is_cutting());
  EXPECT_EQ(running(), 0);
  int another = 0;
  EXPECT_TRUE(plexa::_claim_cut(0, &another));
  mark_cut(false);
}

TEST_F(CutFileTest, AWriterDoesNotCutWhileAnotherDoes) {
  given_a_recording();
  int another = 0;
  ASSERT_TRUE(plexa::_claim_cut(0, &another));
  mark_cut(false);
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  EXPECT_EQ(writer_.mgr()->cut_param->task, nullptr);
  EXPECT_EQ(writer_.mgr()->max_time, 5000) << "it is still to come";
  EXPECT_FALSE(is_cutting());
  plexa::_give_back_cut(0, &another);
  cut();
}

TEST_F(CutFileTest, AWriterDoesNotClaimASecondCutWhileItsTaskIsOnTheWay) {
  given_a_recording();
  ASSERT_TRUE(plexa::_enter_operation(0));
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  ASSERT_TRUE(wait_until([&] { return !is_cutting(); }));  // it has waited too long
  plexa::_give_back_cut(0, writer_.mgr()->cut_param);
  g_atomic_int_set(&writer_.mgr()->max_time, 5000);
  LogCapture::clear();
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  EXPECT_FALSE(is_cutting());
  EXPECT_THAT(LogCapture::messages(kInfo),
              Not(Contains(fmg("last_wrote_time = [5000], gst_cut_mgr_is_max_time is TRUE"))));
  plexa::_leave_operation(0);
  finish_cut(writer_);
  EXPECT_EQ(removals().size(), 1u);
}

// ---- After a cut ----

TEST_F(CutFileTest, AReaderSeesTheSameOffsetsBeforeAndAfterACut) {
  given_a_recording();
  open_reader();
  ASSERT_EQ(reader_.seek(4 * kUnit + 100), 4 * kUnit + 100);
  cut();
  EXPECT_EQ(reader_.tell(), 4 * kUnit + 100);
  EXPECT_EQ(reader_.read(1000), bytes_at(4 * kUnit + 100, 1000));
  EXPECT_EQ(reader_.seek(5 * kUnit), 5 * kUnit);
  EXPECT_EQ(reader_.read(1000), bytes_at(5 * kUnit, 1000));
  EXPECT_EQ(reader_.size(), 7 * kUnit);
}

TEST_F(CutFileTest, AReaderBeforeTheCutPointStandsOnTheOldestByte) {
  given_a_recording();
  open_reader();
  ASSERT_EQ(reader_.seek(kUnit), kUnit);
  cut();
  EXPECT_EQ(reader_.tell(), 3 * kUnit);
  EXPECT_EQ(reader_.read(1000), bytes_at(3 * kUnit, 1000));
}

TEST_F(CutFileTest, AHandleOpenedAfterACutBeginsAtTheOldestByte) {
  given_a_recording();
  cut();
  open_reader();
  EXPECT_EQ(reader_.tell(), 3 * kUnit);
  EXPECT_EQ(reader_.read(10), bytes_at(3 * kUnit, 10));
}

TEST_F(CutFileTest, TheWriterGoesOnAtTheEndAfterACut) {
  given_a_recording();
  cut();
  EXPECT_EQ(writer_.tell(), 7 * kUnit);
  EXPECT_EQ(write_unit(writer_, 6000), kUnit);
  EXPECT_EQ(read_file(rec_), bytes_at(3 * kUnit, 5 * kUnit));
  EXPECT_EQ(writer_.size(), 8 * kUnit);
}

TEST_F(CutFileTest, AfterACutEveryHandleIsDirectAndTheWriterAppends) {
  given_a_recording();
  open_reader();
  cut();
  const int writes = fcntl(writer_.state().descriptor, F_GETFL);
  EXPECT_EQ(writes & (O_DIRECT | O_APPEND | O_ACCMODE), O_DIRECT | O_APPEND | O_WRONLY);
  const int reads = fcntl(reader_.state().descriptor, F_GETFL);
  EXPECT_EQ(reads & (O_DIRECT | O_APPEND | O_ACCMODE), O_DIRECT | O_RDONLY);
  EXPECT_EQ(fcntl(reader_.state().descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(CutFileTest, AWriterTakesMemoryOfAnyAlignmentAlsoAfterACut) {
  given_a_recording();
  cut();
  const std::vector<uint8_t> data = bytes_at(0, kUnit + 1);
  for (const size_t shift : {size_t{1}, size_t{0}}) {
    EXPECT_EQ(gst_cut_file_write(writer_.get(), data.data() + shift, kUnit), kUnit);
  }
  EXPECT_EQ(gst_cut_file_write(writer_.get(), data.data() + 1, 100), 4096) << "padded";
  std::vector<uint8_t> file = read_file(rec_);
  ASSERT_EQ(file.size(), static_cast<size_t>(6 * kUnit + 4096));
  const std::vector<uint8_t> unaligned(file.begin() + 4 * kUnit, file.begin() + 5 * kUnit);
  EXPECT_EQ(unaligned, bytes_at(1, kUnit));
}

TEST_F(CutFileTest, AWriteThatNeedsACopyFailsWithoutMemory) {
  given_a_recording();
  cut();
  const std::vector<uint8_t> data = bytes_at(0, kUnit + 64);
  const size_t shift = reinterpret_cast<std::uintptr_t>(data.data()) % 4096 == 0 ? 1 : 0;
  Faults faults;
  faults.fail("valloc", ENOMEM);
  EXPECT_EQ(gst_cut_file_write(writer_.get(), data.data() + shift, kUnit), -1);
  EXPECT_TRUE(
      logged_in_order({fmg_error("pbuff is NULL"), fmg_error("gst_cut_file_write failed,ret<1")}));
}

TEST_F(CutFileTest, TheNextCutPeriodBeginsWhereTheLastOneEnded) {
  given_a_recording();
  cut();
  EXPECT_EQ(writer_.mgr()->cutbuf_starttime, 5000);
  EXPECT_EQ(writer_.mgr()->max_time, 8000);
  EXPECT_EQ(writer_.mgr()->fixed_duration, 2000);
  EXPECT_EQ(write_unit(writer_, 7999), kUnit);
  EXPECT_EQ(total_cut(), 3 * kUnit);
  EXPECT_EQ(write_unit(writer_, 8000), kUnit);
  finish_cut(writer_);
  EXPECT_EQ(total_cut(), 6 * kUnit);
  EXPECT_EQ(total_cut_time(), 6000);
}

// ---- For the cut thread ----

TEST_F(CutFileTest, ThePositionThatIsBackedUpIsTheFilesOwn) {
  given_a_file(2);
  open_reader();
  ASSERT_EQ(reader_.seek(777), 777);
  given_total_cut(kUnit);
  EXPECT_EQ(gst_cut_file_set_offset_backup(reader_.get()), 1);
  EXPECT_EQ(gst_cut_file_get_offset_backup(reader_.get()), 777);
}

TEST_F(CutFileTest, APlainCloseKeepsTheHandleInItsPlace) {
  given_a_file(1);
  open_reader();
  EXPECT_EQ(gst_cut_file_io_close(reader_.get()), 1);
  EXPECT_EQ(reader_.state().descriptor, -1);
  EXPECT_EQ(reader_->tpbuf, nullptr);
  EXPECT_EQ(reader_.key(), 0u);
  EXPECT_STREQ(reader_.state().file_path, rec_.c_str());
  EXPECT_THAT(listed(), ElementsAre(reader_.get()));
  EXPECT_EQ(gst_cut_file_io_close(reader_.get()), -1);
}

TEST_F(CutFileTest, APlainOpenOfAWriterSetsItsNextPeriod) {
  open_writer();
  ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
  ASSERT_EQ(gst_cut_file_io_close(writer_.get()), 1);
  EXPECT_EQ(gst_cut_file_io_open(writer_.get(), 5000, 8000), 1);
  EXPECT_EQ(writer_.mgr()->fixed_duration, 2000);
  EXPECT_EQ(writer_.mgr()->cutbuf_starttime, 5000);
  EXPECT_EQ(writer_.mgr()->next_update_time, 5000);
  EXPECT_EQ(writer_.mgr()->max_time, 8000);
}

TEST_F(CutFileTest, APlainOpenOfAReaderSetsNothing) {
  given_a_file(1);
  open_reader();
  ASSERT_EQ(gst_cut_file_io_close(reader_.get()), 1);
  LogCapture::clear();
  EXPECT_EQ(gst_cut_file_io_open(reader_.get(), 5000, 8000), 1);
  EXPECT_THAT(LogCapture::messages(), Not(Contains(fmg("fixed_duration:0"))));
}

TEST_F(CutFileTest, APlainOpenThatFailsGivesItsResultAndSetsThePeriodAllTheSame) {
  open_writer();
  ASSERT_EQ(gst_cut_file_io_close(writer_.get()), 1);
  Faults faults;
  faults.fail("open64", EMFILE);
  EXPECT_EQ(gst_cut_file_io_open(writer_.get(), 5000, 8000), -1);
  EXPECT_EQ(writer_.state().descriptor, -1);
  EXPECT_EQ(writer_.mgr()->max_time, 8000);
}

TEST_F(CutFileTest, APlainOpenDoesNotLoseADescriptorThatWasLeftOpen) {
  given_a_file(1);
  open_reader();
  const int descriptors = open_descriptors();
  EXPECT_EQ(gst_cut_file_io_open(reader_.get(), 5000, 8000), 1);
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(CutFileTest, APlainSeekIsNotTranslated) {
  given_a_file(1);
  open_reader();
  given_total_cut(kUnit);
  EXPECT_EQ(gst_cut_file_io_seek(reader_.get(), 10, SEEK_SET), 10);
  EXPECT_EQ(gst_cut_file_io_seek(reader_.get(), -10, SEEK_END), kUnit - 10);
  EXPECT_EQ(gst_cut_file_io_seek(reader_.get(), -1, SEEK_SET), -1);
}

// ---- A handle that could not be opened again ----

class LostHandleTest : public CutFileTest {
 protected:
  // Reads, writes and everything else now belong to nobody, although the number may be taken.
  void lose(CutHandle &handle) {
    ASSERT_EQ(gst_cut_file_io_close(handle.get()), 1);
    Faults faults;
    faults.fail("open64", EMFILE);
    ASSERT_EQ(gst_cut_file_io_open(handle.get(), 5000, 8000), -1);
  }
};

TEST_F(LostHandleTest, FailsWithABadDescriptor) {
  given_a_file(1);
  open_reader();
  open_writer();
  lose(reader_);
  lose(writer_);
  char byte;
  const std::vector<Act> acts = {[&] { return gst_cut_file_read(reader_.get(), &byte, 1); },
                                 [&] { return reader_.seek(0); }, [&] { return reader_.tell(); }};
  for (size_t i = 0; i < acts.size(); ++i) {
    reader_->var.error_number = 0;
    EXPECT_EQ(acts[i](), -1) << i;
    EXPECT_EQ(reader_.error(), EBADF) << i;
  }
  writer_->var.error_number = 0;
  EXPECT_EQ(write_unit(writer_, 0), -1);
  EXPECT_EQ(writer_.error(), EBADF);
}

TEST_F(LostHandleTest, TouchesNoForeignDescriptor) {
  given_a_file(1);
  open_reader();
  const gint32 number = reader_.state().descriptor;
  lose(reader_);
  const std::string foreign = dir_.file("foreign");
  const int opened = open64(foreign.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(dup2(opened, number), number);
  EXPECT_EQ(reader_.seek(5), -1);
  EXPECT_EQ(reader_.close(), -1);
  EXPECT_EQ(reader_.error(), EBADF);
  EXPECT_EQ(lseek64(number, 0, SEEK_CUR), 0) << "still open, and not moved";
  if (opened != number) ::close(number);
  ::close(opened);
  EXPECT_TRUE(registry_is_empty());
}

// ---- Close ----

TEST_F(CutFileTest, CloseTellsWhatWasCutOff) {
  given_a_recording();
  cut();
  gint64 offset = 0;
  gint32 time = 0;
  EXPECT_EQ(gst_cut_file_close(writer_.get(), &offset, &time), 1);
  EXPECT_EQ(offset, 3 * kUnit);
  EXPECT_EQ(time, 3000);
}

TEST_F(CutFileTest, CloseTellsOnlyWhatIsAsked) {
  open_writer();
  given_total_cut(5);
  gint64 offset = 0;
  EXPECT_EQ(gst_cut_file_close(writer_.get(), &offset, nullptr), 1);
  EXPECT_EQ(offset, 5);
}

TEST_F(CutFileTest, AWritersCloseReleasesEverything) {
  const int descriptors = open_descriptors();
  given_a_recording();
  EXPECT_EQ(write_unit(writer_, 4000), kUnit);
  EXPECT_EQ(writer_.close(), 1);
  EXPECT_EQ(writer_.state().key, -1);
  EXPECT_EQ(writer_.state().descriptor, -1);
  EXPECT_EQ(writer_.state().file_path, nullptr);
  EXPECT_EQ(writer_.mgr(), nullptr);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_TRUE(registry_is_empty());
  EXPECT_EQ(gst_cut_file_get_max_time(), 0) << "the shared record begins anew";
  EXPECT_LOGGED(kError, fmg_error("gst_cut_file_close"));
}

TEST_F(CutFileTest, AReadersCloseLeavesTheSharedRecordAlone) {
  given_a_recording();
  open_reader();
  EXPECT_EQ(reader_.close(), 1);
  EXPECT_EQ(span(), 2000);
  EXPECT_EQ(item().read_count, 0);
  EXPECT_THAT(listed(), ElementsAre(writer_.get()));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  EXPECT_EQ(reader_->tpbuf, nullptr);
}

TEST_F(CutFileTest, AReaderThatOutlivesTheWriterCountsFromZeroAgain) {
  given_a_recording();
  open_reader();
  cut();
  EXPECT_EQ(writer_.close(), 1);
  EXPECT_EQ(reader_.seek(0), 0);
  EXPECT_EQ(reader_.read(10), bytes_at(3 * kUnit, 10));
  EXPECT_EQ(reader_.size(), 4 * kUnit);
}

TEST_F(CutFileTest, AFailedCloseReleasesEverythingElse) {
  open_writer();
  const int number = writer_.state().descriptor;
  {
    Faults faults;
    faults.fail("close", EIO);
    EXPECT_EQ(writer_.close(), -1);
  }
  EXPECT_EQ(writer_.error(), EIO);
  EXPECT_EQ(writer_.state().descriptor, -1);
  EXPECT_EQ(writer_.mgr(), nullptr);
  EXPECT_TRUE(registry_is_empty());
  EXPECT_EQ(running(), 0);
  ::close(number);  // which the fault kept open
}

TEST_F(CutFileTest, ASecondCloseFindsNothing) {
  open_writer();
  EXPECT_EQ(writer_.close(), 1);
  EXPECT_EQ(writer_.close(), -1);
  EXPECT_EQ(writer_.error(), EBADF);
}

TEST_F(CutFileTest, TheCallersPathIsNotNeededForACutThatComesWhileACloseWaits) {
  given_a_file(1);
  auto path = std::make_unique<std::string>(rec_);
  ASSERT_EQ(gst_cut_file_open(reader_.get(), path->c_str(), kReads, 0, 0, 0), 1);
  path.reset();
  reader_.state().file_path = nullptr;  // the first thing that a close does
  ASSERT_EQ(gst_cut_file_io_close(reader_.get()), 1);
  EXPECT_EQ(gst_cut_file_io_open(reader_.get(), 1, 2), 1);
}

TEST_F(CutFileTest, AHandleIsOpenedAgainAfterAClose) {
  given_a_file(1);
  open_reader();
  EXPECT_EQ(reader_.close(), 1);
  EXPECT_EQ(reader_.open(rec_, kReads), 1);
  EXPECT_EQ(reader_.read(5), bytes_at(0, 5));
}

// ---- ATSC 3.0 ----

TEST_F(CutFileTest, AnAtsc3RecordingLosesNothingAndItsIndexIsNotOpened) {
  write_index(20);
  ASSERT_EQ(writer_.open(rec_, kWrites, 0, 1), 1);
  ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 2000, 5000), 1);
  std::vector<std::string> opened;
  {
    Faults faults;
    faults.all_threads();
    faults.watch("open64", [&](int, const char *path, long long) { opened.push_back(path); });
    for (const gint32 time : {1000, 2000, 5000, 9000}) {
      EXPECT_EQ(write_unit(writer_, time), kUnit);
      finish_cut(writer_);
    }
  }
  EXPECT_THAT(opened, Not(Contains(index_path_)));
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(total_cut(), 0);
  EXPECT_EQ(read_file(rec_), bytes_at(0, 4 * kUnit));
  EXPECT_EQ(writer_.mgr()->index_parser, nullptr);
}

// ---- Several threads ----

TEST_F(CutFileTest, OfThreeWritersThatReachTheCutPointTogetherOneCuts) {
  write_index(20);
  std::deque<CutHandle> writers(3);
  for (CutHandle &writer : writers) {
    ASSERT_EQ(writer.open(rec_, kWrites), 1);
    ASSERT_EQ(gst_cut_file_set_max_time(writer.get(), 2000, 5000), 1);
  }
  write_file(rec_, bytes_at(0, 8 * kUnit));
  std::barrier start(3);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (CutHandle &writer : writers) {
    threads.emplace_back([&] {
      gst_cut_file_set_last_wrote_time(writer.get(), 5000);
      const std::vector<uint8_t> data = bytes_at(0, kUnit);
      start.arrive_and_wait();
      if (writer.write(data) != kUnit) ++failures;
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (CutHandle &writer : writers) finish_cut(writer);
  EXPECT_EQ(failures, 0);
  ASSERT_EQ(removals().size(), 1u);
  EXPECT_EQ(removals()[0].end, 3 * kUnit);
  EXPECT_EQ(total_cut(), 3 * kUnit);
  for (CutHandle &writer : writers) EXPECT_EQ(writer.mgr()->max_time, 8000);
}

TEST_F(CutFileTest, AWriterWithoutASpanIsNotCutOnAnothersAccount) {
  given_a_recording();
  CutHandle another;
  ASSERT_EQ(another.open(rec_, kWrites, 0, 0, 1), 1);
  cut();
  EXPECT_EQ(another.mgr()->max_time, 0);
  EXPECT_EQ(another.mgr()->next_update_time, 0);
  EXPECT_EQ(span(), 2000);
  EXPECT_NE(another.state().descriptor, -1);
}

TEST_F(CutFileTest, AWriterWhoseCuttingIsOffIsNotSwitchedOnByAnothersCut) {
  given_a_recording();
  CutHandle another;
  ASSERT_EQ(another.open(rec_, kWrites, 0, 0, 1), 1);
  ASSERT_EQ(gst_cut_file_set_max_time(another.get(), 2000, 5000), 1);
  gst_cut_mgr_error_process(another.mgr());
  cut();
  EXPECT_EQ(another.mgr()->max_time, 0);
  EXPECT_NE(another.state().descriptor, -1);
}

// Each refused writer costs a count, so that the slot is given up under the last one. What is not
// listed is not moved by a cut, so there must be none.
TEST_F(CutFileTest, AWriterThatHasLostItsPlaceInTheListDoesNotCut) {
  given_a_recording();
  {
    std::deque<CutHandle> others(2);
    for (CutHandle &other : others) ASSERT_EQ(other.open(rec_, kWrites, 0, 0, 1), 1);
    CutHandle refused;
    ASSERT_EQ(refused.open(rec_, kWrites, 0, 0, 1), -1);
  }
  ASSERT_EQ(item().handle_list, nullptr);
  EXPECT_EQ(write_unit(writer_, 5000), kUnit);
  EXPECT_EQ(write_unit(writer_, 6000), kUnit);
  EXPECT_FALSE(is_cutting());
  EXPECT_THAT(removals(), IsEmpty());
  EXPECT_EQ(read_file(rec_), bytes_at(0, 8 * kUnit));
}

TEST_F(CutFileTest, ReadersNeverSeeAWrongByteWhileTheWriterCuts) {
  constexpr int kReaders = 3;
  constexpr int kUnits = 40;
  write_index(kUnits + 1);
  open_writer();
  ASSERT_EQ(gst_cut_file_set_max_time(writer_.get(), 4000, 6000), 1);
  fill(1);
  std::atomic<bool> is_over{false};
  std::atomic<int> wrong{0};
  std::atomic<int> failed{0};
  std::deque<CutHandle> readers(kReaders);
  std::vector<std::thread> threads;
  for (CutHandle &reader : readers) {
    ASSERT_EQ(reader.open(rec_, kReads), 1);
    threads.emplace_back([&] {
      while (!is_over) {
        const gint64 before = reader.tell();
        const std::vector<uint8_t> got = reader.read(4000);
        const gint64 after = reader.tell();
        if (before < 0 || after < before) ++failed;
        // A cut between the two may have moved a reader that stood too far back.
        if (after - before == static_cast<gint64>(got.size()) &&
            got != bytes_at(before, static_cast<gint64>(got.size()))) {
          ++wrong;
        }
      }
    });
  }
  for (int unit = 1; unit < kUnits; ++unit) {
    EXPECT_EQ(write_unit(writer_, unit * 1000), kUnit);
    EXPECT_TRUE(wait_until([] { return !is_cutting(); }));
  }
  is_over = true;
  for (std::thread &thread : threads) thread.join();
  finish_cut(writer_);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(failed, 0);
  EXPECT_GT(total_cut(), 20 * kUnit);
  EXPECT_EQ(writer_.size(), kUnits * kUnit);
}

}  // namespace
}  // namespace plexa_test
