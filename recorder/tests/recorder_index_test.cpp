// An index made anew is the one that the recorder made; a repaired one too. Nothing is lost on the
// way.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <fstream>

#include "index_writer.h"
#include "recording_fixture.h"

namespace plexa_test {
namespace {

using plexa::rec::rebuild_index;
using plexa::rec::repair_index;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class IndexMakerTest : public RecordingTest {
 protected:
  // Records twenty GOPs, two channels; the index as it was made is in made_.
  void make_recording(const Options &options = {}) {
    TestStream stream(Codec::kH264);
    stream.tables();
    for (int i = 0; i < 10; ++i) stream.gop(6);
    stream.video_pid = 0x300;
    stream.table_version = 1;
    stream.tables();
    for (int i = 0; i < 10; ++i) stream.gop(6);
    ASSERT_TRUE(record(stream.bytes(), options).ok);
    ASSERT_TRUE(is_usable(this->stream()));
    made_ = read_file(index());
    packets_ = stream.bytes();
    ASSERT_EQ(index_file().gops.size(), 20u);
  }

  // Changes the index as a crash or a fault would.
  void change_index(const std::function<void(Bytes &)> &change) {
    Bytes bytes = read_file(index());
    change(bytes);
    write_file(index(), bytes);
  }
  static size_t gop_at(size_t number) { return 954360 + 104 * number; }
  static void crash(Bytes &bytes, size_t gops, size_t torn = 0) {
    bytes.resize(gop_at(gops) + torn);
    std::memset(bytes.data() + 16, 0, 4);  // the end time
    std::memset(bytes.data() + 28, 0, 8);  // the total size
  }

  Bytes made_;
  Bytes packets_;
};

// --- made anew

TEST_F(IndexMakerTest, ALostIndexIsMadeAsItWas) {
  make_recording();
  ASSERT_EQ(remove(index().c_str()), 0);
  const Outcome outcome = rebuild_index(stream(), {});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(read_file(index()), made_);
  EXPECT_EQ(outcome.summary.gops, 20u);
  EXPECT_EQ(outcome.summary.channels, 2u);
  EXPECT_EQ(outcome.summary.packets, packets_.size() / 188);
  EXPECT_EQ(outcome.summary.duration_ms, 4800u);
  EXPECT_THAT(files(), ElementsAre("rec.kvf", "rec.mdb"));
}

TEST_F(IndexMakerTest, ADamagedIndexIsReplaced) {
  make_recording();
  write_file(index(), repeat(0x5a, 100000));
  ASSERT_TRUE(rebuild_index(stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, TheOtherLayoutCanBeMade) {
  make_recording();
  Options options;
  options.layout = Layout::kLegacy;
  ASSERT_TRUE(rebuild_index(stream(), options).ok);
  EXPECT_TRUE(index_file().legacy);
  EXPECT_TRUE(is_usable(stream()));
  EXPECT_TRUE(lookups_find_every_gop(stream()));
}

TEST_F(IndexMakerTest, TheStreamIsLeftAlone) {
  make_recording();
  ASSERT_TRUE(rebuild_index(stream(), {}).ok);
  EXPECT_EQ(read_file(stream()), packets_);
}

TEST_F(IndexMakerTest, APacketWithoutSyncByteKeepsItsNumber) {
  make_recording();
  Bytes damaged = packets_;
  const IndexFile before = index_file();
  // The second packet of the third I-picture.
  damaged[(before.gops[2].packet_count + 1) * 188] = 0;
  write_file(stream(), damaged);
  const Outcome outcome = rebuild_index(stream(), {});
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.note, "1 packets without sync byte, the first at byte " +
                                      std::to_string((before.gops[2].packet_count + 1) * 188));
  EXPECT_EQ(index_file().gops.size(), 20u);
  EXPECT_EQ(index_file().gops[3].packet_count, before.gops[3].packet_count);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(IndexMakerTest, BytesBehindTheLastPacketAreNoPartOfTheRecording) {
  make_recording();
  write_file(stream(), join({packets_, repeat(0x47, 100)}));
  ASSERT_TRUE(rebuild_index(stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, AStreamThatIsNoRecordingIsRefusedAndTheIndexKept) {
  make_recording();
  const auto refused = [&](const Bytes &bytes) {
    write_file(stream(), bytes);
    const Outcome outcome = rebuild_index(stream(), {});
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(read_file(index()), made_);
    EXPECT_THAT(files(), ElementsAre("rec.kvf", "rec.mdb"));
    return outcome.error;
  };
  const std::string name = "'" + stream() + "' ";
  EXPECT_EQ(refused({}), name + "holds no packet");
  TestStream no_tables(Codec::kH264);
  no_tables.gop(5);
  EXPECT_EQ(refused(no_tables.bytes()), name + "has no programme table");
  TestStream audio;
  audio.packets(section_packets(0, pat_section({{1, 0x20}})));
  audio.packets(section_packets(0x20, pmt_section(1, 0x101, {{0x03, 0x101}})));
  EXPECT_EQ(refused(audio.bytes()), name + "has no MPEG-2, H.264 or H.265 video");
  TestStream scrambled;
  scrambled.scrambling = 2;
  scrambled.tables().gop(5);
  EXPECT_EQ(refused(scrambled.bytes()), name + "is scrambled: the video of programme 1");
}

TEST_F(IndexMakerTest, PacketsThatAreNotInStepAreSaidToBeSo) {
  make_recording();
  write_file(stream(), as_192(packets_));
  const std::string name = "'" + stream() + "' ";
  EXPECT_EQ(rebuild_index(stream(), {}).error,
            name + "does not hold one 188-byte packet behind the other");
}

TEST_F(IndexMakerTest, AStreamThatCannotBeOpenedIsRefused) {
  EXPECT_EQ(rebuild_index(stream(), {}).error,
            "'" + stream() + "' cannot be opened: No such file or directory");
  ASSERT_EQ(mkdir(stream().c_str(), 0755), 0);
  EXPECT_EQ(rebuild_index(stream(), {}).error, "'" + stream() + "' is not a regular file");
}

TEST_F(IndexMakerTest, AnyFailedWriteKeepsTheOldIndex) {
  make_recording();
  for (int nth = 1;; ++nth) {
    bool fired = false;
    Outcome outcome;
    {
      Faults faults;
      faults.fail("write", ENOSPC, nth);
      outcome = rebuild_index(stream(), {});
      fired = faults.count("write") >= nth;
    }
    if (!fired) break;
    EXPECT_FALSE(outcome.ok) << nth;
    EXPECT_THAT(outcome.error, HasSubstr("No space left on device")) << nth;
    EXPECT_EQ(read_file(index()), made_) << nth;
    EXPECT_THAT(files(), ElementsAre("rec.kvf", "rec.mdb")) << nth;
    ASSERT_LT(nth, 100);
  }
}

TEST_F(IndexMakerTest, AFailedRenameOrSyncKeepsTheOldIndex) {
  make_recording();
  for (const char *call : {"rename", "fsync"}) {
    Outcome outcome;
    {
      Faults faults;
      faults.fail(call, EIO);
      outcome = rebuild_index(stream(), {});
    }
    EXPECT_FALSE(outcome.ok) << call;
    EXPECT_THAT(outcome.error, HasSubstr("Input/output error")) << call;
    EXPECT_EQ(read_file(index()), made_) << call;
    EXPECT_THAT(files(), ElementsAre("rec.kvf", "rec.mdb")) << call;
  }
}

TEST_F(IndexMakerTest, AReadThatFailsKeepsTheOldIndex) {
  make_recording();
  Outcome outcome;
  {
    Faults faults;
    faults.fail("read", EIO, 2);
    outcome = rebuild_index(stream(), {});
  }
  EXPECT_EQ(outcome.error, "'" + stream() + "' cannot be read: Input/output error");
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, ShortReadsMakeNoDifference) {
  make_recording();
  {
    Faults faults;
    faults.shorten("read", 1000, 1);
    faults.shorten("read", 77, 3);
    ASSERT_TRUE(rebuild_index(stream(), {}).ok);
  }
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, StopKeepsTheOldIndex) {
  make_recording();
  const std::atomic<bool> stop = true;
  Options options;
  options.stop = &stop;
  EXPECT_EQ(rebuild_index(stream(), options).error, "stopped; the index is as it was");
  EXPECT_EQ(read_file(index()), made_);
}

// --- repaired

TEST_F(IndexMakerTest, ASoundIndexIsLeftAlone) {
  make_recording();
  struct stat before {};
  ASSERT_EQ(stat(index().c_str(), &before), 0);
  const Outcome outcome = repair_index(stream(), {});
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.note, "the index is sound");
  EXPECT_EQ(outcome.summary.gops, 20u);
  EXPECT_EQ(outcome.summary.channels, 2u);
  EXPECT_EQ(outcome.summary.duration_ms, 4800u);
  struct stat after {};
  ASSERT_EQ(stat(index().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(IndexMakerTest, WhatACrashLeftOffIsMadeUp) {
  make_recording();
  for (const size_t gops : {size_t{0}, size_t{1}, size_t{2}, size_t{10}, size_t{11}, size_t{19}}) {
    for (const size_t torn : {size_t{0}, size_t{1}, size_t{103}}) {
      write_file(index(), made_);
      change_index([&](Bytes &bytes) { crash(bytes, gops, torn); });
      const Outcome outcome = repair_index(stream(), {});
      ASSERT_TRUE(outcome.ok) << outcome.error;
      EXPECT_EQ(read_file(index()), made_) << gops << ' ' << torn;
      EXPECT_EQ(outcome.summary.gops, 20u);
    }
  }
}

TEST_F(IndexMakerTest, RepairFollowsAChannelThatComesBack) {
  TestStream stream(Codec::kH264);
  for (int i = 0; i < 3; ++i) {
    stream.video_pid = i == 1 ? 0x300 : 0x100;
    stream.table_version = i == 1 ? 1 : 0;
    stream.tables().gop(6).gop(6).gop(6);
  }
  ASSERT_TRUE(record(stream.bytes()).ok);
  made_ = read_file(index());
  change_index([](Bytes &bytes) { crash(bytes, 5); });
  ASSERT_TRUE(repair_index(this->stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, RepairTakesNoMapOfTheBeginningForOneThatIsInForce) {
  // The second video's tables are repeated behind an I-picture, which they must not end.
  TestStream stream(Codec::kMpeg2);
  stream.tables().gop(5).gop(5);
  stream.codec(Codec::kH264);
  stream.video_pid = 0x300;
  stream.tables().gop(5).gop(1).tables().gop(5).gop(5);
  ASSERT_TRUE(record(stream.bytes()).ok);
  ASSERT_EQ(index_file().gops.size(), 6u);
  made_ = read_file(index());
  change_index([](Bytes &bytes) { crash(bytes, 3); });
  ASSERT_TRUE(repair_index(this->stream(), {}).ok);
  EXPECT_EQ(index_file().gops.size(), 6u);
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, TheLegacyLayoutIsRepairedInItsOwn) {
  Options options;
  options.layout = Layout::kLegacy;
  make_recording(options);
  change_index([](Bytes &bytes) {
    bytes.resize(1052664 + 100 * 12 + 50);
    std::memset(bytes.data() + 16, 0, 4);
  });
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, TheLegacyLayoutStaysAlsoWhenNoRecordIsSound) {
  Options options;
  options.layout = Layout::kLegacy;
  make_recording(options);
  for (const size_t gops : {size_t{0}, size_t{3}}) {
    write_file(index(), made_);
    change_index([&](Bytes &bytes) {
      bytes.resize(1052664 + 100 * gops);
      if (gops > 0) bytes[1052664 + 16] = 0xff;  // the first one's packet
    });
    ASSERT_TRUE(repair_index(stream(), {}).ok);
    EXPECT_EQ(read_file(index()), made_) << gops;
  }
}

TEST_F(IndexMakerTest, WhatIsSoundIsKeptAsItStands) {
  make_recording();
  change_index([](Bytes &bytes) {
    crash(bytes, 15);
    bytes[60] = 0xab;              // reserved bytes of the base table,
    bytes[4088 + 232 - 1] = 0xcd;  // of a channel record
    bytes[gop_at(3) + 40] = 0xef;  // and of a GOP record
  });
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  const Bytes repaired = read_file(index());
  EXPECT_EQ(repaired[60], 0xab);
  EXPECT_EQ(repaired[4088 + 232 - 1], 0xcd);
  EXPECT_EQ(repaired[gop_at(3) + 40], 0xef);
  EXPECT_TRUE(is_usable(stream()));
  EXPECT_EQ(index_file().gops.size(), 20u);
}

// Every field that is checked, made wrong in the sixth record: five stay, the rest is made anew.
TEST_F(IndexMakerTest, AnUnsoundRecordIsMadeAnewWithAllThatFollow) {
  make_recording();
  const std::vector<std::pair<size_t, const char *>> fields = {{0, "pts"},
                                                               {12, "time_code"},
                                                               {16, "packet_count"},
                                                               {28, "video_pid"},
                                                               {73, "index_of_channel"},
                                                               {76, "next_gop_first_time"},
                                                               {24, "iframe_size"},
                                                               {62, "last_frame_time"},
                                                               {66, "last_frame_packet_count"},
                                                               {80, "next_gop_first_packet_count"},
                                                               {88, "next_gop_pts"}};
  for (const auto &[offset, name] : fields) {
    write_file(index(), made_);
    change_index([&, at = offset](Bytes &bytes) {
      const bool is_size = at == 24;
      for (size_t i = 0; i < (is_size ? 4u : 1u); ++i)
        bytes[gop_at(5) + at + i] ^= is_size ? 0xff : 0x15;
    });
    ASSERT_TRUE(repair_index(stream(), {}).ok) << name;
    EXPECT_EQ(read_file(index()), made_) << name;
  }
}

TEST_F(IndexMakerTest, ALastFrameInFrontOfItsGopIsUnsound) {
  make_recording();
  for (const size_t field : {size_t{60}, size_t{64}}) {
    write_file(index(), made_);
    change_index([&](Bytes &bytes) { std::memset(bytes.data() + gop_at(5) + field, 0, 4); });
    ASSERT_TRUE(repair_index(stream(), {}).ok) << field;
    EXPECT_EQ(read_file(index()), made_) << field;
  }
}

// The channel of the first ten GOPs, and that of the others: what was recorded is H.264.
TEST_F(IndexMakerTest, AChannelOfAnotherCodingThanItsPicturesIsMadeAnew) {
  make_recording();
  for (const size_t slot : {size_t{0}, size_t{1}}) {
    for (const Codec wrong : {Codec::kMpeg2, Codec::kH265}) {
      write_file(index(), made_);
      change_index(
          [&](Bytes &bytes) { bytes[4088 + 232 * slot + 176] = static_cast<uint8_t>(wrong); });
      const Outcome outcome = repair_index(stream(), {});
      ASSERT_TRUE(outcome.ok) << outcome.error;
      EXPECT_EQ(outcome.summary.note, "");
      EXPECT_EQ(read_file(index()), made_) << slot;
    }
  }
}

TEST_F(IndexMakerTest, AFirstPictureWithAnotherPtsIsMadeAnew) {
  make_recording();
  change_index([](Bytes &bytes) { bytes[gop_at(0)] ^= 1; });
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, ARecordWhosePacketIsGoneIsMadeAnew) {
  make_recording();
  Bytes damaged = packets_;
  damaged[index_file().gops[5].packet_count * 188 + 1] &= 0xbf;  // no picture begins there any more
  write_file(stream(), damaged);
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  // The I-picture is found behind the picture in whose PES packet it lies now.
  EXPECT_EQ(index_file().gops.size(), 20u);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(IndexMakerTest, AStreamThatGrewIsIndexedToItsEnd) {
  make_recording();
  TestStream more(Codec::kH264);
  more.video_pid = 0x300;
  more.table_version = 1;
  more.pts = 90000 + 120 * 3600;
  more.tables().gop(6).gop(6);
  write_file(stream(), join({packets_, more.bytes()}));
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  EXPECT_EQ(index_file().gops.size(), 22u);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(IndexMakerTest, AStreamThatShrankLosesTheGopsThatAreGone) {
  make_recording();
  Bytes shorter = packets_;
  shorter.resize((index_file().gops[12].packet_count + 2) * 188);
  write_file(stream(), shorter);
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  EXPECT_EQ(index_file().gops.size(), 12u);
  EXPECT_TRUE(is_usable(stream()));
}

TEST_F(IndexMakerTest, AnIndexThatTellsNothingIsMadeAnew) {
  make_recording();
  for (const Bytes &wrong : {Bytes{}, Bytes{1, 2, 3}, repeat(0, 5000), repeat(0xff, 2000000)}) {
    write_file(index(), wrong);
    ASSERT_TRUE(repair_index(stream(), {}).ok);
    EXPECT_EQ(read_file(index()), made_);
  }
  ASSERT_EQ(remove(index().c_str()), 0);
  ASSERT_TRUE(repair_index(stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made_);
}

// Sparse files of 64 GiB: more than there is memory.
TEST_F(IndexMakerTest, NoMoreOfAnIndexIsReadThanItsStreamCanHaveRecords) {
  make_recording();
  ASSERT_EQ(truncate(index().c_str(), off_t{64} << 30), 0);
  const Outcome outcome = repair_index(stream(), {});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, AHeadThatIsLongerThanRecordsCouldMakeItIsNotRead) {
  make_recording();
  change_index([&](Bytes &bytes) { std::memset(bytes.data() + 48, 0xff, 4); });
  ASSERT_EQ(truncate(index().c_str(), off_t{64} << 30), 0);
  const Outcome outcome = repair_index(stream(), {});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(read_file(index()), made_);
}

TEST_F(IndexMakerTest, AnotherVersionLayoutOrStartIsMadeAnew) {
  make_recording();
  for (const size_t offset : {size_t{7}, size_t{36}, size_t{20}, size_t{50}}) {
    write_file(index(), made_);
    change_index([&](Bytes &bytes) { bytes[offset] ^= 0xff; });
    ASSERT_TRUE(repair_index(stream(), {}).ok) << offset;
    EXPECT_EQ(read_file(index()), made_) << offset;
  }
}

TEST_F(IndexMakerTest, EveryPrefixOfTheRecordsIsRepaired) {
  make_recording();
  for (size_t size = gop_at(0); size < made_.size(); size += 47) {
    write_file(index(), made_);
    change_index([&](Bytes &bytes) { bytes.resize(size); });
    ASSERT_TRUE(repair_index(stream(), {}).ok) << size;
    ASSERT_EQ(read_file(index()), made_) << size;
  }
}

// --- records

TEST(IndexRecordTest, AChannelSurvivesTheWayIntoBothLayouts) {
  plexa::rec::Channel channel;
  channel.video_pid = 0x123;
  channel.audio_pid = 0x456;
  channel.pcr_pid = 0x789;
  channel.codec = Codec::kH265;
  EXPECT_EQ(plexa::rec::channel_from_record(plexa::rec::channel_record(channel)), channel);
  const Bytes legacy = plexa::rec::stored_channel(channel, Layout::kLegacy);
  ASSERT_EQ(legacy.size(), 232u);
  pvr_pelko_channel_info_s pelko{};
  std::memcpy(&pelko, legacy.data(), legacy.size());
  pvr_channel_info_s current{};
  gst_index_parser_convert_pelko_channel_info_to_nolva(&pelko, &current);
  EXPECT_EQ(plexa::rec::channel_from_record(current), channel);
}

TEST(IndexRecordTest, AGopRecordHasItsFieldsInTheirPlaces) {
  plexa::rec::Gop gop;
  gop.pts = 0x1122334455;
  gop.time = 0x01020304;
  gop.packet = 0x0a0b0c0d0e;
  gop.iframe_packets = 77;
  gop.video_pid = 0x1abc;
  gop.channel = 0x0fed;
  gop.sequence_header = true;
  gop.last = {0x05060708, 0, 0x0f0e0d0c0b, 0};
  gop.next_time = 0x090a0b0c;
  gop.next_packet = 0x1234567890;
  gop.next_pts = 0x1fedcba987;
  const pvr_gop_info_s record = plexa::rec::gop_record(gop);
  EXPECT_EQ(record.pts, 0x1122334455u);
  EXPECT_EQ(record.time_code, 0x01020304u);
  EXPECT_EQ(record.packet_count, 0x0a0b0c0d0eu);
  EXPECT_EQ(record.iframe_size, 77u);
  EXPECT_EQ(record.video_pid, 0x1abc);
  EXPECT_EQ(record.video_format, 0);
  EXPECT_EQ(record.last_frame_time, 0x05060708u);
  EXPECT_EQ(record.last_frame_packet_count, 0x0f0e0d0c0bu);
  EXPECT_EQ(record.index_of_channel, 0x0fed);
  EXPECT_EQ(record.exist_seq_header, 1);
  EXPECT_EQ(record.next_gop_first_time, 0x090a0b0cu);
  EXPECT_EQ(record.next_gop_first_packet_count, 0x1234567890u);
  EXPECT_EQ(record.next_gop_pts, 0x1fedcba987u);
}

}  // namespace
}  // namespace plexa_test
