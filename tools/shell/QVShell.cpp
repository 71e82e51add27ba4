#include "QVShell.h"

#include <charconv>
#include <chrono>
#include <istream>
#include <ostream>
#include <set>

#include "QVShellModule.h"
#include "qvcore/core/QVApplicationHelper.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVApplicationContextMessage.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv::shell {
namespace {

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

std::string boolText(bool b) { return b ? "true" : "false"; }

// Checks the number of positional arguments and the option names.
void expectArguments(const QVShellLine& line, size_t minCount, size_t maxCount,
                     const std::set<std::string>& allowed = {}) {
  const size_t count = line.positional().size();
  if (count < minCount) throw QVShellError(line.command() + ": missing argument");
  if (count > maxCount) throw QVShellError(line.command() + ": too many arguments");
  for (const auto& o : line.options()) {
    if (!allowed.count(o.key)) throw QVShellError(line.command() + ": unknown option " + o.key);
  }
}

template <typename T>
T parseNumber(const std::string& text, const std::string& what) {
  T value{};
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) throw QVShellError(what + ": not a number: " + text);
  return value;
}

QVValue parseJson(const std::string& text, const std::string& what) {
  QVValue value = QVValue::parse(text, nullptr, false);
  if (value.is_discarded()) throw QVShellError(what + ": not valid JSON: " + text);
  return value;
}

template <typename T>
std::optional<T> numberOption(const QVShellLine& line, const std::string& key) {
  auto text = line.option(key);
  if (!text) return std::nullopt;
  return parseNumber<T>(*text, key);
}

std::string requiredOption(const QVShellLine& line, const std::string& key) {
  auto value = line.option(key);
  if (!value) throw QVShellError(line.command() + ": missing option " + key + "=");
  return *value;
}

std::optional<std::string> sessionOption(const QVShellLine& line) { return line.option("session"); }

}  // namespace

QVShell::QVShell() {
  addCoreCommands();
  addMessageCommands();
  addConfigCommands();
  addMiscCommands();
}

void QVShell::addCommand(const std::string& name, Handler handler) {
  commands_[name] = std::move(handler);
}

void QVShell::addConfigCommands() {
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

void QVShell::addCoreCommands() {
  addCommand("module", [](const QVShellLine& line) {
    expectArguments(line, 2, 2);
    QVShellModule::define(line.positional()[0].value, line.positional()[1].value);
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
    if (auto level = numberOption<int32_t>(line, "level")) message->setLogLevel(*level);
    if (auto offset = numberOption<uint64_t>(line, "offset")) message->setOffset(*offset);
    return boolText(QVCore::sharedInstance()->postMessageForModuleNameWithSessionID(
        message, line.positional()[0].value, sessionOption(line)));
  });
  addCommand("post-context", [](const QVShellLine& line) {
    expectArguments(line, 1, 1,
                    {"type", "name", "referrer", "klass", "referrer-klass", "session", "level"});
    auto message = QVApplicationContextMessage::initWithTypeNameReferrerKlassNameReferrerKlassName(
        parseNumber<int64_t>(requiredOption(line, "type"), "type"), requiredOption(line, "name"),
        requiredOption(line, "referrer"), line.option("klass").value_or(""),
        line.option("referrer-klass").value_or(""));
    if (auto level = numberOption<int32_t>(line, "level")) message->setLogLevel(*level);
    return boolText(QVCore::sharedInstance()->postMessageForModuleNameWithSessionID(
        message, line.positional()[0].value, sessionOption(line)));
  });
  addCommand("flush", [](const QVShellLine& line) {
    expectArguments(line, 0, 0);
    QVCore::sharedInstance()->flushQueues();
    return std::string("ok");
  });
}

void QVShell::addMiscCommands() {
  addCommand("run", [](const QVShellLine& line) {
    expectArguments(line, 1, 1);
    const double seconds = parseNumber<double>(line.positional()[0].value, "run");
    if (seconds < 0) throw QVShellError("run: negative time");
    QVRunLoop::main().runFor(std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(seconds)));
    return std::string("ok");
  });
  addCommand("echo", [](const QVShellLine& line) {
    std::string text;
    for (const auto& arg : line.positional()) text += (text.empty() ? "" : " ") + arg.value;
    return text;
  });
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

std::string QVShell::usage() {
  return R"(usage: qvcore-shell [SCRIPT]
Runs a script (the file SCRIPT, or standard input), one command a line. Blank
lines and lines starting with # are skipped. Arguments are separated by blanks;
options are key=value; double quotes keep blanks in a text; a JSON argument
runs to the end of the line. Each command prints one line: true or false, a
value, or ok. A failed command prints "error: ..." on standard error; the exit
status is 1 when any command failed.

Commands:
  bundles DIR                 add a folder to the bundle search path
  main-bundle DIR             the host application's bundle (with Info.plist)
  module NAME BUNDLE_DIR      define a module class NAME with its settings bundle
  enable | disable            start or stop the core
  sleep-system | wake-system  stop or restart the core services and modules
  enable-module NAME          start a module and register it
  disable-module NAME         stop a module
  post MODULE [session=ID] [level=N] [offset=N] [fields=JSON]
                              post a message {"offset": N} plus the fields
  post-context MODULE type=N name=TEXT referrer=TEXT [klass=TEXT]
               [referrer-klass=TEXT] [session=ID] [level=N]
                              post an application-context message
  flush                       ask for a flush of every queue
  config get MODULE KEY       a configuration item as JSON, or none
  config set MODULE KEY JSON  set an item as a module does
  config update MODULE JSON   merge items into a module's configuration
  config reload MODULE        read a module's files again
  run SECONDS                 run the main run loop that long
  session-id                  the core's session identifier
  echo TEXT                   print TEXT
  help                        list the commands
)";
}

}  // namespace qv::shell
