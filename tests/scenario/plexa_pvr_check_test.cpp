// plexa-pvr check: a sound recording passes, and every kind of damage is found at its place.
#include <gmock/gmock.h>

#include <cstring>
#include <random>
#include <set>

#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr int64_t kGopTable = 954360;
constexpr size_t kDamaged = 5;  // the GOP that the tests damage

using Gop = pvr_gop_info_s;

class PlexaPvrCheckTest : public ::testing::Test {
 protected:
  PlexaPvrCheckTest() : film_(record(h264_stream(), dir_.file("film.kvf"))) {}

  // The faults that check finds; there must be one.
  JsonText faults() {
    const Ended run = pvr({"check", film_.stream, "--json"});
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_THAT(run.err, IsEmpty());
    JsonText found(run.out);
    EXPECT_FALSE(found.flag("sound"));
    EXPECT_EQ(found.number("fault_count"), static_cast<int64_t>(found.count("faults")));
    return found;
  }

  std::set<std::string> kinds() {
    const auto all = faults().texts("faults", "kind");
    return {all.begin(), all.end()};
  }

  // Changes the record of the damaged GOP and gives the kinds of fault that this makes. Each is a
  // fault of that GOP, or of the one behind it.
  template <class Change>
  std::set<std::string> kinds_after(Change change) {
    Gop gop = gops()[kDamaged];
    change(gop);
    write_gop(film_.index, kDamaged, gop);
    const JsonText found = faults();
    EXPECT_THAT(found.numbers("faults", "gop"), Each(testing::AnyOf(kDamaged, kDamaged + 1)));
    const auto all = found.texts("faults", "kind");
    return {all.begin(), all.end()};
  }

  std::vector<Gop> gops() const { return gop_records(film_.index); }

  // The channel record of slot 0.
  void change_channel(void (*change)(pvr_channel_info_s &)) {
    const auto bytes = read_file(film_.index);
    pvr_channel_info_s channel{};
    std::memcpy(&channel, bytes.data() + 4088, sizeof channel);
    change(channel);
    const auto *const changed = reinterpret_cast<const uint8_t *>(&channel);
    poke(film_.index, 4088, {changed, changed + sizeof channel});
  }

  // The packet at which the second picture of a GOP begins.
  uint64_t second_picture(const Gop &gop) const {
    const auto bytes = read_file(film_.stream);
    for (uint64_t at = gop.packet_count + 1;; ++at) {
      const uint8_t *const packet = bytes.data() + at * 188;
      const int pid = (packet[1] & 0x1f) << 8 | packet[2];
      if (pid == gop.video_pid && (packet[1] & 0x40) != 0) return at;
    }
  }

  TempDir dir_;
  RecordingFiles film_;
};

TEST_F(PlexaPvrCheckTest, ASoundRecordingHasNoFault) {
  const Ended text = pvr({"check", film_.stream});
  EXPECT_EQ(text.exit_code, 0);
  EXPECT_EQ(text.out, film_.stream + ": 13 GOPs, " + std::to_string(size_of(film_.stream) / 188) +
                          " packets, sound\n");
  EXPECT_THAT(text.err, IsEmpty());
  const JsonText json(pvr({"check", film_.index, "--json"}).out);
  EXPECT_TRUE(json.flag("sound"));
  EXPECT_TRUE(json.flag("complete"));
  EXPECT_EQ(json.number("gops"), 13);
  EXPECT_EQ(json.number("packets"), size_of(film_.stream) / 188);
  EXPECT_EQ(json.count("faults"), 0u);
}

TEST_F(PlexaPvrCheckTest, AFaultIsALineWithItsPlace) {
  Gop gop = gops()[kDamaged];
  const auto stream_at = gop.packet_count * 188;
  gop.pts += 1;
  write_gop(film_.index, kDamaged, gop);
  const Ended run = pvr({"check", film_.stream});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err, IsEmpty());
  const std::string place = "GOP 5, index byte " + std::to_string(kGopTable + 5 * 104) +
                            ", stream byte " + std::to_string(stream_at) + ": ";
  EXPECT_THAT(run.out, HasSubstr(place + "pts: PTS "));
  EXPECT_THAT(run.out, HasSubstr(": chain: PTS "));
  EXPECT_THAT(run.out, HasSubstr(" packets, 2 faults\n"));
}

