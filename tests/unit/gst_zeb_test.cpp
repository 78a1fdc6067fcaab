// The library's own box detection: no box, and the board type from the platform's year string.
#include "gst-plexa/gst_zeb.h"

#include <gmock/gmock.h>

#include "fake_platform.h"
#include "log_capture.h"
#include "system_info.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;

class ZebTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_platform().reset();
    LogCapture::clear();
  }

  guint32 board_type_of(const std::string &year) {
    fake_platform().tv_year = year;
    return gst_zeb_get_board_type();
  }
};

struct Board {
  const char *year;
  guint32 type;
  int priority;
  const char *message;
};

class BoardTest : public ZebTest, public ::testing::WithParamInterface<Board> {};

TEST_P(BoardTest, TheFirstFourBytesOfTheYearDecide) {
  EXPECT_EQ(board_type_of(GetParam().year), GetParam().type);
  EXPECT_EQ(fake_platform().system_info_key, SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR);
  EXPECT_THAT(
      LogCapture::messages(),
      ElementsAre(std::string("[EXT_ZEB] string = [") + GetParam().year + "]", GetParam().message));
  EXPECT_LOGGED(kInfo, std::string("[EXT_ZEB] string = [") + GetParam().year + "]");
  EXPECT_LOGGED(GetParam().priority, GetParam().message);
}

constexpr char kTalm[] = "[EXT_ZEB] ZEB_BOARD_TYPE_TALM";
constexpr char kVern[] = "[EXT_ZEB] ZEB_BOARD_TYPE_VERN";
constexpr char kWisp[] = "[EXT_ZEB] ZEB_BOARD_TYPE_WISP";
constexpr char kNone[] = "[EXT_ZEB] [PLG_ERR] ZEB_BOARD_TYPE_NONE";

INSTANTIATE_TEST_SUITE_P(
    Years, BoardTest,
    ::testing::Values(Board{"2012", 1, kInfo, kTalm}, Board{"2013", 2, kInfo, kVern},
                      Board{"2014", 3, kInfo, kWisp}, Board{"2013_ECHO", 2, kInfo, kVern},
                      Board{"20145", 3, kInfo, kWisp}, Board{"2015", 4, kError, kNone},
                      Board{"2011", 4, kError, kNone}, Board{"201", 4, kError, kNone},
                      Board{"", 4, kError, kNone}, Board{" 2013", 4, kError, kNone}));

TEST_F(ZebTest, TheBoardTypesHaveTheirNames) {
  EXPECT_EQ(ZEB_BOARD_TYPE_TALM, 1u);
  EXPECT_EQ(ZEB_BOARD_TYPE_VERN, 2u);
  EXPECT_EQ(ZEB_BOARD_TYPE_WISP, 3u);
  EXPECT_EQ(ZEB_BOARD_TYPE_NONE, 4u);
}

TEST_F(ZebTest, AFailedQuestionForTheYearGivesNone) {
  fake_platform().system_info_result = -7;
  EXPECT_EQ(gst_zeb_get_board_type(), ZEB_BOARD_TYPE_NONE);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_ZEB] [PLG_ERR] system_info_get_value_string: "
                          "SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR failed, ret = [-7]"));
  EXPECT_EQ(LogCapture::lines().size(), 1u);
}

// The string that comes with the failure is freed: the leak check of the sanitizer build sees it.
TEST_F(ZebTest, AFailureThatComesWithAStringIsAFailureAllTheSame) {
  fake_platform().system_info_result = 1;
  EXPECT_EQ(board_type_of("2013"), ZEB_BOARD_TYPE_NONE);
  EXPECT_EQ(LogCapture::lines().size(), 1u);
}

TEST_F(ZebTest, SuccessWithoutAStringGivesNone) {
  EXPECT_EQ(gst_zeb_get_board_type(), ZEB_BOARD_TYPE_NONE);
  EXPECT_LOGGED(kError,
                "[EXT_ZEB] [PLG_ERR] system_info_get_value_string: "
                "SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR failed, ret = [0]");
}

TEST_F(ZebTest, TheBoxIsNeverReportedAsConnected) { EXPECT_EQ(gst_zeb_is_connected(), 0); }

TEST_F(ZebTest, WithoutAConnectionTheBoardTypeIsNotRead) {
  fake_platform().tv_year = "2013";
  EXPECT_EQ(gst_zeb_is_need_socket(), 0);
  EXPECT_EQ(fake_platform().system_info_calls, 0);
  EXPECT_TRUE(LogCapture::lines().empty());
}

}  // namespace
}  // namespace plexa_test
