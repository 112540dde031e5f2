#include "director/sysextstartable.h"

#include "log/log.h"

LUMO_LOG_MODULE("MAC_ESCLIENT")

namespace endpointsecurity {

bool ISysextDirector::pushBackManagable(ISysExtManagable* component) {
  LOG_TRACE_SCOPE();
  if (component == nullptr) {
    LOG_ERROR("Argument is null\n");
    return false;
  }
  components_.push_back(component);
  return true;
}

bool ISysextDirector::init() {
  LOG_TRACE_SCOPE();
  for (ISysExtManagable* component : components_) {
    if (!component->init()) {
      LOG_ERROR("failed to init %{public}s\n", component->getName().c_str());
      return false;
    }
    LOG_INFO("Succeeded to init %{public}s\n", component->getName().c_str());
  }
  return true;
}

void ISysextDirector::uninit() {
  LOG_TRACE_SCOPE();
  for (ISysExtManagable* component : components_) component->uninit();
}

void ISysextDirector::stop() {
  LOG_TRACE_SCOPE();
  for (ISysExtManagable* component : components_) component->stop();
}

bool ISysextDirector::switchMode(const flag_set<CLIENT_OBSERVER_TAGS>& clients,
                                 const flag_set<CLIENT_OBSERVER_TAGS>& observers, bool mode) {
  LOG_TRACE_SCOPE();
  for (ISysExtManagable* component : components_) {
    if (!component->tags().intersects(clients)) continue;
    if (component->switchMode(observers, mode)) {
      LOG_INFO("Switched client %{public}s to mode %{bool}d\n", component->getName().c_str(), mode);
    } else {
      LOG_WARN("Failed to switch client %{public}s to mode %{bool}d\n",
               component->getName().c_str(), mode);
    }
  }
  for (ISysExtManagable* component : components_) {
    LOG_TRACE("Working on observer %{public}s\n", component->getName().c_str());
    if (!component->tags().intersects(observers)) continue;
    if (mode) {
      LOG_TRACE("Going to activate observer %{public}s\n", component->getName().c_str());
      component->activate();
    } else {
      LOG_TRACE("Going to de-activate observer %{public}s\n", component->getName().c_str());
      component->deactivate();
    }
  }
  return true;
}

}  // namespace endpointsecurity
