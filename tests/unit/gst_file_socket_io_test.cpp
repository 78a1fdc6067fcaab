// The operations on a file of the companion box, against a scripted box: what is sent, what comes
// back, every message, and what a failure leaves behind.
#include "gst-plexa/gst_file_socket_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "box_server.h"
#include "faults.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "library_state.h"
#include "log_capture.h"
#include "plexa_config.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kPath[] = "/rec/a.kvf";
constexpr GstSocketOpenFlags kReader = {1, 0, 0, 0};
constexpr GstSocketOpenFlags kTimeshiftWriter = {0, 1, 1, 0};

std::string error_line(const std::string &message) { return "[EXT_FMG] [PLG_ERR] " + message; }
std::string disconnected(int count) {
  return error_line("[ZEB::Client] disconnected! n_data=[" + std::to_string(count) + "] ");
}
// Every "%" in a message is where the command goes.
std::string with_command(std::string message, gint32 command) {
  const size_t at = message.find('%');
  return at == std::string::npos ? message : message.replace(at, 1, std::to_string(command));
}

class SocketIoTest : public ::testing::Test {
 protected:
  SocketIoTest() {
    gst_file_socket_io_init(&state_);
    gst_shared_info_remove(gst_shared_info_get());
    gst_shared_cut_info_remove();
    LogCapture::clear();
  }
  ~SocketIoTest() override {
    state_.t_bSockErrOccurred = 1;
    gst_file_socket_io_close(&state_);
    gst_shared_cut_info_remove();
  }

  gint64 open(const GstSocketOpenFlags &flags = kReader, guint8 mode = 0) {
    return gst_file_socket_io_open(&state_, kPath, &flags, mode);
  }
  void given_an_open_file(const GstSocketOpenFlags &flags = kReader) {
    ASSERT_EQ(open(flags), 1);
    box_.forget_requests();
    LogCapture::clear();
  }
  bool latched() const { return state_.t_bSockErrOccurred != 0; }
  bool connected() const { return state_.clnt_sock != -1; }

  BoxServer box_;
  GstFileSocketIo state_;
};

// ---- Init and open ----

TEST_F(SocketIoTest, InitMakesAStateThatIsNotConnected) {
  GstFileSocketIo state;
  std::memset(&state, 0x5A, sizeof state);
  gst_file_socket_io_init(&state);
  EXPECT_EQ(state.file_path, nullptr);
  EXPECT_EQ(state.flags.read_mode | state.flags.direct_mode, 0);
  EXPECT_EQ(state.flags.is_ts | state.flags.is_index, 0);
  EXPECT_EQ(state.open_mode, 0);
  EXPECT_EQ(state.t_bSockErrOccurred, 0);
  EXPECT_EQ(state.clnt_sock, -1);
  EXPECT_EQ(bytes_of(state.header_data), BoxBytes(28, 0));
  EXPECT_EQ(state.t_pbuf, nullptr);
}

TEST_F(SocketIoTest, OpenConnectsAndSendsOpen) {
  EXPECT_EQ(open({1, 2, 3, 4}, 5), 1);
  EXPECT_EQ(box_.connections(), 1);
  EXPECT_THAT(
      box_.requests(),
      ElementsAre(
          Wire().header(545, 10).path(kPath).path(kPath).u8(1).u8(2).u8(3).u8(4).u8(5).bytes()));
  EXPECT_EQ(state_.file_path, kPath);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(state_.t_pbuf) % 4096, 0u);
  EXPECT_FALSE(latched());
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_FMG] [ZEB::Client] gst_file_socket_io_open ! filePath=[/rec/a.kvf]",
                          "[EXT_FMG] [ZEB::Client] gst_file_socket_io_connect ! "));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

