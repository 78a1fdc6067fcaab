// One coded picture of a recording, by time.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <numeric>

#include "faults.h"
#include "gst-plexa/gst_thumbnail_common.h"
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

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr uint16_t kVideo = 0x100;
constexpr uint16_t kAudio = 0x101;
constexpr gint32 kLargeEnough = G_MAXINT32;  // an average with which no I-frame is too large

constexpr char kNotValid[] = "[EXT_THM] [PLG_ERR] frameData.isValid == FALSE";
constexpr char kReadError[] =
    "[EXT_THM] [PLG_ERR] _gst_thumbnail_read_frame_ts:Read Frame TS error";
constexpr char kNoPicture[] = "[EXT_THM] [PLG_ERR] _gst_thumbnail_get_iframe_es failed";
constexpr char kNoBuffer[] = "[EXT_THM] [PLG_ERR] temp_buf is NULL";
constexpr char kNoInit[] = "[EXT_THM] [PLG_ERR] g mutex new lock fail!";

// A picture that fills the given number of packets, and tells which picture it is.
Bytes data_of(int packets, uint8_t salt) {
  Bytes data(static_cast<size_t>(packets) * 184 - 14);
  std::iota(data.begin(), data.end(), salt);
  return data;
}
Bytes iframe(int packets, uint8_t salt) {
  return packetise(kVideo, pes(0xe0, data_of(packets, salt), 90000));
}

std::string moved(int from, int to) {
  return "[EXT_THM] get next gop iframe[timecode:" + std::to_string(from) +
         " nexttimecode:" + std::to_string(to) + "]";
}

class RecordedFrame : public ::testing::Test {
 protected:
  void SetUp() override {
    LogCapture::clear();
    init_calls_until_failure = 0;
  }
  void TearDown() override {
    gst_thumbnail_release_buffer(&buffer_);
    EXPECT_TRUE(registry_is_empty());
  }

  // Three GOPs of a second, of 4, 3 and 5 packets.
  RecordingBuilder &three_gops() {
    rec_.gop(1000, iframe(4, 10)).gop(1000, iframe(3, 20)).gop(1000, iframe(5, 30));
    return rec_;
  }
  gint32 get(gint32 time, gint32 average = kLargeEnough) {
    gst_thumbnail_release_buffer(&buffer_);
    buffer_ = nullptr;
    LogCapture::clear();
    const std::string path = rec_.stream_path();
    return gst_thumbnail_get_recorded_frame(path.c_str(), time, &buffer_, &size_, &code_, average);
  }
  Bytes picture(gint32 time, gint32 average = kLargeEnough) {
    EXPECT_EQ(get(time, average), 1) << LogCapture::dump();
    return buffer_ == nullptr ? Bytes{} : Bytes(buffer_, buffer_ + size_);
  }
  void expect_failure(gint32 time, const std::string &message) {
    EXPECT_NE(get(time), 1);
    EXPECT_LOGGED(kError, message);
    expect_untouched();
  }
  void expect_untouched() {
    EXPECT_EQ(buffer_, nullptr);
    EXPECT_EQ(size_, 77u);
    EXPECT_EQ(code_, 88);
  }
  // Which of a run's calls with this name has this number (bytes, an offset).
  int nth_call(const std::string &call, long long number) {
    int seen = 0;
    int nth = 0;
    Faults faults;
    faults.watch(call, [&](int, const char *, long long value) {
      ++seen;
      if (value == number && nth == 0) nth = seen;
    });
    get(0);
    gst_thumbnail_release_buffer(&buffer_);
    buffer_ = nullptr;
    size_ = 77;
    code_ = 88;
    return nth;
  }

  TempDir dir_;
  RecordingBuilder rec_{dir_.file("rec")};
  guint8 *buffer_ = nullptr;
  guint32 size_ = 77;
  gint32 code_ = 88;
};

TEST_F(RecordedFrame, IsTheIframeOfTheGopAtTheTime) {
  three_gops().codec(3).write();
  EXPECT_EQ(picture(0), data_of(4, 10));
  EXPECT_EQ(picture(999), data_of(4, 10));
  EXPECT_EQ(picture(1000), data_of(3, 20));
  EXPECT_EQ(picture(2999), data_of(5, 30));
  EXPECT_EQ(code_, 3);
}

