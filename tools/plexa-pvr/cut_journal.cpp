// cut_journal.cpp - see cut_journal.h.
#include "cut_journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "failure.h"
#include "gst-plexa/gst_edit_unit.h"
#include "text.h"

namespace plexa::pvr {
namespace {

constexpr char kMagic[16] = "plexa-pvr cut 1";
constexpr size_t kSumLength = 64;
constexpr int64_t kProofLength = 4096;
// More does not lie at a seam.
constexpr int64_t kLongestPatch = int64_t{64} * GST_EDIT_UNIT_SIZE;
constexpr int64_t kLongestJournal = kLongestPatch + 4096;

// The journal's head; the patch and the checksum of both follow it. Read by the program that wrote
// it, on the machine that wrote it.
struct JournalHead {
  char magic[16];
  int64_t old_size;
  int64_t begin;
  int64_t end;
  int64_t patch_at;
  int64_t patch_size;
  int64_t proof_at;  // bytes of the shortened file that must be as they were: it is this recording
  int64_t proof_size;
  int64_t index_size;
  char proof_sum[kSumLength];
  char index_sum[kSumLength];
};
static_assert(sizeof(JournalHead) == 208);

struct Names {
  explicit Names(const RecordingPaths &paths)
      : journal(stem(paths.stream) + ".cut-journal"),
        unfinished(journal + "~"),
        index(stem(paths.index) + ".cut-index"),
        thumbnails{stem(paths.stream) + ".thm", stem(paths.stream) + ".tm"} {}

  static std::string stem(const std::string &path) { return path.substr(0, path.rfind('.')); }