// Even where sockets begin their life without blocking.
TEST_F(SocketIoTest, TheSocketIsBlockingAndIsNotInherited) {
  {
    Faults faults;
    faults.watch("fcntl", [](int fd, const char *, long long command) {
      int on = 1;
      if (command == F_GETFL) ioctl(fd, FIONBIO, &on);
    });
    EXPECT_EQ(open(), 1);
    EXPECT_THAT(faults.calls(), ElementsAre("socket", "fcntl", "fcntl", "connect", "send", "recv"));
  }
  EXPECT_EQ(fcntl(state_.clnt_sock, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(state_.clnt_sock, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(SocketIoTest, TheLastPacketOfAWriteDoesNotWaitForTheAcknowledgementOfTheOthers) {
  given_an_open_file();
  int no_delay = 0;
  socklen_t size = sizeof no_delay;
  EXPECT_EQ(getsockopt(state_.clnt_sock, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
  EXPECT_NE(no_delay, 0);
}

TEST_F(SocketIoTest, OpenGoesToTheBoxsAddressAndPort) {
  Faults faults;
  std::string where;
  faults.watch("connect", [&](int, const char *address, long long port) {
    where = std::string(address) + ":" + std::to_string(port);
  });
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(where, PLEXA_ZEB_ADDRESS ":38999");
}

TEST_F(SocketIoTest, OpenClearsTheLatch) {
  state_.t_bSockErrOccurred = 1;
  EXPECT_EQ(open(), 1);
  EXPECT_FALSE(latched());
}

TEST_F(SocketIoTest, WithoutASocketOpenFails) {
  Faults faults;
  faults.fail("socket", EMFILE);
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("[ZEB::Client] Get socket failed! filePath=[/rec/a.kvf]")));
  EXPECT_FALSE(connected());
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
}

TEST_F(SocketIoTest, AFailedConnectLeavesTheSocketForClose) {
  Faults faults;
  faults.fail("connect", ECONNREFUSED);
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_THAT(
      LogCapture::messages(kError),
      ElementsAre(error_line("[ZEB::Client] Connect failed! server "
                             "ip=[" PLEXA_ZEB_ADDRESS "], errno=[111:Connection refused]")));
  EXPECT_TRUE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
  EXPECT_FALSE(latched());
}

TEST_F(SocketIoTest, AFailedConnectDoesNotClearTheLatch) {
  state_.t_bSockErrOccurred = 1;
  Faults faults;
  faults.fail("connect", ECONNREFUSED);
  EXPECT_EQ(open(), -1);
  EXPECT_TRUE(latched());
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_EQ(faults.count("send"), 0);
  EXPECT_FALSE(connected());
}

TEST_F(SocketIoTest, CloseAfterAFailedConnectStillTriesCloseAndReleasesTheSocket) {
  {
    Faults faults;
    faults.fail("connect", ECONNREFUSED);
    EXPECT_EQ(open(), -1);
  }
  LogCapture::clear();
  EXPECT_EQ(gst_file_socket_io_close(&state_), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("send error(server disconnected). return size=[-1], request "
                                     "size=[28], pos=[0]"),
                          error_line("[ZEB::Client] Send failed !, filePath=[/rec/a.kvf]")));
  EXPECT_FALSE(connected());
  EXPECT_TRUE(latched());
}

TEST_F(SocketIoTest, WithoutThePacketBufferOpenFailsAndTheConnectionStays) {
  Faults faults;
  faults.fail("valloc", ENOMEM);
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_TRUE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
  EXPECT_FALSE(latched());
  EXPECT_THAT(box_.requests(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [ZEB::Client] gst_file_socket_io_open ! filePath=[/rec/a.kvf]",
                          "[EXT_FMG] [ZEB::Client] gst_file_socket_io_connect ! "));
}

TEST_F(SocketIoTest, CloseWithoutThePacketBufferStillSendsClose) {
  {
    Faults faults;
    faults.fail("valloc", ENOMEM);
    EXPECT_EQ(open(), -1);
  }
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_THAT(box_.requests(), ElementsAre(Wire().header(28, 11).bytes()));
  EXPECT_FALSE(connected());
}

// There is no room for it, and none is written behind what there is.
TEST_F(SocketIoTest, CloseWithoutThePacketBufferRefusesALargeAnswer) {
  {
    Faults faults;
    faults.fail("valloc", ENOMEM);
    EXPECT_EQ(open(), -1);
  }
  LogCapture::clear();
  box_.will_answer({joined({bytes_of(answer_header(1, 0, 1025)), BoxBytes(997, 0xEE)})});
  EXPECT_EQ(gst_file_socket_io_close(&state_), -1);
  EXPECT_THAT(
      LogCapture::messages(kError),
      ElementsAre(
          error_line("[ZEB::Client] packet too large! packet_size=[1025], buffer size=[1024]"),
          error_line("[ZEB::Client] Receive packet error ! filePath=[/rec/a.kvf], command=[1]")));
  EXPECT_FALSE(connected());
}

TEST_F(SocketIoTest, AFailedSendOfOpenReleasesEverything) {
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("send error(server disconnected). return size=[-1], request "
                                     "size=[545], pos=[0]"),
                          error_line("[ZEB::Client] Send failed !, filePath=[/rec/a.kvf]")));
  EXPECT_TRUE(latched());
  EXPECT_FALSE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
}

TEST_F(SocketIoTest, ARefusedOpenReleasesEverything) {
  box_.will_answer_open(refused(-7));
  EXPECT_EQ(open(), -1);
  EXPECT_EQ(errno, 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line(
                  "receive packet error ! filePath=[/rec/a.kvf], ret=[28], command=[-7]")));
  EXPECT_TRUE(latched());
  EXPECT_FALSE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
  box_.wait_until_disconnected();
}

TEST_F(SocketIoTest, OpenFailsWhereverItsAnswerEnds) {
  for (size_t bytes = 0; bytes < 28; ++bytes) {
    LogCapture::clear();
    box_.will_answer_open({.bytes = ok().bytes, .hang_up_after = bytes});
    EXPECT_EQ(open(), -1) << bytes;
    EXPECT_THAT(LogCapture::messages(kError),
                ElementsAre(disconnected(0),
                            error_line("receive packet error ! filePath=[/rec/a.kvf], ret=[-1], "
                                       "command=[0]")))
        << bytes;
    EXPECT_TRUE(latched());
    EXPECT_FALSE(connected());
  }
}

TEST_F(SocketIoTest, AStatusOfZeroIsSuccess) {
  box_.will_answer_open(refused(0));
  EXPECT_EQ(open(), 1);
}

