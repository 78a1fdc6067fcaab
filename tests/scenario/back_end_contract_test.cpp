// What a handle promises, whatever stands behind it: the same tests on the normal file, on the cut
// file, and on both again behind a companion box. Back-ends differ where Kind says so, and nowhere
// else.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>

#include "box_support.h"
#include "gst-plexa/gst_pvr_file.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

struct Kind {
  const char *name;
  guint32 type;
  bool on_box;
  bool in_blocks;   // writes are filled up with 0x47 to whole blocks
  gint64 fsync;     // a time-shift stream is written past the cache and has none
  gint64 max_time;  // what setting the shortest one gives
};

void PrintTo(const Kind &kind, std::ostream *out) { *out << kind.name; }

constexpr gint64 kShortestMaxTime = 360000;
constexpr Kind kKinds[] = {
    {"NormalFile", GST_PVR_FILE_NORMAL, false, false, 0, -1},
    {"CutFile", GST_PVR_FILE_TIMESHIFT, false, true, -1, 1},
    {"NormalFileOnTheBox", GST_PVR_FILE_NORMAL, true, false, 1, -1},
    {"CutFileOnTheBox", GST_PVR_FILE_TIMESHIFT, true, true, -1, 1},
};

class Handle {
 public:
  Handle() { gst_pvr_file_init(&file_); }
  ~Handle() {
    if (file_.is_opened != 0) gst_pvr_file_close(&file_);
    gst_pvr_file_deinit(&file_);
  }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;
  GstPvrFile *get() { return &file_; }

 private:
  GstPvrFile file_{};
};

class BackEndContractTest : public ::testing::TestWithParam<Kind> {
 protected:
  BackEndContractTest() {
    if (!GetParam().on_box) return;
    box_ = std::make_unique<RunningBox>(box_disk_.path());
    as_the_box_ = std::make_unique<RunningBox::AsTheBox>(*box_);
    std::filesystem::create_directories(box_disk_.path() + dir_.path());
  }

  std::string file(const std::string &name) const { return dir_.file(name); }
  // Where the file of this name really lies.
  std::string on_disk(const std::string &name) const {
    return (GetParam().on_box ? box_disk_.path() : "") + file(name);
  }

  static gint64 open(Handle &handle, const std::string &path, guint32 permission,
                     guint32 io = GST_PVR_FILE_BUFFER_IO) {
    return gst_pvr_file_open(handle.get(), path.c_str(), permission, io, GetParam().type,
                             GST_PVR_FILE_STREAM, 0, 0);
  }

  // What becomes of the bytes of one write.
  static Bytes stored(Bytes bytes) {
    if (GetParam().in_blocks) bytes.resize((bytes.size() + 4095) / 4096 * 4096, 0x47);
    return bytes;
  }
  static void write(Handle &handle, const Bytes &bytes) {
    ASSERT_EQ(gst_pvr_file_write(handle.get(), bytes.data(), std::ssize(bytes)),
              std::ssize(stored(bytes)));
  }
  static Bytes read(Handle &handle, size_t size) {
    Bytes bytes(size);
    const gint64 got = gst_pvr_file_read(handle.get(), bytes.data(), std::ssize(bytes));
    bytes.resize(static_cast<size_t>(std::max<gint64>(got, 0)));
    return bytes;
  }

  void make(const Bytes &bytes) { write_file(on_disk("film.kvf"), bytes); }
  // Through a handle.
  void write_film(const Bytes &bytes) {
    Handle handle;
    ASSERT_GE(open(handle, film_, GST_PVR_FILE_WRITE), 0);
    write(handle, bytes);
    ASSERT_GE(gst_pvr_file_close(handle.get()), 0);
  }

  TempDir dir_;
  const std::string film_ = file("film.kvf");

 private:
  TempDir box_disk_;
  std::unique_ptr<RunningBox> box_;
  std::unique_ptr<RunningBox::AsTheBox> as_the_box_;
};

TEST_P(BackEndContractTest, WhatIsWrittenLiesOnTheRightDisk) {
  write_film(counting_bytes(70000));
  EXPECT_EQ(read_file(on_disk("film.kvf")), stored(counting_bytes(70000)));
  EXPECT_EQ(exists(film_), !GetParam().on_box);
}

