// box_support.h - the program plexa-box as a child process, and a client that says what a test
// says.
//
//   RunningBox box(dir.path());                 // serves the folder on a free port
//   const RunningBox::AsTheBox here(box);       // the library of this process goes to it
//   RawClient client(box);
//   EXPECT_TRUE(client.open("/film.kvf", kToRead));
//
// The client's library always asks at the protocol's own port; box_redirect.cpp sends this process,
// and a program that loads it, to the box of PLEXA_TEST_BOX_PORT instead.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gst_socket_protocol.h"

namespace plexa_test {

using Bytes = std::vector<uint8_t>;

struct BoxOptions {
  std::vector<std::string> arguments{};    // further ones
  std::vector<std::string> environment{};  // NAME=VALUE
  int64_t file_limit = -1;                 // bytes that a file may have: a disk that becomes full
  int descriptors = -1;                    // that the box may have open
};

class RunningBox {
 public:
  explicit RunningBox(const std::string &root, const BoxOptions &options = {});
  ~RunningBox();
  RunningBox(const RunningBox &) = delete;
  RunningBox &operator=(const RunningBox &) = delete;

  uint16_t port() const { return port_; }
  pid_t process() const { return child_; }
  // Ends it with a signal, or waits for its end: the exit code, or minus the signal that ended it.
  int stop(int signal);
  const std::string &errors() const { return errors_; }  // behind stop()
  int open_descriptors() const;
  // Blocks until the box has no more descriptors open than before its first client.
  void wait_until_idle() const;
  // How a program finds this box.
  std::vector<std::string> environment() const;

  // As long as it lives the library of this process has a companion box: this one.
  class AsTheBox {
   public:
    explicit AsTheBox(const RunningBox &box);
    ~AsTheBox();
    AsTheBox(const AsTheBox &) = delete;
    AsTheBox &operator=(const AsTheBox &) = delete;
  };

 private:
  pid_t child_ = -1;
  uint16_t port_ = 0;
  int output_ = -1;
  int error_ = -1;
  int idle_descriptors_ = 0;
  std::string errors_;
};

// A program from start to end: exit code and what it wrote.
struct BoxRun {
  int exit_code = -1;
  std::string out;
  std::string err;
};
BoxRun run_box(const std::vector<std::string> &arguments);

inline constexpr GstSocketOpenFlags kToRead{1, 0, 0, 0};
inline constexpr GstSocketOpenFlags kToWrite{0, 0, 0, 0};

// Requests as they go over the wire.
Bytes raw(const void *record, size_t size);
template <class Record>
Bytes raw(const Record &record) {
  return raw(&record, sizeof record);
}
Bytes bare_request(int32_t command);
Bytes open_request(const std::string &path, const GstSocketOpenFlags &flags);
Bytes read_request(uint32_t size);
Bytes write_packet(uint32_t total, const Bytes &data);
Bytes seek_request(int64_t offset, int32_t whence);
Bytes max_time_request(int64_t time);
Bytes wrote_time_request(uint32_t time);
Bytes rename_request(const std::string &from, const std::string &to);
Bytes remove_request(const std::string &path);
Bytes cut_request(const std::string &path, int64_t start, int64_t end,
                  const std::optional<std::string> &new_name = {});
Bytes of_size(int32_t command, int32_t packet_size, size_t bytes);

class RawClient {
 public:
  explicit RawClient(const RunningBox &box);
  ~RawClient();
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  void send(const Bytes &bytes);
  void hang_up();  // at once, with whatever is under way
  // The next answer's header; none when the box has closed the connection.
  std::optional<header_data_s> answer();
  // A request and its answer.
  std::optional<header_data_s> ask(const Bytes &request);
  bool succeeds(const Bytes &request);  // the status of its answer
  bool open(const std::string &path, const GstSocketOpenFlags &flags);
  // The data of a read, in whatever packets it comes; none when the read failed.
  std::optional<Bytes> read(uint32_t size);
  bool is_closed();  // by the box: nothing comes any more

 private:
  bool receive(void *bytes, size_t size);
  int socket_;
};

}  // namespace plexa_test
