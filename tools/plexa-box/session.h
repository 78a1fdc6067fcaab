// session.h - one client, from its first request to its last.
//
// Carries out what a client asks for through the library, on the box's disk, and answers. A request
// that is no request ends the connection after a refusal; one that asks for too much, or for
// something at the wrong time, is refused, and the connection goes on. A file that the client
// leaves open is closed; without one a session holds no memory worth mentioning. A session is run
// on a thread of its own.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "box_file.h"
#include "channel.h"
#include "root.h"
#include "staging.h"

namespace plexa::box {

struct Settings {
  std::chrono::seconds patience{30};  // for the rest of a request, and for a client to take answers
  bool verbose = false;               // every request on standard error
};

class Session {
 public:
  // Owns the socket. `root` and `settings` must outlive the session.
  Session(int socket, const Root &root, const Settings &settings, std::string client);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  void run();
  // Closes what the client has left open; may take as long as a cut does.
  void release() { file_.reset(); }

 private:
  struct Command;
  static const Command kCommands[];

  // Each answers the request whose header has been taken. False: the connection is over.
  bool serve(const header_data_s &header);
  bool open(const header_data_s &header);
  bool close(const header_data_s &header);
  bool read(const header_data_s &header);
  bool write(const header_data_s &header);
  bool seek(const header_data_s &header);
  bool tell(const header_data_s &header);
  bool size(const header_data_s &header);
  bool fsync(const header_data_s &header);
  bool set_max_time(const header_data_s &header);
  bool get_max_time(const header_data_s &header);
  bool set_wrote_time(const header_data_s &header);
  bool rename(const header_data_s &header);
  bool remove_file(const header_data_s &header);
  bool cut_file(const header_data_s &header);
  bool refuse(const header_data_s &header);

  template <class Request>
  std::optional<Request> request(const header_data_s &header);
  std::string located(const char (&field)[kPathField], Root::File file) const;
  bool has_sound_index(const std::string &path) const;
  bool take_data(const header_data_s &first, guint32 total);
  bool take_packet(std::size_t size, bool is_last);
  bool end_write(const header_data_s &header);
  uint8_t *read_buffer(std::size_t size);
  bool send_data(guint32 total, std::size_t size, bool is_stopped = false);
  bool answer(bool is_good, gint64 result = 0);
  bool answer_result(gint64 result);
  void report(const header_data_s &request, const std::string &text) const;
  bool is_open() const { return file_ != nullptr && file_->is_open(); }
  GstPvrFile *handle() { return file_->get(); }

  Channel channel_;
  const Root &root_;
  const Settings &settings_;
  const std::string client_;
  std::unique_ptr<BoxFile> file_;
  Staging staging_;
  std::unique_ptr<uint8_t[]> packet_;  // of a read's answer
  std::size_t packet_room_ = 0;
};

}  // namespace plexa::box
