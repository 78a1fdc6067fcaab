// gst_index_parser_test.cpp - an index parser's life, the base table, the figures of the whole
// file.
#include "gst-plexa/gst_index_parser.h"

#include <gmock/gmock.h>

#include <cstddef>

#include "gst_index_fixture.h"

namespace plexa_test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

constexpr size_t kBaseSize = GST_INDEX_BASE_TABLE_SIZE;

std::vector<uint8_t> bytes_of(const pvr_base_table_s &table) {
  std::vector<uint8_t> bytes(sizeof table);
  std::memcpy(bytes.data(), &table, sizeof table);
  return bytes;
}

// --- layout of what callers hold

// Field by field: where it is on 32-bit and on 64-bit x86. Callers compile these offsets in.
struct Field {
  const char *name;
  size_t offset, on_32_bit, on_64_bit;
};

void expect_layout(const std::vector<Field> &fields) {
  for (const Field &field : fields) {
    EXPECT_EQ(field.offset, sizeof(void *) == 4 ? field.on_32_bit : field.on_64_bit) << field.name;
  }
}

TEST(GstIndexParserLayout, EveryFieldOfAParserIsWhereCallersExpectIt) {
#define FIELD(field, on_32_bit, on_64_bit) \
  Field{#field, offsetof(GstIndexParser, field), on_32_bit, on_64_bit}
  expect_layout({
      FIELD(cached_current_index, 0, 0),
      FIELD(cached_start_index, 4, 4),
      FIELD(cached_end_index, 8, 8),
      FIELD(cached_start_abs_index, 12, 12),
      FIELD(cached_end_abs_index, 16, 16),
      FIELD(base_table, 20, 20),
      FIELD(gop_cache, 4108, 4112),
      FIELD(index_file, 4112, 4120),
      FIELD(base_table_size, 4116, 4128),
      FIELD(channel_info_size, 4120, 4132),
      FIELD(gop_info_size, 4124, 4136),
      FIELD(gop_start_offset, 4128, 4140),
      FIELD(is_started, 4132, 4144),
      FIELD(is_pelko_mdb, 4136, 4148),
  });
#undef FIELD
  EXPECT_EQ(sizeof(GstIndexParser), sizeof(void *) == 4 ? 4140u : 4152u);
}

TEST(GstIndexParserLayout, EveryFieldOfAFrameIsWhereCallersExpectIt) {
#define FIELD(field, everywhere) Field{#field, offsetof(frameData, field), everywhere, everywhere}
  expect_layout({
      FIELD(stream_offset, 0),
      FIELD(next_gop_frame_offset, 8),
      FIELD(pts, 16),
      FIELD(next_gop_pts, 24),
      FIELD(mdb_offset, 32),
      FIELD(length, 36),
      FIELD(timecode, 40),
      FIELD(next_gop_timecode, 44),
      FIELD(last_frame_timecode, 48),
      FIELD(channel_index, 52),
      FIELD(video_pid, 54),
      FIELD(video_format, 56),
      FIELD(has_seq_header, 57),
      FIELD(is_valid, 58),
      FIELD(cached_index, 60),
  });
#undef FIELD
  EXPECT_EQ(sizeof(frameData), 64u);
}

// --- init

TEST(GstIndexParserInit, ClearsTheWindowAndTheFlagsAndKeepsTheHandle) {
  GstIndexParser parser;
  std::memset(&parser, 0xAA, sizeof parser);
  GstPvrFile file{};
  gst_index_parser_init(&parser, &file);
  EXPECT_EQ(parser.cached_current_index, 0u);
  EXPECT_EQ(parser.cached_start_index, 0u);
  EXPECT_EQ(parser.cached_end_index, 0u);
  EXPECT_EQ(parser.cached_start_abs_index, 0u);
  EXPECT_EQ(parser.cached_end_abs_index, 0u);
  EXPECT_EQ(parser.gop_cache, nullptr);
  EXPECT_FALSE(parser.is_started);
  EXPECT_FALSE(parser.is_pelko_mdb);
  EXPECT_EQ(parser.index_file, &file);
}

TEST(GstIndexParserInit, LeavesTheBaseTableAsItWas) {
  GstIndexParser parser;
  std::memset(&parser, 0xAA, sizeof parser);
  gst_index_parser_init(&parser, nullptr);
  EXPECT_THAT(bytes_of(parser.base_table), Each(0xAA));
}

TEST(GstIndexParserInit, NullParserIsNoCrash) {
  gst_index_parser_init(nullptr, nullptr);
  gst_index_parser_unload_base_table(nullptr);
  gst_index_parser_unload_gop_table(nullptr);
  EXPECT_EQ(gst_index_parser_start(nullptr), -1);
  EXPECT_EQ(gst_index_parser_stop(nullptr), -1);
  EXPECT_FALSE(gst_index_parser_read_base_table(nullptr));
  EXPECT_EQ(gst_index_parser_get_total_time(nullptr), -1);
  EXPECT_EQ(gst_index_parser_get_total_size(nullptr), -1);
  EXPECT_EQ(gst_index_parser_get_file_size(nullptr), -1);
  EXPECT_EQ(gst_index_parser_get_max_gop_index(nullptr), -1);
}

// --- layout

class MdbFileTypeTest : public IndexFileTest {
 protected:
  void SetUp() override { LogCapture::clear(); }
  gint32 type_of(const IndexBuilder &index) {
    index.write(path());
    return gst_index_parser_get_mdb_file_type(path().c_str());
  }
};

TEST_F(MdbFileTypeTest, ChannelRecordsOf256BytesAreTheLegacyLayout) {
  EXPECT_EQ(type_of(IndexBuilder().legacy()), 0);
  EXPECT_LOGGED(kInfo, par("channel_info_size = [256], sizeof(pvr_pelko_channel_info_s) = [256], "
                           "sizeof(pvr_channel_info_s) = [232]"));
  EXPECT_LOGGED(kInfo, par("Pelko mdb file"));
}

TEST_F(MdbFileTypeTest, ChannelRecordsOf232BytesAreTheCurrentLayout) {
  EXPECT_EQ(type_of(IndexBuilder()), 1);
  EXPECT_LOGGED(kInfo, par("channel_info_size = [232], sizeof(pvr_pelko_channel_info_s) = [256], "
                           "sizeof(pvr_channel_info_s) = [232]"));
  EXPECT_LOGGED(kInfo, par("Nolva mdb file"));
}

TEST_F(MdbFileTypeTest, AnyOtherSizeIsAWrongFile) {
  EXPECT_EQ(type_of(IndexBuilder().base([](auto &b) { b.channel_info_size = 233; })), -1);
  EXPECT_LOGGED(kInfo, par("Wrong mdb file"));
}

TEST_F(MdbFileTypeTest, FileThatEndsBeforeTheSizeIsAWrongFile) {
  IndexBuilder().write(path());
  resize_file(36);
  EXPECT_EQ(gst_index_parser_get_mdb_file_type(path().c_str()), -1);
  EXPECT_LOGGED(kInfo, par("channel_info_size = [0], sizeof(pvr_pelko_channel_info_s) = [256], "
                           "sizeof(pvr_channel_info_s) = [232]"));
  EXPECT_LOGGED(kInfo, par("Wrong mdb file"));
}

TEST_F(MdbFileTypeTest, FileThatDoesNotOpenIsAnError) {
  EXPECT_EQ(gst_index_parser_get_mdb_file_type(dir_.file("none.mdb").c_str()), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] open mdb file failed, ret = [-1]"));
  EXPECT_EQ(gst_index_parser_get_mdb_file_type(nullptr), -1);
}

TEST_F(MdbFileTypeTest, FileThatDoesNotReadIsAnErrorAndIsClosed) {
  IndexBuilder().write(path());
  Faults faults;
  faults.fail("read", EIO);
  EXPECT_EQ(gst_index_parser_get_mdb_file_type(path().c_str()), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] read mdb file failed, ret = [-1]"));
  EXPECT_EQ(faults.count("open64"), 1);
  EXPECT_EQ(faults.count("close"), 1);
}

TEST_F(MdbFileTypeTest, TakesOneOpenOneReadAndOneClose) {
  IndexBuilder().write(path());
  Faults faults;
  gst_index_parser_get_mdb_file_type(path().c_str());
  EXPECT_EQ(faults.count("open64"), 1);
  EXPECT_EQ(faults.count("read"), 1);
  EXPECT_EQ(faults.count("close"), 1);
}

TEST_F(MdbFileTypeTest, IsOpenedAsABufferedNormalIndexForReading) {
  type_of(IndexBuilder());
  EXPECT_LOGGED(kInfo, "[EXT_FMG] file_path=[" + path() +
                           "], permission=[1](0:Write, 1:Read), io=[0](0:BufferIO, 1:DirectIO), "
                           "type=[0](0:Normal, 1:Timeshift), ext=[1](0:Stream, 1:Index), "
                           "append_mode=[0], ext=[0] (0:normal, 1: atsc3.0)");
}

TEST_F(MdbFileTypeTest, SettingALegacyFileIsToldAtErrorLevel) {
  IndexBuilder().legacy().write(path());
  gst_index_parser_set_mdb_file_type(&parser_, path().c_str());
  EXPECT_TRUE(parser_.is_pelko_mdb);
  EXPECT_LOGGED(kError, par("Pelko mdb file"));
}

TEST_F(MdbFileTypeTest, CurrentWrongAndMissingFilesCountAsCurrent) {
  for (const guint32 size : {232u, 1u}) {
    IndexBuilder().base([&](auto &b) { b.channel_info_size = size; }).write(path());
    parser_.is_pelko_mdb = TRUE;
    gst_index_parser_set_mdb_file_type(&parser_, path().c_str());
    EXPECT_FALSE(parser_.is_pelko_mdb) << size;
  }
  parser_.is_pelko_mdb = TRUE;
  gst_index_parser_set_mdb_file_type(&parser_, dir_.file("none.mdb").c_str());
  EXPECT_FALSE(parser_.is_pelko_mdb);
  EXPECT_NOT_LOGGED(kError, par("Pelko mdb file"));
}

TEST_F(MdbFileTypeTest, SettingNothingOrOnNothingDoesNothing) {
  parser_.is_pelko_mdb = TRUE;
  gst_index_parser_set_mdb_file_type(&parser_, nullptr);
  gst_index_parser_set_mdb_file_type(nullptr, path().c_str());
  EXPECT_TRUE(parser_.is_pelko_mdb);
  EXPECT_TRUE(LogCapture::messages().empty());
}

// --- start

using StartTest = IndexFileTest;

TEST_F(StartTest, LoadsTheBaseTableAndTheFirstWindow) {
  open_index(small_index().gops(40, 500, 1000));
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
  EXPECT_TRUE(parser_.is_started);
  EXPECT_EQ(parser_.base_table.mdb_version, 0x20110916u);
  EXPECT_EQ(parser_.base_table_size, 4088u);
  EXPECT_EQ(parser_.channel_info_size, 232u);
  EXPECT_EQ(parser_.gop_info_size, 104u);
  EXPECT_EQ(parser_.gop_start_offset, 4088u);
  EXPECT_EQ(parser_.cached_end_index, 31u);
  EXPECT_EQ(parser_.gop_cache[31].time_code, 15500u);
}

TEST_F(StartTest, TellsWhatItLoadsInOrder) {
  open_index(IndexBuilder().gops(1, 500, 1000));
  gst_index_parser_start(&parser_);
  EXPECT_THAT(
      parser_lines(),
      ElementsAre("base table size = [4088], channel info size = [232], gop info size = [104]",
                  "IndexParser BaseTable Load Complete",
                  "index_parser->gop_start_offset = [954360]",
                  "IndexParser GOP Table alloc success", "IndexParser ReadGOP, startGOPIndex: 0",
                  "IndexFile Size: 954464", "Seek to 954360"));
  EXPECT_TRUE(LogCapture::messages(kError).empty()) << LogCapture::dump();
}

TEST_F(StartTest, LegacyFileHasOtherSizesAndStartsElsewhere) {
  open_index(IndexBuilder().legacy().gops(3, 500, 1000));
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
  EXPECT_EQ(parser_.channel_info_size, 256u);
  EXPECT_EQ(parser_.gop_info_size, 100u);
  EXPECT_EQ(parser_.gop_start_offset, 1052664u);
  EXPECT_EQ(parser_.cached_end_index, 2u);
  EXPECT_TRUE(logged_in_order(
      {par("Pelko mdb file"),
       par("base table size = [4088], channel info size = [256], gop info size = [100]"),
       par("index_parser->gop_start_offset = [1052664]")}));
}

TEST_F(StartTest, UserThatSetsNoTypeGetsTheCurrentLayout) {
  open_index(small_index().gops(3, 500, 1000));
  gst_index_parser_init(&parser_, &file_);
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
  EXPECT_EQ(parser_.gop_info_size, 104u);
}

TEST_F(StartTest, SecondStartIsRefusedAndKeepsWhatIsLoaded) {
  start_index(small_index().gops(40, 500, 1000));
  ASSERT_EQ(gst_index_parser_read_gop(&parser_, 35), 21);
  const pvr_gop_info_s *const cache = parser_.gop_cache;
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] IndexParser is already started"));
  EXPECT_TRUE(parser_.is_started);
  EXPECT_EQ(parser_.gop_cache, cache);
  EXPECT_EQ(parser_.cached_start_abs_index, 19u);
  EXPECT_EQ(parser_.base_table.mdb_version, 0x20110916u);
}

