#include "QVShellModule.h"

#include <exception>

#include "qvcore/core/QVAppTerminationObserver.h"
#include "qvcore/core/QVConfigurationSaver.h"
#include "qvcore/core/QVHttpHeadersProvider.h"
#include "qvcore/core/QVUncaughtExceptionHandler.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVLog.h"

namespace qv::shell {
namespace {

// Each facet adds one optional operation to a module class; isWanted says
// whether the script asked for it.

class QVHeadersFacet : public QVHttpHeadersProvider {
 public:
  explicit QVHeadersFacet(const QVShellModuleOptions& options)
      : headers_(options.headers.value_or(QVValue::object())) {}
  static bool isWanted(const QVShellModuleOptions& options) { return options.headers.has_value(); }
  QVValue httpHeadersForSessionIdAndJson(const std::string&, const std::string&) override {
    return headers_;
  }

 private:
  const QVValue headers_;
};

class QVSaverFacet : public QVConfigurationSaver {
 public:
  explicit QVSaverFacet(const QVShellModuleOptions&) {}
  static bool isWanted(const QVShellModuleOptions& options) { return options.savesConfig; }
  // The configuration service already holds the items for this process, and
  // a script's module has nowhere else to keep them.
  bool saveCurrentConfigurableItems(const QVValue&) override { return true; }
};

// The two hooks below log a line, since they run when no command is there to
// print an answer: while the process dies, or inside a lifecycle event.

class QVExceptionFacet : public QVUncaughtExceptionHandler {
 public:
  explicit QVExceptionFacet(const QVShellModuleOptions& options) : name_(options.name) {}
  static bool isWanted(const QVShellModuleOptions& options) { return options.handlesExceptions; }
  void handleUncaughtException(std::exception_ptr exception) override {
    QVLog::log(name_ + ": uncaught exception: " + describe(exception));
  }

 private:
  static std::string describe(const std::exception_ptr& exception) {
    try {
      std::rethrow_exception(exception);
    } catch (const std::exception& e) {
      return e.what();
    } catch (...) {
      return "(not a std::exception)";
    }
  }

  const std::string name_;
};

class QVTerminationFacet : public QVAppTerminationObserver {
 public:
  explicit QVTerminationFacet(const QVShellModuleOptions& options) : name_(options.name) {}
  static bool isWanted(const QVShellModuleOptions& options) { return options.observesTermination; }
  void brvAppWillTerminate() override { QVLog::log(name_ + ": application will terminate"); }

 private:
  const std::string name_;
};

template <typename... Facets>
class QVShellModuleWith final : public QVShellModule, public Facets... {
 public:
  explicit QVShellModuleWith(const QVShellModuleOptions& options)
      : QVShellModule(options), Facets(options)... {}
};

// Walks the candidate facets in order, keeping those wanted, and makes the
// class of exactly the facets kept: one class per combination, chosen at run
// time, each instantiated at compile time.
template <typename... Chosen>
struct QVFacetPicker {
  template <typename... Candidates>
  static std::shared_ptr<QVShellModule> make(const QVShellModuleOptions& options) {
    if constexpr (sizeof...(Candidates) == 0) {
      return std::make_shared<QVShellModuleWith<Chosen...>>(options);
    } else {
      return pick<Candidates...>(options);
    }
  }

  template <typename Candidate, typename... Rest>
  static std::shared_ptr<QVShellModule> pick(const QVShellModuleOptions& options) {
    if (Candidate::isWanted(options)) {
      return QVFacetPicker<Chosen..., Candidate>::template make<Rest...>(options);
    }
    return QVFacetPicker<Chosen...>::template make<Rest...>(options);
  }
};

}  // namespace

std::shared_ptr<QVShellModule> QVShellModule::define(const QVShellModuleOptions& options) {
  std::shared_ptr<QVShellModule> module =
      QVFacetPicker<>::make<QVHeadersFacet, QVSaverFacet, QVExceptionFacet, QVTerminationFacet>(
          options);
  QVClassRegistry::shared().registerClass(options.name, [module] { return module; });
  return module;
}

bool QVShellModule::enable() {
  enabled_ = true;
  return true;
}

bool QVShellModule::disable() {
  enabled_ = false;
  return true;
}

}  // namespace qv::shell