TEST_F(PlexaPvrCheckTest, ALostSyncByteIsFoundInTheMiddleOfAGop) {
  const auto packet = static_cast<int64_t>(gops()[kDamaged].packet_count) + 50;
  poke(film_.stream, packet * 188, {0x46});
  const JsonText found = faults();
  EXPECT_THAT(found.texts("faults", "kind"), ElementsAre("sync"));
  EXPECT_EQ(found.number("faults.0.stream_offset"), packet * 188);
}

TEST_F(PlexaPvrCheckTest, AStretchWithoutSyncBytesIsOneFault) {
  const auto lost = [](int count, int64_t first, int64_t last) {
    return std::to_string(count) + " packets from " + std::to_string(first) + " to " +
           std::to_string(last);
  };
  // Behind the I-frame, and far enough before the next.
  const auto first = static_cast<int64_t>(gops()[kDamaged].packet_count) + 200;
  ASSERT_LT(first + 100, static_cast<int64_t>(gops()[kDamaged + 1].packet_count));
  poke(film_.stream, first * 188, std::vector<uint8_t>(40 * 188, 0));
  const JsonText found = faults();
  ASSERT_THAT(found.texts("faults", "kind"), ElementsAre("sync"));
  EXPECT_THAT(found.text("faults.0.text"), HasSubstr(lost(40, first, first + 39)));
  // Packets that look sound by chance do not end it; five in a row do.
  poke(film_.stream, (first + 44) * 188, {0});
  EXPECT_THAT(faults().texts("faults", "text"),
              ElementsAre(HasSubstr(lost(41, first, first + 44))));
  poke(film_.stream, (first + 50) * 188, {0});
  EXPECT_EQ(faults().count("faults"), 2u);
}

TEST_F(PlexaPvrCheckTest, ALostSyncByteAtAnIFrameIsAlsoAFaultOfTheGop) {
  poke(film_.stream, static_cast<int64_t>(gops()[kDamaged].packet_count) * 188, {0});
  const JsonText found = faults();
  EXPECT_THAT(found.texts("faults", "kind"), UnorderedElementsAre("iframe", "sync"));
  EXPECT_EQ(found.number("faults.0.gop"), static_cast<int64_t>(kDamaged));
  EXPECT_THAT(found.text("faults.0.text"), HasSubstr("no sync byte at the I-frame, but 0x00"));
}

TEST_F(PlexaPvrCheckTest, AShiftedOffset) {
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.packet_count += 1; }),
              AllOf(Contains("chain"), Contains("iframe")));
}

TEST_F(PlexaPvrCheckTest, AnOffsetBehindTheEnd) {
  for (const uint64_t packet : {uint64_t{1} << 20, uint64_t{1} << 62, UINT64_MAX}) {
    EXPECT_THAT(kinds_after([&](Gop &gop) { gop.packet_count = packet; }),
                AllOf(Contains("length"), Contains("packet"), Contains("chain")));
  }
}

TEST_F(PlexaPvrCheckTest, AnotherPictureThanAnIPicture) {
  const uint64_t packet = second_picture(gops()[kDamaged]);
  EXPECT_THAT(kinds_after([&](Gop &gop) { gop.packet_count = packet; }),
              AllOf(Contains("picture"), Contains("pts"), Contains("chain")));
}

TEST_F(PlexaPvrCheckTest, AnotherPictureThanAnIPictureInEveryCodec) {
  for (const std::string &input : {mpeg2_stream(), h265_stream()}) {
    film_ = record(input, film_.stream, {"--overwrite"});
    const uint64_t packet = second_picture(gops()[kDamaged]);
    EXPECT_THAT(kinds_after([&](Gop &gop) { gop.packet_count = packet; }), Contains("picture"));
  }
}

TEST_F(PlexaPvrCheckTest, AnotherCodecThanTheStreams) {
  change_channel([](pvr_channel_info_s &channel) { channel.video_encode_type = 0; });
  EXPECT_THAT(kinds(), ElementsAre("picture"));
}

TEST_F(PlexaPvrCheckTest, TwoRecordsInWrongOrder) {
  const auto all = gops();
  write_gop(film_.index, 5, all[6]);
  write_gop(film_.index, 6, all[5]);
  EXPECT_THAT(kinds(), UnorderedElementsAre("time", "packet", "chain"));
}

TEST_F(PlexaPvrCheckTest, ARecordTwice) {
  write_gop(film_.index, 5, gops()[4]);
  EXPECT_THAT(kinds(), UnorderedElementsAre("time", "packet", "chain"));
}

TEST_F(PlexaPvrCheckTest, ATimeThatDoesNotRise) {
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.time_code -= 600; }),
              UnorderedElementsAre("time", "chain"));
}

