// session.cpp - see session.h.
//
// Nothing of a request is believed before it is checked: its size must be the command's, a path
// must end inside its field and lead nowhere but to a file of the root, the packets of a write must
// agree and add up.
#include "session.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "gst-plexa/gst_edit_unit.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "gst-plexa/gst_pvr_tools.h"

namespace plexa::box {
namespace {

// The data of one packet of a read's answer. Small enough that the client copies one packet while
// the next one is read, and that the kernel sends it in one piece with its head, as it would not
// with 64 KiB; as large as a packet can be where the file may be cut between two.
constexpr std::size_t kReadData = 49152;
constexpr std::size_t kMostReadData = kPacketBufferSize - sizeof(ReadAnswer);

// What an unknown client sends to have a file removed, in the manner of the other requests.
struct __attribute__((packed)) RemoveRequest {
  header_data_s header;   //   0
  char path[kPathField];  //  28
};

// A field holds a text, and behind it zeros to its end.
bool is_text(const char *field, std::size_t size) {
  const std::size_t length = strnlen(field, size);
  return length < size && std::all_of(field + length, field + size, [](char c) { return c == 0; });
}

std::string printable(const std::string &text) {
  gchar *const escaped = g_strescape(text.c_str(), nullptr);
  std::string copy(escaped);
  g_free(escaped);
  return copy;
}

// A handle for an operation that needs one with a lock and nothing else.
class IdleHandle {
 public:
  IdleHandle() { gst_pvr_file_init(&file_); }
  ~IdleHandle() { gst_pvr_file_deinit(&file_); }
  IdleHandle(const IdleHandle &) = delete;
  IdleHandle &operator=(const IdleHandle &) = delete;
  GstPvrFile *get() { return &file_; }

