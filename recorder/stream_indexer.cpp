// stream_indexer.cpp - see stream_indexer.h. Not thread-safe.
#include "stream_indexer.h"

#include <algorithm>
#include <utility>

#include "gst-plexa/gst_index_parser.h"

namespace plexa::rec {

StreamIndexer::StreamIndexer(Start start)
    : tables_(std::move(start.tables)),
      asked_(start.asked),
      programme_(start.programme),
      channels_(std::move(start.channels)),
      gops_(start.time, start.resumed) {
  if (start.channel) {
    tune(start.channel);
  } else {
    follow_tables();
  }
  assign_roles();
}

void StreamIndexer::packets(const uint8_t *data, size_t count, uint64_t first) {
  for (size_t i = 0; i < count; ++i, data += kPacketSize) {
    if (data[0] != kSyncByte) {
      if (out_of_step_++ == 0) first_out_of_step_ = first + i;
      continue;
    }
    const uint8_t role = roles_[packet_pid(data)];
    if (role == kForeign) continue;
    if (role == kVideo) {
      scanner_->packet(data, first + i);
    } else {
      table(data);
    }
  }
}

void StreamIndexer::finish(uint64_t packets) {
  if (scanner_) scanner_->finish();
  gops_.finish(packets);
}

void StreamIndexer::table(const uint8_t *packet) {
  if (!tables_.packet(packet)) return;
  follow_tables();
  assign_roles();
}

// Keeps to the programme as long as the tables list it with video; when they do not any more (an
// other recording follows, say) and none was asked for, turns to the first that they offer.
void StreamIndexer::follow_tables() {
  const Programme *programme = tables_.find(programme_);
  if (programme == nullptr) programme = tables_.choose(asked_, false);
  if (programme == nullptr || !programme->known) return;
  programme_ = programme->number;
  tune(programme->channel);
}

void StreamIndexer::tune(std::optional<Channel> channel) {
  const bool same_video = channel && channel_ && channel->video_pid == channel_->video_pid &&
                          channel->codec == channel_->codec;
  if (!same_video) stop_scanner();
  channel_ = channel;
  if (!channel_ || scanner_) return;
  scanner_ =
      std::make_unique<VideoScanner>(channel_->codec, [this](const Frame &found) { frame(found); });
}

void StreamIndexer::stop_scanner() {
  if (!scanner_) return;
  scanner_->finish();
  past_counts_ = counts();
  scanner_.reset();
  gops_.new_video();
}

void StreamIndexer::assign_roles() {
  roles_.fill(kForeign);
  if (channel_ && scanner_) roles_[channel_->video_pid % kPids] = kVideo;
  for (const unsigned pid : tables_.pids()) roles_[pid % kPids] = kTable;
}

void StreamIndexer::frame(const Frame &found) {
  // Only a frame that can begin a GOP needs the channel's record.
  const std::optional<uint16_t> slot = found.entry == Entry::kNone ? 0 : slot_of(*channel_);
  if (slot) gops_.frame(found, *slot, channel_->video_pid);
}

// A channel that comes back gets the record that it had.
std::optional<uint16_t> StreamIndexer::slot_of(const Channel &channel) {
  const auto found = std::find(channels_.rbegin(), channels_.rend(), channel);
  if (found != channels_.rend()) {
    return static_cast<uint16_t>(std::distance(found, channels_.rend()) - 1);
  }
  if (channels_.size() >= GST_INDEX_CHANNEL_SLOTS) {
    out_of_channels_ = true;
    return {};
  }
  channels_.push_back(channel);
  return static_cast<uint16_t>(channels_.size() - 1);
}

ScannerCounts StreamIndexer::counts() const {
  ScannerCounts sum = past_counts_;
  if (!scanner_) return sum;
  sum.clear += scanner_->counts().clear;
  sum.scrambled += scanner_->counts().scrambled;
  sum.continuity_errors += scanner_->counts().continuity_errors;
  return sum;
}

}  // namespace plexa::rec
