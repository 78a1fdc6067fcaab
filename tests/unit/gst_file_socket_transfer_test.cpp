// What the companion box sends is hostile until checked: the answers to a read, and the sizes of
// packets.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "box_server.h"
#include "faults.h"
#include "gst-plexa/gst_file_socket_io.h"
#include "gst_file_socket_io_internal.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kPath[] = "/rec/a.kvf";

std::string error_line(const std::string &message) { return "[EXT_FMG] [PLG_ERR] " + message; }
const std::string kReadFailed =
    error_line("[ZEB::Client] Receive all error !filePath=[/rec/a.kvf]");

// ---- The answers to a read ----

class ReadAnswerTest : public ::testing::Test {
 protected:
  ReadAnswerTest() {
    const GstSocketOpenFlags flags = {1, 0, 0, 0};
    gst_file_socket_io_init(&state_);
    EXPECT_EQ(gst_file_socket_io_open(&state_, kPath, &flags, 0), 1);
    LogCapture::clear();
  }
  ~ReadAnswerTest() override { gst_file_socket_io_close(&state_); }

  // Reads into a block of exactly the size that was asked for.
  gint64 read(guint32 size) { return read_into(size, size); }
  gint64 read_into(size_t room, guint32 size) {
    block_ = std::make_unique<guint8[]>(room);
    return gst_file_socket_io_read(&state_, block_.get(), size);
  }
  BoxBytes got(size_t size) const { return {block_.get(), block_.get() + size}; }
  bool latched() const { return state_.t_bSockErrOccurred != 0; }

  void expect_refused(gint64 result, const std::string &message) {
    EXPECT_EQ(result, -1);
    EXPECT_THAT(LogCapture::messages(), ElementsAre(error_line(message), kReadFailed));
    EXPECT_TRUE(latched());
  }

  BoxServer box_;
  GstFileSocketIo state_;
  std::unique_ptr<guint8[]> block_;
};

TEST_F(ReadAnswerTest, ItsPacketsAreJoined) {
  const BoxBytes data = counting_bytes(1000);
  const BoxBytes parts[] = {counting_bytes(500), counting_bytes(499, 500), counting_bytes(1, 999)};
  box_.will_answer({joined(
      {data_packet(1000, parts[0]), data_packet(1000, parts[1]), data_packet(1000, parts[2])})});
  EXPECT_EQ(read(1000), 1000);
  EXPECT_EQ(got(1000), data);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(ReadAnswerTest, OnlyTheFirstPacketsCountIsReadBeyondIt) {
  box_.will_answer({joined({data_packet(4, {1, 2}), data_packet(0xffffffff, {3, 4})})});
  box_.will_answer(ok(77));
  EXPECT_EQ(read(4), 4);
  EXPECT_EQ(got(4), BoxBytes({1, 2, 3, 4}));
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 77);
}

TEST_F(ReadAnswerTest, LessMayBeAnnouncedThanWasAskedFor) {
  box_.will_answer({data_packet(3, {7, 8, 9})});
  EXPECT_EQ(read(1000), 3);
  EXPECT_EQ(got(3), BoxBytes({7, 8, 9}));
}

TEST_F(ReadAnswerTest, NothingMayBeAnnounced) {
  box_.will_answer({data_packet(0, {})});
  EXPECT_EQ(read(1000), 0);
  EXPECT_FALSE(latched());
}

TEST_F(ReadAnswerTest, APacketMayBeEmpty) {
  box_.will_answer(
      {joined({data_packet(2, {}), data_packet(2, {5}), data_packet(2, {}), data_packet(2, {6})})});
  EXPECT_EQ(read(2), 2);
  EXPECT_EQ(got(2), BoxBytes({5, 6}));
}

TEST_F(ReadAnswerTest, ItMayDribble) {
  const BoxBytes data = counting_bytes(300);
  box_.will_answer({.bytes = joined({data_packet(300, counting_bytes(100)),
                                     data_packet(300, counting_bytes(200, 100))}),
                    .dribble = true});
  EXPECT_EQ(read(300), 300);
  EXPECT_EQ(got(300), data);
}

TEST_F(ReadAnswerTest, ALargeReadNeedsNoMoreThanTwoReceivesAPacket) {
  const BoxBytes data = counting_bytes(192512);
  box_.will_answer({data_packet(192512, data)});
  Faults faults;
  EXPECT_EQ(read(192512), 192512);
  EXPECT_EQ(faults.count("recv"), 2);
  EXPECT_EQ(got(192512), data);
}