TEST_F(RecordedFrame, BehindTheEndIsTheLastIframe) {
  three_gops().write();
  EXPECT_EQ(picture(1000000), data_of(5, 30));
}

TEST_F(RecordedFrame, LogsItsWay) {
  three_gops().codec(4).write();
  ASSERT_EQ(get(1000), 1);
  const std::string address = [this] {
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<void *>(buffer_));
    return std::string(text);
  }();
  const std::vector<std::string> expected = {
      "[EXT_THM] [THM_IN]filepath = [" + rec_.stream_path() + "], time = [1000]",
      "[EXT_THM] indexpath = [" + rec_.index_path() + "]",
      "[EXT_THM] stream_offset = [752], next_gop_frame_offset = [1316], pts = [90000], mdb_offset "
      "= "
      "[954464]\nlength = [564], timecode = [1000], next_gop_timecode = [2000], "
      "last_frame_timecode "
      "= [2000]\nchannel_index = [0], video_pid = [256], video_format = [9], has_seq_header = [1]",
      "[EXT_THM] channel info: video_pid = [256], audio_pid = [257], pcr_pid = [258], "
      "video_encode_type = [4]",
      "[EXT_THM] ts_size = [564], frame_data.length = [564], video_pid = [256], "
      "video_encode_type=[4]",
      "[EXT_THM] packet_count = [3], video_packet_count = [3], ts_size = [564]",
      "[EXT_THM] [IN]ts size = [564]",
      "[EXT_THM] [OUT]es size = [538]",
      "[EXT_THM] [THM_OUT]gst_thumbnail_get_recorded_frame succeeded, thumbnail buffer = [" +
          address + "], size = [538], code_id = [4]"};
  EXPECT_TRUE(logged_in_order(expected));
  for (const std::string &line : expected) EXPECT_LOGGED(kInfo, line);
  EXPECT_THAT(LogCapture::messages(kError), Not(Contains(HasSubstr("[EXT_THM]"))));
}

TEST_F(RecordedFrame, ReadsTheStreamDirectlyAndTheIndexThroughTheCache) {
  three_gops().write();
  ASSERT_EQ(get(0), 1);
  const std::string how = ", type=[0](0:Normal, 1:Timeshift), ext=[";
  const std::string rest = "](0:Stream, 1:Index), append_mode=[0], ext=[0] (0:normal, 1: atsc3.0)";
  EXPECT_TRUE(logged_in_order(
      {"[EXT_FMG] file_path=[" + rec_.stream_path() +
           "], permission=[1](0:Write, 1:Read), io=[1](0:BufferIO, 1:DirectIO)" + how + "0" + rest,
       "[EXT_FMG] file_path=[" + rec_.index_path() +
           "], permission=[1](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO)" + how + "1" +
           rest}));
}

TEST_F(RecordedFrame, OtherPacketsAreLeftOut) {
  const Bytes data = data_of(3, 5);
  const Bytes video = packetise(kVideo, pes(0xe0, data, 1));
  const Bytes first(video.begin(), video.begin() + 188);
  const Bytes others(video.begin() + 188, video.end());
  rec_.gop(1000, join({first, ts_packet(kAudio, {}), ts_packet(0x1fff, {}), others})).write();
  EXPECT_EQ(picture(0), data);
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [5], video_packet_count = [3], ts_size = [564]");
}

TEST_F(RecordedFrame, TheVideoPidIsTheChannelsNotTheGops) {
  three_gops().change([](pvr_gop_info_s &gop) { gop.video_pid = 0x77; }).write();
  EXPECT_EQ(picture(2000), data_of(5, 30));
}

TEST_F(RecordedFrame, AnH264FrameEndsWithItsUnit) {
  const Bytes frame = join({h264_sps(), h264_slice(5, 0, 4, {}), data_of(1, 1)});
  const Bytes stretch =
      join({packetise(kVideo, pes(0xe0, frame, 1)), packetise(kVideo, pes(0xe0, frame, 2))});
  rec_.codec(1).gop(1000, stretch).write();
  EXPECT_EQ(picture(0), frame);
  EXPECT_EQ(code_, 1);
}

TEST_F(RecordedFrame, ComesOutOfALegacyIndexToo) {
  three_gops().codec(2).legacy().write();
  EXPECT_EQ(picture(1500), data_of(3, 20));
  EXPECT_EQ(code_, 2);
}

