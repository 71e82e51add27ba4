#include "QVShell.h"

#include <chrono>
#include <istream>
#include <ostream>
#include <stdexcept>

#include "QVShellAddressSource.h"
#include "QVShellArguments.h"
#include "QVShellBulkPost.h"
#include "QVShellModule.h"
#include "qvcore/core/QVApplicationHelper.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/logrelay/VintraExtensions.h"
#include "qvcore/model/QVApplicationContextMessage.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "qvcore/platform/QVInterfaceAddressSource.h"
#include "qvcore/platform/QVReachabilityFlags.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVQueueService.h"

namespace qv::shell {
namespace {

constexpr unsigned kMostPostingThreads = 256;

// A message whose JSON is the base message's plus fields from the script.
class QVShellMessage : public QVMessage {
 public:
  explicit QVShellMessage(QVValue fields) : fields_(std::move(fields)) {}
  QVValue jsonDictionary() const override {
    QVValue dict = QVMessage::jsonDictionary();
    QVValues::addEntriesFromDictionary(dict, fields_);
    return dict;
  }

 private:
  QVValue fields_;
};

// A message's level is 0 until set, and the posting gate never lets 0 pass;
// a script that names no level means the lowest one that can be posted.
constexpr int32_t kDefaultLevel = 1;

bool post(std::shared_ptr<QVMessage> message, const QVShellLine& line) {
  message->setLogLevel(numberOption<int32_t>(line, "level").value_or(kDefaultLevel));
  return QVCore::sharedInstance()->postMessageForModuleNameWithSessionID(
      std::move(message), line.positional()[0].value, line.option("session"));
}

QVShellModuleOptions moduleOptions(const QVShellLine& line) {
  QVShellModuleOptions options;
  options.name = line.positional()[0].value;
  options.bundlePath = line.positional()[1].value;
  if (auto headers = line.option("headers")) {
    options.headers = parseJson(*headers, "headers");
    if (!options.headers->is_object()) throw QVShellError("module: headers must be a JSON object");
  }
  options.savesConfig = boolOption(line, "saves-config");
  options.handlesExceptions = boolOption(line, "handles-exceptions");
  options.observesTermination = boolOption(line, "terminate-hook");
  return options;
}

std::chrono::nanoseconds duration(double seconds) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(seconds));
}

// An exception that nothing catches: it meets a noexcept frame, so the
// runtime calls std::terminate with the exception current, as it does for
// any uncaught exception on this thread.
[[noreturn]] void throwError(const std::string& what) { throw std::runtime_error(what); }
[[noreturn]] void crashWithUncaughtException(const std::string& what) noexcept { throwError(what); }

}  // namespace

QVShell::QVShell()
    : network_(std::make_shared<QVHostReachabilitySource>()),
      addresses_(std::make_shared<QVShellAddressSource>()) {
  network_->setFlags(kQVReachabilityFlagsReachable);
  QVReachabilitySource::setShared(network_);
  QVInterfaceAddressSource::setShared(addresses_);
  flushCyclesSeen_ = QVQueueService::sharedInstance()->completedFlushCycles();
  addCoreCommands();
  addMessageCommands();
  addFlushCommands();
  addConfigCommands();
  addPlatformCommands();
  addMiscCommands();
}

QVShell::~QVShell() = default;

void QVShell::addCommand(const std::string& name, Handler handler) {
  commands_[name] = std::move(handler);
}

void QVShell::addCoreCommands() {
  addCommand("module", [](const QVShellLine& line) {
    expectArguments(line, 2, 2,
                    {"headers", "saves-config", "handles-exceptions", "terminate-hook"});
    QVShellModule::define(moduleOptions(line));
    return std::string("ok");
  });
  addCommand("enable", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    return boolText(QVCore::sharedInstance()->enable());
  });
  addCommand("disable", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    return boolText(QVCore::sharedInstance()->disable());
  });
  addCommand("sleep-system", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    return boolText(QVCore::sharedInstance()->sleepSystem());
  });
  addCommand("wake-system", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    return boolText(QVCore::sharedInstance()->wakeSystem());
  });
  addCommand("enable-module", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    return boolText(QVCore::sharedInstance()->enableModule(line.positional()[0].value));
  });
  addCommand("disable-module", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    return boolText(QVCore::sharedInstance()->disableModule(line.positional()[0].value));
  });
  addCommand("session-id", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    return QVCore::sharedInstance()->currentSessionID();
  });
}

