// probe.cpp - see probe.h. Not thread-safe.
#include "probe.h"

#include <algorithm>

namespace plexa::rec {
namespace {

// Programme maps come at least twice a second. A programme whose map has not come within this many
// packets more (a second at 15 Mbit/s) does not keep a later one waiting.
constexpr uint64_t kPatience = 10000;
constexpr size_t kListed = 12;

}  // namespace

bool Probe::packets(const uint8_t *data, size_t count) {
  for (size_t i = 0; i < count && chosen_ == 0; ++i, data += kPacketSize) {
    ++packets_;
    if (data[0] != kSyncByte) ++out_of_step_;
    const bool changed =
        data[0] == kSyncByte && tables_.wants(packet_pid(data)) && tables_.packet(data);
    if (changed && choose(false)) break;
    if (changed && packets_at_candidate_ == 0 && tables_.choose(asked_, true) != nullptr) {
      packets_at_candidate_ = packets_;
    }
    if (packets_at_candidate_ == 0 || packets_ - packets_at_candidate_ <= kPatience) continue;
    if (!choose(true)) packets_at_candidate_ = 0;  // a later table took it away again
  }
  return chosen_ != 0;
}

bool Probe::finish() { return chosen_ != 0 || choose(true); }

bool Probe::choose(bool impatient) {
  const Programme *const programme = tables_.choose(asked_, impatient);
  if (programme != nullptr) chosen_ = programme->number;
  return programme != nullptr;
}

StreamIndexer::Start Probe::start() const {
  StreamIndexer::Start start;
  start.tables = tables_;
  start.asked = asked_;
  start.programme = chosen_;
  return start;
}

std::string Probe::programme_list() const {
  std::string out;
  const auto &programmes = tables_.programmes();
  for (size_t i = 0; i < std::min(programmes.size(), kListed); ++i) {
    out += (out.empty() ? "" : ", ") + std::to_string(programmes[i].number);
  }
  return programmes.size() > kListed ? out + ", ..." : out;
}

std::string Probe::refusal_without_programme() const {
  if (out_of_step_ > packets_ / 2) return "does not hold one 188-byte packet behind the other";
  if (!tables_.have_programmes()) return "has no programme table";
  const Programme *const asked = asked_ == 0 ? nullptr : tables_.find(asked_);
  if (asked_ != 0 && asked == nullptr) {
    return "has no programme " + std::to_string(asked_) + " (it has " + programme_list() + ")";
  }
  const bool any_map = std::any_of(tables_.programmes().begin(), tables_.programmes().end(),
                                   [](const Programme &p) { return p.known; });
  if (asked_ != 0 ? !asked->known : !any_map) return "has no map of the programme";
  if (asked_ != 0) {
    return "has no MPEG-2, H.264 or H.265 video in programme " + std::to_string(asked_);
  }
  return "has no MPEG-2, H.264 or H.265 video";
}

std::string Probe::refusal(const StreamIndexer *indexer) const {
  if (indexer == nullptr) return refusal_without_programme();
  const ScannerCounts counts = indexer->counts();
  const std::string programme = std::to_string(chosen_);
  if (counts.scrambled > counts.clear) return "is scrambled: the video of programme " + programme;
  if (counts.clear == 0) return "announces video in programme " + programme + ", but has none";
  return "has no I-picture in the video of programme " + programme;
}

}  // namespace plexa::rec
