// gst_socket_protocol.h - what client and companion box say to each other, as data.
//
// The one place that knows the port, the commands and the layout of every packet; the client is
// built on it, and so is a box. Data and constants only: nothing here allocates, fails or keeps
// state, so any thread may use it. It needs GLib's types and the public headers, nothing else.
//
// The connection. TCP over IPv4, the box listens on kPort. One connection for each open file: OPEN,
// operations, CLOSE. RENAME and CUT_FILE each have a connection of their own for the one exchange.
// One request, then its answer; nothing is pipelined and the box never speaks first.
//
// The layout. Every integer is little-endian; there is no padding, so no field is aligned, and a
// record is copied into place or built in place, never pointed into. The records have the same size
// and offsets on 32-bit and 64-bit machines. A text stands in a field of kPathField bytes, at most
// kPathField - 1 characters and zeros to the end.
//
// Requests. header.packet_size is the size of the record (for WRITE: of the record and the data
// behind it), header.command the command; everything else in the header is 0.
//
//   command        record           bytes    result (header.lld_return of the answer)
//   OPEN           OpenRequest      545      none, the status counts
//   CLOSE          BareRequest       28      none
//   READ           ReadRequest       32      see below
//   WRITE          WriteRequest      32 + n  bytes written; also accumulated_time, fixed_duration
//   SEEK           SeekRequest       40      the new position
//   TELL           BareRequest       28      the position
//   SIZE           BareRequest       28      the file's size
//   FSYNC          BareRequest       28      none
//   SET_MAX_TIME   MaxTimeRequest    36      result of the setting
//   SET_WROTE_TIME WroteTimeRequest  36      result of the setting
//   RENAME         RenameRequest    540      none
//   CUT_FILE       CutFileRequest   560      none
//
// A write call goes out as packets of at most kWriteDataSize bytes of data, back to back, each with
// the size of the whole call in its total; one answer follows the last of them. IOCTL,
// GET_MAX_TIME, ROMOVE_FILE and CHOWN have numbers but are never sent by this client.
//
// Answers. Every command but READ has one answer, normally a bare header_data_s: command is the
// status (below 0 failure, else success; COMMAND_TYPE_IO_OK and COMMAND_TYPE_IO_NG), lld_return the
// result, which may be negative under a good status. packet_size may be larger; what follows the
// header is read and dropped. No packet may be larger than kPacketBufferSize.
//
// READ is answered by one data packet or more: a ReadAnswer with command COMMAND_TYPE_READ and then
// data up to packet_size. The first packet's total is the count of data bytes in all packets of the
// answer, at most what was asked for; it is read from the first packet only. The answer is complete
// when that many bytes have come. A packet with is_job_stopped not 0 ends it at once (the request
// reached past the end of the file): what came before stands, its own data is dropped, and it may
// be a bare header. A bare header with a negative command is a failed read. A READ of 0 bytes is
// sent, but the client does not wait for its answer; what comes is taken by the next exchange.
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "gst-plexa/gst_file_socket_io.h"

