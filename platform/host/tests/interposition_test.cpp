// interposition_test.cpp - a program's own definition of a service wins over the library's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "dlog.h"
#include "plexa_platform_host.h"
#include "ppi_pvr_control.h"

namespace {
std::vector<std::string> g_formats;
}

int __dlog_print(int, int, const char *, const char *format, ...) {
  g_formats.emplace_back(format);
  return 0;
}

namespace {

TEST(InterpositionTest, TheLibrarysOwnMessagesGoToTheProgramsLog) {
  const int fd = memfd_create("interposition", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(fd, 10000), 0);
  const pvr_truncate_range_s request = {5000, 10000, "some.kvf"};
  EXPECT_EQ(ppi_pvr_control_file_truncate_range(fd, &request), 0);
  close(fd);
  EXPECT_THAT(g_formats, testing::ElementsAre(testing::HasSubstr("removed bytes")));
}

}  // namespace