TEST_F(StartTest, RefusedBaseTableFailsTheStart) {
  open_index(small_index().base([](auto &b) { b.mdb_version = 0x20120916; }).gops(1, 500, 1000));
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] ReadBaseTable Failed"));
  EXPECT_FALSE(parser_.is_started);
  EXPECT_EQ(parser_.gop_cache, nullptr);
}

TEST_F(StartTest, FileWithoutAGopFailsTheStartAndKeepsTheWindowsMemory) {
  open_index(small_index());
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_TRUE(
      logged_in_order({par("[PLG_ERR] loaded_num_gop: 0\n"), par("[PLG_ERR] ReadGOP Failed"),
                       par("[PLG_ERR] CacheInitialGOP Failed")}));
  EXPECT_FALSE(parser_.is_started);
  EXPECT_NE(parser_.gop_cache, nullptr);
}

// The leak check of the sanitizer build is part of this test.
TEST_F(StartTest, StartMayBeRepeatedAfterOneThatFailed) {
  open_index(small_index());
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  small_index().gops(2, 500, 1000).write(path());
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
  EXPECT_EQ(parser_.cached_end_index, 1u);
}

TEST_F(StartTest, OutOfMemoryFailsTheStart) {
  open_index(small_index().gops(1, 500, 1000));
  Faults faults;
  faults.fail("calloc", ENOMEM);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_TRUE(logged_in_order({par("[PLG_ERR] IndexParser GOP Table alloc Fail"),
                               par("[PLG_ERR] CacheInitialGOP Failed")}));
  EXPECT_FALSE(parser_.is_started);
}

