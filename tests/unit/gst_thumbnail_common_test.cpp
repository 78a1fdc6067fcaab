// The ".thm" file, and the figures of the whole recording that it takes.
#include "gst-plexa/gst_thumbnail_common.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <numeric>
#include <thread>

#include "faults.h"
#include "library_state.h"
#include "log_capture.h"
#include "recording_builder.h"
#include "temp_dir.h"

namespace {
int init_calls_until_failure = 0;  // 0: never
}

extern "C" gint32 __real_gst_pvr_file_init(GstPvrFile *file);
extern "C" gint32 __wrap_gst_pvr_file_init(GstPvrFile *file);
extern "C" gint32 __wrap_gst_pvr_file_init(GstPvrFile *file) {
  if (init_calls_until_failure > 0 && --init_calls_until_failure == 0) return -5;
  return __real_gst_pvr_file_init(file);
}

namespace plexa_test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;

constexpr char kNoInit[] = "[EXT_THM] [PLG_ERR] g mutex new lock fail!";
constexpr char kNoIndex[] = "[EXT_THM] [PLG_ERR] open mdb file failed, fd = [-1]";
constexpr char kNoTotal[] = "[EXT_THM] [PLG_ERR] gst_thumbnail_get_total_recorded_time failed";
constexpr char kNoFrame[] = "[EXT_THM] [PLG_ERR] gst_thumbnail_get_recorded_frame failed";
constexpr char kReleased[] = "[EXT_THM] gst_thumbnail_release_buffer succeeded";
constexpr char kSucceeded[] = "[EXT_THM] gst_thumbnail_make_recorded_frame_file succeeded";

// A picture of a length of its own, so that sizes cannot be mixed up.
Bytes data_of(int number) {
  Bytes data(static_cast<size_t>(200 + 10 * number));
  std::iota(data.begin(), data.end(), static_cast<uint8_t>(number));
  return data;
}
Bytes iframe(int number) { return packetise(0x100, pes(0xe0, data_of(number), 90000)); }

class Thumbnail : public ::testing::Test {
 protected:
  void SetUp() override {
    LogCapture::clear();
    init_calls_until_failure = 0;
  }
  void TearDown() override { EXPECT_TRUE(registry_is_empty()); }

  std::string stream() const { return rec_.stream_path(); }

  TempDir dir_;
  RecordingBuilder rec_{dir_.file("rec")};
};

// ------------------------------------------------------------------------------------ total time

class TotalTime : public Thumbnail {
 protected:
  gint32 get(const std::string &path) {
    LogCapture::clear();
    return gst_thumbnail_get_total_recorded_time(path.c_str(), &time_);
  }
  void expect_failure(const std::string &message) {
    EXPECT_NE(get(stream()), 1);
    EXPECT_LOGGED(kError, message);
    EXPECT_EQ(time_, -77);
  }

  gint32 time_ = -77;
};

TEST_F(TotalTime, OfAFinishedRecordingIsInItsBaseTable) {
  rec_.gop(1500, {}).gop(1500, {}).write();
  EXPECT_EQ(get(stream()), 1);
  EXPECT_EQ(time_, 3000);
  const std::vector<std::string> expected = {
      "[EXT_THM] [THM_IN]kvf_file_name = [" + stream() + "]",
      "[EXT_THM] mdb_file_name = [" + rec_.index_path() + "]",
      "[EXT_THM] [THM_OUT]total recorded time = [3000]"};
  EXPECT_TRUE(logged_in_order(expected));
  for (const std::string &line : expected) EXPECT_LOGGED(kInfo, line);
}

TEST_F(TotalTime, OfAGrowingRecordingIsInItsLastGop) {
  rec_.finished(false).gop(1500, {}).gop(1000, {}).write();
  EXPECT_EQ(get(stream()), 1);
  EXPECT_EQ(time_, 2500);
}

TEST_F(TotalTime, OfALegacyRecordingIsThereToo) {
  rec_.legacy().finished(false).gop(1500, {}).gop(1000, {}).write();
  EXPECT_EQ(get(stream()), 1);
  EXPECT_EQ(time_, 2500);
}