TEST_F(ReadAnswerTest, APacketMayFillTheWholeBuffer) {
  const BoxBytes data = counting_bytes(plexa::kPacketBufferSize - 32);
  box_.will_answer({data_packet(plexa::kPacketBufferSize - 32, data)});
  EXPECT_EQ(read(plexa::kPacketBufferSize), plexa::kPacketBufferSize - 32);
  EXPECT_EQ(got(data.size()), data);
}

TEST_F(ReadAnswerTest, APacketLargerThanTheBufferIsRefused) {
  box_.will_answer({bytes_of(answer_header(plexa::COMMAND_TYPE_READ, 0, 1966081))});
  EXPECT_EQ(read(4000000), -1);
  EXPECT_THAT(
      LogCapture::messages(),
      ElementsAre(
          error_line(
              "[ZEB::Client] packet too large! packet_size=[1966081], buffer size=[1966080]"),
          error_line("[ZEB::Client] Receive packet error! filepath=[/rec/a.kvf], command=[12] "),
          kReadFailed));
  EXPECT_TRUE(latched());
}

TEST_F(ReadAnswerTest, TheLargestPacketSizeIsRefused) {
  box_.will_answer({bytes_of(answer_header(plexa::COMMAND_TYPE_READ, 0, G_MAXINT32))});
  EXPECT_EQ(read(1000), -1);
  EXPECT_LOGGED(kError, error_line("[ZEB::Client] packet too large! packet_size=[2147483647], "
                                   "buffer size=[1966080]"));
}

TEST_F(ReadAnswerTest, ADataPacketWithoutACountIsRefused) {
  for (gint32 size = 28; size < 32; ++size) {
    LogCapture::clear();
    BoxBytes packet = bytes_of(answer_header(plexa::COMMAND_TYPE_READ, 0, size));
    packet.resize(static_cast<size_t>(size));
    box_.will_answer({packet});
    expect_refused(read(1000), "[ZEB::Client] data packet too small! packet_size=[" +
                                   std::to_string(size) + "]");
  }
}

TEST_F(ReadAnswerTest, ALaterPacketWithoutACountIsRefused) {
  box_.will_answer(
      {joined({data_packet(1000, {1}), bytes_of(answer_header(plexa::COMMAND_TYPE_READ, 0, 28))})});
  expect_refused(read(1000), "[ZEB::Client] data packet too small! packet_size=[28]");
}

TEST_F(ReadAnswerTest, MoreAnnouncedThanAskedForIsRefused) {
  box_.will_answer({data_packet(1001, BoxBytes(1001, 0xEE))});
  expect_refused(read(1000),
                 "[ZEB::Client] more announced than asked for! request=[1000], count=[1001]");
  EXPECT_EQ(got(1000), BoxBytes(1000, 0));
}

TEST_F(ReadAnswerTest, TheLargestCountIsRefused) {
  box_.will_answer({data_packet(0xffffffff, {1})});
  expect_refused(read(1000),
                 "[ZEB::Client] more announced than asked for! request=[1000], count=[4294967295]");
}

TEST_F(ReadAnswerTest, MoreDataThanAnnouncedIsRefused) {
  box_.will_answer({data_packet(9, BoxBytes(10, 0xEE))});
  expect_refused(read(1000), "[ZEB::Client] more data than announced! expected=[9], data=[10]");
  EXPECT_EQ(got(1000), BoxBytes(1000, 0));
}

TEST_F(ReadAnswerTest, MoreDataInALaterPacketIsRefused) {
  box_.will_answer({joined({data_packet(1000, BoxBytes(999, 1)), data_packet(0, {2, 3})})});
  expect_refused(read(1000), "[ZEB::Client] more data than announced! expected=[1], data=[2]");
  EXPECT_EQ(got(1000).back(), 0);
}

TEST_F(ReadAnswerTest, TheEndOfTheFileInTheFirstPacketGivesNothing) {
  box_.will_answer({data_packet(1000, BoxBytes(10, 0xEE), 1)});
  EXPECT_EQ(read(1000), 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [ZEB::Client] Request is big than file size, "
                          "request=[1000], read=[0], t_strFilePath=[/rec/a.kvf]!"));
  EXPECT_EQ(got(1000), BoxBytes(1000, 0));
  EXPECT_FALSE(latched());
}

