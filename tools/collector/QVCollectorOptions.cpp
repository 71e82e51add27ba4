#include "QVCollectorOptions.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace qv::collector {

namespace {

std::optional<int64_t> numberIn(const char* text, int64_t low, int64_t high) {
  if (!text) return std::nullopt;
  const std::string_view view(text);
  int64_t value = 0;
  const auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (view.empty() || error != std::errc() || end != view.data() + view.size()) return std::nullopt;
  if (value < low || value > high) return std::nullopt;
  return value;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

std::optional<QVCollectorOptions> QVCollectorOptions::parse(int argc, char** argv,
                                                            std::string& error) {
  QVCollectorOptions options;
  int first = 1;
  if (argc > 1 && std::string_view(argv[1]) == "dump") {
    options.command = Command::kDump;
    first = 2;
  }
  for (int i = first; i < argc; ++i) {
    bool usedValue = false;
    if (!options.parseOption(argv[i], i + 1 < argc ? argv[i + 1] : nullptr, usedValue, error)) {
      return std::nullopt;
    }
    if (usedValue) ++i;
  }
  return options;
}

bool QVCollectorOptions::parseOption(const std::string& option, const char* value, bool& usedValue,
                                     std::string& error) {
  const bool serving = command == Command::kServe;
  const auto number = [&](int64_t low, int64_t high) {
    usedValue = true;
    const auto parsed = numberIn(value, low, high);
    if (!parsed) {
      error =
          option + " needs a number from " + std::to_string(low) + " to " + std::to_string(high);
    }
    return parsed;
  };
  if (option == "--help" || option == "-h") {
    help = true;
  } else if (option == "--db") {
    usedValue = true;
    if (!value || !*value) error = "--db needs a file name";
    database = value ? value : "";
  } else if (serving && option == "--port") {
    if (const auto parsed = number(0, 65535)) port = static_cast<uint16_t>(*parsed);
  } else if (serving && option == "--status") {
    if (const auto parsed = number(200, 599)) status = static_cast<int>(*parsed);
  } else if (serving && option == "--fail-first") {
    if (const auto parsed = number(0, INT64_MAX)) failFirst = *parsed;
  } else if (serving && option == "--delay") {
    if (const auto parsed = number(0, 600000)) delayMs = *parsed;
  } else if (serving && option == "--max-body") {
    if (const auto parsed = number(1, INT64_MAX)) limits.maxBodyBytes = *parsed;
  } else if (serving && option == "--max-inflated") {
    if (const auto parsed = number(1, INT64_MAX)) limits.maxInflatedBytes = *parsed;
  } else if (serving && option == "--timeout") {
    if (const auto parsed = number(1, 3600)) limits.requestTimeoutSeconds = *parsed;
  } else if (serving && option == "--host-name") {
    usedValue = true;
    if (!value || !*value) error = "--host-name needs a name";
    if (value && *value) limits.hostNames.emplace_back(value);
  } else if (!serving && option == "--json") {
    json = true;
  } else if (!serving && option == "--summary") {
    summary = true;
  } else {
    error = "unknown option " + option;
  }
  return error.empty();
}

std::string QVCollectorOptions::defaultDatabase() {
  std::string folder = environment("QVCORE_HOME");
  if (folder.empty()) {
    const std::string data = environment("XDG_DATA_HOME");
    folder = !data.empty() ? data + "/qvcore-collector"
                           : environment("HOME") + "/.local/share/qvcore-collector";
  }
  return folder + "/collector.sqlite";
}

std::string QVCollectorOptions::usage(const std::string& program) {
  return "Usage: " + program +
         " [--port N] [--db FILE] [--status CODE] [--fail-first N] [--delay MS]\n"
         "       [--max-body BYTES] [--max-inflated BYTES] [--timeout S] [--host-name NAME]\n"
         "       " +
         program +
         " dump [--db FILE] [--json] [--summary]\n"
         "\n"
         "A collection server for development. It listens on 127.0.0.1, keeps\n"
         "every request that reaches it (any method, any path) in an SQLite file,\n"
         "decodes it (gzip or deflate bodies inflated, JSON read, the query of a\n"
         "URL-encoded GET read back into its dictionary), checks it against the\n"
         "payload format that QVCore posts, and prints one line per request.\n"
         "\n"
         "Point a module's \"PostMessageUrl\" at the printed address (any path).\n"
         "Open http://127.0.0.1:PORT/_qv/ to browse the requests; the page reads\n"
         "/_qv/api/requests (the list, newest first), /_qv/api/requests/ID (one\n"
         "request in full) and /_qv/api/summary. Requests under /_qv/ are not kept.\n"
         "\n"
         "Options:\n"
         "  --port N         listen on port N (default 0: a free port the system\n"
         "                   picks; the address is printed at start)\n"
         "  --db FILE        the SQLite file (default: collector.sqlite in\n"
         "                   $QVCORE_HOME, else $XDG_DATA_HOME/qvcore-collector, else\n"
         "                   ~/.local/share/qvcore-collector)\n"
         "  --status CODE    answer every request with CODE (200 to 599; default\n"
         "                   200). A 3xx is answered as it is, with no Location.\n"
         "  --fail-first N   answer 500 to the first N requests, then as usual\n"
         "  --delay MS       wait MS milliseconds before each answer\n"
         "  --max-body BYTES the largest body taken (default 67108864, 64 MiB);\n"
         "                   a larger one is answered 413 and not read\n"
         "  --max-inflated BYTES\n"
         "                   the largest size a gzip or deflate body may inflate\n"
         "                   to (default 67108864); past it the answer is 413\n"
         "  --timeout S      a request must arrive whole within S seconds (default\n"
         "                   10), and a connection idle for 2 seconds is closed\n"
         "  --host-name NAME also accept requests whose Host names NAME (by default\n"
         "                   only 127.0.0.1 and localhost with the port are; any\n"
         "                   other Host is answered 421)\n"
         "  -h, --help       show this text\n"
         "\n"
         "dump prints the stored requests, oldest first: a readable block each,\n"
         "or with --json a JSON array of them in full. With --summary it prints\n"
         "only the totals (requests, messages, bytes on the wire and after\n"
         "decoding) and, per module (the path it posts to), the requests and\n"
         "messages received and those answered 2xx; --summary --json prints them\n"
         "as /_qv/api/summary does.\n"
         "\n"
         "Answers: what --status and --fail-first say; 413 for a body past a\n"
         "limit; 400 for a request whose framing is ambiguous (Content-Length\n"
         "twice, not a number, or beside chunked); 421 for a Host that is not\n"
         "this collector; 403 for a write from a web page of another origin; 503\n"
         "when the request could not be stored (the client should send it again).\n"
         "Stop the server with Ctrl-C.\n";
}

}  // namespace qv::collector