TEST_F(SocketIoTest, OpeningTwiceLeavesOneConnectionAndOneBuffer) {
  given_an_open_file();
  const int with_one = open_descriptors();
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(box_.connections(), 2);
  // The box's side of the first connection ends by itself.
  while (open_descriptors() > with_one) sched_yield();
  EXPECT_EQ(open_descriptors(), with_one);
}

// ---- Close ----

TEST_F(SocketIoTest, CloseSendsCloseAndReleasesEverything) {
  given_an_open_file();
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_THAT(box_.requests(), ElementsAre(Wire().header(28, 11).bytes()));
  EXPECT_THAT(
      LogCapture::messages(),
      ElementsAre("[EXT_FMG] [ZEB::Client] gst_file_socket_io_close ! filePath=[/rec/a.kvf]"));
  EXPECT_FALSE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
  EXPECT_EQ(state_.file_path, nullptr);
  box_.wait_until_disconnected();
}

TEST_F(SocketIoTest, CloseWithoutAConnectionIsASuccess) {
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_THAT(LogCapture::messages(kInfo),
              ElementsAre("[EXT_FMG] [ZEB::Client] gst_file_socket_io_close ! filePath=[]",
                          "[EXT_FMG] [ZEB::Client] clnt_sock == -1."));
}

TEST_F(SocketIoTest, CloseAfterAFailedExchangeSendsNothing) {
  given_an_open_file();
  box_.will_answer(refused());
  EXPECT_EQ(gst_file_socket_io_tell(&state_), -1);
  box_.forget_requests();
  LogCapture::clear();
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_THAT(
      LogCapture::messages(kInfo),
      ElementsAre("[EXT_FMG] [ZEB::Client] gst_file_socket_io_close ! filePath=[/rec/a.kvf]",
                  "[EXT_FMG] [ZEB::Client] t_bSockErrOccurred == true."));
  box_.wait_until_disconnected();
  EXPECT_THAT(box_.requests(), IsEmpty());
  EXPECT_FALSE(connected());
}

TEST_F(SocketIoTest, ARefusedCloseDisconnectsAllTheSame) {
  given_an_open_file();
  box_.will_answer(refused(-3));
  EXPECT_EQ(gst_file_socket_io_close(&state_), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line(
                  "[ZEB::Client] Receive packet error ! filePath=[/rec/a.kvf], command=[-3]")));
  EXPECT_TRUE(latched());
  EXPECT_FALSE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
}

TEST_F(SocketIoTest, CloseFailsWhereverItsAnswerEnds) {
  for (size_t bytes = 0; bytes < 28; ++bytes) {
    given_an_open_file();
    box_.will_answer({.bytes = ok().bytes, .hang_up_after = bytes});
    EXPECT_EQ(gst_file_socket_io_close(&state_), -1) << bytes;
    EXPECT_LOGGED(kError, error_line("[ZEB::Client] Receive packet error ! filePath=[/rec/a.kvf], "
                                     "command=[0]"));
    EXPECT_FALSE(connected());
  }
}

TEST_F(SocketIoTest, AFileCanBeOpenedAgainAfterClose) {
  given_an_open_file();
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_EQ(open(), 1);
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 0);
}

// ---- The operations of an open file ----

const BoxBytes kData = counting_bytes(8, 100);
guint8 destination[64];

struct Operation {
  const char *name;
  std::function<gint64(GstFileSocketIo *)> act;
  BoxBytes request;
  BoxBytes answer;  // lld_return is 7 where it counts
  gint64 result;
  size_t sent;  // bytes of the first send
  std::vector<std::string> send_failed;
  std::vector<std::string> receive_failed;  // % is the command
  bool is_result_of_box;                    // lld_return is passed on
};

void PrintTo(const Operation &operation, std::ostream *out) { *out << operation.name; }

const std::string kSendFailed = "[ZEB::Client] Send failed !, filePath=[/rec/a.kvf]";
const std::string kReceiveFailed =
    "[ZEB::Client] Receive packet error !filePath=[/rec/a.kvf], command=[%]";
const std::string kUntagged = "Receive packet error !filePath=[/rec/a.kvf], command=[%]";