TEST_F(TotalTime, OpensTheIndexThroughTheCache) {
  rec_.gop(1500, {}).write();
  get(stream());
  EXPECT_LOGGED(kInfo, "[EXT_FMG] file_path=[" + rec_.index_path() +
                           "], permission=[1](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO), "
                           "type=[0](0:Normal, 1:Timeshift), ext=[1](0:Stream, 1:Index), "
                           "append_mode=[0], ext=[0] (0:normal, 1: atsc3.0)");
}

TEST_F(TotalTime, IsKnownWithoutAnyGopWhenTheRecordingIsFinished) {
  IndexBuilder()
      .base([](pvr_base_table_s &base) { base.end_time_code = 4000; })
      .write(rec_.index_path());
  EXPECT_EQ(get(stream()), 1);
  EXPECT_EQ(time_, 4000);
}

TEST_F(TotalTime, IsUnknownWithoutAnyGopWhileTheRecordingGrows) {
  IndexBuilder().write(rec_.index_path());
  EXPECT_NE(get(stream()), 1);
  EXPECT_EQ(time_, -77);
}

TEST_F(TotalTime, OfAnotherFileIsNotMadeUp) {
  for (const Bytes &bytes : {Bytes{}, repeat(0xff, 2000), repeat(0x11, 2000000)}) {
    write_file(rec_.index_path(), bytes);
    EXPECT_NE(get(stream()), 1);
    EXPECT_EQ(time_, -77);
  }
}

TEST_F(TotalTime, ThatIsNegativeIsNone) {
  IndexBuilder()
      .base([](pvr_base_table_s &base) {
        base.start_time_code = 5000;
        base.end_time_code = 4000;
      })
      .gops(2, 500, 10)
      .write(rec_.index_path());
  EXPECT_NE(get(stream()), 1);
  EXPECT_EQ(time_, -77);
  EXPECT_LOGGED(kInfo, "[EXT_THM] [THM_OUT]total recorded time = [-1000]");
}

TEST_F(TotalTime, OfNoIndexFails) { expect_failure(kNoIndex); }

TEST_F(TotalTime, AHandleThatCannotBeMadeGivesItsResult) {
  rec_.gop(1000, {}).write();
  init_calls_until_failure = 1;
  EXPECT_EQ(get(stream()), -5);
  EXPECT_LOGGED(kError, kNoInit);
  EXPECT_EQ(time_, -77);
}

TEST_F(TotalTime, APathWithoutAnExtensionFails) {
  EXPECT_EQ(get("recording"), 0);
  EXPECT_LOGGED(kInfo, "[EXT_THM] [THM_IN]kvf_file_name = [recording]");
}

