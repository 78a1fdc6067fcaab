// A client of the box while a time-shift stream is cut under it, files when memory runs out, and
// while they are being opened.
//
// The box's parts run in this process, so that a cut, or another client, can come between any two
// of their calls.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "box_support.h"
#include "failing_new.h"
#include "gst-plexa/gst_cut_file.h"
#include "gst-plexa/gst_edit_unit.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "plexa-box/box_file.h"
#include "plexa-box/session.h"
#include "plexa_platform_host.h"
#include "temp_dir.h"

namespace {

// Called around every read that the box makes, with its number.
std::function<void(GstPvrFile *, int)> before_read;
std::function<void(GstPvrFile *, int)> behind_read;
int reads = 0;
// Called when the box has opened a file.
std::function<void()> behind_open;

}  // namespace

__attribute__((visibility("default"))) gint64 gst_pvr_file_open(GstPvrFile *file, const gchar *path,
                                                                guint32 permission, guint32 io,
                                                                guint32 type, guint32 ext,
                                                                guint32 append_mode,
                                                                guint32 atsc3) {
  static const auto next =
      reinterpret_cast<decltype(&gst_pvr_file_open)>(dlsym(RTLD_NEXT, "gst_pvr_file_open"));
  const gint64 result = next(file, path, permission, io, type, ext, append_mode, atsc3);
  if (behind_open) behind_open();
  return result;
}

__attribute__((visibility("default"))) gint64 gst_pvr_file_read(GstPvrFile *file, void *buffer,
                                                                gint64 size) {
  static const auto next =
      reinterpret_cast<decltype(&gst_pvr_file_read)>(dlsym(RTLD_NEXT, "gst_pvr_file_read"));
  ++reads;
  if (before_read) before_read(file, reads);
  const gint64 result = next(file, buffer, size);
  if (behind_read) behind_read(file, reads);
  return result;
}

namespace plexa_test {
namespace {

using plexa::box::BoxFile;
using plexa::box::Root;
using plexa::box::Session;

constexpr int64_t kUnit = GST_EDIT_UNIT_SIZE;
constexpr int64_t kUnits = 32;
constexpr uint32_t kMostInAPacket = 1966080 - 32;
constexpr std::chrono::seconds kPatience{5};

class PlexaBoxCutTest : public ::testing::TestWithParam<guint8> {
 protected:
  PlexaBoxCutTest() {
    plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
    write_file(dir_.file("film.kvf"), counting_bytes(kUnits * kUnit));
    gst_shared_cut_info_remove();
    reads = 0;
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client_ = ends[0];
    box_ =
        std::thread([this, socket = ends[1]] { Session(socket, root_, settings_, "test").run(); });
  }
  ~PlexaBoxCutTest() override {
    ::close(client_);
    box_.join();
    before_read = behind_read = nullptr;
    gst_shared_cut_info_remove();
  }

  // What a cut does to the file and to a reader, at a moment of the test's choosing.
  void cut(GstPvrFile *file, int64_t units) {
    const int64_t size = units * kUnit;
    const gint64 position = gst_cut_file_io_seek(file, 0, SEEK_CUR);
    EXPECT_EQ(gst_edit_unit_do_partial_delete(dir_.file("film.kvf").c_str(), 0, size), size);
    GstSharedCutInfo *const info = gst_shared_cut_info_get();
    gst_shared_cut_info_set_total_cutoffset(info,
                                            gst_shared_cut_info_get_total_cutoffset(info) + size);
    gst_cut_file_io_seek(file, std::max<gint64>(position - size, 0), SEEK_SET);
  }
  void cut_before_read(int number, int64_t units) {
    before_read = [=, this](GstPvrFile *file, int read) {
      if (read == number) cut(file, units);
    };
  }

  void open() {
    EXPECT_EQ(ask(open_request("/film.kvf", {1, GetParam(), 1, 0})).command,
              plexa::COMMAND_TYPE_IO_OK);
  }
  header_data_s ask(const Bytes &request) {
    EXPECT_EQ(::send(client_, request.data(), request.size(), 0), std::ssize(request));
    header_data_s header{};
    EXPECT_EQ(::recv(client_, &header, sizeof header, MSG_WAITALL), 28);
    return header;
  }
  Bytes rest_of(const header_data_s &header) {
    Bytes rest(static_cast<size_t>(header.packet_size) - sizeof header);
    EXPECT_EQ(::recv(client_, rest.data(), rest.size(), MSG_WAITALL), std::ssize(rest));
    return rest;
  }
  Bytes read(uint32_t size) {
    Bytes data;
    uint32_t announced = 0;
    for (header_data_s header = ask(read_request(size));; header = ask({})) {
      const Bytes rest = rest_of(header);
      if (header.command != plexa::COMMAND_TYPE_READ || header.is_job_stopped != 0) return data;
      if (data.empty()) std::memcpy(&announced, rest.data(), sizeof announced);
      data.insert(data.end(), rest.begin() + 4, rest.end());
      if (data.size() >= announced) return data;
    }
  }
  int64_t tell() { return ask(bare_request(plexa::COMMAND_TYPE_TELL)).lld_return; }
  // The stream's bytes from a place on.
  static Bytes stream(int64_t size, int64_t from = 0) {
    return counting_bytes(static_cast<size_t>(size), static_cast<size_t>(from));
  }

