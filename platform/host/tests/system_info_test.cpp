// system_info_test.cpp - the model year, through the library.
#include "system_info.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

struct Answer {
  int result;
  bool has_value;
  std::string value;
};

Answer ask(int key) {
  char untouched[] = "untouched";
  char *value = untouched;
  const int result = system_info_get_value_string(key, &value);
  EXPECT_NE(value, untouched);
  const std::unique_ptr<char, decltype(&free)> owner(value, &free);
  return {result, value != nullptr, value != nullptr ? value : ""};
}

class SystemInfoTest : public testing::Test {
 protected:
  SystemInfoTest() { unsetenv("PLEXA_HOST_TV_YEAR"); }
  ~SystemInfoTest() override { unsetenv("PLEXA_HOST_TV_YEAR"); }

  static void set_year(const char *year) { setenv("PLEXA_HOST_TV_YEAR", year, 1); }
};

TEST_F(SystemInfoTest, TheYearIsTheOneOfTheEnvironment) {
  set_year("2013-late");
  const Answer answer = ask(SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR);
  EXPECT_EQ(answer.result, 0);
  EXPECT_EQ(answer.value, "2013-late");
}

TEST_F(SystemInfoTest, WithoutAYearTheCallFailsAndGivesNothing) {
  const Answer answer = ask(SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR);
  EXPECT_NE(answer.result, 0);
  EXPECT_FALSE(answer.has_value);
}

TEST_F(SystemInfoTest, AYearSetToNothingIsAnEmptyText) {
  set_year("");
  const Answer answer = ask(SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR);
  EXPECT_EQ(answer.result, 0);
  EXPECT_TRUE(answer.has_value);
  EXPECT_EQ(answer.value, "");
}

TEST_F(SystemInfoTest, AnUnknownKeyFailsAndGivesNothing) {
  set_year("2013");
  const Answer answer = ask(SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR + 1);
  EXPECT_NE(answer.result, 0);
  EXPECT_FALSE(answer.has_value);
}

TEST_F(SystemInfoTest, ANullOutPointerFails) {
  set_year("2013");
  EXPECT_NE(system_info_get_value_string(SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR, nullptr), 0);
}

}  // namespace