TEST_F(PlexaPvrCheckTest, ATimeBeforeTheStart) {
  change_base(film_.index, [](pvr_base_table_s &table) {
    table.start_time_code += 100;
    table.end_time_code += 100;
  });
  const JsonText found = faults();
  EXPECT_THAT(found.texts("faults", "kind"), Contains("time"));
  EXPECT_THAT(found.text("faults.0.text"), HasSubstr("before the start"));
}

TEST_F(PlexaPvrCheckTest, TimesAndPacketsInsideAGop) {
  const auto original = gops()[kDamaged];
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.last_frame_time = gop.time_code - 1; }),
              ElementsAre("time"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.last_frame_time = gop.next_gop_first_time + 1; }),
              ElementsAre("time"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) {
                gop.last_frame_packet_count = gop.next_gop_first_packet_count + 1;
              }),
              ElementsAre("packet"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.last_frame_packet_count = gop.packet_count - 1; }),
              ElementsAre("packet"));
}

TEST_F(PlexaPvrCheckTest, LinksToTheNextGop) {
  const auto original = gops()[kDamaged];
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.next_gop_first_packet_count += 1; }),
              ElementsAre("chain"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.next_gop_first_time += 1; }), ElementsAre("chain"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.next_gop_pts += 1; }), ElementsAre("chain"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.next_gop_first_packet_count = gop.packet_count; }),
              AllOf(Contains("packet"), Contains("chain")));
  EXPECT_THAT(faults().texts("faults", "text"), Contains(HasSubstr("the next GOP's packet, ")));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.next_gop_first_time = gop.time_code; }),
              AllOf(Contains("time"), Contains("chain")));
  EXPECT_THAT(faults().texts("faults", "text"), Contains(HasSubstr("the next GOP's time, ")));
}

TEST_F(PlexaPvrCheckTest, LengthsOfIFrames) {
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.iframe_size = 0; }), ElementsAre("length"));
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.iframe_size = UINT32_MAX; }), ElementsAre("length"));
}

TEST_F(PlexaPvrCheckTest, ChannelRecords) {
  const auto original = gops()[kDamaged];
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.index_of_channel = 4096; }), ElementsAre("channel"));
  EXPECT_THAT(faults().text("faults.0.text"), HasSubstr("channel slot 4096; there are 4096"));
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.index_of_channel = 65535; }), ElementsAre("channel"));
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.index_of_channel = 7; }), ElementsAre("channel"));
  write_gop(film_.index, kDamaged, original);
  EXPECT_THAT(kinds_after([](Gop &gop) { gop.video_pid += 1; }),
              UnorderedElementsAre("channel", "iframe"));
  write_gop(film_.index, kDamaged, original);
  change_channel([](pvr_channel_info_s &channel) { channel.video_encode_type = 9; });
  EXPECT_THAT(kinds(), ElementsAre("channel"));
}

TEST_F(PlexaPvrCheckTest, APacketThatBeginsNoPesPacket) {
  const auto at = static_cast<int64_t>(gops()[kDamaged].packet_count) * 188;
  const auto bytes = read_file(film_.stream);
  const uint8_t second_byte = bytes[static_cast<size_t>(at) + 1];
  poke(film_.stream, at + 1, {static_cast<uint8_t>(second_byte & ~0x40)});
  EXPECT_THAT(kinds(), ElementsAre("iframe"));
  poke(film_.stream, at + 1, {second_byte});
  poke(film_.stream, at + 3, {static_cast<uint8_t>(bytes[static_cast<size_t>(at) + 3] | 0x80)});
  EXPECT_THAT(faults().text("faults.0.text"), HasSubstr("scrambled"));
}

TEST_F(PlexaPvrCheckTest, ATruncatedStream) {
  const auto gop = gops()[8];
  truncate_to(film_.stream, static_cast<int64_t>(gop.packet_count + 3) * 188 + 10);
  const JsonText found = faults();
  const auto all = found.texts("faults", "kind");
  EXPECT_THAT(all, AllOf(Contains("length"), Contains("index-longer"), Contains("base-table"),
                         Contains("partial-packet")));
  EXPECT_EQ(found.number("packets"), static_cast<int64_t>(gop.packet_count) + 3);
}

TEST_F(PlexaPvrCheckTest, AStreamThatGoesOnBehindTheIndex) {
  append(film_.stream, read_file(film_.stream));
  EXPECT_THAT(kinds(), UnorderedElementsAre("index-shorter", "base-table"));
}