const Operation kOperations[] = {
    {"read",
     [](GstFileSocketIo *s) { return gst_file_socket_io_read(s, destination, 8); },
     Wire().header(32, 12).u32(8).bytes(),
     data_packet(8, kData),
     8,
     32,
     {kSendFailed},
     {"[ZEB::Client] Receive packet error! filepath=[/rec/a.kvf], command=[%] ",
      "[ZEB::Client] Receive all error !filePath=[/rec/a.kvf]"},
     false},
    {"write",
     [](GstFileSocketIo *s) { return gst_file_socket_io_write(s, "abc", 3); },
     Wire().header(35, 13).u32(3).u8('a').u8('b').u8('c').bytes(),
     ok(7).bytes,
     7,
     35,
     {"send error. return size=[-1]", "[ZEB::Client] Send all error ! filePath=[/rec/a.kvf]"},
     {kReceiveFailed},
     true},
    {"seek",
     [](GstFileSocketIo *s) { return gst_file_socket_io_seek(s, 6000000000, 1); },
     Wire().header(40, 14).u32(1).u64(6000000000).bytes(),
     ok(7).bytes,
     7,
     40,
     {kSendFailed},
     {kReceiveFailed},
     true},
    {"tell",
     [](GstFileSocketIo *s) { return gst_file_socket_io_tell(s); },
     Wire().header(28, 15).bytes(),
     ok(7).bytes,
     7,
     28,
     {kSendFailed},
     {"gst_file_socket_io_receive_packet() ret[?]", kUntagged},
     true},
    {"size",
     [](GstFileSocketIo *s) { return gst_file_socket_io_size(s); },
     Wire().header(28, 16).bytes(),
     ok(7).bytes,
     7,
     28,
     {"[ZEB::Client] Send failed!, filePath = [/rec/a.kvf]"},
     {kReceiveFailed},
     true},
    {"fsync",
     [](GstFileSocketIo *s) { return gst_file_socket_io_fsync(s); },
     Wire().header(28, 17).bytes(),
     ok(7).bytes,
     1,
     28,
     {kSendFailed},
     {kUntagged},
     false},
    {"set_max_time",
     [](GstFileSocketIo *s) { return gst_file_socket_io_set_max_time(s, -2); },
     Wire().header(36, 19).u64(static_cast<uint64_t>(-2)).bytes(),
     ok(7).bytes,
     7,
     36,
     {kSendFailed},
     {kUntagged},
     true},
    {"set_last_wrote_time",
     [](GstFileSocketIo *s) { return gst_file_socket_io_set_last_wrote_time(s, 0x80000000); },
     Wire().header(36, 21).u32(0x80000000).u32(0).bytes(),
     ok(7).bytes,
     7,
     36,
     {"[ZEB::Client] gst_file_socket_io_send_all() failed !, filePath=[/rec/a.kvf]"},
     {kReceiveFailed},
     true},
};

class SocketIoOperationTest : public SocketIoTest, public ::testing::WithParamInterface<Operation> {
 protected:
  gint64 act() { return GetParam().act(&state_); }

  // The lines of a failed receive; ret is what receive_packet gave.
  std::vector<std::string> receive_lines(gint32 command, gint32 ret) {
    std::vector<std::string> lines;
    for (std::string message : GetParam().receive_failed) {
      if (const size_t at = message.find('?'); at != std::string::npos) {
        message.replace(at, 1, std::to_string(ret));
      }
      lines.push_back(error_line(with_command(message, command)));
    }
    return lines;
  }
};

