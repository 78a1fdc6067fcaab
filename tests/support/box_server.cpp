#include "box_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "faults.h"

namespace plexa_test {
namespace {

constexpr size_t kHeader = sizeof(header_data_s);

void require(bool condition, const char *what) {
  if (!condition) throw std::runtime_error(std::string("box_server: ") + what);
}

bool read_exactly(int fd, uint8_t *bytes, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = recv(fd, bytes + done, size - done, 0);
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

bool write_exactly(int fd, const uint8_t *bytes, size_t size, size_t step) {
  for (size_t done = 0; done < size;) {
    const ssize_t count = send(fd, bytes + done, std::min(step, size - done), MSG_NOSIGNAL);
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

// One packet; empty when the client has gone.
BoxBytes read_packet(int fd) {
  BoxBytes packet(kHeader);
  if (!read_exactly(fd, packet.data(), kHeader)) return {};
  const auto size = static_cast<size_t>(plexa::record_at<header_data_s>(packet.data()).packet_size);
  if (size < kHeader) return {};
  packet.resize(size);
  if (!read_exactly(fd, packet.data() + kHeader, size - kHeader)) return {};
  return packet;
}

gint32 command_of(const BoxBytes &packet) {
  return plexa::record_at<header_data_s>(packet.data()).command;
}

// Send what the answer says. False: it says to hang up, or the client has gone.
bool give(int fd, const BoxAnswer &answer) {
  const size_t size = std::min(answer.bytes.size(), answer.hang_up_after.value_or(SIZE_MAX));
  const size_t step = answer.dribble ? 1 : SIZE_MAX;
  return write_exactly(fd, answer.bytes.data(), size, step) && !answer.hang_up_after;
}

}  // namespace

class BoxServer::Impl {
 public:
  Impl() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    require(listener_ >= 0, "no socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    socklen_t size = sizeof address;
    require(bind(listener_, any, size) == 0 && listen(listener_, 16) == 0, "cannot listen");
    require(getsockname(listener_, any, &size) == 0, "no port");
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept_all(); });
  }

  ~Impl() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    {
      const std::lock_guard hold(lock_);
      for (const Connection &one : served_) {
        if (one.fd >= 0) shutdown(one.fd, SHUT_RDWR);
      }
    }
    for (Connection &one : served_) one.thread.join();
    close(listener_);
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<BoxBytes> requests_;
  std::deque<BoxAnswer> answers_;
  BoxAnswer open_answer_ = ok();
  int connections_ = 0;
  int connected_ = 0;
  uint16_t port_ = 0;

 private:
  struct Connection {
    int fd;
    std::thread thread;
  };

  void accept_all() {
    for (;;) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      const int on = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      const std::lock_guard hold(lock_);
      ++connections_;
      ++connected_;
      Connection &one = served_.emplace_back();
      one.fd = fd;
      one.thread = std::thread([this, &one] { serve(one); });
    }
  }

  void serve(Connection &one) {
    int fd;
    {
      const std::lock_guard hold(lock_);
      fd = one.fd;
    }
    while (serve_request(fd)) {
    }
    const std::lock_guard hold(lock_);
    close(fd);
    one.fd = -1;
    --connected_;
    changed_.notify_all();
  }

  bool serve_request(int fd) {
    BoxBytes packet = read_packet(fd);
    if (packet.empty()) return false;
    const gint32 command = command_of(packet);
    if (command == plexa::COMMAND_TYPE_WRITE && !keep_rest_of_write(fd, packet)) return false;
    if (command != plexa::COMMAND_TYPE_WRITE) keep(std::move(packet));
    return give(fd, next_answer(command));
  }

  bool keep_rest_of_write(int fd, BoxBytes packet) {
    constexpr size_t kDataAt = sizeof(plexa::WriteRequest);
    const size_t total = plexa::record_at<plexa::WriteRequest>(packet.data()).total;
    for (size_t taken = packet.size() - kDataAt;; taken += packet.size() - kDataAt) {
      keep(std::move(packet));
      if (taken >= total) return true;
      packet = read_packet(fd);
      if (packet.size() < kDataAt) return false;
    }
  }