void QVShell::addMessageCommands() {
  addCommand("post", [](const QVShellLine& line) {
    expectArguments(line, 1, 1, {"session", "level", "offset", "fields"});
    QVValue fields = QVValue::object();
    if (auto text = line.option("fields")) fields = parseJson(*text, "fields");
    if (!fields.is_object()) throw QVShellError("post: fields must be a JSON object");
    auto message = std::make_shared<QVShellMessage>(std::move(fields));
    if (auto offset = numberOption<uint64_t>(line, "offset")) message->setOffset(*offset);
    return boolText(post(message, line));
  });
  addCommand("post-many", [this](const QVShellLine& line) {
    expectArguments(line, 2, 2, {"threads", "session", "level", "fields", "progress"});
    QVValue fields = QVValue::object();
    if (auto text = line.option("fields")) fields = parseJson(*text, "fields");
    if (!fields.is_object()) throw QVShellError("post-many: fields must be a JSON object");
    const auto count = parseNumber<uint64_t>(line.positional()[1].value, "count");
    const auto threads = numberOption<unsigned>(line, "threads").value_or(1);
    // Each thread is a real one: far past the cores, more only costs memory
    // and, in the tens of thousands, ends the process when none can be made.
    if (threads < 1 || threads > kMostPostingThreads) {
      throw QVShellError("post-many: threads must be 1 to " + std::to_string(kMostPostingThreads));
    }
    auto postOne = [&](uint64_t index) {
      QVValue messageFields = fields;
      messageFields["n"] = index;
      auto message = std::make_shared<QVShellMessage>(std::move(messageFields));
      message->setOffset(index);
      return post(message, line);
    };
    std::ostream* progress = boolOption(line, "progress") ? err_ : nullptr;
    return std::to_string(QVShellBulkPost::run(count, threads, postOne, progress));
  });
  addCommand("post-context", [](const QVShellLine& line) {
    expectArguments(line, 1, 1,
                    {"type", "name", "referrer", "klass", "referrer-klass", "session", "level"});
    auto message = QVApplicationContextMessage::initWithTypeNameReferrerKlassNameReferrerKlassName(
        parseNumber<int64_t>(requiredOption(line, "type"), "type"), requiredOption(line, "name"),
        requiredOption(line, "referrer"), line.option("klass").value_or(""),
        line.option("referrer-klass").value_or(""));
    return boolText(post(message, line));
  });
}

void QVShell::addFlushCommands() {
  addCommand("flush", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    QVCore::sharedInstance()->flushQueues();
    return std::string("ok");
  });
  addCommand("wait-flush", [this](const QVShellLine& line) {
    expectArguments(line, 0, 1);
    const double seconds =
        line.positional().empty() ? 10.0 : parseSeconds(line.positional()[0].value, "wait-flush");
    return waitForFlush(seconds);
  });
  addCommand("ledger", [](const QVShellLine& line) {
    expectArguments(line, 0, 1);
    const auto core = QVCore::sharedInstance();
    if (line.positional().empty()) return core->ledgerSnapshot().toJson();
    QVLedgerSnapshot one;
    const std::string& name = line.positional()[0].value;
    one.modules[name] = core->ledgerSnapshotForModuleName(name).value_or(QVLedgerCounts{});
    return one.toJson();
  });
  addCommand("run", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    QVRunLoop::main().runFor(duration(parseSeconds(line.positional()[0].value, "run")));
    return std::string("ok");
  });
}