INSTANTIATE_TEST_SUITE_P(All, SocketIoOperationTest, ::testing::ValuesIn(kOperations),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(SocketIoOperationTest, SendsItsRequestAndGivesTheBoxsResult) {
  given_an_open_file();
  box_.will_answer({GetParam().answer});
  EXPECT_EQ(act(), GetParam().result);
  EXPECT_THAT(box_.requests(), ElementsAre(GetParam().request));
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
  EXPECT_FALSE(latched());
}

TEST_P(SocketIoOperationTest, TakesOneSendAndAtMostTwoReceives) {
  given_an_open_file();
  box_.will_answer({GetParam().answer});
  Faults faults;
  EXPECT_EQ(act(), GetParam().result);
  EXPECT_EQ(faults.count("send"), 1);
  EXPECT_EQ(faults.count("recv"), GetParam().answer.size() > 28 ? 2 : 1);
  EXPECT_EQ(faults.count("malloc") + faults.count("valloc") + faults.count("calloc"), 0);
}

TEST_P(SocketIoOperationTest, WorksWhenTheAnswerDribbles) {
  given_an_open_file();
  box_.will_answer({.bytes = GetParam().answer, .dribble = true});
  EXPECT_EQ(act(), GetParam().result);
}

TEST_P(SocketIoOperationTest, WorksWhenEverySendAndReceiveComesUpShort) {
  given_an_open_file();
  box_.will_answer({GetParam().answer});
  Faults faults;
  faults.shorten("send", 5);
  faults.shorten("recv", 3);
  EXPECT_EQ(act(), GetParam().result);
  EXPECT_THAT(box_.requests(), ElementsAre(GetParam().request));
}

TEST_P(SocketIoOperationTest, AFailedSendSetsTheLatch) {
  given_an_open_file();
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(act(), -1);
  EXPECT_EQ(errno, EPIPE);
  std::vector<std::string> lines = {
      error_line("send error(server disconnected). return size=[-1], request size=[" +
                 std::to_string(GetParam().sent) + "], pos=[0]")};
  for (const std::string &message : GetParam().send_failed) lines.push_back(error_line(message));
  EXPECT_EQ(LogCapture::messages(kError), lines);
  EXPECT_TRUE(latched());
  EXPECT_TRUE(connected());
}

TEST_P(SocketIoOperationTest, ASendThatSendsNothingIsAFailureToo) {
  given_an_open_file();
  Faults faults;
  faults.answer("send", 0);
  EXPECT_EQ(act(), -1);
  EXPECT_EQ(errno, 0);
  EXPECT_LOGGED(kError,
                error_line("send error(server disconnected). return size=[0], request size=[" +
                           std::to_string(GetParam().sent) + "], pos=[0]"));
}

TEST_P(SocketIoOperationTest, AFailureInTheMiddleOfASendTellsThePosition) {
  given_an_open_file();
  Faults faults;
  faults.shorten("send", 5);
  faults.fail("send", ECONNRESET, 2);
  EXPECT_EQ(act(), -1);
  EXPECT_LOGGED(kError,
                error_line("send error(server disconnected). return size=[-1], request size=[" +
                           std::to_string(GetParam().sent) + "], pos=[5]"));
}

TEST_P(SocketIoOperationTest, AFailedReceiveSetsTheLatch) {
  given_an_open_file();
  Faults faults;
  faults.fail("recv", ECONNRESET);
  EXPECT_EQ(act(), -1);
  EXPECT_EQ(errno, ECONNRESET);
  std::vector<std::string> lines = receive_lines(0, -1);
  lines.insert(lines.begin(), disconnected(-1));
  EXPECT_EQ(LogCapture::messages(kError), lines);
  EXPECT_TRUE(latched());
  EXPECT_TRUE(connected());
}

TEST_P(SocketIoOperationTest, ANegativeStatusSetsTheLatch) {
  for (const gint32 status : {-1, -5, G_MININT32}) {
    given_an_open_file();
    box_.will_answer(refused(status));
    EXPECT_EQ(act(), -1);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(LogCapture::messages(kError), receive_lines(status, 28));
    EXPECT_TRUE(latched());
    EXPECT_TRUE(connected());
  }
}

TEST_P(SocketIoOperationTest, FailsWhereverItsAnswerEnds) {
  const BoxBytes &answer = GetParam().answer;
  const auto command = plexa::record_at<header_data_s>(answer.data()).command;
  for (size_t bytes = 0; bytes < answer.size(); ++bytes) {
    given_an_open_file();
    box_.will_answer({.bytes = answer, .hang_up_after = bytes});
    EXPECT_EQ(act(), -1) << bytes;
    EXPECT_EQ(errno, 0) << bytes;
    std::vector<std::string> lines = receive_lines(bytes < 28 ? 0 : command, -1);
    lines.insert(lines.begin(), disconnected(0));
    EXPECT_EQ(LogCapture::messages(kError), lines) << bytes;
    EXPECT_TRUE(latched()) << bytes;
  }
}

TEST_P(SocketIoOperationTest, TheNextOneStillTriesAndItsSuccessDoesNotClearTheLatch) {
  given_an_open_file();
  box_.will_answer(refused());
  EXPECT_EQ(gst_file_socket_io_tell(&state_), -1);
  box_.will_answer({GetParam().answer});
  EXPECT_EQ(act(), GetParam().result);
  EXPECT_EQ(box_.last_request(), GetParam().request);
  EXPECT_TRUE(latched());
}

TEST_P(SocketIoOperationTest, WithoutAConnectionItFailsAndLeavesTheLatchAlone) {
  EXPECT_EQ(act(), -1);
  EXPECT_FALSE(latched());
  if (std::string(GetParam().name) == "tell") {
    EXPECT_THAT(LogCapture::messages(),
                ElementsAre(error_line("[ZEB::Client] gst_file_socket_io_make_command() failed")));
  } else {
    EXPECT_THAT(LogCapture::messages(), IsEmpty());
  }
}

TEST_P(SocketIoOperationTest, AfterAFailedConnectItFails) {
  {
    Faults faults;
    faults.fail("connect", ETIMEDOUT);
    EXPECT_EQ(open(), -1);
  }
  EXPECT_EQ(act(), -1);
  EXPECT_FALSE(latched());
}

TEST_P(SocketIoOperationTest, ANegativeResultUnderAGoodStatusIsAResult) {
  if (!GetParam().is_result_of_box) return;
  given_an_open_file();
  box_.will_answer(ok(-5));
  EXPECT_EQ(act(), -5);
  EXPECT_FALSE(latched());
  EXPECT_THAT(LogCapture::messages(kError), IsEmpty());
}

TEST_P(SocketIoOperationTest, AResultIs64BitsWide) {
  if (!GetParam().is_result_of_box) return;
  given_an_open_file();
  box_.will_answer(ok(0x123456789abcdef0));
  EXPECT_EQ(act(), 0x123456789abcdef0);
}

TEST_P(SocketIoOperationTest, TheHeaderLineIsWrittenByWriteAlone) {
  given_an_open_file();
  box_.will_answer({GetParam().answer});
  EXPECT_EQ(act(), GetParam().result);
  if (std::string(GetParam().name) == "write") {
    EXPECT_THAT(LogCapture::messages(),
                ElementsAre("[EXT_FMG] n_left = [3]",
                            "[EXT_FMG] [/rec/a.kvf]HeaderData: size = [28], packet_size = [35], "
                            "command = [13:COMMAND_TYPE_WRITE], accumulated_time = [0], "
                            "fixed_duration = [0], is_job_stopped = [0], lld_return = [0], "
                            "n_data_size = [3]"));
  } else {
    EXPECT_THAT(LogCapture::messages(), IsEmpty());
  }
}

// What follows a header is read with it, so that the next answer is found.
TEST_F(SocketIoTest, AnAnswerMayBeLongerThanItsHeader) {
  given_an_open_file();
  box_.will_answer({joined({bytes_of(answer_header(1, 42, 128)), BoxBytes(100, 0xAA)})});
  box_.will_answer(ok(43));
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 42);
  EXPECT_EQ(gst_file_socket_io_tell(&state_), 43);
}