TEST_P(BackEndContractTest, BytesOfAnySizeComeBackInOrder) {
  for (const size_t size :
       {size_t{1}, size_t{32736}, size_t{32737}, size_t{49152}, size_t{49153}, size_t{65536},
        size_t{192512}, size_t{1} << 20, (size_t{1} << 20) + 1, size_t{5000000}}) {
    write_film(counting_bytes(size));
    const Bytes expected = stored(counting_bytes(size));
    Handle handle;
    ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
    ASSERT_EQ(read(handle, expected.size()), expected) << size;
    ASSERT_EQ(read(handle, size), Bytes()) << size;
  }
}

TEST_P(BackEndContractTest, AReadAtTheEndGivesWhatIsThere) {
  make(counting_bytes(200000));
  Handle handle;
  ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
  EXPECT_EQ(read(handle, 150000), counting_bytes(150000));
  EXPECT_EQ(read(handle, 150000), counting_bytes(50000, 150000));
  EXPECT_EQ(gst_pvr_file_tell(handle.get()), 200000);
  EXPECT_EQ(read(handle, 1), Bytes());
  EXPECT_EQ(gst_pvr_file_tell(handle.get()), 200000);
}

TEST_P(BackEndContractTest, SeeksFromTheStartThePositionAndTheEnd) {
  make(counting_bytes(100000));
  Handle handle;
  ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), 5000, SEEK_SET), 5000);
  EXPECT_EQ(read(handle, 10), counting_bytes(10, 5000));
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), -5, SEEK_CUR), 5005);
  EXPECT_EQ(gst_pvr_file_tell(handle.get()), 5005);
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), -100, SEEK_END), 99900);
  EXPECT_EQ(read(handle, 1000), counting_bytes(100, 99900));
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), 300000, SEEK_SET), 300000);
  EXPECT_EQ(read(handle, 10), Bytes());
}

TEST_P(BackEndContractTest, ASeekThatFailsLeavesThePosition) {
  make(counting_bytes(1000));
  Handle handle;
  ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), 500, SEEK_SET), 500);
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), -1, SEEK_SET), -1);
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), -1001, SEEK_END), -1);
  EXPECT_EQ(gst_pvr_file_seek(handle.get(), 0, 77), -1);
  EXPECT_EQ(gst_pvr_file_tell(handle.get()), 500);
  EXPECT_EQ(read(handle, 10), counting_bytes(10, 500));
}

TEST_P(BackEndContractTest, TheSizeGrowsWithTheWriter) {
  Handle writer;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE), 0);
  EXPECT_EQ(gst_pvr_file_size(writer.get()), 0);
  write(writer, counting_bytes(102400));
  EXPECT_EQ(gst_pvr_file_size(writer.get()), 102400);
  EXPECT_EQ(gst_pvr_file_tell(writer.get()), 102400);
  write(writer, counting_bytes(102400, 102400));
  EXPECT_EQ(gst_pvr_file_size(writer.get()), 204800);
}

TEST_P(BackEndContractTest, AReaderFollowsTheWriter) {
  Handle writer;
  Handle reader;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE), 0);
  ASSERT_GE(open(reader, film_, GST_PVR_FILE_READ), 0);
  EXPECT_EQ(read(reader, 100), Bytes());
  write(writer, counting_bytes(192512));
  EXPECT_EQ(read(reader, 192512), counting_bytes(192512));
  write(writer, counting_bytes(4096, 192512));
  EXPECT_EQ(read(reader, 192512), counting_bytes(4096, 192512));
}

TEST_P(BackEndContractTest, AWriterMayGoBack) {
  Handle writer;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE), 0);
  write(writer, Bytes(40960, 1));
  EXPECT_EQ(gst_pvr_file_seek(writer.get(), 8192, SEEK_SET), 8192);
  write(writer, Bytes(4096, 2));
  EXPECT_EQ(gst_pvr_file_tell(writer.get()), 12288);
  Bytes expected(40960, 1);
  std::fill_n(expected.begin() + 8192, 4096, 2);
  EXPECT_EQ(read_file(on_disk("film.kvf")), expected);
}

