// command_line.h - a command's options and operands, parsed with GOption.
//
//   OptionText from;
//   CommandLine line(command);
//   line.add({"from", 0, 0, G_OPTION_ARG_STRING, &from.value, "Begin at T", "T"});
//   line.add_json();
//   if (!line.parse(argc, argv, 1, 1)) return kExitOk;      // --help or --version was answered
//   Recording recording(line.operand(0));
//
// Every command also has --help, --version and --log. Main thread only.
#pragma once

#include <glib.h>

#include <memory>
#include <string>
#include <vector>

#include "commands.h"

namespace plexa::pvr {

// The value of an option with a text argument; null until it is given.
struct OptionText {
  OptionText() = default;
  ~OptionText() { g_free(value); }
  OptionText(const OptionText &) = delete;
  OptionText &operator=(const OptionText &) = delete;

  explicit operator bool() const { return value != nullptr; }
  std::string text() const { return value != nullptr ? value : ""; }

  gchar *value = nullptr;
};

class CommandLine {
 public:
  explicit CommandLine(const Command &command);

  // The strings of the entry, and what it points to, must outlive parse().
  void add(const GOptionEntry &entry) { entries_.push_back(entry); }
  // --json: print data as JSON.
  void add_json();

  // False: the command line asked for help or the version, which is printed. Throws UsageError.
  // Sets the library's log.
  bool parse(int argc, char **argv, size_t least_operands, size_t most_operands);

  bool json() const { return json_ != FALSE; }
  const std::string &operand(size_t index) const { return operands_[index]; }
  size_t operands() const { return operands_.size(); }

 private:
  struct Free {
    void operator()(GOptionContext *context) const { g_option_context_free(context); }
  };

  void take_operands(gchar **operands);
  void check_operands(size_t least, size_t most) const;

  std::unique_ptr<GOptionContext, Free> context_;
  std::vector<GOptionEntry> entries_;
  gboolean help_ = FALSE;
  gboolean version_ = FALSE;
  gboolean json_ = FALSE;
  OptionText log_;
  std::vector<std::string> operands_;
};

// "plexa-pvr 1.0.0".
void print_version();

// The library's log: "off", "error" or "debug". Throws UsageError.
void set_log_level(const std::string &level);

}  // namespace plexa::pvr