TEST_F(SocketIoTest, EveryRequestIsZeroedAlthoughAnAnswerLayInTheBuffer) {
  given_an_open_file();
  box_.will_answer({data_packet(8, BoxBytes(8, 0xFF))});
  EXPECT_EQ(gst_file_socket_io_read(&state_, destination, 8), 8);
  EXPECT_EQ(gst_file_socket_io_set_last_wrote_time(&state_, 1), 0);
  EXPECT_EQ(box_.last_request(), Wire().header(36, 21).u32(1).u32(0).bytes());
}

// ---- Write ----

TEST_F(SocketIoTest, AWriteGoesOutInPacketsWithTheWholeSizeInEach) {
  given_an_open_file();
  const BoxBytes data = counting_bytes(70000);
  box_.will_answer(ok(70000));
  EXPECT_EQ(gst_file_socket_io_write(&state_, data.data(), 70000), 70000);
  const std::vector<BoxBytes> packets = box_.requests();
  ASSERT_EQ(packets.size(), 3u);
  size_t at = 0;
  for (const auto &[packet, size] :
       {std::pair(0, 32736u), std::pair(1, 32736u), std::pair(2, 4528u)}) {
    BoxBytes wanted = Wire().header(size + 32, 13).u32(70000).bytes();
    wanted.insert(wanted.end(), data.begin() + static_cast<std::ptrdiff_t>(at),
                  data.begin() + static_cast<std::ptrdiff_t>(at + size));
    EXPECT_EQ(packets[static_cast<size_t>(packet)], wanted) << packet;
    at += size;
  }
  EXPECT_EQ(LogCapture::messages(kInfo).size(), 4u);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] n_left = [70000]");
}

TEST_F(SocketIoTest, ALargeWriteTakesOneSendAPacketAndOneReceive) {
  given_an_open_file();
  const BoxBytes data(192512);
  box_.will_answer(ok(192512));
  Faults faults;
  EXPECT_EQ(gst_file_socket_io_write(&state_, data.data(), 192512), 192512);
  EXPECT_THAT(faults.calls(), ElementsAre("send", "send", "send", "send", "send", "send", "recv"));
}

TEST_F(SocketIoTest, AWriteOfOneWholePacketSendsNoEmptyOne) {
  given_an_open_file();
  const BoxBytes data(32736);
  box_.will_answer(ok(32736));
  EXPECT_EQ(gst_file_socket_io_write(&state_, data.data(), 32736), 32736);
  EXPECT_EQ(box_.requests().size(), 1u);
}

TEST_F(SocketIoTest, AWriteOfNothingSendsNothingAndFails) {
  given_an_open_file();
  Faults faults;
  EXPECT_EQ(gst_file_socket_io_write(&state_, "", 0), -1);
  EXPECT_EQ(faults.count("send"), 0);
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] n_left = [0]",
                          error_line("[ZEB::Client] Send all error ! filePath=[/rec/a.kvf]")));
  EXPECT_TRUE(latched());
}

TEST_F(SocketIoTest, AWriteThatFailsInItsSecondPacketStopsThere) {
  given_an_open_file();
  const BoxBytes data(70000);
  Faults faults;
  faults.fail("send", EPIPE, 2);
  EXPECT_EQ(gst_file_socket_io_write(&state_, data.data(), 70000), -1);
  EXPECT_EQ(faults.count("send"), 2);
  EXPECT_EQ(faults.count("recv"), 0);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("send error(server disconnected). return size=[-1], request "
                                     "size=[32768], pos=[0]"),
                          error_line("send error. return size=[-1]"),
                          error_line("[ZEB::Client] Send all error ! filePath=[/rec/a.kvf]")));
}

TEST_F(SocketIoTest, TheAnswerToATimeshiftWriteUpdatesTheSharedCutInfo) {
  given_an_open_file(kTimeshiftWriter);
  box_.will_answer(timeshift_ok(3, 60000, 5400000));
  EXPECT_EQ(gst_file_socket_io_write(&state_, "abc", 3), 3);
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  EXPECT_EQ(gst_shared_cut_info_get_accumulated_time(info), 60000);
  EXPECT_EQ(gst_shared_cut_info_get_fixed_duration(info), 5400000);
  EXPECT_EQ(gst_file_socket_io_get_max_time(&state_), 5400000);
}

TEST_F(SocketIoTest, NoOtherWriteDoes) {
  const GstSocketOpenFlags others[] = {{1, 1, 1, 0}, {0, 0, 1, 0}, {0, 1, 0, 0}};
  for (const GstSocketOpenFlags &flags : others) {
    given_an_open_file(flags);
    box_.will_answer(timeshift_ok(3, 60000, 5400000));
    EXPECT_EQ(gst_file_socket_io_write(&state_, "abc", 3), 3);
    EXPECT_EQ(gst_shared_cut_info_get_accumulated_time(gst_shared_cut_info_get()), 0);
    EXPECT_EQ(gst_shared_cut_info_get_fixed_duration(gst_shared_cut_info_get()), 0);
  }
}