TEST_F(StartTest, EveryFailedCallLeavesAParserThatStartsTheNextTime) {
  for (const char *call : {"lseek64", "read", "calloc"}) {
    for (int nth = 1; nth <= 3; ++nth) {
      open_index(small_index().gops(3, 500, 1000));
      Faults faults;
      faults.fail(call, EIO, nth);
      if (gst_index_parser_start(&parser_) != 1) {
        EXPECT_FALSE(parser_.is_started);
        EXPECT_EQ(gst_index_parser_start(&parser_), 1) << call << ' ' << nth;
      }
      close_index();
    }
  }
}

class ScriptedStartTest : public ScriptedIndexTest {};

TEST_F(ScriptedStartTest, ResultOfTheFailedLoadIsHandedOn) {
  gops_ = 3;
  read_ = [this](void *buffer, gint64 size) -> gint64 {
    if (size != gint64{kBaseSize}) return -3;
    pvr_base_table_s table{};
    table.mdb_version = MDB_VERSION;
    std::memcpy(buffer, &table, sizeof table);
    return reads_ == 1 ? size : -3;
  };
  EXPECT_EQ(gst_index_parser_start(&parser_), -3);
  EXPECT_FALSE(parser_.is_started);
}

// --- base table

using BaseTableTest = IndexFileTest;

