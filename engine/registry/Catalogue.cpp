#include "registry/Catalogue.h"

#include <algorithm>

#include "text/Utf8.h"

namespace armengine {

TransactionClass* Catalogue::findClass(int32_t application, std::string_view name,
                                       std::string_view block) {
  const auto found = class_index_.find(KeyView(application, name, block));
  return found != class_index_.end() ? classes_.find(found->second) : nullptr;
}

Application& Catalogue::addApplication(int32_t id, std::string_view name, std::string_view user) {
  const auto info = std::make_shared<ApplicationInfo>();
  info->id = id;
  info->name = armtext::validUtf8(name);
  info->user = armtext::validUtf8(user);
  if (info->name != name) info->raw = name;
  Application& application = applications_.add(id);
  application.info = info;
  return application;
}

TransactionClass& Catalogue::addClass(int32_t id, const Application& application,
                                      std::string_view name, std::string_view block,
                                      std::string_view detail) {
  const auto info = std::make_shared<ClassInfo>();
  info->id = id;
  info->application = application.info;
  info->name = armtext::validUtf8(name);
  info->detail = armtext::validUtf8(detail);
  if (info->name != name) info->raw = name;
  if (block.size() >= ARM_FORMAT101_SIZE) {
    uint8_t bytes[ARM_FORMAT101_SIZE];
    std::copy_n(block.begin(), sizeof bytes, bytes);
    info->metrics = readDescriptions(bytes);
  }
  class_index_.emplace(KeyView(application.info->id, name, block), id);
  TransactionClass& of = classes_.add(id);
  of.metrics = MetricBinding(info->metrics);
  of.application = application.info->id;
  of.info = info;
  return of;
}

void Catalogue::remove(int32_t application) {
  const auto first = class_index_.lower_bound(KeyView(application, {}, {}));
  auto last = first;
  for (; last != class_index_.end() && std::get<0>(last->first) == application; ++last) {
    classes_.remove(last->second);
  }
  class_index_.erase(first, last);
  applications_.remove(application);
}

}  // namespace armengine
