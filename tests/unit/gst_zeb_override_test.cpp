// A program that has a box defines gst_zeb_is_connected() itself, and its definition is used.
#include <gmock/gmock.h>

#include "fake_platform.h"
#include "gst-plexa/gst_zeb.h"
#include "log_capture.h"

namespace {
gint32 connected = 0;
}

gint32 gst_zeb_is_connected(void) { return connected; }

namespace plexa_test {
namespace {

class ZebOverrideTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_platform().reset();
    LogCapture::clear();
    connected = 1;
  }

  gint32 need_socket_on(const std::string &year) {
    fake_platform().tv_year = year;
    return gst_zeb_is_need_socket();
  }
};

TEST_F(ZebOverrideTest, AVernBoardWithABoxNeedsTheSocket) {
  EXPECT_EQ(need_socket_on("2013"), 1);
  EXPECT_EQ(fake_platform().system_info_calls, 1);
}

TEST_F(ZebOverrideTest, AWispBoardWithABoxNeedsTheSocket) { EXPECT_EQ(need_socket_on("2014"), 1); }

TEST_F(ZebOverrideTest, ATalmBoardDoesNot) { EXPECT_EQ(need_socket_on("2012"), 0); }

TEST_F(ZebOverrideTest, AnUnknownBoardDoesNot) { EXPECT_EQ(need_socket_on("2015"), 0); }

TEST_F(ZebOverrideTest, AnyAnswerButOneIsNoConnection) {
  connected = 2;
  EXPECT_EQ(need_socket_on("2013"), 0);
  EXPECT_EQ(fake_platform().system_info_calls, 0);
}

TEST_F(ZebOverrideTest, TheAnswerIsAskedForAnewEachTime) {
  EXPECT_EQ(need_socket_on("2013"), 1);
  connected = 0;
  EXPECT_EQ(need_socket_on("2013"), 0);
}

}  // namespace
}  // namespace plexa_test