TEST_F(RecordedFrame, ComesOutOfAGrowingRecording) {
  three_gops().finished(false).write();
  EXPECT_EQ(picture(2000), data_of(5, 30));
}

// ---- which GOP

TEST_F(RecordedFrame, AnIframeOfTwiceTheAverageGivesWay) {
  three_gops().write();
  EXPECT_EQ(picture(0, 376), data_of(3, 20)) << "752 / 376 is 2";
  EXPECT_LOGGED(kInfo, moved(0, 1000));
  EXPECT_EQ(picture(0, 377), data_of(4, 10)) << "752 / 377 is 1";
  EXPECT_NOT_LOGGED(kInfo, moved(0, 1000));
}

TEST_F(RecordedFrame, AnEmptyIframeGivesWay) {
  rec_.gop(1000, {}, ts_packet(kAudio, {})).gop(1000, iframe(3, 20)).write();
  EXPECT_EQ(picture(0), data_of(3, 20));
  EXPECT_LOGGED(kInfo, moved(0, 1000));
}

TEST_F(RecordedFrame, TheFourthIframeIsTakenWhateverItIs) {
  for (uint8_t i = 0; i < 5; ++i) rec_.gop(1000, iframe(4 + i, i));
  rec_.write();
  EXPECT_EQ(picture(0, 188), data_of(7, 3));
  EXPECT_TRUE(logged_in_order({moved(0, 1000), moved(1000, 2000), moved(2000, 3000)}));
  EXPECT_NOT_LOGGED(kInfo, moved(3000, 4000));
}

TEST_F(RecordedFrame, TheLastIframeStaysWhenThereIsNoNextOne) {
  rec_.gop(1000, iframe(4, 1)).write();
  EXPECT_EQ(picture(0, 1), data_of(4, 1));
  EXPECT_EQ(LogCapture::count(kInfo, moved(0, 1000)), 3);
}

TEST_F(RecordedFrame, WithoutAnAverageOnlyEmptyIframesGiveWay) {
  rec_.gop(1000, {}).gop(1000, iframe(3, 20)).write();
  for (const gint32 average : {0, -1, G_MININT32}) {
    EXPECT_EQ(picture(0, average), data_of(3, 20)) << average;
    EXPECT_NOT_LOGGED(kInfo, moved(1000, 2000));
  }
}

TEST_F(RecordedFrame, FourEmptyIframesFailWithoutAnAllocationFailure) {
  for (int i = 0; i < 4; ++i) rec_.gop(1000, {}, ts_packet(kAudio, {}));
  rec_.write();
  expect_failure(0, kNoPicture);
  EXPECT_NOT_LOGGED(kError, kNoBuffer);
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [0], video_packet_count = [0], ts_size = [0]");
  EXPECT_LOGGED(kInfo, "[EXT_THM] [OUT]es size = [0]");
}

TEST_F(RecordedFrame, AMoveThatFindsNothingFails) {
  rec_.gop(1000, {}).change([](pvr_gop_info_s &gop) { gop.next_gop_first_time = 0x80000000u; });
  rec_.write();
  expect_failure(0, kNotValid);
  EXPECT_EQ(LogCapture::count(kError, kNotValid), 1);
}

// ---- what the index says against what the stream holds

TEST_F(RecordedFrame, ALengthBeyondTheStreamsEndIsBoundedBeforeAnythingIsAllocated) {
  three_gops().change([](pvr_gop_info_s &gop) { gop.iframe_size = 11000000; }).write();
  long long largest = 0;
  {
    Faults faults;
    const auto note = [&](int, const char *, long long size) { largest = std::max(largest, size); };
    faults.watch("malloc", note);
    faults.watch("calloc", note);
    EXPECT_EQ(picture(2000), data_of(5, 30)) << "what is there";
  }
  EXPECT_LE(largest, 4096) << "the index's window is the largest";
  EXPECT_LOGGED(kInfo,
                "[EXT_THM] ts_size = [940], frame_data.length = [2068000000], video_pid = [256], "
                "video_encode_type=[0]");
}

TEST_F(RecordedFrame, ALengthThatIsNoLengthFails) {
  three_gops().change([](pvr_gop_info_s &gop) { gop.iframe_size = 12000000; }).write();
  expect_failure(2000, kNoBuffer);
}

