// box_support.cpp - see box_support.h.
#include "box_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace plexa_test {
namespace {

constexpr char kBox[] = PLEXA_BOX_PROGRAM;

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::pair<int, int> new_pipe() {
  int both[2];
  if (::pipe2(both, O_CLOEXEC) != 0) fail("pipe");
  return {both[0], both[1]};
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> out;
  for (const std::string &text : texts) out.push_back(const_cast<char *>(text.c_str()));
  out.push_back(nullptr);
  return out;
}

void limit(__rlimit_resource resource, int64_t value) {
  const rlimit limits{static_cast<rlim_t>(value), static_cast<rlim_t>(value)};
  ::setrlimit(resource, &limits);
}

pid_t start(const std::vector<std::string> &command, const BoxOptions &options, int out, int err) {
  const std::vector<char *> arguments = pointers(command);
  const pid_t child = ::fork();
  if (child < 0) fail("fork");
  if (child > 0) return child;
  ::dup2(out, STDOUT_FILENO);
  ::dup2(err, STDERR_FILENO);
  for (const std::string &each : options.environment) ::putenv(const_cast<char *>(each.c_str()));
  if (options.file_limit >= 0) limit(RLIMIT_FSIZE, options.file_limit);
  if (options.descriptors >= 0) limit(RLIMIT_NOFILE, options.descriptors);
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

std::string read_line(int descriptor) {
  std::string line;
  char c = 0;
  while (::read(descriptor, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

std::string read_all(int descriptor) {
  std::string all;
  char block[4096];
  for (ssize_t got; (got = ::read(descriptor, block, sizeof block)) > 0;) {
    all.append(block, static_cast<size_t>(got));
  }
  return all;
}

int wait_for(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

template <class Request>
Request &path_into(Request &request, char (&field)[plexa::kPathField], const std::string &path) {
  std::memcpy(field, path.data(), std::min<size_t>(path.size(), plexa::kPathField));
  return request;
}

}  // namespace

// Standard error goes to a file without a name, so that a talkative box never waits for a reader.
RunningBox::RunningBox(const std::string &root, const BoxOptions &options) {
  const auto [in, out] = new_pipe();
  error_ = ::open(".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (error_ < 0) fail("temporary file");
  std::vector<std::string> command{kBox, "--root", root, "--port", "0"};
  command.insert(command.end(), options.arguments.begin(), options.arguments.end());
  child_ = start(command, options, out, error_);
  ::close(out);
  output_ = in;
  const std::string line = read_line(output_);
  const size_t colon = line.rfind(':');
  if (!line.starts_with("listening on ") || colon == std::string::npos) {
    stop(SIGKILL);
    throw std::runtime_error("the box does not listen: " + errors_);
  }
  port_ = static_cast<uint16_t>(std::stoi(line.substr(colon + 1)));
  idle_descriptors_ = open_descriptors();
}

// Ended in an orderly way, it tells of what a sanitizer has found.
RunningBox::~RunningBox() {
  if (child_ <= 0) return;
  const int result = stop(SIGTERM);
  EXPECT_EQ(result, 0) << errors_;
  EXPECT_THAT(errors_, ::testing::Not(::testing::HasSubstr("Sanitizer")));
}

int RunningBox::stop(int signal) {
  ::kill(child_, signal);
  const int result = wait_for(std::exchange(child_, -1));
  ::lseek(error_, 0, SEEK_SET);
  errors_ = read_all(error_);
  ::close(error_);
  ::close(output_);
  return result;
}

int RunningBox::open_descriptors() const {
  const std::filesystem::path folder = "/proc/" + std::to_string(child_) + "/fd";
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder),
                                        std::filesystem::directory_iterator()));
}

void RunningBox::wait_until_idle() const {
  while (open_descriptors() > idle_descriptors_) ::usleep(1000);
}

std::vector<std::string> RunningBox::environment() const {
  return {"PLEXA_BOX=1", "PLEXA_HOST_TV_YEAR=2014", "PLEXA_TEST_BOX_PORT=" + std::to_string(port_),
          "LD_PRELOAD=" PLEXA_BOX_DETECT " " PLEXA_BOX_REDIRECT,
          "ASAN_OPTIONS=fast_unwind_on_malloc=0:exitcode=99:verify_asan_link_order=0"};
}

RunningBox::AsTheBox::AsTheBox(const RunningBox &box) {
  ::setenv("PLEXA_TEST_BOX_PORT", std::to_string(box.port()).c_str(), 1);
  ::setenv("PLEXA_HOST_TV_YEAR", "2014", 1);
  ::setenv("PLEXA_BOX", "1", 1);
}

RunningBox::AsTheBox::~AsTheBox() {
  ::unsetenv("PLEXA_BOX");
  ::unsetenv("PLEXA_TEST_BOX_PORT");
}

BoxRun run_box(const std::vector<std::string> &arguments) {
  const auto [out_read, out_write] = new_pipe();
  const auto [err_read, err_write] = new_pipe();
  std::vector<std::string> command{kBox};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const pid_t child = start(command, {}, out_write, err_write);
  ::close(out_write);
  ::close(err_write);
  BoxRun run;
  run.out = read_all(out_read);
  run.err = read_all(err_read);
  ::close(out_read);
  ::close(err_read);
  run.exit_code = wait_for(child);
  return run;
}

// ---- Requests ----

Bytes raw(const void *record, size_t size) {
  const auto *const bytes = static_cast<const uint8_t *>(record);
  return {bytes, bytes + size};
}

Bytes bare_request(int32_t command) { return of_size(command, 28, 28); }

Bytes of_size(int32_t command, int32_t packet_size, size_t bytes) {
  header_data_s header{};
  header.packet_size = packet_size;
  header.command = command;
  Bytes packet = raw(header);
  packet.resize(bytes);
  return packet;
}

Bytes open_request(const std::string &path, const GstSocketOpenFlags &flags) {
  auto request = plexa::new_request<plexa::OpenRequest>(plexa::COMMAND_TYPE_OPEN);
  path_into(request, request.path, path);
  path_into(request, request.path_2, path);
  request.flags = flags;
  return raw(request);
}

Bytes read_request(uint32_t size) {
  auto request = plexa::new_request<plexa::ReadRequest>(plexa::COMMAND_TYPE_READ);
  request.size = size;
  return raw(request);
}

Bytes write_packet(uint32_t total, const Bytes &data) {
  auto request = plexa::new_request<plexa::WriteRequest>(plexa::COMMAND_TYPE_WRITE);
  request.header.packet_size += static_cast<gint32>(data.size());
  request.total = total;
  Bytes packet = raw(request);
  packet.insert(packet.end(), data.begin(), data.end());
  return packet;
}

Bytes seek_request(int64_t offset, int32_t whence) {
  auto request = plexa::new_request<plexa::SeekRequest>(plexa::COMMAND_TYPE_SEEK);
  request.whence = whence;
  request.offset = offset;
  return raw(request);
}

Bytes max_time_request(int64_t time) {
  auto request = plexa::new_request<plexa::MaxTimeRequest>(plexa::COMMAND_TYPE_SET_MAX_TIME);
  request.time = time;
  return raw(request);
}

Bytes wrote_time_request(uint32_t time) {
  auto request = plexa::new_request<plexa::WroteTimeRequest>(plexa::COMMAND_TYPE_SET_WROTE_TIME);
  request.time = time;
  return raw(request);
}

Bytes rename_request(const std::string &from, const std::string &to) {
  auto request = plexa::new_request<plexa::RenameRequest>(plexa::COMMAND_TYPE_RENAME);
  path_into(request, request.old_path, from);
  return raw(path_into(request, request.new_path, to));
}

Bytes remove_request(const std::string &path) {
  Bytes packet = of_size(plexa::COMMAND_TYPE_ROMOVE_FILE, 28 + 256, 28 + 256);
  std::copy(path.begin(), path.end(), packet.begin() + 28);
  return packet;
}

Bytes cut_request(const std::string &path, int64_t start, int64_t end,
                  const std::optional<std::string> &new_name) {
  auto request = plexa::new_request<plexa::CutFileRequest>(plexa::COMMAND_TYPE_CUT_FILE);
  path_into(request, request.cut.kvf_file_name, path);
  request.cut.start_offset = start;
  request.cut.end_offset = end;
  if (new_name) path_into(request, request.cut.second_file_name, *new_name);
  request.cut.has_second_file_name = new_name ? 1 : 0;
  return raw(request);
}

// ---- The client ----

RawClient::RawClient(const RunningBox &box)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(box.port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (::connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    fail("connect");
  }
}

RawClient::~RawClient() { hang_up(); }

void RawClient::hang_up() {
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

void RawClient::send(const Bytes &bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return;  // the box has left: the answer will tell
    sent += static_cast<size_t>(count);
  }
}

bool RawClient::receive(void *bytes, size_t size) {
  return size == 0 || ::recv(socket_, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

std::optional<header_data_s> RawClient::answer() {
  header_data_s header{};
  if (!receive(&header, sizeof header)) return {};
  return header;
}

std::optional<header_data_s> RawClient::ask(const Bytes &request) {
  send(request);
  return answer();
}

bool RawClient::succeeds(const Bytes &request) {
  const auto header = ask(request);
  return header && header->command == plexa::COMMAND_TYPE_IO_OK;
}

bool RawClient::open(const std::string &path, const GstSocketOpenFlags &flags) {
  return succeeds(open_request(path, flags));
}

std::optional<Bytes> RawClient::read(uint32_t size) {
  send(read_request(size));
  Bytes data;
  uint32_t announced = 0;
  do {
    const auto header = answer();
    if (!header || header->command != plexa::COMMAND_TYPE_READ) return {};
    Bytes rest(static_cast<size_t>(header->packet_size) - sizeof *header);
    if (!receive(rest.data(), rest.size())) return {};
    if (header->is_job_stopped != 0) return data;
    if (data.empty()) std::memcpy(&announced, rest.data(), sizeof announced);
    data.insert(data.end(), rest.begin() + 4, rest.end());
  } while (data.size() < announced);
  return data;
}

bool RawClient::is_closed() {
  char byte = 0;
  return ::recv(socket_, &byte, 1, 0) <= 0;
}

}  // namespace plexa_test