TEST_P(BackEndContractTest, OpeningForWritingEmptiesTheFile) {
  make(counting_bytes(10000));
  write_film(counting_bytes(10));
  EXPECT_EQ(read_file(on_disk("film.kvf")), stored(counting_bytes(10)));
}

TEST_P(BackEndContractTest, AMissingFileCannotBeRead) {
  Handle handle;
  EXPECT_EQ(open(handle, file("none.kvf"), GST_PVR_FILE_READ), -1);
  EXPECT_EQ(handle.get()->is_opened, 0);
}

TEST_P(BackEndContractTest, NothingIsReadOrWrittenAgainstThePermission) {
  make(counting_bytes(1000));
  Handle reader;
  ASSERT_GE(open(reader, film_, GST_PVR_FILE_READ), 0);
  const Bytes bytes(188, 9);
  EXPECT_EQ(gst_pvr_file_write(reader.get(), bytes.data(), 188), -1);
  EXPECT_EQ(read(reader, 1000), counting_bytes(1000));
  Handle writer;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE), 0);
  Bytes place(188);
  EXPECT_EQ(gst_pvr_file_read(writer.get(), place.data(), 188), -1);
}

TEST_P(BackEndContractTest, NothingIsReadOrWrittenForASizeOfZero) {
  make(counting_bytes(1000));
  Handle handle;
  ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
  Bytes place(10);
  EXPECT_EQ(gst_pvr_file_read(handle.get(), place.data(), 0), 0);
  EXPECT_EQ(gst_pvr_file_read(handle.get(), place.data(), -1), 0);
  EXPECT_EQ(gst_pvr_file_write(handle.get(), place.data(), 0), 0);
  EXPECT_EQ(read(handle, 10), counting_bytes(10));
}

TEST_P(BackEndContractTest, FsyncIsForFilesInThePageCache) {
  Handle writer;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE), 0);
  write(writer, counting_bytes(4096));
  EXPECT_EQ(gst_pvr_file_fsync(writer.get()), GetParam().fsync);
  write(writer, counting_bytes(4096));
  EXPECT_EQ(gst_pvr_file_size(writer.get()), 8192);
}

TEST_P(BackEndContractTest, OnlyATimeShiftStreamHasAMaximumTime) {
  write_file(on_disk("film.mdb"), Bytes(954360));  // its index
  Handle writer;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE, GST_PVR_FILE_DIRECT_IO), 0);
  EXPECT_EQ(gst_pvr_file_set_max_time(writer.get(), kShortestMaxTime), GetParam().max_time);
  gst_pvr_file_set_last_wrote_time(writer.get(), 1000);
  const std::unique_ptr<uint8_t, decltype(&std::free)> block(
      static_cast<uint8_t *>(std::aligned_alloc(4096, 4096)), &std::free);
  std::fill_n(block.get(), 4096, 0x47);
  EXPECT_EQ(gst_pvr_file_write(writer.get(), block.get(), 4096), 4096);  // a box's answer tells
  if (GetParam().max_time == 1) {
    EXPECT_EQ(gst_pvr_file_get_max_time(writer.get()), kShortestMaxTime - 60000);
  }
  EXPECT_EQ(gst_pvr_file_size(writer.get()), 4096);
}

TEST_P(BackEndContractTest, DirectWritesAreFilledUpToWholeBlocks) {
  Handle writer;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE, GST_PVR_FILE_DIRECT_IO), 0);
  const std::unique_ptr<uint8_t, decltype(&std::free)> block(
      static_cast<uint8_t *>(std::aligned_alloc(4096, 192512)), &std::free);
  const Bytes bytes = counting_bytes(192512);
  std::copy(bytes.begin(), bytes.end(), block.get());
  EXPECT_EQ(gst_pvr_file_write(writer.get(), block.get(), 192512), 192512);
  EXPECT_EQ(gst_pvr_file_write(writer.get(), block.get(), 1000), 4096);
  EXPECT_EQ(gst_pvr_file_tell(writer.get()), 192512 + 4096);
  ASSERT_GE(gst_pvr_file_close(writer.get()), 0);
  Bytes expected = bytes;
  expected.insert(expected.end(), bytes.begin(), bytes.begin() + 1000);
  expected.resize(192512 + 4096, 0x47);
  EXPECT_EQ(read_file(on_disk("film.kvf")), expected);
}