TEST_F(RecordedFrame, AnOffsetBeyondTheStreamsEndHasNoPackets) {
  three_gops().change([](pvr_gop_info_s &gop) { gop.packet_count = 1u << 30; }).write();
  expect_failure(2000, kNoPicture);
}

TEST_F(RecordedFrame, ANegativeOffsetFails) {
  three_gops().change([](pvr_gop_info_s &gop) { gop.packet_count = ~uint64_t{0}; }).write();
  expect_failure(2000, kReadError);
}

TEST_F(RecordedFrame, OnlyWhatTheReadBringsCounts) {
  rec_.video_pid(0);  // the PID that zeros behind the data would have
  const Bytes data = data_of(4, 1);
  rec_.gop(1000, packetise(0, pes(0xe0, data, 1))).write();
  int reads_left = nth_call("read", 4096);
  ASSERT_GT(reads_left, 0);
  Faults faults;
  faults.before("read", [&] {  // the stream shrinks under the reader
    if (--reads_left != 0) return;
    ASSERT_EQ(truncate(rec_.stream_path().c_str(), 2 * 188 + 50), 0);
  });
  EXPECT_EQ(picture(0), Bytes(data.begin(), data.begin() + 2 * 184 - 14));
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [2], video_packet_count = [2], ts_size = [376]");
}

TEST_F(RecordedFrame, NoVideoPacketsFail) {
  rec_.gop(1000, ts_packet(kAudio, {})).write();
  expect_failure(0, kNoPicture);
  EXPECT_LOGGED(kInfo, "[EXT_THM] packet_count = [1], video_packet_count = [0], ts_size = [0]");
}

// ---- failures

TEST_F(RecordedFrame, AMissingStreamFails) {
  three_gops().write();
  std::remove(rec_.stream_path().c_str());
  expect_failure(0, "[EXT_THM] [PLG_ERR] kvf file open failed, fd = [-1]");
}

TEST_F(RecordedFrame, AMissingIndexFails) {
  three_gops().write();
  std::remove(rec_.index_path().c_str());
  expect_failure(0, "[EXT_THM] [PLG_ERR] mdb file open failed, fd = [-1]");
}

TEST_F(RecordedFrame, AHandleThatCannotBeMadeFails) {
  three_gops().write();
  for (const int nth : {1, 2}) {
    init_calls_until_failure = nth;
    expect_failure(0, kNoInit);
  }
}

TEST_F(RecordedFrame, APathWithoutAnExtensionFails) {
  const std::string path = "recording";
  EXPECT_NE(gst_thumbnail_get_recorded_frame(path.c_str(), 0, &buffer_, &size_, &code_, 1), 1);
  EXPECT_LOGGED(kInfo, "[EXT_THM] [THM_IN]filepath = [recording], time = [0]");
  expect_untouched();
}

