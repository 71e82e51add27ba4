#include "QVLogToolOptions.h"

#include <cstdlib>
#include <string_view>

namespace qv {

namespace {

std::optional<uint16_t> portFrom(const std::string& text) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const long value = std::strtol(text.c_str(), nullptr, 10);
  if (value > 65535) return std::nullopt;
  return static_cast<uint16_t>(value);
}

}  // namespace

std::optional<QVLogToolOptions> QVLogToolOptions::parse(int argc, char** argv, std::string& error) {
  QVLogToolOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const bool hasValue = i + 1 < argc;
    if (argument == "--help" || argument == "-h") {
      options.help = true;
    } else if (argument == "--port" || argument == "-p") {
      const auto port = hasValue ? portFrom(argv[++i]) : std::nullopt;
      if (!port) {
        error = "--port needs a number from 0 to 65535";
        return std::nullopt;
      }
      options.port = *port;
    } else if (argument == "--idle-timeout") {
      const auto seconds = hasValue ? portFrom(argv[++i]) : std::nullopt;
      if (!seconds || *seconds == 0) {
        error = "--idle-timeout needs a number of seconds from 1 to 65535";
        return std::nullopt;
      }
      options.idleTimeoutSeconds = *seconds;
    } else if (argument == "--name" || argument == "-n") {
      if (!hasValue || std::string_view(argv[i + 1]).empty()) {
        error = "--name needs a service name";
        return std::nullopt;
      }
      options.name = argv[++i];
    } else {
      error = "unknown option " + std::string(argument);
      return std::nullopt;
    }
  }
  return options;
}

std::string QVLogToolOptions::usage(const std::string& program) {
  return "Usage: " + program +
         " [--port N] [--name NAME] [--idle-timeout S]\n"
         "\n"
         "Receives the text that applications built with QVCore post through the\n"
         "developer log relay (VintraZANLogClient, or postToZANVintraSDKTool on\n"
         "VintraExtensions) and prints it to standard output as it arrives.\n"
         "\n"
         "How to use it:\n"
         "  1. Start this tool on a machine on the same local network as the\n"
         "     device or desktop that runs the application. It announces the\n"
         "     DNS-SD service \"_brevantlogservice._tcp.\" in \"local.\" through the\n"
         "     Avahi daemon, which must be running (with D-Bus).\n"
         "  2. Run the application. On its first post the relay looks for the\n"
         "     service, connects to the first instance it finds, and from then\n"
         "     on sends every text 7 seconds after it was posted.\n"
         "  3. The texts appear here. Each run of an application begins with a\n"
         "     header line, ZAN_SDK_START_NEW_RUN_FOR_APP <app name> <time>,\n"
         "     which this tool sets off with a separator line.\n"
         "Several applications may be connected at once. Stop with Ctrl-C.\n"
         "Status lines (port, announcement, connections) go to standard error.\n"
         "\n"
         "Options:\n"
         "  -p, --port N     listen on TCP port N (default: a free port the system\n"
         "                   picks; the port is announced either way)\n"
         "  -n, --name NAME  the service instance name to announce (default:\n"
         "                   \"qvcore-logtool on <host name>\"); Avahi picks another\n"
         "                   if the name is taken on the network\n"
         "  --idle-timeout S close a connection that sent nothing for S seconds\n"
         "                   (default 1800)\n"
         "  -h, --help       show this text\n"
         "\n"
         "What peers send is printed with control characters escaped (\\xNN), and\n"
         "each separator names the peer (address:port) whose header it stands\n"
         "for; a peer's line that looks like a separator is prefixed with\n"
         "[from ADDRESS:PORT].\n";
}

}  // namespace qv
