// What goes over the wire: the layout of every record, the commands' names, and the requests as the
// client builds them, byte by byte.
#include "gst_socket_protocol.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "box_server.h"
#include "gst_file_socket_io_internal.h"
#include "log_capture.h"

namespace plexa_test {
namespace {

using namespace plexa;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

// ---- Layout ----

struct Layout {
  const char *name;
  size_t actual, wanted;
};

#define SIZE_OF(record, size) \
  Layout { #record, sizeof(record), size }
#define OFFSET(record, field, at) \
  Layout { #record "." #field, offsetof(record, field), at }

const Layout kLayout[] = {
    SIZE_OF(header_data_s, 28),
    OFFSET(header_data_s, packet_size, 0),
    OFFSET(header_data_s, command, 4),
    OFFSET(header_data_s, accumulated_time, 8),
    OFFSET(header_data_s, fixed_duration, 12),
    OFFSET(header_data_s, is_job_stopped, 16),
    OFFSET(header_data_s, lld_return, 20),
    SIZE_OF(pvr_cut_request_s, 532),
    OFFSET(pvr_cut_request_s, kvf_file_name, 0),
    OFFSET(pvr_cut_request_s, start_offset, 256),
    OFFSET(pvr_cut_request_s, end_offset, 264),
    OFFSET(pvr_cut_request_s, second_file_name, 272),
    OFFSET(pvr_cut_request_s, has_second_file_name, 528),
    SIZE_OF(OpenRequest, 545),
    OFFSET(OpenRequest, path, 28),
    OFFSET(OpenRequest, path_2, 284),
    OFFSET(OpenRequest, flags, 540),
    OFFSET(OpenRequest, open_mode, 544),
    SIZE_OF(BareRequest, 28),
    SIZE_OF(ReadRequest, 32),
    OFFSET(ReadRequest, size, 28),
    SIZE_OF(WriteRequest, 32),
    OFFSET(WriteRequest, total, 28),
    SIZE_OF(SeekRequest, 40),
    OFFSET(SeekRequest, whence, 28),
    OFFSET(SeekRequest, offset, 32),
    SIZE_OF(MaxTimeRequest, 36),
    OFFSET(MaxTimeRequest, time, 28),
    SIZE_OF(WroteTimeRequest, 36),
    OFFSET(WroteTimeRequest, time, 28),
    OFFSET(WroteTimeRequest, zero, 32),
    SIZE_OF(RenameRequest, 540),
    OFFSET(RenameRequest, old_path, 28),
    OFFSET(RenameRequest, new_path, 284),
    SIZE_OF(CutFileRequest, 560),
    OFFSET(CutFileRequest, cut, 28),
    SIZE_OF(ReadAnswer, 32),
    OFFSET(ReadAnswer, total, 28),
};

TEST(SocketProtocol, EveryFieldIsWhereTheBoxLooksForIt) {
  for (const Layout &entry : kLayout) EXPECT_EQ(entry.actual, entry.wanted) << entry.name;
}

TEST(SocketProtocol, TheClientStateStandsInItsOrder) {
  const bool is_32_bit = sizeof(void *) == 4;
  EXPECT_EQ(offsetof(GstFileSocketIo, file_path), 0u);
  EXPECT_EQ(offsetof(GstFileSocketIo, flags), is_32_bit ? 4u : 8u);
  EXPECT_EQ(offsetof(GstFileSocketIo, open_mode), is_32_bit ? 8u : 12u);
  EXPECT_EQ(offsetof(GstFileSocketIo, t_bSockErrOccurred), is_32_bit ? 9u : 13u);
  EXPECT_EQ(offsetof(GstFileSocketIo, clnt_sock), is_32_bit ? 12u : 16u);
  EXPECT_EQ(offsetof(GstFileSocketIo, header_data), is_32_bit ? 16u : 20u);
  EXPECT_EQ(offsetof(GstFileSocketIo, t_pbuf), is_32_bit ? 44u : 48u);
  EXPECT_EQ(sizeof(GstFileSocketIo), is_32_bit ? 48u : 56u);
}

TEST(SocketProtocol, TheConstantsAreThoseOfTheBox) {
  EXPECT_EQ(kPort, 38999);
  EXPECT_EQ(kPacketBufferSize, 1966080u);
  EXPECT_EQ(kWriteDataSize, 32736u);
}

// ---- Names ----

TEST(SocketProtocol, EveryCommandHasItsNumberAndName) {
  const std::pair<gint32, const char *> kNames[] = {
      {-1, "COMMAND_TYPE_IO_NG"},        {1, "COMMAND_TYPE_IO_OK"},
      {10, "COMMAND_TYPE_OPEN"},         {11, "COMMAND_TYPE_CLOSE"},
      {12, "COMMAND_TYPE_READ"},         {13, "COMMAND_TYPE_WRITE"},
      {14, "COMMAND_TYPE_SEEK"},         {15, "COMMAND_TYPE_TELL"},
      {16, "COMMAND_TYPE_SIZE"},         {17, "COMMAND_TYPE_FSYNC"},
      {18, "COMMAND_TYPE_IOCTL"},        {19, "COMMAND_TYPE_SET_MAX_TIME"},
      {20, "COMMAND_TYPE_GET_MAX_TIME"}, {21, "COMMAND_TYPE_SET_WROTE_TIME"},
      {22, "COMMAND_TYPE_RENAME"},       {23, "COMMAND_TYPE_ROMOVE_FILE"},
      {24, "COMMAND_TYPE_CHOWN"},        {25, "COMMAND_TYPE_CUT_FILE"},
  };
  for (const auto &[command, name] : kNames) EXPECT_STREQ(command_get_name(command), name);
}

TEST(SocketProtocol, EveryOtherNumberIsAnIllegalCommand) {
  for (const gint32 command : {G_MININT32, -2, 0, 2, 3, 4, 5, 6, 7, 8, 9, 26, 100, G_MAXINT32}) {
    EXPECT_STREQ(command_get_name(command), "illegal command") << command;
  }
}

TEST(SocketProtocol, ANewRequestIsZeroBehindItsSizeAndCommand) {
  const auto request = new_request<OpenRequest>(COMMAND_TYPE_OPEN);
  const auto *const bytes = reinterpret_cast<const uint8_t *>(&request);
  EXPECT_EQ(request.header.packet_size, 545);
  EXPECT_EQ(request.header.command, 10);
  EXPECT_THAT(Bytes(bytes + 8, bytes + sizeof request), Each(0));
}

TEST(SocketProtocol, ThePathOfAFieldEndsAtItsZeroOrItsEnd) {
  char field[kPathField] = {};
  put_path(field, "/a/b");
  EXPECT_EQ(path_length(field), 4u);
  put_path(field, std::string(300, 'x').c_str());
  EXPECT_EQ(path_length(field), 255u);
  field[255] = 'x';
  EXPECT_EQ(path_length(field), 256u);
}

// ---- Requests as the client builds them ----

class SocketRequestTest : public ::testing::Test {
 protected:
  SocketRequestTest() {
    gst_file_socket_io_init(&state_);
    state_.file_path = "/rec/a.kvf";
    LogCapture::clear();
  }

  // The buffer has held an answer before.
  gint32 make(gint32 command, const RequestArguments &arguments = {}) {
    buffer_.assign(1000, 0xEE);
    return gst_file_socket_io_make_command(&state_, buffer_.data(), command, arguments);
  }
  // What was made, without the untouched rest; that it is untouched is checked.
  Bytes made(size_t size) {
    EXPECT_THAT(Bytes(buffer_.begin() + static_cast<std::ptrdiff_t>(size), buffer_.end()),
                Each(0xEE));
    buffer_.resize(size);
    return buffer_;
  }

  GstFileSocketIo state_;
  Bytes buffer_;
};

TEST_F(SocketRequestTest, OpenHasThePathTwiceTheFlagsAndTheMode) {
  state_.flags = {1, 2, 3, 4};
  state_.open_mode = 5;
  ASSERT_EQ(make(COMMAND_TYPE_OPEN), 1);
  EXPECT_EQ(made(545), Wire()
                           .header(545, 10)
                           .path("/rec/a.kvf")
                           .path("/rec/a.kvf")
                           .u8(1)
                           .u8(2)
                           .u8(3)
                           .u8(4)
                           .u8(5)
                           .bytes());
}

TEST_F(SocketRequestTest, ALongPathIsCutTo255Characters) {
  const std::string longest(255, 'p');
  for (const size_t length : {255, 256, 257, 5000}) {
    const std::string path(length, 'p');
    state_.file_path = path.c_str();
    ASSERT_EQ(make(COMMAND_TYPE_OPEN), 1);
    const Bytes request = made(545);
    EXPECT_EQ(std::string(request.begin() + 28, request.begin() + 283), longest) << length;
    EXPECT_EQ(request[283], 0) << length;
    EXPECT_EQ(std::string(request.begin() + 284, request.begin() + 539), longest) << length;
    EXPECT_EQ(request[539], 0) << length;
  }
}

TEST_F(SocketRequestTest, CommandsWithoutPayloadAreABareHeader) {
  for (const gint32 command : {11, 15, 16, 17}) {
    ASSERT_EQ(make(command), 1) << command;
    EXPECT_EQ(made(28), Wire().header(28, static_cast<uint32_t>(command)).bytes());
  }
}

TEST_F(SocketRequestTest, ReadHasTheSize) {
  ASSERT_EQ(make(COMMAND_TYPE_READ, {.size = 0x87654321}), 1);
  EXPECT_EQ(made(32), Wire().header(32, 12).u32(0x87654321).bytes());
}

TEST_F(SocketRequestTest, WriteHasTheSizeOfTheWholeCall) {
  ASSERT_EQ(make(COMMAND_TYPE_WRITE, {.size = 70000}), 1);
  EXPECT_EQ(made(32), Wire().header(32, 13).u32(70000).bytes());
}

TEST_F(SocketRequestTest, SeekHasWhenceAndThenA64BitOffset) {
  ASSERT_EQ(make(COMMAND_TYPE_SEEK, {.offset = -5000000000, .whence = SEEK_END}), 1);
  EXPECT_EQ(made(40), Wire().header(40, 14).u32(2).u64(static_cast<uint64_t>(-5000000000)).bytes());
}

TEST_F(SocketRequestTest, TheMaximumTimeIsSignExtended) {
  ASSERT_EQ(make(COMMAND_TYPE_SET_MAX_TIME, {.max_time = -2}), 1);
  EXPECT_EQ(made(36), Wire().header(36, 19).u64(static_cast<uint64_t>(-2)).bytes());
  ASSERT_EQ(make(COMMAND_TYPE_SET_MAX_TIME, {.max_time = 5460000}), 1);
  EXPECT_EQ(made(36), Wire().header(36, 19).u64(5460000).bytes());
}

TEST_F(SocketRequestTest, TheWroteTimeIsZeroExtended) {
  ASSERT_EQ(make(COMMAND_TYPE_SET_WROTE_TIME, {.wrote_time = 0xfffffffe}), 1);
  EXPECT_EQ(made(36), Wire().header(36, 21).u32(0xfffffffe).u32(0).bytes());
}

TEST_F(SocketRequestTest, RenameHasBothPaths) {
  ASSERT_EQ(make(COMMAND_TYPE_RENAME, {.old_path = "/old", .new_path = "/newer"}), 1);
  EXPECT_EQ(made(540), Wire().header(540, 22).path("/old").path("/newer").bytes());
  const std::string longer(256, 'q');
  ASSERT_EQ(make(COMMAND_TYPE_RENAME, {.old_path = longer.c_str(), .new_path = longer.c_str()}), 1);
  EXPECT_EQ(made(540), Wire().header(540, 22).path(longer).path(longer).bytes());
}

TEST_F(SocketRequestTest, RenameWithoutAPathIsNotMade) {
  EXPECT_EQ(make(COMMAND_TYPE_RENAME, {.old_path = "/old"}), -1);
  EXPECT_EQ(make(COMMAND_TYPE_RENAME, {.new_path = "/new"}), -1);
}

TEST_F(SocketRequestTest, OtherCommandsAreRefused) {
  for (const gint32 command : {-1, 0, 1, 9, 18, 20, 23, 24, 25, 26}) {
    LogCapture::clear();
    EXPECT_EQ(make(command), -1) << command;
    EXPECT_THAT(made(0), IsEmpty());
    EXPECT_THAT(LogCapture::messages(kError),
                ElementsAre("[EXT_FMG] [PLG_ERR] [ZEB::Client] default! filePath=[/rec/a.kvf], "
                            "command=[" +
                            std::to_string(command) + "]"));
  }
}

TEST_F(SocketRequestTest, AStateWithoutAPathPrintsAnEmptyOne) {
  state_.file_path = nullptr;
  EXPECT_EQ(make(0), -1);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] [ZEB::Client] default! filePath=[], command=[0]");
}

TEST_F(SocketRequestTest, NothingIsMadeWithoutABuffer) {
  EXPECT_EQ(gst_file_socket_io_make_command(&state_, nullptr, COMMAND_TYPE_TELL, {}), -1);
}

TEST_F(SocketRequestTest, CutFileHasTheRequestByteForByte) {
  pvr_cut_request_s cut;
  auto *const bytes = reinterpret_cast<uint8_t *>(&cut);
  for (size_t i = 0; i < sizeof cut; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
  buffer_.assign(1000, 0xEE);
  ASSERT_TRUE(gst_file_socket_io_make_command_ex(buffer_.data(), COMMAND_TYPE_CUT_FILE, &cut));
  Bytes wanted = Wire().header(560, 25).bytes();
  wanted.insert(wanted.end(), bytes, bytes + sizeof cut);
  EXPECT_EQ(made(560), wanted);
  EXPECT_LOGGED(kInfo, "[EXT_FMG] COMMAND_TYPE_CUT_FILE");
}

TEST_F(SocketRequestTest, OnlyCutFileHasACutRequest) {
  const pvr_cut_request_s cut{};
  buffer_.assign(1000, 0xEE);
  for (const gint32 command : {10, 22, 24, 26, -1}) {
    EXPECT_FALSE(gst_file_socket_io_make_command_ex(buffer_.data(), command, &cut));
    EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] error command[" + std::to_string(command) + "]");
  }
  EXPECT_FALSE(gst_file_socket_io_make_command_ex(buffer_.data(), COMMAND_TYPE_CUT_FILE, nullptr));
  EXPECT_THAT(made(0), IsEmpty());
}

}  // namespace
}  // namespace plexa_test