TEST_F(SocketIoTest, AFailedTimeshiftWriteDoesNotEither) {
  given_an_open_file(kTimeshiftWriter);
  BoxAnswer answer = timeshift_ok(3, 60000, 5400000);
  answer.bytes[7] = 0x80;  // the status
  box_.will_answer(answer);
  EXPECT_EQ(gst_file_socket_io_write(&state_, "abc", 3), -1);
  EXPECT_EQ(gst_shared_cut_info_get_accumulated_time(gst_shared_cut_info_get()), 0);
  EXPECT_EQ(gst_shared_cut_info_get_fixed_duration(gst_shared_cut_info_get()), 0);
}

TEST_F(SocketIoTest, TheMaximumTimeIsAskedOfNobody) {
  given_an_open_file();
  gst_shared_cut_info_set_fixed_duration(gst_shared_cut_info_get(), 123456);
  EXPECT_EQ(gst_file_socket_io_get_max_time(&state_), 123456);
  EXPECT_THAT(box_.requests(), IsEmpty());
}

// ---- One-shot requests ----

pvr_cut_request_s cut_request() {
  pvr_cut_request_s request{};
  std::strcpy(request.kvf_file_name, "/rec/a.kvf");
  request.start_offset = 188;
  request.end_offset = 6000000000;
  return request;
}

struct OneShot {
  const char *name;
  std::function<gint64(GstFileSocketIo *)> act;
  BoxBytes request;
  gint64 failure;
  std::string connect_failed, no_buffer, receive_failed;  // % is the command
  std::string info;
};

void PrintTo(const OneShot &one, std::ostream *out) { *out << one.name; }

const pvr_cut_request_s kCut = cut_request();

BoxBytes cut_bytes() {
  BoxBytes bytes =
      Wire().header(560, 25).path("/rec/a.kvf").u64(188).u64(6000000000).path("").u32(0).bytes();
  return bytes;
}

const OneShot kOneShots[] = {
    {"rename",
     [](GstFileSocketIo *s) { return gst_file_socket_io_rename(s, "/rec/old", "/rec/new"); },
     Wire().header(540, 22).path("/rec/old").path("/rec/new").bytes(), -1,
     "gst_file_socket_io_connect", "socket_io->t_pbuf == NULL, valloc failed",
     "receiv packet error! retval=[?], socket_io->header_data.command=[%]",
     "old_path = [/rec/old], new_path = [/rec/new]"},
    {"cut_file", [](GstFileSocketIo *s) { return gst_file_socket_io_cut_file(s, &kCut); },
     cut_bytes(), 0, "gst_file_socket_io_connect failed", "socket_io->t_pbuf == NULL",
     "receive packet error! retval=[?], socket_io->header_data.command=[%]",
     "COMMAND_TYPE_CUT_FILE"},
};

class SocketIoOneShotTest : public SocketIoTest, public ::testing::WithParamInterface<OneShot> {
 protected:
  SocketIoOneShotTest() { state_.file_path = kPath; }
  gint64 act() { return GetParam().act(&state_); }
  std::string receive_line(gint32 command, gint32 ret) {
    std::string message = GetParam().receive_failed;
    message.replace(message.find('?'), 1, std::to_string(ret));
    return error_line(with_command(message, command));
  }
  void expect_released() {
    EXPECT_FALSE(connected());
    EXPECT_EQ(state_.t_pbuf, nullptr);
    box_.wait_until_disconnected();
  }
};

INSTANTIATE_TEST_SUITE_P(All, SocketIoOneShotTest, ::testing::ValuesIn(kOneShots),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(SocketIoOneShotTest, HasAConnectionOfItsOwnForOneExchange) {
  EXPECT_EQ(act(), 1);
  EXPECT_THAT(box_.requests(), ElementsAre(GetParam().request));
  EXPECT_THAT(LogCapture::messages(),
              ElementsAre("[EXT_FMG] [ZEB::Client] gst_file_socket_io_connect ! ",
                          "[EXT_FMG] " + GetParam().info));
  EXPECT_EQ(LogCapture::messages(kInfo).size(), 2u);
  EXPECT_EQ(box_.connections(), 1);
  expect_released();
}

TEST_P(SocketIoOneShotTest, WithoutASocketItFails) {
  Faults faults;
  faults.fail("socket", EMFILE);
  EXPECT_EQ(act(), GetParam().failure);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("[ZEB::Client] Get socket failed! filePath=[/rec/a.kvf]"),
                          error_line(GetParam().connect_failed)));
}

TEST_P(SocketIoOneShotTest, AFailedConnectLeavesNoDescriptorBehind) {
  const int before = open_descriptors();
  {
    Faults faults;
    faults.fail("connect", ECONNREFUSED);
    EXPECT_EQ(act(), GetParam().failure);
    EXPECT_EQ(errno, ECONNREFUSED);
  }
  EXPECT_EQ(LogCapture::messages(kError).back(), error_line(GetParam().connect_failed));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_FALSE(connected());
}

TEST_P(SocketIoOneShotTest, WithoutABufferItFailsAndDisconnects) {
  Faults faults;
  faults.fail("valloc", ENOMEM);
  EXPECT_EQ(act(), GetParam().failure);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(error_line(GetParam().no_buffer)));
  EXPECT_FALSE(connected());
}