TEST_P(BackEndContractTest, DirectReadsGiveAnyPiece) {
  make(counting_bytes(300000));
  Handle reader;
  ASSERT_GE(open(reader, film_, GST_PVR_FILE_READ, GST_PVR_FILE_DIRECT_IO), 0);
  EXPECT_EQ(read(reader, 100001), counting_bytes(100001));
  EXPECT_EQ(gst_pvr_file_seek(reader.get(), 4095, SEEK_SET), 4095);
  EXPECT_EQ(read(reader, 2), counting_bytes(2, 4095));
  EXPECT_EQ(gst_pvr_file_seek(reader.get(), 299999, SEEK_SET), 299999);
  EXPECT_EQ(read(reader, 4096), counting_bytes(1, 299999));
}

TEST_P(BackEndContractTest, OffsetsPass4GiB) {
  constexpr gint64 kFar = gint64{5} << 30;
  Handle writer;
  Handle reader;
  ASSERT_GE(open(writer, film_, GST_PVR_FILE_WRITE), 0);
  EXPECT_EQ(gst_pvr_file_seek(writer.get(), kFar, SEEK_SET), kFar);
  write(writer, counting_bytes(4096));
  EXPECT_EQ(gst_pvr_file_size(writer.get()), kFar + 4096);
  ASSERT_GE(open(reader, film_, GST_PVR_FILE_READ), 0);
  EXPECT_EQ(gst_pvr_file_seek(reader.get(), -4096, SEEK_END), kFar);
  EXPECT_EQ(read(reader, 5000), counting_bytes(4096));
  EXPECT_EQ(gst_pvr_file_tell(reader.get()), kFar + 4096);
}

TEST_P(BackEndContractTest, ARenamedFileIsFoundUnderItsNewNameOnly) {
  make(counting_bytes(1000));
  write_file(on_disk("old.kvf"), counting_bytes(5));
  Handle handle;
  EXPECT_EQ(gst_pvr_file_rename(handle.get(), film_.c_str(), file("old.kvf").c_str()), 1);
  EXPECT_FALSE(exists(on_disk("film.kvf")));
  EXPECT_EQ(read_file(on_disk("old.kvf")), counting_bytes(1000));
  EXPECT_EQ(gst_pvr_file_rename(handle.get(), film_.c_str(), file("x.kvf").c_str()), -1);
  EXPECT_EQ(gst_pvr_file_rename(handle.get(), file("old.kvf").c_str(),
                                file("no-such-folder/x.kvf").c_str()),
            -1);
  EXPECT_EQ(read_file(on_disk("old.kvf")), counting_bytes(1000));
}

TEST_P(BackEndContractTest, ARenameLeavesTheOpenFileAsItWas) {
  make(counting_bytes(1000));
  Handle handle;
  ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
  EXPECT_EQ(read(handle, 100), counting_bytes(100));
  EXPECT_EQ(gst_pvr_file_rename(handle.get(), film_.c_str(), file("new.kvf").c_str()), 1);
  EXPECT_EQ(read(handle, 100), counting_bytes(100, 100));
}

TEST_P(BackEndContractTest, AHandleIsOpenedAgainAfterItsClose) {
  make(counting_bytes(1000));
  Handle handle;
  for (int i = 0; i < 10; ++i) {
    ASSERT_GE(open(handle, film_, GST_PVR_FILE_READ), 0);
    EXPECT_EQ(handle.get()->is_opened, 1);
    EXPECT_EQ(read(handle, 10), counting_bytes(10));
    EXPECT_EQ(gst_pvr_file_close(handle.get()), 1);
    EXPECT_EQ(handle.get()->is_opened, 0);
  }
}

TEST_P(BackEndContractTest, AFourthWriterIsRefused) {
  Handle writers[4];
  for (int i = 0; i < 3; ++i) EXPECT_GE(open(writers[i], film_, GST_PVR_FILE_WRITE), 0);
  EXPECT_EQ(open(writers[3], film_, GST_PVR_FILE_WRITE), -1);
}

INSTANTIATE_TEST_SUITE_P(All, BackEndContractTest, ::testing::ValuesIn(kKinds),
                         [](const auto &kind) { return kind.param.name; });

}  // namespace
}  // namespace plexa_test