 private:
  TempDir dir_;
  const Root root_{dir_.path()};
  const plexa::box::Settings settings_{.patience = kPatience};
  int client_ = -1;
  std::thread box_;
};

INSTANTIATE_TEST_SUITE_P(BufferedAndDirect, PlexaBoxCutTest, ::testing::Values(0, 1));

TEST_P(PlexaBoxCutTest, AReadThatFitsIntoAPacketIsOneReadOfTheFile) {
  cut_before_read(2, 25);
  open();
  EXPECT_TRUE(read(static_cast<uint32_t>(kUnit)) == stream(kUnit));
  EXPECT_EQ(reads, 1);
  EXPECT_TRUE(read(1000) == stream(1000, 25 * kUnit));
}

TEST_P(PlexaBoxCutTest, ALongerReadGoesOnBehindACutThatDoesNotReachIt) {
  cut_before_read(2, 5);
  open();
  EXPECT_TRUE(read(4000000) == stream(4000000));
  EXPECT_EQ(tell(), 4000000);
}

TEST_P(PlexaBoxCutTest, ALongerReadStopsWhereACutTakesWhatComesNext) {
  cut_before_read(2, 25);
  open();
  EXPECT_TRUE(read(4000000) == stream(kMostInAPacket));
  EXPECT_EQ(tell(), 25 * kUnit);
  EXPECT_TRUE(read(1000) == stream(1000, 25 * kUnit));
}

// Too late for what has just been read; but that cannot be told from a cut before it.
TEST_P(PlexaBoxCutTest, ALongerReadStopsAlsoWhereTheCutComesBehindAPiece) {
  behind_read = [this](GstPvrFile *file, int read) {
    if (read == 2) cut(file, 25);
  };
  open();
  EXPECT_TRUE(read(4000000) == stream(kMostInAPacket));
  EXPECT_EQ(tell(), 25 * kUnit);
  EXPECT_TRUE(read(1000) == stream(1000, 25 * kUnit));
}

TEST_P(PlexaBoxCutTest, ACutBeforeTheFirstPieceLeavesOneRangeToo) {
  cut_before_read(1, 15);
  open();
  EXPECT_TRUE(read(4000000) == stream(kMostInAPacket, 15 * kUnit));
  EXPECT_TRUE(read(1000) == stream(1000, 15 * kUnit + kMostInAPacket));
}

// ---- Files that are being opened ----

header_data_s answer_to(const Bytes &request, const Root &root) {
  int ends[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  EXPECT_EQ(::send(ends[0], request.data(), request.size(), 0), std::ssize(request));
  ::shutdown(ends[0], SHUT_WR);
  Session(ends[1], root, {kPatience, false}, "test").run();
  header_data_s answer{};
  EXPECT_EQ(::recv(ends[0], &answer, sizeof answer, MSG_WAITALL), 28);
  ::close(ends[0]);
  return answer;
}

TEST(PlexaBoxOpenTest, AFileThatIsBeingOpenedIsNotRemoved) {
  plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
  const TempDir dir;
  const Root root(dir.path());
  const Bytes removal = remove_request("/film.kvf");
  int32_t answer = 0;
  behind_open = [&] { answer = answer_to(removal, root).command; };
  BoxFile file(kPatience);
  EXPECT_EQ(file.open(dir.file("film.kvf"), {0, 0, 0, 0}, 0), 1);
  behind_open = nullptr;
  EXPECT_EQ(answer, plexa::COMMAND_TYPE_IO_NG);
  EXPECT_EQ(::access(dir.file("film.kvf").c_str(), F_OK), 0);
  EXPECT_EQ(file.close(), 1);
  EXPECT_EQ(answer_to(removal, root).command, plexa::COMMAND_TYPE_IO_OK);
  EXPECT_NE(::access(dir.file("film.kvf").c_str(), F_OK), 0);
}

TEST(PlexaBoxOpenTest, AFileThatCouldNotBeOpenedIsNotHeldOpen) {
  plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
  const TempDir dir;
  BoxFile file(kPatience);
  EXPECT_EQ(file.open(dir.file("film.kvf"), {1, 0, 0, 0}, 0), -1);
  write_file(dir.file("film.kvf"), {1});
  EXPECT_EQ(answer_to(remove_request("/film.kvf"), Root(dir.path())).command,
            plexa::COMMAND_TYPE_IO_OK);
}

// ---- Memory that runs out ----

class PlexaBoxMemoryTest : public ::testing::Test {
 protected:
  PlexaBoxMemoryTest() { plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF); }
  static gint64 open(BoxFile &file, const std::string &path) {
    return file.open(path, {1, 1, 1, 0}, 0);
  }
  TempDir dir_;
};

// Whichever allocation fails: the account of what is open is right afterwards.
TEST_F(PlexaBoxMemoryTest, AnOpenWithoutMemoryLeavesRoomForTheNext) {
  const std::string one = dir_.file("a-name-that-takes-memory-of-its-own-1.kvf");
  const std::string other = dir_.file("a-name-that-takes-memory-of-its-own-2.kvf");
  write_file(one, {1});
  write_file(other, {1});
  int failed = 0;
  for (bool has_failed = true; has_failed; ++failed) {
    BoxFile file(kPatience);
    fail_new_after(failed);
    try {
      open(file, one);
    } catch (const std::bad_alloc &) {
    }
    file.close();
    has_failed = stop_failing_new();
    BoxFile next(kPatience);
    EXPECT_EQ(open(next, other), 1) << failed;
  }
  EXPECT_GT(failed, 2);
}

TEST_F(PlexaBoxMemoryTest, ClosingTakesNone) {
  const std::string path = dir_.file("a-name-that-takes-memory-of-its-own.kvf");
  write_file(path, {1});
  {
    BoxFile file(kPatience);
    ASSERT_EQ(open(file, path), 1);
    fail_new_after(0);
  }
  EXPECT_FALSE(stop_failing_new());
}

}  // namespace
}  // namespace plexa_test