TEST_P(SocketIoOneShotTest, AFailedSendFailsAndDisconnects) {
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(act(), GetParam().failure);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre(error_line("send error(server disconnected). return size=[-1], request "
                                     "size=[" +
                                     std::to_string(GetParam().request.size()) + "], pos=[0]"),
                          error_line("[ZEB::Client] Send failed !, filePath=[/rec/a.kvf]")));
  EXPECT_FALSE(connected());
  EXPECT_EQ(state_.t_pbuf, nullptr);
}

TEST_P(SocketIoOneShotTest, ANegativeStatusFailsAndSetsTheLatch) {
  box_.will_answer(refused(-4));
  EXPECT_EQ(act(), GetParam().failure);
  EXPECT_EQ(errno, 0);
  EXPECT_THAT(LogCapture::messages(kError), ElementsAre(receive_line(-4, 28)));
  EXPECT_TRUE(latched());
  expect_released();
}

TEST_P(SocketIoOneShotTest, FailsWhereverItsAnswerEnds) {
  for (size_t bytes = 0; bytes < 28; ++bytes) {
    LogCapture::clear();
    box_.will_answer({.bytes = ok().bytes, .hang_up_after = bytes});
    EXPECT_EQ(act(), GetParam().failure) << bytes;
    EXPECT_THAT(LogCapture::messages(kError), ElementsAre(disconnected(0), receive_line(0, -1)))
        << bytes;
    EXPECT_TRUE(latched());
    expect_released();
  }
}

TEST_P(SocketIoOneShotTest, WorksWhenTheAnswerDribbles) {
  box_.will_answer({.bytes = ok().bytes, .dribble = true});
  EXPECT_EQ(act(), 1);
}

TEST_F(SocketIoTest, ARenameWithoutAPathIsNotMade) {
  EXPECT_EQ(gst_file_socket_io_rename(&state_, nullptr, "/rec/new"), -1);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] old_path = [], new_path = [/rec/new]");
  EXPECT_LOGGED(kError, error_line("gst_file_socket_io_make_command: COMMAND_TYPE_RENAME failed"));
  EXPECT_FALSE(connected());
}

TEST_F(SocketIoTest, ACutWithoutARequestIsNotMade) {
  EXPECT_EQ(gst_file_socket_io_cut_file(&state_, nullptr), 0);
  EXPECT_LOGGED(kError,
                error_line("gst_file_socket_io_make_command_ex:COMMAND_TYPE_CUT_FILE failed"));
  EXPECT_FALSE(connected());
}

// ---- The names that stand before the messages ----

std::vector<std::string> functions() {
  std::vector<std::string> names;
  for (const LogLine &line : LogCapture::lines()) names.push_back(line.function);
  return names;
}

TEST_F(SocketIoTest, LinesOfOpenCarryItsName) {
  box_.will_answer_open(refused(-7));
  EXPECT_EQ(open(), -1);
  EXPECT_THAT(functions(), ElementsAre("gst_file_socket_io_open", "gst_file_socket_io_connect",
                                       "gst_file_socket_io_open"));
  LogCapture::clear();
  Faults faults;
  faults.fail("send", EPIPE);
  EXPECT_EQ(open(), -1);
  EXPECT_THAT(functions(), ElementsAre("gst_file_socket_io_open", "gst_file_socket_io_connect",
                                       "gst_file_socket_io_send_all", "gst_file_socket_io_open"));
}

TEST_F(SocketIoTest, LinesOfCloseCarryItsName) {
  given_an_open_file();
  box_.will_answer({.bytes = ok().bytes, .hang_up_after = 5});
  EXPECT_EQ(gst_file_socket_io_close(&state_), -1);
  EXPECT_EQ(gst_file_socket_io_close(&state_), 1);
  EXPECT_THAT(functions(),
              ElementsAre("gst_file_socket_io_close", "gst_file_socket_io_receive_packet",
                          "gst_file_socket_io_close", "gst_file_socket_io_close",
                          "gst_file_socket_io_close"));
  given_an_open_file();
  {
    Faults faults;
    faults.fail("send", EPIPE);
    EXPECT_EQ(gst_file_socket_io_close(&state_), -1);
  }
  EXPECT_THAT(functions(), ElementsAre("gst_file_socket_io_close", "gst_file_socket_io_send_all",
                                       "gst_file_socket_io_close"));
}

TEST_F(SocketIoTest, TheLinesOfAWritesPacketsCarryTheNameOfWhatSendsThem) {
  given_an_open_file();
  EXPECT_EQ(gst_file_socket_io_write(&state_, "abc", 3), 0);
  EXPECT_THAT(functions(), ElementsAre("gst_file_socket_io_send_all_for_write",
                                       "gst_file_socket_io_send_all_for_write"));
}

TEST_F(SocketIoTest, TheLinesOfAReadCarryTheNamesOfItsSteps) {
  given_an_open_file();
  box_.will_answer({.bytes = data_packet(8, kData), .hang_up_after = 33});
  EXPECT_EQ(gst_file_socket_io_read(&state_, destination, 8), -1);
  EXPECT_THAT(functions(),
              ElementsAre("gst_file_socket_io_receive_packet", "gst_file_socket_io_receive_all",
                          "gst_file_socket_io_read"));
}

}  // namespace
}  // namespace plexa_test
