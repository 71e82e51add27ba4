#include "qvcore/core/QVApplicationHelper.h"

#include "qvcore/core/QVCore.h"

namespace qv {

std::shared_ptr<QVApplicationHelper> QVApplicationHelper::sharedInstance() {
  // Never destroyed, like the core it fronts.
  static auto* instance = new std::shared_ptr<QVApplicationHelper>(new QVApplicationHelper);
  return *instance;
}

bool QVApplicationHelper::configurationCheck() const {
  return QVCore::sharedInstance()->isEnabled();
}

bool QVApplicationHelper::updateConfigWithDataForModuleName(const QVValue& items,
                                                            const std::string& name) {
  if (!configurationCheck()) return false;
  return QVCore::sharedInstance()->updateConfigForModuleNameWithData(name, items);
}

std::optional<QVValue> QVApplicationHelper::getConfigItemForModuleName(const std::string& key,
                                                                       const std::string& name) {
  if (!configurationCheck()) return std::nullopt;
  return QVCore::sharedInstance()->getConfigItemForModuleName(key, name);
}

bool QVApplicationHelper::getBOOLconfigItemForKeyWithDefaultForModuleName(const std::string& key,
                                                                          bool defaultValue,
                                                                          const std::string& name) {
  if (!configurationCheck()) return defaultValue;
  return QVCore::sharedInstance()->getConfigItemAsBoolWithDefaultForModuleName(key, defaultValue,
                                                                               name);
}

// The default stands only for a core that is not enabled; an enabled core's
// missing or mistyped item comes back as none. Modules rely on telling the
// two apart, so this is deliberate.
std::optional<std::string> QVApplicationHelper::getStringItemForKeyWithDefaultForModuleName(
    const std::string& key, const std::optional<std::string>& defaultValue,
    const std::string& name) {
  if (!configurationCheck()) return defaultValue;
  std::optional<QVValue> item =
      QVCore::sharedInstance()->getConfigItemAsStringForModuleName(key, name);
  if (!item || !item->is_string()) return std::nullopt;
  return item->get<std::string>();
}

// As the string reader: no default while the core is enabled, on purpose.
std::optional<QVValue> QVApplicationHelper::getNumberItemForKeyWithDefaultForModuleName(
    const std::string& key, const std::optional<QVValue>& defaultValue, const std::string& name) {
  if (!configurationCheck()) return defaultValue;
  return QVCore::sharedInstance()->getConfigItemAsNumberForModuleName(key, name);
}

// Neither checks the core nor takes the persisting path: before the core is
// enabled the item is queued as pending, which is how modules configure
// themselves early.
bool QVApplicationHelper::setConfigItemValueForModuleName(const std::string& key,
                                                          const std::optional<QVValue>& value,
                                                          const std::string& name) {
  if (!value) return false;
  QVValue items = QVValue::object();
  items[key] = *value;
  return QVCore::sharedInstance()->updateConfigForModuleNameWithData(name, items);
}

}  // namespace qv