namespace plexa {

inline constexpr guint16 kPort = 38999;
inline constexpr guint32 kPathField = 256;
inline constexpr guint32 kWriteDataSize = 32736;  // so that no packet of a write is over 32 KiB
inline constexpr guint32 kPacketBufferSize = 1966080;  // the largest packet that the client takes

// The names are also what command_get_name() says, "ROMOVE" included.
enum CommandType : gint32 {
  COMMAND_TYPE_IO_NG = -1,
  COMMAND_TYPE_IO_OK = 1,
  COMMAND_TYPE_OPEN = 10,
  COMMAND_TYPE_CLOSE = 11,
  COMMAND_TYPE_READ = 12,
  COMMAND_TYPE_WRITE = 13,
  COMMAND_TYPE_SEEK = 14,
  COMMAND_TYPE_TELL = 15,
  COMMAND_TYPE_SIZE = 16,
  COMMAND_TYPE_FSYNC = 17,
  COMMAND_TYPE_IOCTL = 18,
  COMMAND_TYPE_SET_MAX_TIME = 19,
  COMMAND_TYPE_GET_MAX_TIME = 20,
  COMMAND_TYPE_SET_WROTE_TIME = 21,
  COMMAND_TYPE_RENAME = 22,
  COMMAND_TYPE_ROMOVE_FILE = 23,
  COMMAND_TYPE_CHOWN = 24,
  COMMAND_TYPE_CUT_FILE = 25,
};

constexpr const char *command_get_name(gint32 command) noexcept {
  switch (command) {
#define PLEXA_COMMAND_NAME(name) \
  case name:                     \
    return #name
    PLEXA_COMMAND_NAME(COMMAND_TYPE_IO_NG);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_IO_OK);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_OPEN);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_CLOSE);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_READ);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_WRITE);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_SEEK);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_TELL);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_SIZE);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_FSYNC);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_IOCTL);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_SET_MAX_TIME);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_GET_MAX_TIME);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_SET_WROTE_TIME);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_RENAME);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_ROMOVE_FILE);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_CHOWN);
    PLEXA_COMMAND_NAME(COMMAND_TYPE_CUT_FILE);
#undef PLEXA_COMMAND_NAME
    default:
      return "illegal command";
  }
}

// ---- Requests ----

struct __attribute__((packed)) BareRequest {  // CLOSE, TELL, SIZE, FSYNC
  header_data_s header;                       //   0
};

struct __attribute__((packed)) OpenRequest {
  header_data_s header;      //   0
  char path[kPathField];     //  28
  char path_2[kPathField];   // 284  the same path again
  GstSocketOpenFlags flags;  // 540  four bytes: reader, direct, time-shift, index
  guint8 open_mode;          // 544  1 ATSC 3.0, 0 normal broadcast
};

struct __attribute__((packed)) ReadRequest {
  header_data_s header;  //   0
  guint32 size;          //  28  bytes wanted
};

struct __attribute__((packed)) WriteRequest {
  header_data_s header;  //   0
  guint32 total;         //  28  bytes of the whole call, the same in each of its packets
                         //  32  this packet's data, packet_size - 32 bytes
};

struct __attribute__((packed)) SeekRequest {
  header_data_s header;  //   0
  gint32 whence;         //  28  0 from the start, 1 from the position, 2 from the end
  gint64 offset;         //  32  bytes
};

struct __attribute__((packed)) MaxTimeRequest {
  header_data_s header;  //   0
  gint64 time;           //  28  ms, sign-extended from 32 bits
};

struct __attribute__((packed)) WroteTimeRequest {
  header_data_s header;  //   0
  guint32 time;          //  28  ms, not sign-extended: the upper half is
  guint32 zero;          //  32  always 0
};

struct __attribute__((packed)) RenameRequest {
  header_data_s header;       //   0
  char old_path[kPathField];  //  28
  char new_path[kPathField];  // 284
};

struct __attribute__((packed)) CutFileRequest {
  header_data_s header;   //   0
  pvr_cut_request_s cut;  //  28  byte for byte as the caller filled it
};

// ---- Answers: a bare header_data_s, and for READ ----

struct __attribute__((packed)) ReadAnswer {
  header_data_s header;  //   0  command is COMMAND_TYPE_READ
  guint32 total;         //  28  data bytes in all packets of this answer
                         //  32  this packet's data, packet_size - 32 bytes
};

// ---- The layout, checked on every machine that compiles it ----

template <class Record>
inline constexpr bool kIsWireRecord =
    std::is_trivially_copyable_v<Record> &&std::is_standard_layout_v<Record> &&
    alignof(Record) == 1;

static_assert(kIsWireRecord<header_data_s> && sizeof(header_data_s) == 28);
static_assert(offsetof(header_data_s, command) == 4);
static_assert(offsetof(header_data_s, accumulated_time) == 8);
static_assert(offsetof(header_data_s, fixed_duration) == 12);
static_assert(offsetof(header_data_s, is_job_stopped) == 16);
static_assert(offsetof(header_data_s, lld_return) == 20);