TEST_F(ReadAnswerTest, TheEndOfTheFileInTheSecondPacketGivesTheFirst) {
  box_.will_answer({joined({data_packet(1000, {1, 2, 3}), data_packet(1000, {4, 5}, -1)})});
  box_.will_answer(ok(5));
  EXPECT_EQ(read(1000), 3);
  EXPECT_EQ(got(5), BoxBytes({1, 2, 3, 0, 0}));
  EXPECT_LOGGED(kError,
                "[EXT_FMG] [ZEB::Client] Request is big than file size, request=[1000], "
                "read=[3], t_strFilePath=[/rec/a.kvf]!");
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 5);
}

TEST_F(ReadAnswerTest, TheEndOfTheFileMayBeABareHeaderOfAnyGoodStatus) {
  for (const gint32 status : {0, 1, 12, 99}) {
    header_data_s header = answer_header(status);
    header.is_job_stopped = 1;
    box_.will_answer({bytes_of(header)});
    EXPECT_EQ(read(10), 0) << status;
  }
}

TEST_F(ReadAnswerTest, AFailureAtTheEndOfTheFileIsAFailure) {
  header_data_s header = answer_header(-1);
  header.is_job_stopped = 1;
  box_.will_answer({bytes_of(header)});
  expect_refused(read(10),
                 "[ZEB::Client] Receive packet error! filepath=[/rec/a.kvf], command=[-1] ");
}

TEST_F(ReadAnswerTest, AnyOtherCommandIsRefused) {
  for (const gint32 command : {0, 1, 11, 13, G_MAXINT32}) {
    LogCapture::clear();
    BoxBytes packet = data_packet(1, {9});
    header_data_s header = answer_header(command, 0, 33);
    std::memcpy(packet.data(), &header, sizeof header);
    box_.will_answer({packet});
    expect_refused(read(10), "[ZEB::Client] Not OK! filepath=[/rec/a.kvf], recv command=[" +
                                 std::to_string(command) + "], clnt_sock=[" +
                                 std::to_string(state_.clnt_sock) + "]");
  }
}

TEST_F(ReadAnswerTest, AFailureAfterSomeDataIsAFailure) {
  box_.will_answer({joined({data_packet(1000, {1, 2}), refused(-2).bytes})});
  expect_refused(read(1000),
                 "[ZEB::Client] Receive packet error! filepath=[/rec/a.kvf], command=[-2] ");
}

TEST_F(ReadAnswerTest, ItFailsWhereverTheConnectionEnds) {
  const BoxBytes answer = joined({data_packet(20, counting_bytes(10)), data_packet(20, {1, 2, 3}),
                                  data_packet(20, counting_bytes(7))});
  for (size_t bytes = 0; bytes < answer.size(); ++bytes) {
    gst_file_socket_io_close(&state_);
    const GstSocketOpenFlags flags = {1, 0, 0, 0};
    ASSERT_EQ(gst_file_socket_io_open(&state_, kPath, &flags, 0), 1);
    box_.will_answer({.bytes = answer, .hang_up_after = bytes});
    EXPECT_EQ(read(20), -1) << bytes;
    EXPECT_TRUE(latched()) << bytes;
  }
}

TEST_F(ReadAnswerTest, AReadOfNothingSendsItsRequestAndLeavesTheAnswerUnread) {
  box_.will_answer({data_packet(0, {})});
  box_.will_answer(ok(55));
  EXPECT_EQ(read(0), 0);
  box_.wait_for_requests(2);
  EXPECT_EQ(box_.last_request(), Wire().header(32, 12).u32(0).bytes());
  EXPECT_FALSE(latched());
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 0);   // the read's answer
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 55);  // that of the first tell
}

TEST_F(ReadAnswerTest, ASizeOver2GiBIsNotTakenForNegative) {
  box_.will_answer({data_packet(3, {1, 2, 3})});
  EXPECT_EQ(read_into(3, 0x80000001), 3);
  EXPECT_EQ(box_.last_request(), Wire().header(32, 12).u32(0x80000001).bytes());
}

TEST_F(ReadAnswerTest, AWriteOver2GiBIsNotTakenForNegative) {
  const BoxBytes first_packet(32736);
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(gst_file_socket_io_write(&state_, first_packet.data(), 0x80000001), -1);
  EXPECT_EQ(faults.count("send"), 1);
}

