// Programme tables: sections put together, changes noticed, the programme chosen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "probe.h"
#include "psi.h"
#include "session.h"
#include "test_stream.h"

namespace plexa_test {
namespace {

using plexa::rec::Channel;
using plexa::rec::Programme;
using plexa::rec::ProgrammeTables;

class ProgrammeTablesTest : public ::testing::Test {
 protected:
  ProgrammeTablesTest() { plexa::rec::prepare_gstreamer(); }

  // How many of the packets brought something new.
  int feed(const Bytes &packets) {
    int changes = 0;
    for (size_t at = 0; at < packets.size(); at += kPacketSize) {
      changes += tables_.packet(packets.data() + at) ? 1 : 0;
    }
    return changes;
  }
  int pat(const std::vector<PatEntry> &entries, uint8_t version = 0) {
    return feed(section_packets(0, pat_section(entries, version), counter_++));
  }
  int pmt(uint16_t pid, uint16_t programme, const std::vector<PmtEntry> &entries,
          uint8_t version = 0) {
    return feed(section_packets(pid, pmt_section(programme, 0x99, entries, version), counter_++));
  }

  ProgrammeTables tables_;
  uint8_t counter_ = 0;
};

TEST_F(ProgrammeTablesTest, NothingIsKnownAtFirst) {
  EXPECT_FALSE(tables_.have_programmes());
  EXPECT_EQ(tables_.choose(0, true), nullptr);
  EXPECT_TRUE(tables_.wants(0));
  EXPECT_FALSE(tables_.wants(0x20));
}

TEST_F(ProgrammeTablesTest, TheMapsThatTheTableNamesAreRead) {
  EXPECT_EQ(pat({{0, 0x10}, {1, 0x20}}), 1);
  EXPECT_TRUE(tables_.wants(0x20));
  EXPECT_FALSE(tables_.wants(0x10));  // the network table's
  EXPECT_EQ(pmt(0x20, 1, {{0x06, 0x31}, {0x1b, 0x30}, {0x0f, 0x32}, {0x03, 0x33}}), 1);
  ASSERT_NE(tables_.choose(0, false), nullptr);
  const Channel &channel = *tables_.choose(0, false)->channel;
  EXPECT_EQ(channel.video_pid, 0x30);
  EXPECT_EQ(channel.audio_pid, 0x32u);
  EXPECT_EQ(channel.pcr_pid, 0x99);
  EXPECT_EQ(channel.codec, Codec::kH264);
}

TEST_F(ProgrammeTablesTest, RepetitionsAreNoNews) {
  pat({{1, 0x20}});
  EXPECT_EQ(pat({{1, 0x20}}), 0);
  pmt(0x20, 1, {{0x02, 0x30}});
  EXPECT_EQ(pmt(0x20, 1, {{0x02, 0x30}}), 0);
  tables_.expect_anew();
  EXPECT_FALSE(tables_.find(1)->known);
  EXPECT_EQ(tables_.find_by_video(0x30), tables_.find(1));
  EXPECT_EQ(pat({{1, 0x20}}), 1);
  EXPECT_FALSE(tables_.find(1)->known);
  EXPECT_EQ(pmt(0x20, 1, {{0x02, 0x30}}), 1);
  EXPECT_TRUE(tables_.find(1)->known);
}

TEST_F(ProgrammeTablesTest, ANewVersionReplacesTheMap) {
  pat({{1, 0x20}});
  pmt(0x20, 1, {{0x02, 0x30}});
  EXPECT_EQ(pmt(0x20, 1, {{0x24, 0x40}}, 1), 1);
  EXPECT_EQ(tables_.find(1)->channel->video_pid, 0x40);
  EXPECT_EQ(tables_.find(1)->channel->codec, Codec::kH265);
  EXPECT_EQ(tables_.find_by_video(0x40), tables_.find(1));
  EXPECT_EQ(tables_.find_by_video(0x30), nullptr);
}

TEST_F(ProgrammeTablesTest, ANewTableKeepsTheMapsOfProgrammesThatStay) {
  pat({{1, 0x20}, {2, 0x21}});
  pmt(0x20, 1, {{0x02, 0x30}});
  pmt(0x21, 2, {{0x02, 0x40}});
  pat({{2, 0x21}, {3, 0x22}}, 1);
  EXPECT_EQ(tables_.find(1), nullptr);
  EXPECT_TRUE(tables_.find(2)->known);
  EXPECT_FALSE(tables_.find(3)->known);
  EXPECT_FALSE(tables_.wants(0x20));
}

TEST_F(ProgrammeTablesTest, AProgrammeThatMovesToAnotherPidIsUnknownAgain) {
  pat({{1, 0x20}});
  pmt(0x20, 1, {{0x02, 0x30}});
  pat({{1, 0x25}}, 1);
  EXPECT_FALSE(tables_.find(1)->known);
}

TEST_F(ProgrammeTablesTest, ATableInTwoSectionsIsReadInTheirOrder) {
  feed(section_packets(0, pat_section({{2, 0x21}}, 0, true, 1, 1), 0));
  feed(section_packets(0, pat_section({{1, 0x20}}, 0, true, 0, 1), 1));
  feed(section_packets(0, pat_section({{2, 0x21}}, 0, true, 1, 1), 2));
  ASSERT_EQ(tables_.programmes().size(), 2u);
  EXPECT_EQ(tables_.programmes()[0].number, 1);
  EXPECT_EQ(tables_.programmes()[1].number, 2);
}

TEST_F(ProgrammeTablesTest, AMapThatComesBeforeItsProgrammeIsListedIsReadWhenItComesAgain) {
  // Where two recordings meet, the second one may begin with its map.
  pat({{1, 0x20}});
  EXPECT_EQ(pmt(0x20, 2, {{0x02, 0x30}}), 0);
  pat({{2, 0x20}}, 1);
  EXPECT_FALSE(tables_.find(2)->known);
  EXPECT_EQ(pmt(0x20, 2, {{0x02, 0x30}}), 1);
  EXPECT_TRUE(tables_.find(2)->known);
}

TEST_F(ProgrammeTablesTest, AProgrammeThatComesBackOnItsPidIsKnownByTheMapThatItHad) {
  pat({{1, 0x20}});
  pmt(0x20, 1, {{0x02, 0x30}});
  pat({{2, 0x20}}, 1);
  pat({{1, 0x20}}, 2);
  EXPECT_FALSE(tables_.find(1)->known);
  EXPECT_EQ(pmt(0x20, 1, {{0x02, 0x30}}), 1);
  EXPECT_TRUE(tables_.find(1)->known);
}

TEST_F(ProgrammeTablesTest, ProgrammesStayUntilANewVersionHasComeWhole) {
  feed(section_packets(0, pat_section({{1, 0x20}}, 0, true, 0, 1), 0));
  feed(section_packets(0, pat_section({{2, 0x21}}, 0, true, 1, 1), 1));
  pmt(0x20, 1, {{0x02, 0x30}});
  pmt(0x21, 2, {{0x02, 0x40}});
  feed(section_packets(0, pat_section({{3, 0x22}}, 1, true, 0, 1), 2));
  ASSERT_NE(tables_.find(2), nullptr);
  EXPECT_TRUE(tables_.find(2)->known);
  EXPECT_NE(tables_.find(1), nullptr);
  EXPECT_EQ(tables_.programmes().front().number, 3);
  feed(section_packets(0, pat_section({{2, 0x21}}, 1, true, 1, 1), 3));
  EXPECT_EQ(tables_.find(1), nullptr);
  ASSERT_EQ(tables_.programmes().size(), 2u);
  EXPECT_EQ(tables_.programmes()[0].number, 3);
  EXPECT_EQ(tables_.programmes()[1].number, 2);
  EXPECT_TRUE(tables_.programmes()[1].known);
}

TEST_F(ProgrammeTablesTest, ATableThatGoesBackToItsOldVersionIsReadAgain) {
  feed(section_packets(0, pat_section({{1, 0x20}}, 0, true, 0, 1), 0));
  feed(section_packets(0, pat_section({{2, 0x21}}, 0, true, 1, 1), 1));
  feed(section_packets(0, pat_section({{3, 0x22}}, 1, true, 0, 1), 2));
  feed(section_packets(0, pat_section({{1, 0x20}}, 0, true, 0, 1), 3));
  feed(section_packets(0, pat_section({{2, 0x21}}, 0, true, 1, 1), 4));
  ASSERT_EQ(tables_.programmes().size(), 2u);
  EXPECT_EQ(tables_.find(3), nullptr);
}

TEST_F(ProgrammeTablesTest, ALaterVersionOfOneSectionReplacesTheWholeTable) {
  feed(section_packets(0, pat_section({{1, 0x20}}, 0, true, 0, 1), 0));
  feed(section_packets(0, pat_section({{2, 0x21}}, 0, true, 1, 1), 1));
  feed(section_packets(0, pat_section({{2, 0x21}}, 1), 2));
  ASSERT_EQ(tables_.programmes().size(), 1u);
  EXPECT_EQ(tables_.programmes()[0].number, 2);
}

// 300 KB that list 64,768 programmes, most of them on the same few PIDs: a table is refused what no
// stream can carry, and no step takes longer with every section that came before.
TEST_F(ProgrammeTablesTest, ATableWithoutMeasureIsReadAtOnce) {
  uint16_t number = 1;
  for (unsigned section = 0; section < 256; ++section) {
    std::vector<PatEntry> entries;
    for (int i = 0; i < 253; ++i, ++number) {
      entries.push_back({number, static_cast<uint16_t>(0x20 + number % 7)});
    }
    const Bytes bytes = pat_section(entries, 0, true, static_cast<uint8_t>(section), 255);
    feed(section_packets(0, bytes, counter_));
    counter_ = static_cast<uint8_t>(counter_ + 6);
  }
  EXPECT_EQ(tables_.programmes().size(), 1024u);
  ASSERT_NE(tables_.find(1), nullptr);
  pmt(0x21, 1, {{0x02, 0x30}});
  EXPECT_TRUE(tables_.find(1)->known);
}

TEST_F(ProgrammeTablesTest, TwoMapsOnOnePidAreKeptApart) {
  pat({{1, 0x20}, {2, 0x20}});
  pmt(0x20, 1, {{0x02, 0x30}});
  pmt(0x20, 2, {{0x1b, 0x40}});
  EXPECT_EQ(tables_.find(1)->channel->video_pid, 0x30);
  EXPECT_EQ(tables_.find(2)->channel->video_pid, 0x40);
}

TEST_F(ProgrammeTablesTest, ASectionOverSeveralPacketsIsPutTogether) {
  std::vector<PatEntry> many;
  for (uint16_t i = 1; i <= 150; ++i) many.push_back({i, static_cast<uint16_t>(0x100 + i)});
  const Bytes packets = section_packets(0, pat_section(many));
  ASSERT_EQ(packets.size(), 4 * kPacketSize);
  EXPECT_EQ(feed(packets), 1);
  EXPECT_EQ(tables_.programmes().size(), 150u);
}

TEST_F(ProgrammeTablesTest, ASectionThatMissesAPacketIsDropped) {
  std::vector<PatEntry> many;
  for (uint16_t i = 1; i <= 150; ++i) many.push_back({i, static_cast<uint16_t>(0x100 + i)});
  Bytes packets = section_packets(0, pat_section(many));
  packets.erase(packets.begin() + 188, packets.begin() + 2 * 188);
  EXPECT_EQ(feed(packets), 0);
  EXPECT_FALSE(tables_.have_programmes());
}

TEST_F(ProgrammeTablesTest, APacketSentTwiceIsTakenOnce) {
  std::vector<PatEntry> many;
  for (uint16_t i = 1; i <= 150; ++i) many.push_back({i, static_cast<uint16_t>(0x100 + i)});
  Bytes packets = section_packets(0, pat_section(many));
  const Bytes second(packets.begin() + 188, packets.begin() + 2 * 188);
  packets.insert(packets.begin() + 188, second.begin(), second.end());
  EXPECT_EQ(feed(packets), 1);
}

TEST_F(ProgrammeTablesTest, AMultiplexerThatNeverCountsIsUnderstood) {
  feed(section_packets(0, pat_section({{1, 0x20}})));
  EXPECT_EQ(feed(section_packets(0, pat_section({{1, 0x21}}, 1))), 1);
}

TEST_F(ProgrammeTablesTest, TwoSectionsInOnePacketAreBothRead) {
  pat({{1, 0x20}, {2, 0x20}});
  const Bytes both =
      join({pmt_section(1, 0x99, {{0x02, 0x30}}), pmt_section(2, 0x99, {{0x02, 0x40}})});
  feed(section_packets(0x20, both));
  EXPECT_TRUE(tables_.find(1)->known);
  EXPECT_TRUE(tables_.find(2)->known);
}

TEST_F(ProgrammeTablesTest, ASectionThatEndsInFrontOfTheNextIsRead) {
  std::vector<PatEntry> many;
  for (uint16_t i = 1; i <= 50; ++i) many.push_back({i, static_cast<uint16_t>(0x100 + i)});
  const Bytes first = pat_section(many);
  const Bytes second = pat_section({{1, 0x30}}, 1);
  // The first section's end and, behind it, the second section in one packet.
  const Bytes whole = join({{0}, first});
  const Bytes head(whole.begin(), whole.begin() + 184);
  const Bytes end(whole.begin() + 184, whole.end());
  PacketOptions start;
  start.unit_start = true;
  feed(ts_packet(0, head, start));
  start.continuity = 1;
  EXPECT_EQ(feed(ts_packet(0, join({{static_cast<uint8_t>(end.size())}, end, second}), start)), 1);
  ASSERT_EQ(tables_.programmes().size(), 1u);
  EXPECT_EQ(tables_.programmes()[0].pmt_pid, 0x30);
}

TEST_F(ProgrammeTablesTest, AWrongChecksumIsRefused) {
  Bytes section = pat_section({{1, 0x20}});
  section.back() ^= 1;
  EXPECT_EQ(feed(section_packets(0, section)), 0);
  EXPECT_FALSE(tables_.have_programmes());
}

TEST_F(ProgrammeTablesTest, ATableThatIsNotInForceYetIsLeftAside) {
  EXPECT_EQ(feed(section_packets(0, pat_section({{1, 0x20}}, 0, false))), 0);
  pat({{1, 0x20}});
  EXPECT_EQ(feed(section_packets(0x20, pmt_section(1, 0x99, {{0x02, 0x30}}, 0, false))), 0);
  EXPECT_FALSE(tables_.find(1)->known);
}

TEST_F(ProgrammeTablesTest, DamagedAndScrambledPacketsAreLeftAside) {
  Bytes packet = section_packets(0, pat_section({{1, 0x20}}));
  packet[1] |= 0x80;
  EXPECT_EQ(feed(packet), 0);
  packet[1] &= 0x7f;
  packet[3] |= 0x80;
  EXPECT_EQ(feed(packet), 0);
}

TEST_F(ProgrammeTablesTest, EveryPrefixOfASectionIsHarmless) {
  const Bytes section = pat_section({{1, 0x20}, {2, 0x21}});
  for (size_t size = 0; size < section.size(); ++size) {
    const Bytes prefix(section.begin(), section.begin() + static_cast<long>(size));
    feed(section_packets(0, prefix, static_cast<uint8_t>(size)));
    EXPECT_FALSE(tables_.have_programmes()) << size;
  }
}

TEST_F(ProgrammeTablesTest, EveryAudioKindIsKnown) {
  const Bytes ac3 = {0x6a, 0x01, 0x00};
  for (const PmtEntry &audio : std::vector<PmtEntry>{{0x03, 0x50},
                                                     {0x04, 0x50},
                                                     {0x0f, 0x50},
                                                     {0x11, 0x50},
                                                     {0x81, 0x50},
                                                     {0x87, 0x50},
                                                     {0x06, 0x50, ac3}}) {
    ProgrammeTables fresh;
    tables_ = fresh;
    pat({{1, 0x20}});
    pmt(0x20, 1, {{0x02, 0x30}, audio});
    EXPECT_EQ(tables_.find(1)->channel->audio_pid, 0x50u) << unsigned{audio.stream_type};
  }
}

TEST_F(ProgrammeTablesTest, ASubtitleIsNoAudio) {
  pat({{1, 0x20}});
  pmt(0x20, 1, {{0x02, 0x30}, {0x06, 0x50, {0x59, 0x00}}});
  EXPECT_EQ(tables_.find(1)->channel->audio_pid, uint32_t{plexa::rec::kNoPid});
}

TEST_F(ProgrammeTablesTest, TheFirstWithVideoWaitsForTheMapsBeforeIt) {
  pat({{1, 0x20}, {2, 0x21}});
  pmt(0x21, 2, {{0x02, 0x40}});
  EXPECT_EQ(tables_.choose(0, false), nullptr);
  ASSERT_NE(tables_.choose(0, true), nullptr);
  EXPECT_EQ(tables_.choose(0, true)->number, 2);
  pmt(0x20, 1, {{0x03, 0x30}});
  EXPECT_EQ(tables_.choose(0, false)->number, 2);
  EXPECT_EQ(tables_.choose(2, false)->number, 2);
  EXPECT_EQ(tables_.choose(1, false), nullptr);
  EXPECT_EQ(tables_.choose(3, true), nullptr);
}

TEST_F(ProgrammeTablesTest, AMapThatDoesNotComeIsNotWaitedForForEver) {
  const Bytes tables = join({section_packets(0, pat_section({{1, 0x20}, {2, 0x21}})),
                             section_packets(0x21, pmt_section(2, 0x99, {{0x02, 0x40}}))});
  const Bytes null_packet = ts_packet(0x1fff, {});
  plexa::rec::Probe probe(0);
  EXPECT_FALSE(probe.packets(tables.data(), tables.size() / kPacketSize));
  for (int i = 0; i < 10000; ++i) ASSERT_FALSE(probe.packets(null_packet.data(), 1)) << i;
  EXPECT_TRUE(probe.packets(null_packet.data(), 1));
  EXPECT_EQ(probe.start().programme, 2);
}

TEST_F(ProgrammeTablesTest, AProgrammeThatLosesItsVideoIsNoCandidateAnyMore) {
  const auto map_of_2 = [](const std::vector<PmtEntry> &entries, uint8_t version) {
    return section_packets(0x21, pmt_section(2, 0x99, entries, version), version);
  };
  const Bytes tables = join({section_packets(0, pat_section({{1, 0x20}, {2, 0x21}})),
                             map_of_2({{0x02, 0x40}}, 0), map_of_2({{0x03, 0x41}}, 1)});
  const Bytes null_packet = ts_packet(0x1fff, {});
  plexa::rec::Probe probe(0);
  EXPECT_FALSE(probe.packets(tables.data(), tables.size() / kPacketSize));
  for (int i = 0; i < 20000; ++i) ASSERT_FALSE(probe.packets(null_packet.data(), 1)) << i;
  const Bytes video_again = map_of_2({{0x02, 0x40}}, 2);
  EXPECT_FALSE(probe.packets(video_again.data(), 1));
  for (int i = 0; i < 10000; ++i) ASSERT_FALSE(probe.packets(null_packet.data(), 1)) << i;
  EXPECT_TRUE(probe.packets(null_packet.data(), 1));
}

TEST_F(ProgrammeTablesTest, TheEndOfTheInputEndsTheWait) {
  const Bytes tables = join({section_packets(0, pat_section({{1, 0x20}, {2, 0x21}})),
                             section_packets(0x21, pmt_section(2, 0x99, {{0x02, 0x40}}))});
  plexa::rec::Probe probe(0);
  EXPECT_FALSE(probe.packets(tables.data(), tables.size() / kPacketSize));
  EXPECT_TRUE(probe.finish());
  EXPECT_EQ(probe.start().programme, 2);
}

}  // namespace
}  // namespace plexa_test
