// main.cpp - plexa-box: serves the recordings below a folder to televisions on the network.
//
// Reads the command line, listens, shuts itself in and serves until a signal comes. Exit codes:
// 0 ended by SIGINT or SIGTERM, 1 failure, 2 usage.
#include <arpa/inet.h>
#include <glib.h>
#include <gst/gst.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "confine.h"
#include "plexa_platform_host.h"
#include "root.h"
#include "server.h"

namespace plexa::box {
namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kMostSeconds = 3600;
constexpr int kMostClients = 4096;

constexpr char kSummary[] =
    "Serves the recordings below a folder to televisions, which open, read, write and cut\n"
    "them as if the folder were their own disk. A request's path begins in that folder;\n"
    "nothing outside it is reached.";
constexpr char kDescription[] =
    "The first line on standard output names the address: \"listening on 127.0.0.1:38999\".\n"
    "SIGINT and SIGTERM end the program when every file is closed.\n"
    "\n"
    "There is no password and no encryption: give it an address that only televisions\n"
    "can reach.\n"
    "\n"
    "Exit status: 0 ended by a signal, 1 failure, 2 wrong usage.\n"
    "\n"
    "Examples:\n"
    "  plexa-box --root /srv/recordings\n"
    "  plexa-box --root /srv/recordings --address 192.168.7.1 --verbose\n"
    "  PLEXA_BOX=1 PLEXA_HOST_TV_YEAR=2014 LD_PRELOAD=libplexa-box-detect.so \\\n"
    "    plexa-pvr info /film.kvf\n";

struct Options {
  std::string root;
  ServerSettings server;
};

[[nodiscard]] int usage_error(const std::string &text) {
  std::fprintf(stderr, "plexa-box: %s\nTry 'plexa-box --help'.\n", text.c_str());
  return kExitUsage;
}

struct Arguments {
  gchar *root = nullptr;
  gchar *address = nullptr;
  gint port = kPort;
  gint patience = 30;
  gint clients = 256;
  gboolean verbose = FALSE;
  gboolean help = FALSE;
  gboolean version = FALSE;
  gchar **operands = nullptr;

  Arguments() = default;
  Arguments(const Arguments &) = delete;
  Arguments &operator=(const Arguments &) = delete;
  ~Arguments() {
    g_free(root);
    g_free(address);
    g_strfreev(operands);
  }
};

// The text of what is wrong; empty: nothing.
std::string check(const Arguments &arguments) {
  in_addr address{};
  if (arguments.operands != nullptr) {
    return "one argument too many: '" + std::string(arguments.operands[0]) + "'";
  }
  if (arguments.root == nullptr || *arguments.root == '\0') return "--root is needed";
  if (arguments.address != nullptr && inet_pton(AF_INET, arguments.address, &address) != 1) {
    return "--address: not an IPv4 address: '" + std::string(arguments.address) + "'";
  }
  if (arguments.port < 0 || arguments.port > 65535) return "--port: a number from 0 to 65535";
  if (arguments.patience < 1 || arguments.patience > kMostSeconds) {
    return "--patience: a number from 1 to " + std::to_string(kMostSeconds);
  }
  if (arguments.clients < 1 || arguments.clients > kMostClients) {
    return "--clients: a number from 1 to " + std::to_string(kMostClients);
  }
  return "";
}

Options options_of(const Arguments &arguments) {
  Options options;
  options.root = arguments.root;
  if (arguments.address != nullptr) options.server.address = arguments.address;
  options.server.port = static_cast<uint16_t>(arguments.port);
  options.server.patience = std::chrono::seconds(arguments.patience);
  options.server.most_clients = static_cast<std::size_t>(arguments.clients);
  options.server.verbose = arguments.verbose != FALSE;
  return options;
}

// None: the program has been answered already, with this exit code.
std::optional<Options> parse(int argc, char **argv, int &exit_code) {
  Arguments given;
  const GOptionEntry entries[] = {
      {"root", 0, 0, G_OPTION_ARG_FILENAME, &given.root, "The folder to serve; needed", "DIR"},
      {"address", 0, 0, G_OPTION_ARG_STRING, &given.address,
       "IPv4 address to listen on (default: 127.0.0.1)", "A"},
      {"port", 0, 0, G_OPTION_ARG_INT, &given.port,
       "Port (default: 38999, the televisions'); 0: any that is free", "P"},
      {"clients", 0, 0, G_OPTION_ARG_INT, &given.clients,
       "Connections at a time (default: 256); more are refused", "N"},
      {"patience", 0, 0, G_OPTION_ARG_INT, &given.patience,
       "For the rest of a request that has begun (default: 30)", "SECONDS"},
      {"verbose", 'v', 0, G_OPTION_ARG_NONE, &given.verbose,
       "Every request on standard error, and the library's log", nullptr},
      {"help", 'h', 0, G_OPTION_ARG_NONE, &given.help, "Show this help", nullptr},
      {"version", 0, 0, G_OPTION_ARG_NONE, &given.version, "Show the version", nullptr},
      {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &given.operands, nullptr, nullptr},
      {}};
  const std::unique_ptr<GOptionContext, decltype(&g_option_context_free)> context(
      g_option_context_new(nullptr), &g_option_context_free);
  g_option_context_set_help_enabled(context.get(), FALSE);
  g_option_context_set_summary(context.get(), kSummary);
  g_option_context_set_description(context.get(), kDescription);
  g_option_context_add_main_entries(context.get(), entries, nullptr);

  g_autoptr(GError) error = nullptr;
  if (!g_option_context_parse(context.get(), &argc, &argv, &error)) {
    exit_code = usage_error(error->message);
    return {};
  }
  exit_code = 0;
  if (given.help) {
    g_autofree gchar *help = g_option_context_get_help(context.get(), TRUE, nullptr);
    std::fputs(help, stdout);
    return {};
  }
  if (given.version) {
    std::puts("plexa-box " PLEXA_BOX_VERSION);
    return {};
  }
  const std::string problem = check(given);
  if (problem.empty()) return options_of(given);
  exit_code = usage_error(problem);
  return {};
}

// As a descriptor, so that the signals wait their turn behind a connection that is being taken.
int ending_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

// A client takes up to four descriptors.
void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// The library cuts on a task of GStreamer's, which needs none of its plug-ins. Threads that begin
// in here are confined like the others only if that has been done before.
void start_gstreamer() {
  g_setenv("GST_REGISTRY_DISABLE", "yes", TRUE);
  gst_init(nullptr, nullptr);
}

void serve(const Options &options) {
  const int stop = ending_signals();
  const Root root(options.root);
  Server server(root, options.server);
  if (!confine(root.folder())) {
    std::fprintf(stderr,
                 "plexa-box: this kernel has no Landlock; the checks of paths stand alone\n");
  }
  start_gstreamer();
  std::printf("listening on %s\n", server.address().c_str());
  std::fflush(stdout);
  server.run(stop);
}

int run(int argc, char **argv) {
  int exit_code = 0;
  const std::optional<Options> options = parse(argc, argv, exit_code);
  if (!options) return exit_code;
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow further is reported like a full disk
  if (!options->server.verbose) plexa_host_set_log_level(PLEXA_HOST_LOG_LEVEL_OFF);
  raise_descriptor_limit();
  serve(*options);
  return 0;
}

}  // namespace
}  // namespace plexa::box

int main(int argc, char **argv) {
  g_set_prgname("plexa-box");
  try {
    return plexa::box::run(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "plexa-box: %s\n", error.what());
  }
  return plexa::box::kExitFailure;
}