TEST_F(TotalTime, NullArgumentsFail) {
  EXPECT_EQ(gst_thumbnail_get_total_recorded_time(nullptr, &time_), 0);
  EXPECT_EQ(gst_thumbnail_get_total_recorded_time("rec.kvf", nullptr), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

// ------------------------------------------------------------------------------------ average

class AverageSize : public Thumbnail {
 protected:
  // An index whose I-frames have these numbers of packets.
  IndexBuilder index_of(const std::vector<uint32_t> &packets) {
    IndexBuilder builder;
    for (size_t i = 0; i < packets.size(); ++i) {
      pvr_gop_info_s record{};
      record.time_code = static_cast<uint32_t>(i) * 500;
      record.packet_count = i * 1000;
      record.iframe_size = packets[i];
      builder.gop(record);
    }
    return builder;
  }
  gint32 average() {
    EXPECT_EQ(gst_thumbnail_get_iframe_average_size(stream().c_str(), &average_), 1);
    return average_;
  }
  void expect_failure() {
    average_ = 7;
    EXPECT_EQ(gst_thumbnail_get_iframe_average_size(stream().c_str(), &average_), 0);
    EXPECT_EQ(average_, G_MAXINT32) << "with which no I-frame is too large";
  }

  gint32 average_ = 7;
};

TEST_F(AverageSize, IsTheMeanOfTheIframeLengthsInBytes) {
  index_of({10, 20, 30, 0}).write(rec_.index_path());
  EXPECT_EQ(average(), 15 * 188);
  EXPECT_LOGGED(kInfo, "[EXT_THM] average iframe size = [2820] of [4] gops");
}

TEST_F(AverageSize, IsTheSameInTheLegacyLayout) {
  index_of({10, 20, 31}).legacy().write(rec_.index_path());
  EXPECT_EQ(average(), 61 * 188 / 3);
}

TEST_F(AverageSize, FollowsTheStartOfTheTable) {
  index_of({10, 20}).gop_start(5000000).write(rec_.index_path());
  EXPECT_EQ(average(), 15 * 188);
}

TEST_F(AverageSize, IsNeverBelowOne) {
  index_of({0, 0, 0}).write(rec_.index_path());
  EXPECT_EQ(average(), 1);
}

TEST_F(AverageSize, OfHostileLengthsStaysAPositiveNumber) {
  index_of({G_MAXUINT32, G_MAXUINT32}).write(rec_.index_path());
  EXPECT_EQ(average(), G_MAXINT32);
}

TEST_F(AverageSize, LeavesOutARecordThatIsStillBeingWritten) {
  index_of({10, 20, 60}).write(rec_.index_path());
  fs::resize_file(rec_.index_path(), fs::file_size(rec_.index_path()) - 1);
  EXPECT_EQ(average(), 15 * 188);
}

TEST_F(AverageSize, CountsEveryGopUpTo4096) {
  for (const uint32_t count : {255u, 256u, 257u, 4095u, 4096u}) {
    std::vector<uint32_t> packets(count);
    std::iota(packets.begin(), packets.end(), 0u);
    index_of(packets).write(rec_.index_path());
    EXPECT_EQ(average(), static_cast<gint32>((count - 1) * 188 / 2)) << count;
    EXPECT_LOGGED(kInfo, "[EXT_THM] average iframe size = [" + std::to_string(average_) + "] of [" +
                             std::to_string(count) + "] gops");
  }
}

TEST_F(AverageSize, OfALongRecordingIsThatOfASpreadSample) {
  std::vector<uint32_t> packets(256 + 15 * 6650);  // the blocks start at whole GOPs
  std::iota(packets.begin(), packets.end(), 0u);
  index_of(packets).write(rec_.index_path());
  Faults faults;
  std::vector<long long> offsets;
  faults.watch("lseek64", [&](int, const char *, long long offset) { offsets.push_back(offset); });
  EXPECT_EQ(average(), 100005 * 188 / 2) << "equal distances: the mean of an even slope is exact";
  EXPECT_LE(faults.count("read"), 20) << "not the whole table";
  EXPECT_LOGGED(kInfo, "[EXT_THM] average iframe size = [9400470] of [4096] gops");
  EXPECT_THAT(offsets, ::testing::Contains(954360 + 104LL * 15 * 6650)) << "up to the end";
}

TEST_F(AverageSize, OfNoIndexFails) {
  expect_failure();
  EXPECT_LOGGED(kError, kNoIndex);
}

TEST_F(AverageSize, OfAnIndexWithoutGopsFails) {
  IndexBuilder().write(rec_.index_path());
  expect_failure();
}

TEST_F(AverageSize, OfAnotherFileFails) {
  write_file(rec_.index_path(), repeat(0x55, 2000000));
  expect_failure();
}

TEST_F(AverageSize, WhenNothingCanBeReadFails) {
  index_of({10, 20}).write(rec_.index_path());
  for (const char *call : {"read", "lseek64"}) {
    const int last = [&] {
      Faults faults;
      average();
      return faults.count(call);
    }();
    Faults faults;
    faults.fail(call, EIO, last);
    expect_failure();
  }
}

TEST_F(AverageSize, AHandleThatCannotBeMadeFails) {
  index_of({10}).write(rec_.index_path());
  init_calls_until_failure = 1;
  expect_failure();
  EXPECT_LOGGED(kError, kNoInit);
}

TEST_F(AverageSize, APathWithoutAnExtensionFails) {
  EXPECT_EQ(gst_thumbnail_get_iframe_average_size("recording", &average_), 0);
  EXPECT_EQ(average_, G_MAXINT32);
}

TEST_F(AverageSize, NullArgumentsFailAndWriteNothing) {
  EXPECT_EQ(gst_thumbnail_get_iframe_average_size(nullptr, &average_), 0);
  EXPECT_EQ(gst_thumbnail_get_iframe_average_size("rec.kvf", nullptr), 0);
  EXPECT_EQ(average_, 7);
}

// ------------------------------------------------------------------------------------ release

TEST(ReleaseBuffer, FreesAndLeavesThePointerToTheCaller) {
  LogCapture::clear();
  auto *buffer = static_cast<guint8 *>(std::malloc(10));  // freed, or the leak check speaks up
  guint8 *const before = buffer;
  gst_thumbnail_release_buffer(&buffer);
  EXPECT_EQ(buffer, before);
  EXPECT_LOGGED(kInfo, kReleased);
}

TEST(ReleaseBuffer, NullPointersAreHarmless) {
  guint8 *buffer = nullptr;
  gst_thumbnail_release_buffer(&buffer);
  gst_thumbnail_release_buffer(nullptr);
  EXPECT_EQ(buffer, nullptr);
}

// ------------------------------------------------------------------------------------ file

class ThumbnailFile : public Thumbnail {
 protected:
  // Five GOPs of a second; the last one's length makes the total.
  RecordingBuilder &five_gops(uint32_t total = 5000) {
    for (int i = 0; i < 4; ++i) rec_.gop(1000, iframe(i));
    rec_.gop(total - 4000, iframe(4));
    return rec_;
  }
  gint32 make() {
    LogCapture::clear();
    return gst_thumbnail_make_recorded_frame_file(stream().c_str(), sizes_.data(), codes_.data());
  }
  void expect_failure(const std::string &message) {
    EXPECT_EQ(make(), 0);
    EXPECT_LOGGED(kError, message);
    expect_untouched();
  }
  void expect_untouched() {
    EXPECT_THAT(sizes_, Each(77u));
    EXPECT_THAT(codes_, Each(88));
  }
  static Bytes pictures(std::initializer_list<int> numbers) {
    Bytes all;
    for (const int number : numbers) all = join({all, data_of(number)});
    return all;
  }
  std::string thm() const { return rec_.path(".thm"); }
  std::string tm() const { return rec_.path(".tm"); }
  std::string thumbnail_line(int number, int time, int picture) const {
    return "[EXT_THM] [THM_OUT]Thumbnail:" + std::to_string(number) + ", time = [" +
           std::to_string(time) + "], size = [" + std::to_string(200 + 10 * picture) +
           "], codec = [2](UNKOWN: -1, MPEG2:0, H264:1, JPEG:2, AVS:3, H265:4)";
  }

  std::array<guint32, 5> sizes_ = {77, 77, 77, 77, 77};
  std::array<gint32, 5> codes_ = {88, 88, 88, 88, 88};
};

TEST_F(ThumbnailFile, HoldsFivePicturesBackToBack) {
  five_gops().codec(2).write();
  EXPECT_EQ(make(), 1);
  EXPECT_EQ(read_file(thm()), pictures({0, 1, 2, 3, 4}));
  EXPECT_THAT(sizes_, ElementsAre(200, 210, 220, 230, 240));
  EXPECT_THAT(codes_, Each(2));
}

TEST_F(ThumbnailFile, HasASecondNameOnceItIsComplete) {
  five_gops().write();
  ASSERT_EQ(make(), 1);
  EXPECT_TRUE(fs::equivalent(thm(), tm()));
  EXPECT_EQ(fs::hard_link_count(thm()), 2u);
}

TEST_F(ThumbnailFile, LogsItsWay) {
  five_gops().codec(2).write();
  ASSERT_EQ(make(), 1);
  std::vector<std::string> expected = {"[EXT_THM] [THM_IN]kvf_file_name = [" + stream() + "]",
                                       "[EXT_THM] [THM_IN]kvf_file_name = [" + stream() + "]",
                                       "[EXT_THM] [THM_OUT]total recorded time = [5000]",
                                       "[EXT_THM] total_time = [5000], interval = [1000]"};
  for (int i = 0; i < 5; ++i) {
    expected.push_back(thumbnail_line(i, i * 1000, i));
    expected.push_back(kReleased);
  }
  expected.push_back(kSucceeded);
  EXPECT_TRUE(logged_in_order(expected));
  for (const std::string &line : expected) EXPECT_LOGGED(kInfo, line);
}

TEST_F(ThumbnailFile, IsOpenedForWritingFromEmpty) {
  five_gops().write();
  write_file(thm(), repeat(0xaa, 100000));
  ASSERT_EQ(make(), 1);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] file_path=[" + thm() +
                           "], permission=[0](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO), "
                           "type=[0](0:Normal, 1:Timeshift), ext=[0](0:Stream, 1:Index), "
                           "append_mode=[0], ext=[0] (0:normal, 1: atsc3.0)");
  EXPECT_EQ(read_file(thm()), pictures({0, 1, 2, 3, 4}));
}

TEST_F(ThumbnailFile, RoundsItsTimesDownToWholeSeconds) {
  five_gops(4999).codec(2).write();
  ASSERT_EQ(make(), 1);
  EXPECT_LOGGED(kInfo, "[EXT_THM] total_time = [4999], interval = [999]");
  EXPECT_TRUE(
      logged_in_order({thumbnail_line(0, 0, 0), thumbnail_line(1, 0, 0), thumbnail_line(2, 1000, 1),
                       thumbnail_line(3, 2000, 2), thumbnail_line(4, 3000, 3)}));
  EXPECT_EQ(read_file(thm()), pictures({0, 0, 1, 2, 3}));
}

TEST_F(ThumbnailFile, OfNoTimeIsFiveTimesTheFirstPicture) {
  rec_.gop(0, iframe(3)).finished(false).write();
  ASSERT_EQ(make(), 1);
  EXPECT_LOGGED(kInfo, "[EXT_THM] total_time = [0], interval = [0]");
  EXPECT_EQ(read_file(thm()), pictures({3, 3, 3, 3, 3}));
}

TEST_F(ThumbnailFile, IsMadeWithoutOutputArraysToo) {
  five_gops().write();
  EXPECT_EQ(gst_thumbnail_make_recorded_frame_file(stream().c_str(), nullptr, nullptr), 1);
  EXPECT_EQ(read_file(thm()), pictures({0, 1, 2, 3, 4}));
  EXPECT_EQ(gst_thumbnail_make_recorded_frame_file(stream().c_str(), sizes_.data(), nullptr), 1);
  EXPECT_THAT(sizes_, ElementsAre(200, 210, 220, 230, 240));
  EXPECT_EQ(gst_thumbnail_make_recorded_frame_file(stream().c_str(), nullptr, codes_.data()), 1);
  EXPECT_THAT(codes_, Each(0));
}

TEST_F(ThumbnailFile, LeavesOutPicturesFarAboveTheAverage) {
  Bytes huge(100000);
  rec_.gop(1000, packetise(0x100, pes(0xe0, huge, 1)));
  for (int i = 1; i < 5; ++i) rec_.gop(1000, iframe(i));
  rec_.write();
  ASSERT_EQ(make(), 1);
  EXPECT_EQ(read_file(thm()), pictures({1, 1, 2, 3, 4}));
}

TEST_F(ThumbnailFile, TakesWhateverThereIsWhenTheAverageIsUnknown) {
  five_gops().write();
  init_calls_until_failure = 4;  // after the total's two handles and the ".thm" file's
  ASSERT_EQ(make(), 1);
  EXPECT_LOGGED(kError, kNoInit);
  EXPECT_EQ(read_file(thm()), pictures({0, 1, 2, 3, 4}));
}

TEST_F(ThumbnailFile, ReachesTheDiskAfterItsLinkAndBeforeItsClose) {
  five_gops().write();
  Faults faults;
  ASSERT_EQ(make(), 1);
  std::vector<std::string> calls = faults.calls();
  const auto link_at = std::find(calls.begin(), calls.end(), "link");
  ASSERT_NE(link_at, calls.end());
  const std::vector<std::string> rest(link_at, calls.end());
  EXPECT_THAT(rest, ElementsAre("link", "sync", "fsync", "close"));
}

TEST_F(ThumbnailFile, LosesItsOldSecondNameBeforeItIsBegunAnew) {
  five_gops().write();
  ASSERT_EQ(make(), 1);
  bool removed_first = false;
  {
    Faults faults;
    faults.watch("open64", [&](int, const char *path, long long) {
      if (path == thm()) removed_first = !exists(tm());
    });
    ASSERT_EQ(make(), 1);
  }
  EXPECT_TRUE(removed_first);
  EXPECT_TRUE(fs::equivalent(thm(), tm()));
}

TEST_F(ThumbnailFile, HasNoSecondNameAfterAFailedRewrite) {
  five_gops().write();
  ASSERT_EQ(make(), 1);
  std::remove(stream().c_str());
  EXPECT_EQ(make(), 0);
  EXPECT_FALSE(exists(tm()));
}

TEST_F(ThumbnailFile, IsNotBegunWhenAnOldSecondNameCannotBeRemoved) {
  five_gops().write();
  fs::create_directory(tm());
  expect_failure("[EXT_THM] [PLG_ERR] remove old tm file failed, path = [" + tm() + "], errno = [" +
                 std::to_string(EISDIR) + "]");
  EXPECT_FALSE(exists(thm()));
}

TEST_F(ThumbnailFile, IsCompleteAlsoWithoutItsSecondName) {
  five_gops().write();
  {
    Faults faults;
    faults.fail("link", EPERM);
    EXPECT_EQ(make(), 1);
    EXPECT_EQ(faults.count("sync"), 1);
  }
  EXPECT_EQ(read_file(thm()), pictures({0, 1, 2, 3, 4}));
  EXPECT_FALSE(exists(tm()));
}

TEST_F(ThumbnailFile, KeepsTwoPicturesWhenTheThirdFails) {
  rec_.gop(1000, iframe(0)).gop(1000, iframe(1));
  for (int i = 2; i < 5; ++i) rec_.gop(1000, ts_packet(0x1ff, {}));
  rec_.write();
  expect_failure(kNoFrame);
  EXPECT_EQ(read_file(thm()), pictures({0, 1}));
  EXPECT_FALSE(exists(tm()));
}

TEST_F(ThumbnailFile, OfARecordingWithoutIndexFails) {
  expect_failure(kNoTotal);
  EXPECT_FALSE(exists(thm()));
}

TEST_F(ThumbnailFile, OfARecordingWithoutStreamFails) {
  five_gops().write();
  std::remove(stream().c_str());
  expect_failure(kNoFrame);
}

TEST_F(ThumbnailFile, ThatCannotBeOpenedFails) {
  five_gops().write();
  fs::create_directory(thm());
  expect_failure("[EXT_THM] [PLG_ERR] open thm file failed, file_ret = [-1]");
}

TEST_F(ThumbnailFile, WithoutAHandleFails) {
  five_gops().write();
  init_calls_until_failure = 3;  // the total time takes two
  expect_failure(kNoInit);
  EXPECT_FALSE(exists(thm()));
}

TEST_F(ThumbnailFile, WithoutMemoryForItsNameFails) {
  five_gops().write();
  const auto name_size = static_cast<long long>(thm().size()) + 1;
  int seen = 0;
  int nth = 0;  // the first name of this size is the index's
  {
    Faults faults;
    int names = 0;
    faults.watch("malloc", [&](int, const char *, long long size) {
      ++seen;
      if (size == name_size && ++names == 2) nth = seen;
    });
    ASSERT_EQ(make(), 1);
  }
  ASSERT_GT(nth, 0);
  fs::remove(thm());
  sizes_.fill(77);
  codes_.fill(88);
  Faults faults;
  faults.fail("malloc", ENOMEM, nth);
  expect_failure("[EXT_THM] [PLG_ERR] thm_file_name == NULL");
  EXPECT_FALSE(exists(thm()));
}

TEST_F(ThumbnailFile, AFailedWriteFails) {
  five_gops().write();
  Faults faults;
  faults.fail("write", ENOSPC, 2);
  expect_failure("[EXT_THM] [PLG_ERR] gst_pvr_file_write failed, file_ret = [-1]");
  EXPECT_EQ(read_file(thm()), pictures({0}));
  EXPECT_FALSE(exists(tm()));
  EXPECT_EQ(LogCapture::count(kInfo, kReleased), 2) << "the picture is given back all the same";
  EXPECT_TRUE(logged_in_order(
      {kReleased, kReleased, "[EXT_THM] [PLG_ERR] gst_pvr_file_write failed, file_ret = [-1]"}));
}

TEST_F(ThumbnailFile, AShortWriteFails) {
  five_gops().write();
  Faults faults;
  faults.shorten("write", 100, 3);
  expect_failure("[EXT_THM] [PLG_ERR] gst_pvr_file_write failed, file_ret = [100]");
  EXPECT_FALSE(exists(tm()));
}

TEST_F(ThumbnailFile, ANullPathFailsWithoutAMessage) {
  EXPECT_EQ(gst_thumbnail_make_recorded_frame_file(nullptr, sizes_.data(), codes_.data()), 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  expect_untouched();
}

TEST_F(ThumbnailFile, APathWithoutAnExtensionFails) {
  EXPECT_EQ(gst_thumbnail_make_recorded_frame_file("recording", sizes_.data(), codes_.data()), 0);
  EXPECT_LOGGED(kError, kNoTotal);
}

TEST_F(ThumbnailFile, AnyFailedCallLeavesNothingBehind) {
  five_gops().write();
  ASSERT_EQ(make(), 1);
  const int descriptors = open_descriptors();
  for (const char *call : {"open64", "read", "write", "lseek64", "stat64", "unlink", "link",
                           "close", "malloc", "calloc", "realloc", "valloc"}) {
    for (int nth = 1;; ++nth) {
      sizes_.fill(77);
      codes_.fill(88);
      gint32 result;
      int calls;
      {
        Faults faults;
        faults.answer("sync", 0);  // hundreds of them would only cost time
        faults.answer("fsync", 0);
        faults.fail(call, EIO, nth);
        result = make();
        calls = faults.count(call);
      }
      ASSERT_THAT(result, AllOf(Ge(0), Le(1)));
      if (result == 0) expect_untouched();
      if (exists(tm())) {
        EXPECT_EQ(read_file(tm()), pictures({0, 1, 2, 3, 4})) << call << " " << nth;
      }
      EXPECT_EQ(open_descriptors(), descriptors) << call << " " << nth;
      EXPECT_TRUE(registry_is_empty()) << call << " " << nth;
      if (calls < nth) break;  // every call has had its turn
    }
  }
}

TEST_F(ThumbnailFile, OfTwoRecordingsAreMadeAtOnce) {
  five_gops().write();
  RecordingBuilder other(dir_.file("other"));
  for (int i = 5; i < 10; ++i) other.gop(1000, iframe(i));
  other.write();
  const std::string path = other.stream_path();
  gint32 other_result = 0;
  std::thread second([&] {
    for (int i = 0; i < 10; ++i) {
      other_result = gst_thumbnail_make_recorded_frame_file(path.c_str(), nullptr, nullptr);
    }
  });
  for (int i = 0; i < 10; ++i) EXPECT_EQ(make(), 1);
  second.join();
  EXPECT_EQ(other_result, 1);
  EXPECT_EQ(read_file(thm()), pictures({0, 1, 2, 3, 4}));
  EXPECT_EQ(read_file(other.path(".thm")), pictures({5, 6, 7, 8, 9}));
}

}  // namespace
}  // namespace plexa_test
