// socket_answer_seeds.cpp - answers as a companion box gives them, behind the four bytes that
// choose the operations.
#include <cstring>

#include "gst_socket_protocol.h"
#include "seeds.h"

namespace {

using plexa_fuzz::Bytes;

// The choices of the target: below 128 a read of 0, 1, 10, 1000 or 70000 bytes, else by the rest of
// a division by 7.
constexpr uint8_t kRead10 = 2, kRead1000 = 3, kRead70000 = 4;
constexpr uint8_t kWrite = 133, kSeek = 134, kTell = 135, kSize = 136, kSync = 130, kMaxTime = 131,
                  kWroteTime = 132;

template <class Record>
Bytes bytes_of(const Record &record) {
  Bytes bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

Bytes status(gint32 command, gint64 result) {
  auto answer = plexa::new_request<plexa::BareRequest>(plexa::COMMAND_TYPE_IO_OK);
  answer.header.command = command;
  answer.header.lld_return = result;
  answer.header.accumulated_time = 60000;
  answer.header.fixed_duration = 5400000;
  return bytes_of(answer);
}

Bytes data(guint32 total, size_t size, gint32 is_job_stopped = 0) {
  auto answer = plexa::new_request<plexa::ReadAnswer>(plexa::COMMAND_TYPE_READ);
  answer.header.packet_size += static_cast<gint32>(size);
  answer.header.is_job_stopped = is_job_stopped;
  answer.total = total;
  Bytes bytes = bytes_of(answer);
  bytes.resize(bytes.size() + size, 0x47);
  return bytes;
}

Bytes input(const Bytes &choices, const std::vector<Bytes> &answers) {
  Bytes all = choices;
  for (const Bytes &answer : answers) all.insert(all.end(), answer.begin(), answer.end());
  return all;
}

}  // namespace

std::vector<Bytes> plexa_fuzz::seeds() {
  return {
      input({kWrite, kSeek, kTell, kSize},
            {status(1, 3), status(1, 1), status(0, 3), status(1, 99)}),
      input({kSync, kMaxTime, kWroteTime, kTell},
            {status(1, 0), status(1, -1), status(-1, 0), status(1, 7)}),
      input({kRead10, kTell, kRead10, kTell},
            {data(10, 10), status(1, 10), data(5, 5), status(1, 15)}),
      input({kRead1000, kRead1000, kTell, kTell},
            {data(1000, 400), data(0, 600), data(1000, 10), data(1000, 10, 1), status(1, 1010)}),
      input({kRead70000, kRead10, kRead10, kWrite}, {data(70000, 60000), data(70000, 10000)}),
      // More announced than asked for, more sent than announced: what must not reach the block.
      input({kRead10, kTell, kRead10, kTell},
            {data(1000, 400), status(1, 0), data(4, 400), status(1, 0)}),
  };
}