// ---- Packets, on a connection of the test's own ----

class PacketTest : public ::testing::Test {
 protected:
  PacketTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    gst_file_socket_io_init(&state_);
    state_.clnt_sock = ends[0];
    peer_ = ends[1];
    LogCapture::clear();
  }
  ~PacketTest() override {
    close(state_.clnt_sock);
    close(peer_);
  }

  void arrives(const BoxBytes &bytes) {
    ASSERT_EQ(write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void ends() { shutdown(peer_, SHUT_WR); }
  gint32 receive(guint32 capacity = 100) {
    return plexa::gst_file_socket_io_receive_packet(&state_, buffer_, capacity);
  }

  GstFileSocketIo state_;
  int peer_;
  guint8 buffer_[128] = {};
};

TEST_F(PacketTest, TheHeaderIsKeptInTheState) {
  header_data_s header = answer_header(3, -9, 30);
  header.accumulated_time = 4;
  header.fixed_duration = 5;
  header.is_job_stopped = 6;
  arrives(joined({bytes_of(header), {0xAB, 0xCD}}));
  EXPECT_EQ(receive(), 30);
  EXPECT_EQ(bytes_of(state_.header_data), bytes_of(header));
  EXPECT_EQ(buffer_[28], 0xAB);
  EXPECT_EQ(buffer_[29], 0xCD);
}

TEST_F(PacketTest, TheLastHeaderIsForgottenBeforeTheNextIsReceived) {
  state_.header_data = answer_header(12, 99);
  ends();
  EXPECT_EQ(receive(), -1);
  EXPECT_EQ(bytes_of(state_.header_data), BoxBytes(28, 0));
}

TEST_F(PacketTest, AHalfHeaderIsNotKept) {
  arrives({28, 0, 0, 0, 12});
  ends();
  EXPECT_EQ(receive(), -1);
  EXPECT_EQ(state_.header_data.command, 0);
}

TEST_F(PacketTest, TheHeaderIsKeptBeforeTheRestIsReceived) {
  arrives(bytes_of(answer_header(12, 99, 40)));
  ends();
  EXPECT_EQ(receive(), -1);
  EXPECT_EQ(state_.header_data.command, 12);
  EXPECT_EQ(state_.header_data.lld_return, 99);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre(error_line("[ZEB::Client] disconnected! n_data=[0] ")));
}

TEST_F(PacketTest, APacketMayFillTheBufferButNotExceedIt) {
  arrives(joined({bytes_of(answer_header(1, 0, 100)), BoxBytes(72, 7)}));
  EXPECT_EQ(receive(100), 100);
  arrives(joined({bytes_of(answer_header(1, 0, 101)), BoxBytes(73, 8)}));
  EXPECT_EQ(receive(100), -1);
  EXPECT_EQ(buffer_[28], 7);
}

TEST_F(PacketTest, ASignalDuringAReceiveIsAFailure) {
  Faults faults;
  faults.fail("recv", EINTR);
  EXPECT_EQ(receive(), -1);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre(error_line("[ZEB::Client] disconnected! n_data=[-1] ")));
}

TEST_F(PacketTest, ABrokenConnectionRaisesNoSignal) {
  close(peer_);
  const BoxBytes bytes(10);
  EXPECT_EQ(plexa::gst_file_socket_io_send_all(&state_, bytes.data(), 10), -1);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(PacketTest, DisconnectAlwaysSucceedsAndKeepsErrno) {
  Faults faults;
  faults.fail("close", EIO);
  errno = EPIPE;
  EXPECT_EQ(plexa::gst_file_socket_io_disconnect(&state_), 1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(state_.clnt_sock, -1);
  EXPECT_EQ(plexa::gst_file_socket_io_disconnect(&state_), 1);
  EXPECT_EQ(faults.count("close"), 1);
}

using PacketDeathTest = PacketTest;

TEST_F(PacketDeathTest, APacketSmallerThanItsHeaderEndsTheProgram) {
  for (const gint32 size : {27, 1, 0, -1, G_MININT32}) {
    EXPECT_DEATH(
        {
          arrives(bytes_of(answer_header(1, 0, size)));
          receive();
        },
        "gst_file_socket_transfer\\.cpp:.*n_left >= 0")
        << size;
  }
}

}  // namespace
}  // namespace plexa_test
