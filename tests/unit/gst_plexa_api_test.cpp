// The public entry for thumbnails, and the requests that go through to the platform.
#include "gst-plexa/gst_plexa_api.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "log_capture.h"
#include "recording_builder.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PlatformRequestTest : public ::testing::Test {
 protected:
  PlatformRequestTest() {
    fake_platform().reset();
    LogCapture::clear();
  }
  static std::vector<std::string> &calls() { return fake_platform().calls; }
};

TEST_F(PlatformRequestTest, SetsTheClockRegister) {
  EXPECT_EQ(gst_plexa_api_set_tsd_pwm_reg(4000000000u), 0);
  EXPECT_THAT(calls(), ElementsAre("demux_control_CreateHandle(0, 2050, -1)",
                                   "demux_control_setPWMInfo(demux, 7, 4000000000)",
                                   "demux_control_DestroyHandle(demux, 7)"));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_API] demux_control_setPWMInfo regvalue[4000000000], ret[0]"));
}

TEST_F(PlatformRequestTest, GetsTheClockRegister) {
  fake_platform().pwm_value = 4000000000u;
  guint32 value = 0;
  EXPECT_EQ(gst_plexa_api_get_tsd_pwm_reg(&value), 0);
  EXPECT_EQ(value, 4000000000u);
  EXPECT_THAT(calls(), ElementsAre("demux_control_CreateHandle(0, 2050, -1)",
                                   "demux_control_getPWMInfo(demux, 7)",
                                   "demux_control_DestroyHandle(demux, 7)"));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_API] demux_control_getPWMInfo regvalue[4000000000], ret[0]"));
}

TEST_F(PlatformRequestTest, GetsTheSystemTimeClockWithoutAWord) {
  fake_platform().stc_value = 0x1FFFFFFFFull;
  guint64 stc = 0;
  EXPECT_EQ(gst_plexa_api_get_tsd_stc(&stc), 0);
  EXPECT_EQ(stc, 0x1FFFFFFFFull);
  EXPECT_THAT(calls(), ElementsAre("demux_control_CreateHandle(0, 2050, -1)",
                                   "demux_control_getSTC(demux, 7)",
                                   "demux_control_DestroyHandle(demux, 7)"));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(PlatformRequestTest, ClosesTheDemultiplexerAlsoWhenTheCallFails) {
  fake_platform().demux_result = -5;
  guint32 value = 0;
  guint64 stc = 0;
  EXPECT_EQ(gst_plexa_api_set_tsd_pwm_reg(1), -5);
  EXPECT_EQ(gst_plexa_api_get_tsd_pwm_reg(&value), -5);
  EXPECT_EQ(gst_plexa_api_get_tsd_stc(&stc), -5);
  EXPECT_EQ(std::count(calls().begin(), calls().end(), "demux_control_DestroyHandle(demux, 7)"), 3);
  EXPECT_LOGGED(kError, "[EXT_API] demux_control_setPWMInfo regvalue[1], ret[-5]");
  EXPECT_LOGGED(kError, "[EXT_API] demux_control_getPWMInfo regvalue[1], ret[-5]");
}

TEST_F(PlatformRequestTest, AsksTheTunerForTheAntenna) {
  fake_platform().antenna_status = 0x1F;
  gint32 combination = -1;
  EXPECT_EQ(gst_plexa_api_get_tuner_Antenna_status(&combination), 0);
  EXPECT_EQ(combination, 0x0F);
  EXPECT_THAT(calls(), ElementsAre("tuner_control_CreateHandle(196608, 0, -1, 524288)",
                                   "tuner_control_getAntennaConnectionStatus(tuner, 255)",
                                   "tuner_control_DestroyHandle(tuner)"));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_API] tuner_control_getAntennaConnectionStatus antenna_status[31], "
                          "ret[0]",
                          "[EXT_API] combination values [15]"));
}

TEST_F(PlatformRequestTest, MakesTheAntennaCombinationOfTheFourLowBits) {
  const struct {
    int raw;
    gint32 combination;
  } rows[] = {{0, 0},       {1, 1},          {8, 8},           {0x0F, 0x0F}, {0x10, 0},
              {0xFE, 0x0E}, {0xFF, 255},     {0x1FF, 255},     {0x100, 0},   {-1, 255},
              {-2, 0x0E},   {0x7FFFFF00, 0}, {0x7FFFFFFF, 255}};
  for (const auto &row : rows) {
    fake_platform().antenna_status = row.raw;
    gint32 combination = -1;
    gst_plexa_api_get_tuner_Antenna_status(&combination);
    EXPECT_EQ(combination, row.combination) << "raw status " << row.raw;
  }
}

TEST_F(PlatformRequestTest, AnAntennaStatusThatIsLeftUntouchedIs255) {
  fake_platform().tuner_result = -3;
  gint32 combination = -1;
  EXPECT_EQ(gst_plexa_api_get_tuner_Antenna_status(&combination), -3);
  EXPECT_EQ(combination, 255);
  EXPECT_EQ(calls().back(), "tuner_control_DestroyHandle(tuner)");
  EXPECT_LOGGED(kError,
                "[EXT_API] tuner_control_getAntennaConnectionStatus antenna_status[255], ret[-3]");
  EXPECT_LOGGED(kError, "[EXT_API] combination values [255]");
}

