// packet_store.h - where the packets of a recording go.
//
// Two kinds: the stream file of an ordinary recording (stream_writer) and the buffer of a
// time-shift recording (timeshift_writer). One object serves one thread at a time.
#ifndef PLEXA_RECORDER_PACKET_STORE_H_
#define PLEXA_RECORDER_PACKET_STORE_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace plexa::rec {

class PacketStore {
 public:
  PacketStore() = default;
  virtual ~PacketStore() = default;
  PacketStore(const PacketStore &) = delete;
  PacketStore &operator=(const PacketStore &) = delete;

  // False: it takes no more, error() and problem() say why; packets() tells how far it got.
  virtual bool write(const uint8_t *data, size_t size) = 0;
  // Stores what is still held back, makes everything durable and closes the file, which then holds
  // whole packets. False: error(); the file is closed all the same.
  virtual bool finish() = 0;
  virtual void abandon() = 0;

  virtual uint64_t packets() const = 0;  // stored, counted from the recording's start
  virtual int error() const = 0;
  virtual std::string problem() const = 0;  // what went wrong, for people
};

}  // namespace plexa::rec

#endif  // PLEXA_RECORDER_PACKET_STORE_H_