 private:
  GstPvrFile file_{};
};

}  // namespace

struct Session::Command {
  gint32 number;
  bool (Session::*serve)(const header_data_s &);
};

const Session::Command Session::kCommands[] = {
    {COMMAND_TYPE_OPEN, &Session::open},
    {COMMAND_TYPE_CLOSE, &Session::close},
    {COMMAND_TYPE_READ, &Session::read},
    {COMMAND_TYPE_WRITE, &Session::write},
    {COMMAND_TYPE_SEEK, &Session::seek},
    {COMMAND_TYPE_TELL, &Session::tell},
    {COMMAND_TYPE_SIZE, &Session::size},
    {COMMAND_TYPE_FSYNC, &Session::fsync},
    {COMMAND_TYPE_SET_MAX_TIME, &Session::set_max_time},
    {COMMAND_TYPE_GET_MAX_TIME, &Session::get_max_time},
    {COMMAND_TYPE_SET_WROTE_TIME, &Session::set_wrote_time},
    {COMMAND_TYPE_RENAME, &Session::rename},
    {COMMAND_TYPE_ROMOVE_FILE, &Session::remove_file},
    {COMMAND_TYPE_CUT_FILE, &Session::cut_file},
    {COMMAND_TYPE_IOCTL, &Session::refuse},
    {COMMAND_TYPE_CHOWN, &Session::refuse},
};

Session::Session(int socket, const Root &root, const Settings &settings, std::string client)
    : channel_(socket, settings.patience),
      root_(root),
      settings_(settings),
      client_(std::move(client)) {}

// A client without a file has come to ask for something; one that does not keeps another one out.
void Session::run() {
  header_data_s header{};
  while (is_open() ? channel_.next(header) : channel_.next_of_request(header)) {
    if (!serve(header)) return;
  }
  if (channel_.out_of_step()) {
    report(header, "no request: packet of " + std::to_string(header.packet_size) + " bytes");
    answer(false);
  }
}

bool Session::serve(const header_data_s &header) {
  const auto *const row =
      std::find_if(std::begin(kCommands), std::end(kCommands),
                   [&](const Command &each) { return each.number == header.command; });
  return row != std::end(kCommands) ? (this->*row->serve)(header) : refuse(header);
}

// ---- Requests and answers ----

// The rest of the request. None: the connection is over; a packet of another size has been refused.
template <class Request>
std::optional<Request> Session::request(const header_data_s &header) {
  if (header.packet_size != static_cast<gint32>(sizeof(Request))) {
    report(header, "no request: packet of " + std::to_string(header.packet_size) + " bytes");
    answer(false);
    return {};
  }
  Request request;
  request.header = header;
  auto *const behind_header = reinterpret_cast<uint8_t *>(&request) + sizeof header;
  if (!channel_.take(behind_header, sizeof request - sizeof header)) return {};
  return request;
}

// Where the path of a field lies on this disk; empty, with errno, when it is refused.
std::string Session::located(const char (&field)[kPathField], Root::File file) const {
  if (!is_text(field, kPathField)) {
    errno = EINVAL;
    return {};
  }
  return root_.locate(field, file);
}

bool Session::answer(bool is_good, gint64 result) {
  header_data_s header{};
  header.packet_size = sizeof header;
  header.command = is_good ? COMMAND_TYPE_IO_OK : COMMAND_TYPE_IO_NG;
  header.lld_return = result;
  return channel_.send(&header, sizeof header);
}

// A failure is a failed request; that a cut was in the way is a result like any other, for the
// caller to try again.
bool Session::answer_result(gint64 result) {
  return answer(result >= 0 || result == kCutHangs, result);
}

void Session::report(const header_data_s &request, const std::string &text) const {
  if (!settings_.verbose) return;
  const int saved = errno;
  std::fprintf(stderr, "%s %s %s\n", client_.c_str(), command_get_name(request.command),
               printable(text).c_str());
  errno = saved;
}

bool Session::refuse(const header_data_s &header) {
  report(header, "refused: command " + std::to_string(header.command));
  return channel_.skip(static_cast<std::size_t>(header.packet_size) - sizeof header) &&
         answer(false);
}

// ---- The file ----

// The library reads the index of a stream that it is to cut. It makes that name of what stands
// before the path's last dot, and this dot may be in a folder's name.
bool Session::has_sound_index(const std::string &path) const {
  const std::unique_ptr<gchar, decltype(&std::free)> index(
      gst_pvr_tool_change_extension(path.c_str(), ".mdb"), &std::free);
  if (index == nullptr) return path.find('.') == std::string::npos;  // then it reads none
  const std::string_view name(index.get());
  errno = EXDEV;
  return name.starts_with(root_.path() + "/") &&
         !root_.locate(name.substr(root_.path().size()), Root::File::kMayExist).empty();
}

bool Session::open(const header_data_s &header) {
  const auto request = this->request<OpenRequest>(header);
  if (!request) return false;
  const bool reads = request->flags.read_mode != 0;
  std::string path;
  if (!is_open() && std::memcmp(request->path, request->path_2, kPathField) == 0) {
    path = located(request->path, reads ? Root::File::kExists : Root::File::kIsMade);
    const bool is_cut = request->flags.is_ts != 0 && request->flags.is_index == 0 && !reads;
    if (is_cut && !path.empty() && !has_sound_index(path)) path.clear();
  } else {
    errno = EINVAL;
  }
  if (path.empty()) {
    report(header, "refused: " + std::string(request->path, path_length(request->path)) + ": " +
                       g_strerror(errno));
    return answer(false);
  }
  file_ = std::make_unique<BoxFile>(settings_.patience);
  const gint64 result = file_->open(path, request->flags, request->open_mode);
  report(header, path + (reads ? " to read: " : " to write: ") +
                     (result >= 0 ? "open" : "failed: " + std::string(g_strerror(errno))));
  if (result < 0) file_.reset();
  return answer(result >= 0, result);
}

bool Session::close(const header_data_s &header) {
  if (!request<BareRequest>(header)) return false;
  if (!is_open()) return answer(false);
  report(header, file_->path());
  const gint64 result = file_->close();
  file_.reset();
  staging_ = {};
  packet_.reset();
  packet_room_ = 0;
  return answer(result >= 0, result);
}

// A read of nothing is not answered: the client does not wait for an answer, and would take one for
// that of its next request.
bool Session::read(const header_data_s &header) {
  const auto request = this->request<ReadRequest>(header);
  if (!request) return false;
  if (request->size == 0) return true;
  if (!is_open()) return answer(false);
  const auto most = std::min<guint32>(
      request->size, static_cast<guint32>(file_->may_be_cut() ? kMostReadData : kReadData));
  uint8_t *const data = read_buffer(most);
  Pieces pieces(*file_, request->size > most);
  guint32 left = request->size;
  guint32 total = left;
  while (left > 0) {
    const guint32 wanted = std::min(left, most);
    const gint64 got = pieces.next(data, wanted);
    if (got <= 0 && left < request->size) return send_data(total, 0, true);
    if (got < 0) return answer(false, got);
    const auto size = static_cast<guint32>(got);
    // The first packet announces how much will come; a file that ends in it makes it the last one.
    if (left == request->size && size < wanted) total = left = size;
    if (!send_data(total, size)) return false;
    left -= size;
    if (total == 0) return true;
  }
  return true;
}

// Room for so much data behind an answer's head.
uint8_t *Session::read_buffer(std::size_t size) {
  if (packet_room_ < size) {
    packet_room_ = 0;
    packet_ = std::make_unique_for_overwrite<uint8_t[]>(sizeof(ReadAnswer) + size);
    packet_room_ = size;
  }
  return packet_.get() + sizeof(ReadAnswer);
}

bool Session::send_data(guint32 total, std::size_t size, bool is_stopped) {
  ReadAnswer answer{};
  answer.header.packet_size = static_cast<gint32>(sizeof answer + size);
  answer.header.command = COMMAND_TYPE_READ;
  answer.header.is_job_stopped = is_stopped ? 1 : 0;
  answer.header.lld_return = static_cast<gint64>(size);
  answer.total = total;
  std::memcpy(packet_.get(), &answer, sizeof answer);
  return channel_.send(packet_.get(), sizeof answer + size);
}

// One call, in as many packets as the client likes, and one answer after the last of them.
bool Session::write(const header_data_s &header) {
  guint32 total = 0;
  if (header.packet_size < static_cast<gint32>(sizeof(WriteRequest))) return end_write(header);
  if (!channel_.take(&total, sizeof total)) return false;
  if (is_open() && !staging_.begin(file_.get())) {
    answer(false);  // out of memory
    return false;
  }
  if (!take_data(header, total)) return false;
  const gint64 result = is_open() ? staging_.end() : -1;
  GstSharedCutInfo *const info = gst_shared_cut_info_get();
  header_data_s answer{};
  answer.packet_size = sizeof answer;
  answer.command = result >= 0 || result == kCutHangs ? COMMAND_TYPE_IO_OK : COMMAND_TYPE_IO_NG;
  answer.accumulated_time = gst_shared_cut_info_get_accumulated_time(info);
  answer.fixed_duration = gst_shared_cut_info_get_fixed_duration(info);
  answer.lld_return = result;
  return channel_.send(&answer, sizeof answer);
}

bool Session::take_data(const header_data_s &first, guint32 total) {
  header_data_s header = first;
  guint32 left = total;
  for (;;) {
    const auto size = static_cast<guint32>(header.packet_size) - guint32{sizeof(WriteRequest)};
    if (size > left || (size == 0 && left > 0)) break;
    left -= size;
    if (!take_packet(size, left == 0)) return false;
    if (left == 0) return true;
    guint32 same_total = 0;
    if (!channel_.next_of_request(header)) return false;
    if (header.command != COMMAND_TYPE_WRITE) break;
    if (header.packet_size < static_cast<gint32>(sizeof(WriteRequest))) break;
    if (!channel_.take(&same_total, sizeof same_total)) return false;
    if (same_total != total) break;
  }
  return end_write(header);
}

// Where the next request begins cannot be told.
bool Session::end_write(const header_data_s &header) {
  report(header, "no request: the packets of a write do not agree");
  answer(false);
  return false;
}

// Without a file the data goes nowhere.
bool Session::take_packet(std::size_t size, bool is_last) {
  if (!is_open()) return channel_.skip(size);
  while (size > 0) {
    const std::size_t part = std::min(size, staging_.room_size());
    const bool is_end = part == size;
    if (!channel_.take(staging_.room(), part, is_end && !is_last ? sizeof(WriteRequest) : 0)) {
      return false;
    }
    staging_.add(part);
    size -= part;
  }
  return true;
}

bool Session::seek(const header_data_s &header) {
  const auto request = this->request<SeekRequest>(header);
  if (!request) return false;
  if (!is_open()) return answer(false);
  return answer_result(gst_pvr_file_seek(handle(), request->offset, request->whence));
}

bool Session::tell(const header_data_s &header) {
  if (!request<BareRequest>(header)) return false;
  return is_open() ? answer_result(gst_pvr_file_tell(handle())) : answer(false);
}

bool Session::size(const header_data_s &header) {
  if (!request<BareRequest>(header)) return false;
  return is_open() ? answer_result(gst_pvr_file_size(handle())) : answer(false);
}

bool Session::fsync(const header_data_s &header) {
  if (!request<BareRequest>(header)) return false;
  return is_open() ? answer_result(gst_pvr_file_fsync(handle())) : answer(false);
}

// ---- Time-shift ----

// The client sends the time at which cutting is due, which as a maximum gives itself and the start
// of the cut period again.
bool Session::set_max_time(const header_data_s &header) {
  const auto request = this->request<MaxTimeRequest>(header);
  if (!request) return false;
  if (!is_open()) return answer(false);
  const gint64 result = gst_pvr_file_set_max_time(handle(), request->time);
  report(header, std::to_string(request->time) + " ms: " + std::to_string(result));
  return answer(true, result);  // that a file has no maximum time is no failure
}

bool Session::get_max_time(const header_data_s &header) {
  if (!request<BareRequest>(header)) return false;
  return is_open() ? answer(true, gst_pvr_file_get_max_time(handle())) : answer(false);
}

bool Session::set_wrote_time(const header_data_s &header) {
  const auto request = this->request<WroteTimeRequest>(header);
  if (!request) return false;
  if (!is_open()) return answer(false);
  gst_pvr_file_set_last_wrote_time(handle(), request->time);
  return answer(true, 1);
}

// ---- Requests that name a file ----

bool Session::rename(const header_data_s &header) {
  const auto request = this->request<RenameRequest>(header);
  if (!request) return false;
  const std::string from = located(request->old_path, Root::File::kExists);
  const std::string to = from.empty() ? "" : located(request->new_path, Root::File::kMayExist);
  IdleHandle idle;
  const bool renamed =
      !to.empty() && gst_pvr_file_rename(idle.get(), from.c_str(), to.c_str()) == 1;
  report(header,
         from + " to " + to + (renamed ? "" : ": failed: " + std::string(g_strerror(errno))));
  return answer(renamed, renamed ? 1 : -1);
}

// A file that somebody has open is not removed.
bool Session::remove_file(const header_data_s &header) {
  const auto request = this->request<RemoveRequest>(header);
  if (!request) return false;
  const std::string path = located(request->path, Root::File::kExists);
  const bool removed = !path.empty() && remove_unless_open(path);
  report(header, path + (removed ? "" : ": failed"));
  return answer(removed, removed ? 1 : -1);
}

bool Session::cut_file(const header_data_s &header) {
  const auto request = this->request<CutFileRequest>(header);
  if (!request) return false;
  const pvr_cut_request_s &cut = request->cut;
  const std::string path = located(cut.kvf_file_name, Root::File::kExists);
  const bool has_new_name = cut.has_second_file_name != 0;
  const std::string new_name =
      has_new_name ? located(cut.second_file_name, Root::File::kMayExist) : "";
  const bool sound = !path.empty() && (!has_new_name || !new_name.empty());
  const gint64 result =
      sound ? gst_edit_unit_erase_record(path.c_str(), cut.start_offset, cut.end_offset,
                                         has_new_name ? new_name.c_str() : nullptr)
            : -1;
  report(header, path + " " + std::to_string(cut.start_offset) + " to " +
                     std::to_string(cut.end_offset) + ": " + std::to_string(result));
  return answer(result == 0, result);
}

}  // namespace plexa::box