TEST_F(BaseTableTest, OnlyTheUpperHalfOfTheVersionCounts) {
  open_index(small_index().base([](auto &b) { b.mdb_version = 0x2011FFFF; }).gops(1, 500, 1000));
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
  EXPECT_EQ(parser_.base_table.mdb_version, 0x2011FFFFu);
}

TEST_F(BaseTableTest, AnotherUpperHalfIsRefused) {
  open_index(small_index().base([](auto &b) { b.mdb_version = 0x20120916; }));
  std::memset(&parser_.base_table, 0x55, sizeof parser_.base_table);
  EXPECT_FALSE(gst_index_parser_read_base_table(&parser_));
  EXPECT_FALSE(parser_.is_started);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] MDB Version is different. Current: 0x20110916, Recorded: "
                            "0x20120916"));
  EXPECT_THAT(bytes_of(parser_.base_table), Each(0x55)) << "the record keeps what it had";
}

TEST_F(BaseTableTest, ReservedBytesAreCopiedUnchanged) {
  open_index(small_index().base([](auto &b) { b.reserved_52[4035] = 0x77; }).gops(1, 500, 1000));
  gst_index_parser_start(&parser_);
  EXPECT_EQ(parser_.base_table.reserved_52[4035], 0x77);
}

TEST_F(BaseTableTest, GivenStartOfTheGopTableIsTaken) {
  open_index(small_index().gop_start(5000).gops(1, 500, 1000));
  gst_index_parser_start(&parser_);
  EXPECT_EQ(parser_.gop_start_offset, 5000u);
  for (const std::string &line : parser_lines()) {
    EXPECT_FALSE(line.starts_with("index_parser->gop_start_offset")) << line;
  }
}

