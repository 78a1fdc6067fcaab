// commands.cpp - see commands.h.
#include "commands.h"

namespace plexa::pvr {

extern const Command kRecord;
extern const Command kTimeshift;
extern const Command kIndex;
extern const Command kInfo;
extern const Command kFrames;
extern const Command kSeek;
extern const Command kCheck;
extern const Command kThumbnail;
extern const Command kReport;
extern const Command kExport;
extern const Command kCut;
extern const Command kKeep;
extern const Command kRename;

namespace {

constexpr const Command *kCommands[] = {
    &kRecord,    &kTimeshift, &kIndex,  &kInfo, &kFrames, &kSeek,   &kCheck,
    &kThumbnail, &kReport,    &kExport, &kCut,  &kKeep,   &kRename,
};

}  // namespace

std::span<const Command *const> commands() { return kCommands; }

const Command *find_command(const std::string &name) {
  for (const Command *const command : kCommands) {
    if (name == command->name) return command;
  }
  return nullptr;
}

}  // namespace plexa::pvr