TEST_F(RecordedFrame, NullArgumentsFail) {
  three_gops().write();
  const std::string path = rec_.stream_path();
  EXPECT_NE(gst_thumbnail_get_recorded_frame(nullptr, 0, &buffer_, &size_, &code_, 1), 1);
  EXPECT_NE(gst_thumbnail_get_recorded_frame(path.c_str(), 0, nullptr, &size_, &code_, 1), 1);
  EXPECT_NE(gst_thumbnail_get_recorded_frame(path.c_str(), 0, &buffer_, nullptr, &code_, 1), 1);
  EXPECT_NE(gst_thumbnail_get_recorded_frame(path.c_str(), 0, &buffer_, &size_, nullptr, 1), 1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  expect_untouched();
}

TEST_F(RecordedFrame, ATimeBeforeTheStartFails) {
  three_gops().write();
  expect_failure(-1, kNotValid);
}

TEST_F(RecordedFrame, AnIndexThatCannotBeReadAnswersNothing) {
  three_gops().write();
  write_file(rec_.index_path(), {});
  expect_failure(0, kNotValid);
  write_file(rec_.index_path(), repeat(0xff, 2000000));
  expect_failure(0, kNotValid);
  IndexBuilder().write(rec_.index_path());
  expect_failure(0, kNotValid);
}

TEST_F(RecordedFrame, AChannelThatIsNotThereFails) {
  three_gops().change([](pvr_gop_info_s &gop) { gop.index_of_channel = 4096; }).write();
  expect_failure(2000, "[EXT_THM] [PLG_ERR] get channelinfo failed");
}

TEST_F(RecordedFrame, AFailedReadFails) {
  three_gops().write();
  const int nth = nth_call("read", 4096);
  Faults faults;
  faults.fail("read", EIO, nth);
  expect_failure(0, kReadError);
}

TEST_F(RecordedFrame, AFailedSeekFails) {
  three_gops().write();
  gint32 result = 1;
  int calls = 0;
  const int nth = [&] {
    Faults faults;
    faults.watch("lseek64", [&](int, const char *, long long) { ++calls; });
    result = get(1000);
    return calls;
  }();
  ASSERT_EQ(result, 1);
  gst_thumbnail_release_buffer(&buffer_);
  buffer_ = nullptr;
  size_ = 77;
  code_ = 88;
  // The stream's own seek comes before the read's tell, look at the size and two seeks.
  Faults faults;
  faults.fail("lseek64", EIO, nth - 4);
  expect_failure(1000, kReadError);
}

TEST_F(RecordedFrame, AStreamWhoseSizeIsUnknownFails) {
  three_gops().write();
  const int last = [&] {
    Faults faults;
    get(0);
    return faults.count("stat64");
  }();
  gst_thumbnail_release_buffer(&buffer_);
  buffer_ = nullptr;
  size_ = 77;
  code_ = 88;
  Faults faults;
  faults.fail("stat64", EIO, last);
  expect_failure(0, kReadError);
}

TEST_F(RecordedFrame, WithoutMemoryForTheStretchFails) {
  three_gops().write();
  const int nth = nth_call("malloc", 4 * 188);
  ASSERT_GT(nth, 0);
  Faults faults;
  faults.fail("malloc", ENOMEM, nth);
  expect_failure(0, kNoBuffer);
}

TEST_F(RecordedFrame, WithoutMemoryForTheVideoPacketsFails) {
  three_gops().write();
  const int nth = nth_call("malloc", 4 * static_cast<long long>(sizeof(void *)));
  ASSERT_GT(nth, 0);
  Faults faults;
  faults.fail("malloc", ENOMEM, nth);
  expect_failure(0, "[EXT_THM] [PLG_ERR] video_buf is NULL");
}

TEST_F(RecordedFrame, WithoutMemoryForThePictureFails) {
  three_gops().write();
  Faults faults;
  faults.fail("realloc", ENOMEM);
  expect_failure(0, kNoPicture);
  EXPECT_LOGGED(kError, "[EXT_THM] [PLG_ERR] *es_buf is NULL");
}

TEST_F(RecordedFrame, TheFilesAreClosedBeforeThePictureIsPutTogether) {
  three_gops().write();
  static int open_at_the_filter;
  static int open_before;
  open_before = open_descriptors();
  open_at_the_filter = -1;
  const std::string path = rec_.stream_path();
  {
    Faults faults;
    faults.before("realloc", [] { open_at_the_filter = open_descriptors(); });
    ASSERT_EQ(get(0), 1);
  }
  EXPECT_EQ(open_at_the_filter, open_before);
}

TEST_F(RecordedFrame, AnyFailedCallLeavesNothingBehind) {
  three_gops().write();
  const int descriptors = open_descriptors();
  for (const char *call : {"open64", "fcntl", "realpath", "read", "lseek64", "stat64", "fsync",
                           "close", "malloc", "calloc", "realloc", "valloc"}) {
    for (int nth = 1;; ++nth) {
      buffer_ = nullptr;
      size_ = 77;
      code_ = 88;
      gint32 result;
      int calls;
      {
        Faults faults;
        faults.fail(call, EIO, nth);
        result = get(1500);
        calls = faults.count(call);
      }
      if (result == 1) {
        EXPECT_EQ(Bytes(buffer_, buffer_ + size_), data_of(3, 20)) << call << " " << nth;
        gst_thumbnail_release_buffer(&buffer_);
        buffer_ = nullptr;
      } else {
        expect_untouched();
      }
      EXPECT_EQ(open_descriptors(), descriptors) << call << " " << nth;
      EXPECT_TRUE(registry_is_empty()) << call << " " << nth;
      if (calls < nth) break;  // every call has had its turn
    }
  }
}

}  // namespace
}  // namespace plexa_test