TEST_F(BaseTableTest, FailedSeekIsTold) {
  open_index(small_index().gops(1, 500, 1000));
  Faults faults;
  faults.fail("lseek64", EIO);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_TRUE(
      logged_in_order({par("[PLG_ERR] Seek failed"), par("[PLG_ERR] ReadBaseTable Failed")}));
  EXPECT_EQ(LogCapture::count(kError, par("[PLG_ERR] Seek failed")), 1);
}

TEST_F(BaseTableTest, PlainReadErrorEndsAtTheVersion) {
  open_index(small_index().gops(1, 500, 1000));
  Faults faults;
  faults.fail("read", EIO);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_NOT_LOGGED(kError, par("[PLG_ERR] read failed"));
  EXPECT_LOGGED(kError,
                par("[PLG_ERR] MDB Version is different. Current: 0x20110916, Recorded: 0x0"));
}

TEST_F(BaseTableTest, ShortReadGoesOnWithZerosBehindIt) {
  open_index(small_index().gops(1, 500, 1000));
  std::memset(&parser_.base_table, 0x55, sizeof parser_.base_table);
  parser_.base_table_size = kBaseSize;
  parser_.channel_info_size = 232;
  Faults faults;
  faults.shorten("read", 20);
  EXPECT_TRUE(gst_index_parser_read_base_table(&parser_));
  EXPECT_EQ(parser_.base_table.mdb_version, 0x20110916u);
  EXPECT_EQ(parser_.base_table.total_size, 0u);
  EXPECT_EQ(parser_.gop_start_offset, 954360u) << "byte 48 did not arrive";
}

class ScriptedBaseTableTest : public ScriptedIndexTest {};