TEST_F(PlatformRequestTest, AsksTheTunerForTheSignal) {
  fake_platform().signal_status = 1;
  gint32 state = -1;
  EXPECT_EQ(gst_plexa_api_get_tuner_signal_status(&state), 0);
  EXPECT_EQ(state, 1);
  EXPECT_THAT(calls(), ElementsAre("tuner_control_CreateHandle(196608, 0, -1, 524288)",
                                   "tuner_control_getDigitalSignalStatus(tuner, 2)",
                                   "tuner_control_DestroyHandle(tuner)"));
  EXPECT_THAT(
      LogCapture::messages(kError),
      ElementsAre("[EXT_API] tuner_control_getDigitalSignalStatus signal_status[1], ret[0]"));
}

TEST_F(PlatformRequestTest, KnowsTwoSignalStatesAndCallsTheRestTwo) {
  const struct {
    int raw;
    gint32 state;
  } rows[] = {{0, 0}, {1, 1}, {2, 2}, {5, 2}, {-1, 2}};
  for (const auto &row : rows) {
    fake_platform().signal_status = row.raw;
    gint32 state = -1;
    gst_plexa_api_get_tuner_signal_status(&state);
    EXPECT_EQ(state, row.state) << "raw status " << row.raw;
  }
  EXPECT_LOGGED(kError, "[EXT_API] tuner_control_getDigitalSignalStatus signal_status[5], ret[0]");
}

TEST_F(PlatformRequestTest, ASignalStatusThatIsLeftUntouchedIsTwo) {
  fake_platform().tuner_result = -3;
  gint32 state = -1;
  EXPECT_EQ(gst_plexa_api_get_tuner_signal_status(&state), -3);
  EXPECT_EQ(state, 2);
  EXPECT_EQ(calls().back(), "tuner_control_DestroyHandle(tuner)");
}

TEST_F(PlatformRequestTest, SetsTheEmergencyWarningFrequency) {
  fake_platform().tuner_result = 11;
  EXPECT_EQ(gst_plexa_api_set_tuner_ewbs_freq(-473143), 11);
  EXPECT_THAT(calls(), ElementsAre("tuner_control_CreateHandle(196608, 0, -1, 2)",
                                   "tuner_control_setEwbsFrequency(tuner, -473143)",
                                   "tuner_control_DestroyHandle(tuner)"));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_API] tuner_control_setEwbsFrequency freq[-473143], ret[11]"));
}

TEST_F(PlatformRequestTest, SetsTheEmergencyWarningPowerModeWithoutAWord) {
  fake_platform().tv_system_result = 4;
  EXPECT_EQ(gst_plexa_api_set_EWBS_pm_mode(3), 4);
  EXPECT_THAT(calls(), ElementsAre("tv_system_set_EWBS_pm_mode(3)"));
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST(ThumbnailEntryTest, RefusesANullPath) {
  LogCapture::clear();
  guint32 sizes[5] = {9, 9, 9, 9, 9};
  EXPECT_EQ(gst_plexa_api_make_thumbnail_file(nullptr, sizes, nullptr), 0);
  EXPECT_LOGGED(kError, "[EXT_API] [PLG_ERR] kvf_file_name is NULL");
  EXPECT_EQ(LogCapture::lines().size(), 1u);
  EXPECT_THAT(sizes, Each(9u));
}

TEST(ThumbnailEntryTest, FailsAsTheThumbnailModuleDoes) {
  LogCapture::clear();
  const TempDir dir;
  EXPECT_EQ(gst_plexa_api_make_thumbnail_file(dir.file("none.kvf").c_str(), nullptr, nullptr), 0);
  EXPECT_LOGGED(kError, "[EXT_THM] [PLG_ERR] gst_thumbnail_get_total_recorded_time failed");
}

TEST(ThumbnailEntryTest, HandsOverThePathAndBothArrays) {
  const TempDir dir;
  // A sequence header, a picture header of type I, and one slice.
  const Bytes picture = {0, 0, 1, 0xB3, 1, 2, 3, 4, 5, 6,    7,    8,    0,    0,
                         1, 0, 0, 8,    0, 0, 0, 0, 1, 0x01, 0x55, 0x55, 0x55, 0x55};
  RecordingBuilder recording(dir.file("rec"));
  for (int i = 0; i < 10; ++i) recording.gop(1000, packetise(0x100, pes(0xE0, picture)));
  recording.write();

  guint32 sizes[5] = {};
  gint32 codes[5] = {-9, -9, -9, -9, -9};
  EXPECT_EQ(gst_plexa_api_make_thumbnail_file(recording.stream_path().c_str(), sizes, codes), 1)
      << LogCapture::dump();
  EXPECT_THAT(sizes, Each(picture.size()));
  EXPECT_THAT(codes, Each(0));
  EXPECT_TRUE(exists(recording.path(".tm")));
}

}  // namespace
}  // namespace plexa_test
