#pragma once

#include <functional>
#include <memory>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVObject.h"

namespace qv {

// Classes looked up by name at run time. Each entry answers the class's single
// instance; the core asks it for a module's class by the module's name.
class QV_EXPORT QVClassRegistry {
 public:
  using InstanceFactory = std::function<std::shared_ptr<QVObject>()>;

  static QVClassRegistry& shared();

  // Registers (or replaces) the class called name.
  void registerClass(const std::string& name, InstanceFactory sharedInstance);

  // The single instance of the class called exactly name, or null when no
  // such class is registered.
  std::shared_ptr<QVObject> sharedInstanceOfClass(const std::string& name) const;

 private:
  struct Impl;

  QVClassRegistry();
  ~QVClassRegistry();

  const std::unique_ptr<Impl> impl_;
};

namespace detail {
struct QV_EXPORT QVClassRegistration {
  QVClassRegistration(const char* name, QVClassRegistry::InstanceFactory sharedInstance);
};
}  // namespace detail

}  // namespace qv

// Makes Class known by its name. Class needs a static sharedInstance()
// returning a std::shared_ptr to its single instance.
#define QV_REGISTER_MODULE(Class)                                                            \
  static const ::qv::detail::QVClassRegistration qvClassRegistration_##Class {               \
#Class, [] { return std::static_pointer_cast<::qv::QVObject>(Class::sharedInstance()); } \
  }