TEST_F(ScriptedBaseTableTest, ReadResultBelowMinusOneIsTold) {
  read_ = [](void *, gint64) { return -2; };
  EXPECT_FALSE(gst_index_parser_read_base_table(&parser_));
  EXPECT_LOGGED(kError, par("[PLG_ERR] read failed"));
}

TEST_F(ScriptedBaseTableTest, NoMoreThanATableIsReadWhateverTheRecordSays) {
  gint64 asked = 0;
  read_ = [&](void *, gint64 size) { return asked = size; };
  parser_.base_table_size = 1 << 20;
  gst_index_parser_read_base_table(&parser_);
  EXPECT_EQ(asked, gint64{kBaseSize});
}

TEST_F(ScriptedBaseTableTest, BytesThatWereNotReadAreZero) {
  read_ = [](void *buffer, gint64) {
    const guint32 version = MDB_VERSION;
    std::memcpy(static_cast<guint8 *>(buffer) + 4, &version, sizeof version);
    return 8;
  };
  EXPECT_TRUE(gst_index_parser_read_base_table(&parser_));
  std::vector<uint8_t> bytes = bytes_of(parser_.base_table);
  bytes.erase(bytes.begin() + 4, bytes.begin() + 8);
  EXPECT_THAT(bytes, Each(0));
}

// --- stop

using StopTest = IndexFileTest;

TEST_F(StopTest, ForgetsTheBaseTableAndFreesTheWindow) {
  start_index(small_index().gops(3, 500, 1000));
  EXPECT_EQ(gst_index_parser_stop(&parser_), 1);
  EXPECT_THAT(bytes_of(parser_.base_table), Each(0));
  EXPECT_EQ(parser_.gop_cache, nullptr);
}

TEST_F(StopTest, StoppedParserStartsAgainOnlyAfterInit) {
  start_index(small_index().gops(3, 500, 1000));
  gst_index_parser_stop(&parser_);
  EXPECT_TRUE(parser_.is_started);
  EXPECT_EQ(gst_index_parser_start(&parser_), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] IndexParser is already started"));
  gst_index_parser_init(&parser_, &file_);
  EXPECT_EQ(gst_index_parser_start(&parser_), 1);
}

TEST_F(StopTest, StoppingTwiceIsHarmless) {
  start_index(small_index().gops(3, 500, 1000));
  EXPECT_EQ(gst_index_parser_stop(&parser_), 1);
  EXPECT_EQ(gst_index_parser_stop(&parser_), 1);
}

TEST_F(StopTest, StoppedParserAnswersNothing) {
  start_index(small_index().gops(3, 500, 1000));
  gst_index_parser_stop(&parser_);
  EXPECT_FALSE(gst_index_parser_get_iframe_by_time(&parser_, 0, 0).is_valid);
  EXPECT_FALSE(gst_index_parser_get_iframe_by_offset(&parser_, 0, 0).is_valid);
}

// --- figures

using FiguresTest = IndexFileTest;

TEST_F(FiguresTest, FinishedRecordingsTimeIsInTheBaseTable) {
  start_index(small_index()
                  .base([](auto &b) {
                    b.start_time_code = 1000;
                    b.end_time_code = 61000;
                  })
                  .gops(3, 500, 1000));
  Faults faults;
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), 60000);
  EXPECT_TRUE(faults.calls().empty()) << "no look at the file";
}

TEST_F(FiguresTest, GrowingRecordingsTimeIsInItsLastRecord) {
  pvr_gop_info_s gop{};
  gop.time_code = 4500;
  gop.last_frame_time = 5000;
  start_index(small_index().base([](auto &b) { b.start_time_code = 1000; }).gop(gop));
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), 4000);
}

TEST_F(FiguresTest, GrowingLegacyRecordingsTimeIsInItsLastRecord) {
  start_index(small_index().legacy().gops(7, 500, 1000));
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), 3460);
}

TEST_F(FiguresTest, FailedSeekToTheLastRecordIsTold) {
  start_index(small_index().gops(3, 500, 1000));
  Faults faults;
  faults.fail("lseek64", EIO);
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), -1);
  EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->Seek Failed\n"));
}

