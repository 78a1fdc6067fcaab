// command_line.cpp - see command_line.h.
#include "command_line.h"

#include <cstdio>

#include "failure.h"
#include "plexa_platform_host.h"
#include "text.h"

namespace plexa::pvr {

CommandLine::CommandLine(const Command &command)
    : context_(g_option_context_new(command.arguments)) {
  g_option_context_set_help_enabled(context_.get(), FALSE);
  g_option_context_set_summary(context_.get(), command.summary);
  g_option_context_set_description(context_.get(), command.description);
}

void CommandLine::add_json() {
  add({"json", 0, 0, G_OPTION_ARG_NONE, &json_, "Print JSON", nullptr});
}

bool CommandLine::parse(int argc, char **argv, size_t least_operands, size_t most_operands) {
  add({"log", 0, 0, G_OPTION_ARG_STRING, &log_.value,
       "Log of the library, on standard error: off (the default), error or debug", "LEVEL"});
  add({"help", 'h', 0, G_OPTION_ARG_NONE, &help_, "Show this help", nullptr});
  add({"version", 0, 0, G_OPTION_ARG_NONE, &version_, "Show the version", nullptr});
  gchar **operands = nullptr;
  add({G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &operands, nullptr, nullptr});
  add(GOptionEntry{});
  g_option_context_add_main_entries(context_.get(), entries_.data(), nullptr);

  GError *error = nullptr;
  const bool parsed = g_option_context_parse(context_.get(), &argc, &argv, &error);
  take_operands(operands);
  if (!parsed) {
    const UsageError usage(error->message);
    g_error_free(error);
    throw usage;
  }
  if (help_) {
    gchar *const help = g_option_context_get_help(context_.get(), TRUE, nullptr);
    std::fputs(help, stdout);
    g_free(help);
    return false;
  }
  if (version_) {
    print_version();
    return false;
  }
  if (log_) set_log_level(log_.text());
  check_operands(least_operands, most_operands);
  return true;
}

void CommandLine::take_operands(gchar **operands) {
  for (gchar **each = operands; each != nullptr && *each != nullptr; ++each) {
    operands_.emplace_back(*each);
  }
  g_strfreev(operands);
}

void CommandLine::check_operands(size_t least, size_t most) const {
  if (operands_.size() < least) throw UsageError("an argument is missing");
  if (operands_.size() > most) {
    throw UsageError(format("one argument too many: '%s'", display(operands_[most]).c_str()));
  }
}

void print_version() { std::puts("plexa-pvr " PLEXA_PVR_VERSION); }

void set_log_level(const std::string &level) {
  PlexaHostLogLevel value = PLEXA_HOST_LOG_LEVEL_OFF;
  if (plexa_host_log_level_from_name(level.c_str(), &value) != 0) {
    throw UsageError(format("--log: 'off', 'error' or 'debug', not '%s'", display(level).c_str()));
  }
  plexa_host_set_log_level(value);
}

}  // namespace plexa::pvr