// The queue service counts the cycles that end with QVCore flushCompleted;
// reading that count observes the flushes without changing what the library
// does. The main loop is pumped meanwhile, as HTTP outcomes and lifecycle
// tasks land there.
std::string QVShell::waitForFlush(double seconds) {
  const auto service = QVQueueService::sharedInstance();
  const uint64_t seen = flushCyclesSeen_;
  const bool arrived = QVRunLoop::main().runUntil(
      [&] { return service->completedFlushCycles() > seen; }, duration(seconds));
  flushCyclesSeen_ = service->completedFlushCycles();
  return boolText(arrived);
}

void QVShell::addConfigCommands() {
  addCommand("home", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    QVFileSystem::setHomeDirectory(line.positional()[0].value);
    return std::string("ok");
  });
  addCommand("bundles", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    QVBundle::addSearchPath(line.positional()[0].value);
    return std::string("ok");
  });
  addCommand("main-bundle", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    QVBundle::setMainBundlePath(line.positional()[0].value);
    return std::string("ok");
  });
  addCommand("config", [](const QVShellLine& line) {
    expectArguments(line, 2, 4);
    const std::string& action = line.positional()[0].value;
    const std::string& module = line.positional()[1].value;
    const size_t count = line.positional().size();
    auto core = QVCore::sharedInstance();
    if (action == "get" && count == 3) {
      auto item = core->getConfigItemForModuleName(line.positional()[2].value, module);
      return item ? item->dump() : std::string("none");
    }
    if (action == "set" && count == 4) {
      return boolText(QVApplicationHelper::sharedInstance()->setConfigItemValueForModuleName(
          line.positional()[2].value, parseJson(line.restOfLine(3), "config set"), module));
    }
    if (action == "update" && count == 3) {
      return boolText(core->updateConfigForModuleNameWithData(
          module, parseJson(line.restOfLine(2), "config update")));
    }
    if (action == "reload" && count == 2) return boolText(core->reloadConfigForModuleName(module));
    throw QVShellError(
        "config: expected get MODULE KEY, set MODULE KEY JSON, update MODULE JSON "
        "or reload MODULE");
  });
}

void QVShell::addMiscCommands() {
  // The texts of "log" and "crash" are free: a word with "=" is part of them.
  addCommand("log", [](const QVShellLine& line) {
    const std::string text = wordsInOrder(line);
    if (text.empty()) throw QVShellError("log: missing text");
    // The relay streams text as it is; a script's line is a line for the tool.
    VintraExtensions::postToZANVintraSDKTool(text + "\n");
    return std::string("ok");
  });
  addCommand("crash", [](const QVShellLine& line) -> std::string {
    const std::string what = wordsInOrder(line);
    crashWithUncaughtException(what.empty() ? "qvcore-shell crash" : what);
  });
  addCommand("echo", [](const QVShellLine& line) { return wordsInOrder(line); });
  addCommand("help", [this](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    std::string names;
    for (const auto& entry : commands_) names += (names.empty() ? "" : " ") + entry.first;
    return "commands: " + names + " (qvcore-shell --help explains each)";
  });
}

bool QVShell::runLine(const std::string& text, std::ostream& out, std::ostream& err) {
  std::string error;
  auto line = QVShellLine::parse(text, &error);
  if (!line) {
    err << "error: " << error << "\n";
    return false;
  }
  if (line->empty()) return true;
  auto it = commands_.find(line->command());
  if (it == commands_.end()) {
    err << "error: unknown command " << line->command() << "\n";
    return false;
  }
  try {
    err_ = &err;
    const std::string result = it->second(*line);
    out << result << "\n" << std::flush;
    return true;
  } catch (const std::exception& e) {
    err << "error: " << e.what() << "\n";
    return false;
  }
}

int QVShell::runScript(std::istream& in, std::ostream& out, std::ostream& err) {
  bool failed = false;
  std::string text;
  while (std::getline(in, text)) {
    if (!runLine(text, out, err)) failed = true;
  }
  return failed ? 1 : 0;
}

}  // namespace qv::shell