  std::string journal;
  std::string unfinished;  // a journal that is being written
  std::string index;
  std::string thumbnails[2];
};

void put_sum(char (&to)[kSumLength], std::span<const uint8_t> bytes) {
  std::memcpy(to, checksum(bytes).data(), kSumLength);
}

bool has_sum(const char *sum, std::span<const uint8_t> bytes) {
  return std::memcmp(sum, checksum(bytes).data(), kSumLength) == 0;
}

// ---- The journal ----

// What stays at the seam: behind it or, when nothing does, before it. Counted in the shortened
// file.
void choose_proof(const StreamCut &cut, JournalHead &head) {
  const int64_t behind = cut.patch_at + static_cast<int64_t>(cut.patch.size());
  head.proof_size = std::min(kProofLength, cut.new_size() - behind);
  head.proof_at = behind;
  if (head.proof_size > 0) return;
  head.proof_size = std::min(kProofLength, cut.patch_at);
  head.proof_at = cut.patch_at - head.proof_size;
}

// The same bytes in the stream that is not cut yet.
int64_t before_cut(const StreamCut &cut, int64_t offset) {
  return offset < cut.begin ? offset : offset + (cut.end - cut.begin);
}

struct Journal {
  JournalHead head;
  StreamCut cut;
};

Journal plan(const LockedStream &stream, const std::string &path, const StreamCut &cut,
             const FileBytes &new_index) {
  JournalHead head{};
  std::memcpy(head.magic, kMagic, sizeof kMagic);
  head.old_size = cut.old_size;
  head.begin = cut.begin;
  head.end = cut.end;
  head.patch_at = cut.patch_at;
  head.patch_size = static_cast<int64_t>(cut.patch.size());
  head.index_size = static_cast<int64_t>(new_index.size());
  choose_proof(cut, head);
  put_sum(head.proof_sum,
          read_piece(stream.get(), path, before_cut(cut, head.proof_at), head.proof_size));
  put_sum(head.index_sum, new_index);
  return {head, cut};
}

FileBytes bytes_of(const Journal &journal) {
  const auto *const head = reinterpret_cast<const uint8_t *>(&journal.head);
  FileBytes bytes(head, head + sizeof journal.head);
  bytes.insert(bytes.end(), journal.cut.patch.begin(), journal.cut.patch.end());
  const std::string sum = checksum(bytes);
  bytes.insert(bytes.end(), sum.begin(), sum.end());
  return bytes;
}

// Every figure is in range of the others.
bool is_plausible(const JournalHead &head, size_t patch_room) {
  const auto inside = [](int64_t at, int64_t size, int64_t whole) {
    return at >= 0 && size >= 0 && at <= whole && size <= whole - at;
  };
  if (head.begin < 0 || head.end < head.begin || head.old_size < head.end) return false;
  const int64_t new_size = head.old_size - (head.end - head.begin);
  return head.patch_size == static_cast<int64_t>(patch_room) &&
         inside(head.patch_at, head.patch_size, new_size) &&
         inside(head.proof_at, head.proof_size, new_size) && head.proof_size <= kProofLength;
}

// None: the file is no journal of this program.
std::optional<Journal> read_journal(const std::string &path) {
  const Descriptor file(::open64(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) throw path_failure(path, errno);
  struct stat64 status {};
  if (::fstat64(file.get(), &status) != 0) throw path_failure(path, errno);
  const FileBytes bytes =
      read_piece(file.get(), path, 0, std::min(int64_t{status.st_size}, kLongestJournal));
  Journal journal{};
  if (bytes.size() < sizeof journal.head + kSumLength) return {};
  std::memcpy(&journal.head, bytes.data(), sizeof journal.head);
  if (std::memcmp(journal.head.magic, kMagic, sizeof kMagic) != 0) return {};
  const std::span<const uint8_t> summed(bytes.data(), bytes.size() - kSumLength);
  const auto patch = summed.subspan(sizeof journal.head);
  const auto *const sum = reinterpret_cast<const char *>(bytes.data() + summed.size());
  if (!has_sum(sum, summed) || !is_plausible(journal.head, patch.size())) {
    throw path_failure(path,
                       "the journal of an interrupted cut is damaged; delete it, then run "
                       "'plexa-pvr check'");
  }
  journal.cut = {journal.head.old_size,
                 journal.head.begin,
                 journal.head.end,
                 journal.head.patch_at,
                 {patch.begin(), patch.end()}};
  return journal;
}

// ---- The steps ----

// Asks the file system to take a unit out of an empty file: where it cannot do that in one step, a
// crash in the middle would leave neither recording.
void require_collapse(const std::string &path) {
  const Descriptor file(
      ::open64(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file.get() < 0) throw path_failure(path, errno);
  const bool able = ::ftruncate64(file.get(), 2 * GST_EDIT_UNIT_SIZE) == 0 &&
                    ::fallocate64(file.get(), FALLOC_FL_COLLAPSE_RANGE, 0, GST_EDIT_UNIT_SIZE) == 0;
  const int error = errno;
  if (able) return;
  ::unlink(path.c_str());
  if (error == ENOSPC || error == EDQUOT || error == EIO) throw path_failure(path, error);
  throw path_failure(folder_of(path),
                     "this file system cannot take a range out of a file in one step, as ext4 and "
                     "XFS can; 'plexa-pvr export' copies what is to stay");
}

void call_off(const Names &names) {
  remove_file(names.journal);
  remove_file(names.index);
  sync_folder_of(names.journal);
}

// Nothing but new files until this returns.
void prepare(const LockedStream &stream, const RecordingPaths &paths, const Names &names,
             const StreamCut &cut, const FileBytes &new_index) {
  const Journal journal = plan(stream, paths.stream, cut, new_index);
  struct stat64 old {};
  if (::stat64(paths.index.c_str(), &old) != 0) throw path_failure(paths.index, errno);
  if (cut.end > cut.begin && cut.end < cut.old_size) require_collapse(names.unfinished);
  try {
    write_durably(names.index, new_index, &old);
    write_durably(names.unfinished, bytes_of(journal), &old);
    rename_file(names.unfinished, names.journal);
    sync_folder_of(names.journal);
  } catch (...) {
    ::unlink(names.journal.c_str());
    ::unlink(names.unfinished.c_str());
    ::unlink(names.index.c_str());
    throw;
  }
}

// The one step. What it says about itself matters less than the file's size.
void take_out(const LockedStream &stream, const std::string &path, const StreamCut &cut) {
  if (cut.begin == cut.end) return;
  errno = 0;
  const bool rest = cut.end < cut.old_size;
  const gint64 result = rest
                            ? gst_edit_unit_do_partial_delete(path.c_str(), cut.begin, cut.end)
                            : gst_edit_unit_erase_record(path.c_str(), cut.begin, cut.end, nullptr);
  const int error = errno;
  if (result == (rest ? cut.end - cut.begin : 0) || stream.size() == cut.new_size()) return;
  throw path_failure(path, error != 0
                               ? format("the range could not be taken out: %s", g_strerror(error))
                               : format("the range could not be taken out (%lld)",
                                        static_cast<long long>(result)));
}

// The new index has its name already, or is where it was prepared.
void require_index(const Names &names, const RecordingPaths &paths, const JournalHead &head) {
  const std::string &path = file_exists(names.index) ? names.index : paths.index;
  const FileBytes index = read_whole(path);
  if (static_cast<int64_t>(index.size()) == head.index_size && has_sum(head.index_sum, index)) {
    return;
  }
  throw path_failure(path, format("is not the index of the interrupted cut; delete %s, then run "
                                  "'plexa-pvr index'",
                                  display(names.journal).c_str()));
}

// Everything behind the one step; as often as it takes.
void finish(const LockedStream &stream, const RecordingPaths &paths, const Names &names,
            const StreamCut &cut) {
  if (!cut.patch.empty()) {
    write_piece(stream.get(), paths.stream, cut.patch_at, cut.patch);
    sync_data(stream.get(), paths.stream);
  }
  if (file_exists(names.index)) rename_file(names.index, paths.index);
  sync_folder_of(paths.index);
  for (const std::string &thumbnail : names.thumbnails) remove_file(thumbnail);
  remove_file(names.journal);
}

bool is_this_recording(const LockedStream &stream, const RecordingPaths &paths,
                       const JournalHead &head) {
  const FileBytes proof = read_piece(stream.get(), paths.stream, head.proof_at, head.proof_size);
  return static_cast<int64_t>(proof.size()) == head.proof_size && has_sum(head.proof_sum, proof);
}

void settle(const LockedStream &stream, const RecordingPaths &paths, const Names &names) {
  const std::optional<Journal> journal = read_journal(names.journal);
  if (!journal) return;
  const int64_t size = stream.size();
  if (size == journal->cut.old_size && size != journal->cut.new_size()) return call_off(names);
  if (size == journal->cut.new_size() && is_this_recording(stream, paths, journal->head)) {
    require_index(names, paths, journal->head);
    return finish(stream, paths, names, journal->cut);
  }
  throw path_failure(names.journal,
                     "tells of an interrupted cut, but of another stream file; delete "
                     "it, then run 'plexa-pvr check'");
}

LockedStream lock_to_settle(const std::string &path) {
  try {
    return LockedStream(path);
  } catch (const Failure &failure) {
    throw Failure(std::string(failure.what()) +
                  "; a cut of the recording is at work, or was interrupted and must be finished");
  }
}

// A crash in front of the journal leaves files that mean nothing. Whoever may not remove them has
// no need to.
void tidy(const RecordingPaths &paths, const Names &names) {
  if (!file_exists(names.unfinished) && !file_exists(names.index)) return;
  try {
    const LockedStream stream(paths.stream);
    if (file_exists(names.journal)) return settle(stream, paths, names);
    remove_file(names.unfinished);
    remove_file(names.index);
  } catch (const Failure &) {
  }
}

}  // namespace

void cut_recording(const LockedStream &stream, const RecordingPaths &paths, const StreamCut &cut,
                   const FileBytes &new_index) {
  const Names names(paths);
  prepare(stream, paths, names, cut, new_index);
  try {
    take_out(stream, paths.stream, cut);
  } catch (...) {
    if (stream.size() == cut.old_size) call_off(names);
    throw;
  }
  try {
    finish(stream, paths, names, cut);
  } catch (const Failure &failure) {
    throw Failure(std::string(failure.what()) +
                  "; the range is out, and the next command on the recording finishes the cut");
  }
}

void settle_interrupted_cut(const RecordingPaths &paths) {
  const Names names(paths);
  if (!file_exists(names.journal)) return tidy(paths, names);
  const LockedStream stream = lock_to_settle(paths.stream);
  // Whoever held the lock may have finished.
  if (file_exists(names.journal)) settle(stream, paths, names);
}

void settle_before_overwriting(const std::string &stream_path) {
  const Names names({stream_path, stream_path});
  if (file_exists(names.journal) && file_exists(stream_path)) find_recording(stream_path, false);
}

}  // namespace plexa::pvr
