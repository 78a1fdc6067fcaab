// gst_file_socket_request.cpp - builds the requests that go to the companion box.
//
// The buffer held an answer before, so every request is written whole, with zeros where it states
// nothing. Refused are commands that this client never sends. Keeps nothing: any thread may call.
#include <new>

#include "gst_file_socket_io_internal.h"

#define PLEXA_LOG_AREA "EXT_FMG"
#include "plexa_log.h"

namespace plexa {
namespace {

template <class Request>
Request &begin(guint8 *buffer, gint32 command) {
  return *new (buffer) Request(new_request<Request>(static_cast<CommandType>(command)));
}

void make_open(const GstFileSocketIo *socket_io, guint8 *buffer) {
  auto &request = begin<OpenRequest>(buffer, COMMAND_TYPE_OPEN);
  put_path(request.path, socket_io->file_path);
  put_path(request.path_2, socket_io->file_path);
  request.flags = socket_io->flags;
  request.open_mode = socket_io->open_mode;
}

void make_seek(guint8 *buffer, const RequestArguments &arguments) {
  auto &request = begin<SeekRequest>(buffer, COMMAND_TYPE_SEEK);
  request.whence = arguments.whence;
  request.offset = arguments.offset;
}

void make_rename(guint8 *buffer, const RequestArguments &arguments) {
  auto &request = begin<RenameRequest>(buffer, COMMAND_TYPE_RENAME);
  put_path(request.old_path, arguments.old_path);
  put_path(request.new_path, arguments.new_path);
}

}  // namespace

gint32 gst_file_socket_io_make_command(const GstFileSocketIo *socket_io, guint8 *buffer,
                                       gint32 command, const RequestArguments &arguments) {
  if (buffer == nullptr) return -1;  // not connected
  switch (command) {
    case COMMAND_TYPE_OPEN:
      make_open(socket_io, buffer);
      return 1;
    case COMMAND_TYPE_READ:
      begin<ReadRequest>(buffer, command).size = arguments.size;
      return 1;
    case COMMAND_TYPE_WRITE:
      begin<WriteRequest>(buffer, command).total = arguments.size;
      return 1;
    case COMMAND_TYPE_SEEK:
      make_seek(buffer, arguments);
      return 1;
    case COMMAND_TYPE_CLOSE:
    case COMMAND_TYPE_TELL:
    case COMMAND_TYPE_SIZE:
    case COMMAND_TYPE_FSYNC:
      begin<BareRequest>(buffer, command);
      return 1;
    case COMMAND_TYPE_SET_MAX_TIME:
      begin<MaxTimeRequest>(buffer, command).time = arguments.max_time;
      return 1;
    case COMMAND_TYPE_SET_WROTE_TIME:
      begin<WroteTimeRequest>(buffer, command).time = arguments.wrote_time;
      return 1;
    case COMMAND_TYPE_RENAME:
      if (arguments.old_path == nullptr || arguments.new_path == nullptr) return -1;
      make_rename(buffer, arguments);
      return 1;
    default:
      PLX_ERROR("[PLG_ERR] [ZEB::Client] default! filePath=[%s], command=[%d]", path_of(socket_io),
                command);
      return -1;
  }
}

bool gst_file_socket_io_make_command_ex(guint8 *buffer, gint32 command,
                                        const pvr_cut_request_s *cut_request) {
  if (command != COMMAND_TYPE_CUT_FILE) {
    PLX_ERROR("[PLG_ERR] error command[%d]", command);
    return false;
  }
  PLX_INFO("COMMAND_TYPE_CUT_FILE");
  if (cut_request == nullptr) return false;
  begin<CutFileRequest>(buffer, command).cut = *cut_request;
  return true;
}

}  // namespace plexa