TEST_F(FiguresTest, FailedReadOfTheLastRecordIsTold) {
  for (const bool legacy : {false, true}) {
    IndexBuilder index = small_index();
    start_index((legacy ? index.legacy() : index).gops(3, 500, 1000));
    {
      Faults faults;
      faults.fail("read", EIO);
      EXPECT_EQ(gst_index_parser_get_total_time(&parser_), -1);
    }
    EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->Read Failed\n"));
    close_index();
  }
}

TEST_F(FiguresTest, RecordingWithoutAGopLastsNoTime) {
  open_index(small_index().base([](auto &b) { b.start_time_code = 1000; }));
  gst_index_parser_start(&parser_);
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), 0);
  resize_file(kBaseSize - 1000);
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), 0);
}

TEST_F(FiguresTest, FileShorterThanARecordHasNoLastRecord) {
  start_index(small_index().gops(3, 500, 1000));
  resize_file(50);
  EXPECT_LT(gst_index_parser_get_total_time(&parser_), 0);
  EXPECT_LOGGED(kError, par("[PLG_ERR] m_IndexFile->Seek Failed\n"));
}

TEST_F(FiguresTest, TotalSizeIsHandedOutAsStored) {
  start_index(
      small_index().base([](auto &b) { b.total_size = 0x123456789Aull; }).gops(1, 500, 1000));
  EXPECT_EQ(gst_index_parser_get_total_size(&parser_), 0x123456789All);
}

TEST_F(FiguresTest, FileSizeIsThatOfTheIndex) {
  start_index(small_index().gops(3, 500, 1000));
  EXPECT_EQ(gst_index_parser_get_file_size(&parser_), gint64{kBaseSize} + 3 * 104);
}

TEST_F(FiguresTest, OnlyWholeRecordsCount) {
  start_index(small_index().gops(3, 500, 1000));
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 3);
  resize_file(kBaseSize + 104 * 5 / 2);
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 2);
  resize_file(kBaseSize);
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 0);
}

TEST_F(FiguresTest, LegacyRecordsAreCountedInTheirSize) {
  start_index(small_index().legacy().gops(26, 500, 1000));
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 26);
}

TEST_F(FiguresTest, FileThatEndsBeforeTheTableHoldsNoGop) {
  start_index(small_index().gops(3, 500, 1000));
  resize_file(kBaseSize - 1);
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 0);
}

TEST_F(FiguresTest, BeforeStartThereIsNoGop) {
  open_index(small_index().gops(3, 500, 1000));
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 0);
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), 0);
}

TEST_F(FiguresTest, FileWhoseSizeIsUnknownHoldsNoGop) {
  start_index(small_index().gops(3, 500, 1000));
  Faults faults;
  faults.fail_all("stat64", EIO);
  EXPECT_EQ(gst_index_parser_get_file_size(&parser_), -1);
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 0);
}

class ScriptedFiguresTest : public ScriptedIndexTest {};

TEST_F(ScriptedFiguresTest, MoreGopsThanACountCanHoldAreAsManyAsItCan) {
  gops_ = gint64{1} << 33;
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), G_MAXINT32);
}

TEST_F(ScriptedFiguresTest, RecordBehindFourGibibytesIsFound) {
  gops_ = 50000000;
  EXPECT_EQ(gst_index_parser_get_max_gop_index(&parser_), 50000000);
  gst_index_parser_get_total_time(&parser_);
  EXPECT_EQ(position_, 4088 + 49999999ll * 104);
}

TEST_F(ScriptedFiguresTest, RecordThatCameOnlyInPartHasZerosBehindIt) {
  gops_ = 3;
  parser_.base_table.start_time_code = 70;
  read_ = [](void *buffer, gint64) {
    std::memset(buffer, 0x11, 10);
    return 10;
  };
  EXPECT_EQ(gst_index_parser_get_total_time(&parser_), -70);
}

}  // namespace
}  // namespace plexa_test