  void keep(BoxBytes packet) {
    const std::lock_guard hold(lock_);
    requests_.push_back(std::move(packet));
    changed_.notify_all();
  }

  BoxAnswer next_answer(gint32 command) {
    const std::lock_guard hold(lock_);
    if (command == plexa::COMMAND_TYPE_OPEN) return open_answer_;
    if (answers_.empty()) return ok();
    BoxAnswer answer = std::move(answers_.front());
    answers_.pop_front();
    return answer;
  }

  int listener_;
  std::thread acceptor_;
  std::list<Connection> served_;
};

header_data_s answer_header(gint32 status, gint64 result, gint32 packet_size) {
  header_data_s header{};
  header.packet_size = packet_size;
  header.command = status;
  header.lld_return = result;
  return header;
}

BoxBytes bytes_of(const header_data_s &header) {
  BoxBytes bytes(sizeof header);
  std::memcpy(bytes.data(), &header, sizeof header);
  return bytes;
}

BoxAnswer ok(gint64 result) { return {bytes_of(answer_header(plexa::COMMAND_TYPE_IO_OK, result))}; }

BoxAnswer refused(gint32 status) { return {bytes_of(answer_header(status))}; }

BoxAnswer timeshift_ok(gint64 result, gint32 accumulated_time, gint32 fixed_duration) {
  header_data_s header = answer_header(plexa::COMMAND_TYPE_IO_OK, result);
  header.accumulated_time = accumulated_time;
  header.fixed_duration = fixed_duration;
  return {bytes_of(header)};
}

BoxBytes data_packet(guint32 total, const BoxBytes &data, gint32 is_job_stopped) {
  plexa::ReadAnswer answer = plexa::new_request<plexa::ReadAnswer>(plexa::COMMAND_TYPE_READ);
  answer.header.packet_size += static_cast<gint32>(data.size());
  answer.header.is_job_stopped = is_job_stopped;
  answer.total = total;
  BoxBytes bytes(sizeof answer);
  std::memcpy(bytes.data(), &answer, sizeof answer);
  bytes.insert(bytes.end(), data.begin(), data.end());
  return bytes;
}

BoxBytes joined(const std::vector<BoxBytes> &parts) {
  BoxBytes all;
  for (const BoxBytes &part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

BoxServer::BoxServer() : impl_(std::make_unique<Impl>()) {
  redirect_connect(plexa::kPort, impl_->port_);
}

BoxServer::~BoxServer() { redirect_connect(plexa::kPort, 0); }

void BoxServer::will_answer_open(BoxAnswer answer) {
  const std::lock_guard hold(impl_->lock_);
  impl_->open_answer_ = std::move(answer);
}

void BoxServer::will_answer(BoxAnswer answer) {
  const std::lock_guard hold(impl_->lock_);
  impl_->answers_.push_back(std::move(answer));
}

uint16_t BoxServer::port() const { return impl_->port_; }

std::vector<BoxBytes> BoxServer::requests() const {
  const std::lock_guard hold(impl_->lock_);
  return impl_->requests_;
}

std::vector<gint32> BoxServer::commands() const {
  std::vector<gint32> all;
  for (const BoxBytes &request : requests()) all.push_back(command_of(request));
  return all;
}

BoxBytes BoxServer::last_request() const {
  const std::lock_guard hold(impl_->lock_);
  require(!impl_->requests_.empty(), "no request has come");
  return impl_->requests_.back();
}

int BoxServer::connections() const {
  const std::lock_guard hold(impl_->lock_);
  return impl_->connections_;
}

void BoxServer::forget_requests() {
  const std::lock_guard hold(impl_->lock_);
  impl_->requests_.clear();
}

void BoxServer::wait_for_requests(size_t count) const {
  std::unique_lock hold(impl_->lock_);
  impl_->changed_.wait(hold, [&] { return impl_->requests_.size() >= count; });
}

void BoxServer::wait_until_disconnected() const {
  std::unique_lock hold(impl_->lock_);
  impl_->changed_.wait(hold, [&] { return impl_->connected_ == 0; });
}

}  // namespace plexa_test
