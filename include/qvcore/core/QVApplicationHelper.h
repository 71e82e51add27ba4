#pragma once

#include <memory>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The front through which modules read and change configuration by module
// name. Every reader first checks that the core is enabled; while it is
// not, readers answer their defaults and updates are not kept here (see
// setConfigItemValueForModuleName for the one exception).
class QV_EXPORT QVApplicationHelper {
 public:
  static std::shared_ptr<QVApplicationHelper> sharedInstance();

  // Whether the core is enabled.
  bool configurationCheck() const;

  // QVCore::updateConfigForModuleNameWithData while the core is enabled;
  // otherwise false, keeping nothing.
  bool updateConfigWithDataForModuleName(const QVValue& items, const std::string& name);

  std::optional<QVValue> getConfigItemForModuleName(const std::string& key,
                                                    const std::string& name);
  bool getBOOLconfigItemForKeyWithDefaultForModuleName(const std::string& key, bool defaultValue,
                                                       const std::string& name);
  // While the core is enabled these two answer the item when it has the
  // right type and none otherwise, never the default; the default is the
  // answer only while the core is not enabled.
  std::optional<std::string> getStringItemForKeyWithDefaultForModuleName(
      const std::string& key, const std::optional<std::string>& defaultValue,
      const std::string& name);
  std::optional<QVValue> getNumberItemForKeyWithDefaultForModuleName(
      const std::string& key, const std::optional<QVValue>& defaultValue, const std::string& name);

  // Hands the item to QVCore::updateConfigForModuleNameWithData whether or
  // not the core is enabled: before it is, the item waits in the core's
  // pending items (and the answer is false) until the module is loaded.
  // False when value is none.
  bool setConfigItemValueForModuleName(const std::string& key, const std::optional<QVValue>& value,
                                       const std::string& name);
};

}  // namespace qv