static_assert(kIsWireRecord<pvr_cut_request_s> && sizeof(pvr_cut_request_s) == 532);
static_assert(offsetof(pvr_cut_request_s, start_offset) == 256);
static_assert(offsetof(pvr_cut_request_s, end_offset) == 264);
static_assert(offsetof(pvr_cut_request_s, second_file_name) == 272);
static_assert(offsetof(pvr_cut_request_s, has_second_file_name) == 528);

static_assert(kIsWireRecord<BareRequest> && sizeof(BareRequest) == 28);
static_assert(kIsWireRecord<OpenRequest> && sizeof(OpenRequest) == 545);
static_assert(offsetof(OpenRequest, path) == 28 && offsetof(OpenRequest, path_2) == 284);
static_assert(offsetof(OpenRequest, flags) == 540 && offsetof(OpenRequest, open_mode) == 544);
static_assert(sizeof(GstSocketOpenFlags) == 4 && offsetof(GstSocketOpenFlags, direct_mode) == 1 &&
              offsetof(GstSocketOpenFlags, is_ts) == 2 &&
              offsetof(GstSocketOpenFlags, is_index) == 3);
static_assert(kIsWireRecord<ReadRequest> && sizeof(ReadRequest) == 32);
static_assert(offsetof(ReadRequest, size) == 28);
static_assert(kIsWireRecord<WriteRequest> && sizeof(WriteRequest) == 32);
static_assert(offsetof(WriteRequest, total) == 28);
static_assert(kIsWireRecord<SeekRequest> && sizeof(SeekRequest) == 40);
static_assert(offsetof(SeekRequest, whence) == 28 && offsetof(SeekRequest, offset) == 32);
static_assert(kIsWireRecord<MaxTimeRequest> && sizeof(MaxTimeRequest) == 36);
static_assert(offsetof(MaxTimeRequest, time) == 28);
static_assert(kIsWireRecord<WroteTimeRequest> && sizeof(WroteTimeRequest) == 36);
static_assert(offsetof(WroteTimeRequest, time) == 28 && offsetof(WroteTimeRequest, zero) == 32);
static_assert(kIsWireRecord<RenameRequest> && sizeof(RenameRequest) == 540);
static_assert(offsetof(RenameRequest, old_path) == 28 && offsetof(RenameRequest, new_path) == 284);
static_assert(kIsWireRecord<CutFileRequest> && sizeof(CutFileRequest) == 560);
static_assert(offsetof(CutFileRequest, cut) == 28);
static_assert(kIsWireRecord<ReadAnswer> && sizeof(ReadAnswer) == 32);
static_assert(offsetof(ReadAnswer, total) == 28);
static_assert(sizeof(WriteRequest) + kWriteDataSize == 32768);

// ---- Building and reading records ----

// A request of its own size, all else zero.
template <class Request>
Request new_request(CommandType command) noexcept {
  static_assert(kIsWireRecord<Request>);
  Request request{};
  request.header.packet_size = sizeof(Request);
  request.header.command = command;
  return request;
}

// A record out of the first bytes of a packet; the caller has checked that there are that many.
template <class Record>
Record record_at(const void *bytes) noexcept {
  static_assert(kIsWireRecord<Record>);
  Record record;
  std::memcpy(&record, bytes, sizeof record);
  return record;
}

// Puts a text into a zeroed field; what is too long is cut to its first 255 characters.
inline void put_path(char (&field)[kPathField], const char *text) noexcept {
  if (text == nullptr) return;
  std::memcpy(field, text, strnlen(text, kPathField - 1));
}

// The characters of a field before its first zero; all of it, 256, when there is none.
inline std::size_t path_length(const char (&field)[kPathField]) noexcept {
  return strnlen(field, kPathField);
}

}  // namespace plexa