TEST_F(PlexaPvrCheckTest, UnfinishedPiecesAtTheEnds) {
  append(film_.stream, std::vector<uint8_t>(10, 0x47));
  append(film_.index, std::vector<uint8_t>(103, 1));
  const JsonText found = faults();
  EXPECT_THAT(found.texts("faults", "kind"),
              UnorderedElementsAre("base-table", "partial-record", "partial-packet"));
  EXPECT_EQ(found.number("faults.1.index_offset"), size_of(film_.index) - 103);
  EXPECT_EQ(found.number("faults.2.stream_offset"), size_of(film_.stream) - 10);
}

TEST_F(PlexaPvrCheckTest, TheHeadOfTheIndex) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.total_size += 1; });
  EXPECT_THAT(kinds(), ElementsAre("base-table"));
  change_base(film_.index, [](pvr_base_table_s &table) {
    table.total_size -= 1;
    table.gop_start_offset = 954360 - 104;
  });
  EXPECT_THAT(kinds(), Contains("base-table"));
}

TEST_F(PlexaPvrCheckTest, AnEndTimeFarFromTheLastGop) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.end_time_code += 3600000; });
  EXPECT_THAT(kinds(), ElementsAre("base-table"));
  EXPECT_THAT(faults().text("faults.0.text"), HasSubstr("the last GOP lasts from"));
  change_base(film_.index, [](pvr_base_table_s &table) { table.end_time_code = 1; });
  EXPECT_THAT(kinds(), ElementsAre("base-table"));
}

TEST_F(PlexaPvrCheckTest, AnEndTimeBeforeTheStartTime) {
  change_base(film_.index, [](pvr_base_table_s &table) {
    table.start_time_code += 10000;
    table.end_time_code = 1;
  });
  EXPECT_THAT(faults().text("faults.0.text"), HasSubstr("end time"));
}

TEST_F(PlexaPvrCheckTest, PacketsBehindTheLastGopOfAnUnfinishedRecordingAreNoFault) {
  change_base(film_.index, [](pvr_base_table_s &table) { table.end_time_code = 0; });
  truncate_to(film_.index, kGopTable + 7 * 104);
  const Ended run = pvr({"check", film_.stream});
  EXPECT_EQ(run.exit_code, 0) << run.out;
  EXPECT_THAT(run.out, HasSubstr(": 7 GOPs"));
}

// Whatever the files hold: an answer, never a crash or a hang.
TEST_F(PlexaPvrCheckTest, RandomDamageIsSurvived) {
  const auto stream = read_file(film_.stream);
  const auto index = read_file(film_.index);
  const auto original = gops();
  std::mt19937 random(20240229);
  const auto below = [&](size_t limit) { return random() % limit; };
  for (int round = 0; round < 60; ++round) {
    auto bad_stream = stream;
    auto bad_index = index;
    for (size_t i = 0; i < 1 + below(40); ++i) {
      bad_index[954360 + below(13 * 104)] = static_cast<uint8_t>(random());
      bad_index[below(300)] ^= static_cast<uint8_t>(round % 3 == 0 ? random() : 0);
    }
    // Where the pictures begin, so that the codec parsers get their share.
    for (size_t i = 0; i < below(3000); ++i) {
      bad_stream[original[below(13)].packet_count * 188 + below(2000)] =
          static_cast<uint8_t>(random());
    }
    bad_stream.resize(bad_stream.size() - (round % 4 == 0 ? below(bad_stream.size()) : 0));
    bad_index.resize(bad_index.size() - (round % 5 == 0 ? below(13 * 104) : 0));
    write_file(dir_.file("bad.kvf"), bad_stream);
    write_file(dir_.file("bad.mdb"), bad_index);
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"check", "bad.kvf", "--json"},
          {"info", "bad.kvf"},
          {"frames", "bad.kvf", "--from", "1"},
          {"seek", "bad.kvf", "--time", "3"},
          {"seek", "bad.kvf", "--offset", "500000"},
          {"export", "bad.kvf", "bad.ts", "--from", "1", "--to", "4", "--overwrite"}}) {
      const Ended run = pvr(command, {.folder = dir_.path()});
      ASSERT_THAT(run.exit_code, testing::AnyOf(0, 1))
          << "round " << round << " " << command[0] << " signal " << run.signal << run.err;
      if (command[0] == "check" && !run.out.empty()) {
        EXPECT_TRUE(JsonText(run.out).valid());
      }
    }
  }
}

}  // namespace
}  // namespace plexa_test
